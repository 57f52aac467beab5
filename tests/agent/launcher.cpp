#include "tests/agent/launcher.h"

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

#include "lib/b64.h"

// Every user of the launcher talks to sockets; start the library before main runs.
static const bool net_started = [] {
  WSADATA wsa;
  return WSAStartup(MAKEWORD(2, 2), &wsa) == 0;
}();

// A TCP socket no agent inherits (agents start with inheritance on, and an inherited
// socket would outlive the test's own close) and the loopback address with port.
static SOCKET loopback_socket(unsigned port, sockaddr_in &a) {
  SOCKET s = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
  if (s != INVALID_SOCKET) SetHandleInformation(reinterpret_cast<HANDLE>(s), HANDLE_FLAG_INHERIT, 0);
  a = sockaddr_in{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  a.sin_port = htons(static_cast<u_short>(port));
  return s;
}

SOCKET listen_loopback(unsigned *port) {
  *port = 0;
  sockaddr_in a;
  SOCKET s = loopback_socket(0, a);
  if (s == INVALID_SOCKET) return s;
  int len = sizeof a;
  if (bind(s, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0 || listen(s, 10) != 0 ||
      getsockname(s, reinterpret_cast<sockaddr *>(&a), &len) != 0) {
    closesocket(s);
    return INVALID_SOCKET;
  }
  // The manager watches FD_ACCEPT and stops watching before the hand-over; the event
  // selection leaves the socket non-blocking, and so it reaches the agent.
  WSAEVENT ev = WSACreateEvent();
  WSAEventSelect(s, ev, FD_ACCEPT);
  WSAEventSelect(s, ev, 0);
  WSACloseEvent(ev);
  *port = ntohs(a.sin_port);
  return s;
}

unsigned free_port() {
  unsigned port = 0;
  SOCKET s = listen_loopback(&port);
  if (s != INVALID_SOCKET) closesocket(s);
  return port;
}

bool launch(const std::string &cmdline, launched *out) {
  *out = launched{};
  HANDLE rd = nullptr, inheritable = nullptr;
  if (!CreatePipe(&rd, &out->pipe, nullptr, 0)) return false;
  if (!DuplicateHandle(GetCurrentProcess(), rd, GetCurrentProcess(), &inheritable, 0, TRUE,
                       DUPLICATE_CLOSE_SOURCE | DUPLICATE_SAME_ACCESS)) {
    CloseHandle(rd);
    CloseHandle(out->pipe);
    out->pipe = nullptr;
    return false;
  }
  char tail[32];
  snprintf(tail, sizeof tail, " -C%#x", static_cast<unsigned>(reinterpret_cast<uintptr_t>(inheritable)));
  std::vector<char> line(cmdline.begin(), cmdline.end());
  line.insert(line.end(), tail, tail + strlen(tail) + 1);
  STARTUPINFOA si{};
  si.cb = sizeof si;
  PROCESS_INFORMATION pi{};
  bool ok = CreateProcessA(nullptr, line.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &si, &pi);
  CloseHandle(inheritable);
  if (!ok) {
    CloseHandle(out->pipe);
    out->pipe = nullptr;
    return false;
  }
  CloseHandle(pi.hThread);
  out->process = pi.hProcess;
  out->pid = pi.dwProcessId;
  return true;
}

bool send_line(HANDLE pipe, const std::string &line) {
  std::string text = line + "\r\n";
  DWORD put = 0;
  return WriteFile(pipe, text.data(), static_cast<DWORD>(text.size()), &put, nullptr) && put == text.size();
}

std::string port_line(SOCKET sock, unsigned port, DWORD pid) {
  WSAPROTOCOL_INFOA info;
  if (WSADuplicateSocketA(sock, pid, &info) != 0) return std::string();
  char text[2 * sizeof info];
  b64_encode(&info, sizeof info, text);
  return "-Ptcp::" + std::to_string(port) + "@" + text;
}

void end_launch(launched *l) {
  if (l->pipe) CloseHandle(l->pipe);
  if (l->process) CloseHandle(l->process);
  *l = launched{};
}

long wait_exit(const launched &l, DWORD ms) {
  if (WaitForSingleObject(l.process, ms) != WAIT_OBJECT_0) return -1;
  DWORD code = 0;
  GetExitCodeProcess(l.process, &code);
  return static_cast<long>(code);
}

double seconds_now() {
  static const LARGE_INTEGER freq = [] {
    LARGE_INTEGER f;
    QueryPerformanceFrequency(&f);
    return f;
  }();
  LARGE_INTEGER t;
  QueryPerformanceCounter(&t);
  return double(t.QuadPart) / double(freq.QuadPart);
}

double cold_launch(const std::string &cmdline, launched *l, SOCKET *orig, unsigned *port) {
  *l = launched{};
  *orig = listen_loopback(port);
  double t0 = seconds_now();
  SOCKET c = connect_loopback(*port);
  if (c == INVALID_SOCKET) return -1;
  if (!launch(cmdline, l)) {
    closesocket(c);
    return -1;
  }
  std::string line = port_line(*orig, *port, l->pid);
  bool ok = !line.empty() && send_line(l->pipe, line) && send_line(l->pipe, "--") &&
            send_line(l->pipe, "lifespan 600") && echoes(c, "x");
  double t1 = seconds_now();
  closesocket(c);
  return ok ? t1 - t0 : -1;
}

std::string beside_me(const char *relative) {
  char path[MAX_PATH];
  DWORD n = GetModuleFileNameA(nullptr, path, sizeof path);
  std::string dir(path, n);
  return dir.substr(0, dir.find_last_of("\\/") + 1) + relative;
}

SOCKET connect_loopback(unsigned port) {
  sockaddr_in a;
  SOCKET c = loopback_socket(port, a);
  if (c == INVALID_SOCKET) return c;
  DWORD timeout = 10000;
  setsockopt(c, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<char *>(&timeout), sizeof timeout);
  if (connect(c, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0) {
    closesocket(c);
    return INVALID_SOCKET;
  }
  return c;
}

bool echoes(SOCKET c, const std::string &text) {
  if (send(c, text.data(), static_cast<int>(text.size()), 0) != static_cast<int>(text.size())) return false;
  std::string back;
  char buf[512];
  while (back.size() < text.size()) {
    int n = recv(c, buf, sizeof buf, 0);
    if (n <= 0) return false;
    back.append(buf, static_cast<size_t>(n));
  }
  return back == text;
}
