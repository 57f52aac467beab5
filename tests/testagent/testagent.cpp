// testagent.exe: the agent the port manager's tests start. It records what it receives
// and does what its command line asks, so a test can drive every exit the manager handles.
//
// Command line (any order; other words, such as padding or a hooked port's extra
// arguments, are ignored):
//   -F<path>  record file: every record line is appended as "<pid> <text>\n", one write
//             per line, so several agents can share one file and a test can poll it
//   -Q        exit at once, before reading the pipe
//   -V        crash with an access violation at once
//   -I        ignore "exit" and the closing of the pipe (the manager has to terminate it)
//   -C<0x..>  the read end of the agent pipe, as the manager appends it
//   -D<spec>  the manager's debug spec (recorded with the command line only)
//   -W<path>  read nothing from the pipe until the file <path> exists (a slow agent)
//   -N        read nothing from the pipe after the start-up lines (an agent that never
//             follows the manager, so its pipe fills)
//   -R[port]  report what it runs with (tests/testagent/report.h) and the "#handles" line:
//             to each client after the greeting, then "."; without a pipe (a global program), once to a client
//             connection it makes to 127.0.0.1:<port>
// Record lines it writes itself start with "#": "#cmd <command line>", "#handles
// listening=L sockets=S pipes=P other=X own=O" (what it inherited), "#socket <port> ok|failed <e>"
// (a handed-over socket rebuilt), "#listen <port> ok|failed <e>" (an "on" port),
// "#ready", "#closed <port>", "#eof", "#ignored". Every pipe line is recorded verbatim
// without its CR LF.
// A client that connects receives "agent <pid> port <port>\r\n"; if it then sends
// "exit <n>" and closes, the agent exits with n; "crash" makes it crash.
// Whatever happens, the agent ends by itself after LIFETIME_MS so that a failed test
// leaves no process behind.
// Up to 1,024 handed-over sockets in one select (the default set holds 64).
#define FD_SETSIZE 1024
#include <winsock2.h>
#include <windows.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "lib/b64.h"
#include "lib/wire.h"
#include "tests/testagent/handles.h"
#include "tests/testagent/report.h"

namespace {

constexpr DWORD LIFETIME_MS = 90000;

HANDLE record_file = INVALID_HANDLE_VALUE;
bool ignore_exit = false;
bool reports = false;
std::string inherited;  // the "#handles" line
CRITICAL_SECTION lock;
std::vector<unsigned> removals;  // ports the pipe thread asked the main loop to drop

void record(const std::string &text) {
  if (record_file == INVALID_HANDLE_VALUE) return;
  std::string line = std::to_string(GetCurrentProcessId()) + " " + text + "\n";
  DWORD written;
  WriteFile(record_file, line.data(), DWORD(line.size()), &written, nullptr);
}

[[noreturn]] void crash() {
  // A null store through a volatile address, so the compiler cannot turn it into a trap.
  volatile uintptr_t address = 0;
  *reinterpret_cast<volatile int *>(address) = 1;
  ExitProcess(99);
}

// An unhandled exception ends the process with the exception code as exit code, without
// a debugger or an error box.
LONG WINAPI end_on_exception(EXCEPTION_POINTERS *) { return EXCEPTION_EXECUTE_HANDLER; }

// The next line of the pipe, CR LF (or LF) stripped; false at the end of the pipe.
HANDLE pipe;
bool next_line(std::string &line) {
  static std::string pending;
  for (;;) {
    size_t eol = pending.find('\n');
    if (eol != std::string::npos) {
      line = pending.substr(0, eol);
      pending.erase(0, eol + 1);
      if (!line.empty() && line.back() == '\r') line.pop_back();
      return true;
    }
    char buffer[1024];
    DWORD got = 0;
    if (!ReadFile(pipe, buffer, sizeof buffer, &got, nullptr) || got == 0) return false;
    pending.append(buffer, got);
  }
}

DWORD WINAPI pipe_thread(void *) {
  std::string line;
  while (next_line(line)) {
    record(line);
    if (line == WIRE_EXIT) {
      if (!ignore_exit) ExitProcess(0);
      record("#ignored");
    } else if (line.compare(0, strlen(WIRE_REMOVE), WIRE_REMOVE) == 0) {
      EnterCriticalSection(&lock);
      removals.push_back(unsigned(atoi(line.c_str() + strlen(WIRE_REMOVE))));
      LeaveCriticalSection(&lock);
    }
  }
  record("#eof");
  if (!ignore_exit) ExitProcess(0);
  return 0;
}

SOCKET rebuild(const std::string &encoded, int &error) {
  WSAPROTOCOL_INFOA info;
  if (b64_decode(encoded.data(), static_cast<int>(encoded.size()), &info, sizeof info) !=
      static_cast<int>(sizeof info)) {
    error = -1;
    return INVALID_SOCKET;
  }
  SOCKET s = WSASocketA(FROM_PROTOCOL_INFO, FROM_PROTOCOL_INFO, FROM_PROTOCOL_INFO, &info, 0, 0);
  if (s == INVALID_SOCKET) {
    error = WSAGetLastError();
    return s;
  }
  // The manager's event selection left the socket non-blocking; this agent accepts after
  // select, in blocking mode.
  u_long nonblocking = 0;
  ioctlsocket(s, FIONBIO, &nonblocking);
  SetHandleInformation(reinterpret_cast<HANDLE>(s), HANDLE_FLAG_INHERIT, 0);
  return s;
}

SOCKET listen_self(unsigned port, int &error) {
  SOCKET s = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(u_short(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (s == INVALID_SOCKET || bind(s, reinterpret_cast<sockaddr *>(&address), sizeof address) ||
      listen(s, 10)) {
    error = WSAGetLastError();
    if (s != INVALID_SOCKET) closesocket(s);
    return INVALID_SOCKET;
  }
  SetHandleInformation(reinterpret_cast<HANDLE>(s), HANDLE_FLAG_INHERIT, 0);
  return s;
}

void serve(unsigned port, SOCKET sock) {
  SOCKET client = accept(sock, nullptr, nullptr);
  if (client == INVALID_SOCKET) return;
  std::string hello =
      "agent " + std::to_string(GetCurrentProcessId()) + " port " + std::to_string(port) + "\r\n";
  if (reports) {
    for (const auto &line : self_report()) hello += line + "\r\n";
    hello += inherited + "\r\n.\r\n";
  }
  send(client, hello.data(), int(hello.size()), 0);
  DWORD timeout = 3000;
  setsockopt(client, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<char *>(&timeout), sizeof timeout);
  char request[64] = {}, rest[16];
  int got = recv(client, request, sizeof request - 1, 0);
  bool exit_request = got > 0 && strncmp(request, "exit ", 5) == 0;
  bool crash_request = got > 0 && strncmp(request, "crash", 5) == 0;
  // The client closes first, so the port is not left with a connection in TIME_WAIT
  // (under Wine that would make the manager's next bind of the port fail).
  if (exit_request || crash_request)
    while (recv(client, rest, sizeof rest, 0) > 0) {}
  closesocket(client);
  if (exit_request) ExitProcess(UINT(atoi(request + 5)));
  if (crash_request) crash();
}

}  // namespace

int main(int argc, char **argv) {
  SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOGPFAULTERRORBOX);
  SetUnhandledExceptionFilter(end_on_exception);
  DWORD started = GetTickCount();
  // Each option's text after its letter, the last one given; other words are ignored.
  const char *opt[128] = {};
  for (int i = 1; i < argc; i++)
    if (argv[i][0] == '-' && argv[i][1] > 0) opt[int(argv[i][1])] = argv[i] + 2;
  const char *file = opt['F'], *gate = opt['W'];
  ignore_exit = opt['I'];
  reports = opt['R'];
  pipe = reinterpret_cast<HANDLE>(uintptr_t(opt['C'] ? strtoull(opt['C'], nullptr, 16) : 0));
  WSADATA wsa;
  WSAStartup(MAKEWORD(2, 2), &wsa);
  // Scanned before this process opens anything of its own.
  inherited = scan_handles(pipe);
  if (file)
    record_file =
        CreateFileA(file, FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                    nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
  record("#cmd " + std::string(GetCommandLineA()));
  record(inherited);
  if (opt['V']) crash();
  if (opt['Q']) ExitProcess(0);
  if (!pipe && reports && *opt['R']) {
    SOCKET s = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(u_short(atoi(opt['R'])));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(s, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0) {
      std::string text;
      for (const auto &line : self_report()) text += line + "\r\n";
      text += inherited + "\r\n.\r\n";
      send(s, text.data(), int(text.size()), 0);
    }
    closesocket(s);
  }
  if (!pipe) {  // a global program or a hooking process: lives until killed
    Sleep(LIFETIME_MS);
    ExitProcess(0);
  }
  while (gate && GetFileAttributesA(gate) == INVALID_FILE_ATTRIBUTES &&
         GetTickCount() - started < LIFETIME_MS)
    Sleep(20);

  // Start-up lines, up to "lifespan".
  InitializeCriticalSection(&lock);
  std::map<unsigned, SOCKET> sockets;
  std::string line;
  bool started_up = false;
  while (!started_up && next_line(line)) {
    record(line);
    started_up = line.compare(0, strlen(WIRE_LIFESPAN), WIRE_LIFESPAN) == 0;
    if (line.compare(0, strlen(WIRE_PORT), WIRE_PORT) != 0) continue;
    unsigned port = unsigned(atoi(line.c_str() + strlen(WIRE_PORT)));
    size_t at = line.find('@');
    int error = 0;
    SOCKET s =
        at == std::string::npos ? listen_self(port, error) : rebuild(line.substr(at + 1), error);
    const char *what = at == std::string::npos ? "#listen " : "#socket ";
    record(what + std::to_string(port) +
           (s == INVALID_SOCKET ? " failed " + std::to_string(error) : " ok"));
    if (s != INVALID_SOCKET) sockets[port] = s;
  }
  if (!started_up) {
    record("#eof");
    ExitProcess(0);
  }
  record("#ready");
  if (!opt['N']) CreateThread(nullptr, 0, pipe_thread, nullptr, 0, nullptr);

  while (GetTickCount() - started < LIFETIME_MS) {
    EnterCriticalSection(&lock);
    std::vector<unsigned> drop;
    drop.swap(removals);
    LeaveCriticalSection(&lock);
    for (unsigned port : drop)
      if (sockets.count(port)) {
        closesocket(sockets[port]);
        sockets.erase(port);
        record("#closed " + std::to_string(port));
      }
    fd_set readable;
    FD_ZERO(&readable);
    for (auto &ps : sockets) FD_SET(ps.second, &readable);
    timeval tick = {0, 50000};
    if (sockets.empty()) {
      Sleep(50);
      continue;
    }
    if (select(0, &readable, nullptr, nullptr, &tick) <= 0) continue;
    for (auto &ps : sockets)
      if (FD_ISSET(ps.second, &readable)) serve(ps.first, ps.second);
  }
  ExitProcess(0);
}
