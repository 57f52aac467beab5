#include "tests/support/support.h"

#include <psapi.h>
#include <tlhelp32.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <sstream>

#include "lib/b64.h"

namespace kt {

namespace {
const char ROOT[] = "SOFTWARE\\Orvane\\Agents";
const char PIPE[] = "\\\\.\\pipe\\vesk_kivd";
constexpr DWORD IO_MS = 15000;  // longest wait for one pipe message

std::string slurp(const std::string &file) {
  std::ifstream in(file, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

struct winsock {
  winsock() {
    WSADATA w;
    WSAStartup(MAKEWORD(2, 2), &w);
  }
} started;

// A TCP socket no agent inherits, and the loopback address with port.
SOCKET loopback_socket(unsigned port, sockaddr_in &a) {
  SOCKET s = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
  if (s != INVALID_SOCKET)
    SetHandleInformation(reinterpret_cast<HANDLE>(s), HANDLE_FLAG_INHERIT, 0);
  a = sockaddr_in{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  a.sin_port = htons(static_cast<u_short>(port));
  return s;
}

int temp_counter;
std::string temp_file(const char *what) {
  char dir[MAX_PATH];
  GetTempPathA(sizeof dir, dir);
  return std::string(dir) + "kivd_test_" + std::to_string(GetCurrentProcessId()) + "_" +
         std::to_string(temp_counter++) + "_" + what + ".txt";
}

HANDLE inheritable_file(const std::string &name, bool write) {
  SECURITY_ATTRIBUTES sa = {sizeof sa, nullptr, TRUE};
  return CreateFileA(name.c_str(), write ? GENERIC_WRITE : GENERIC_READ,
                     FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, &sa,
                     write ? CREATE_ALWAYS : OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
}

// Starts the command line with inheritance on; false when it cannot.
bool start(std::string line, STARTUPINFOA *si, HANDLE *process, DWORD *pid) {
  PROCESS_INFORMATION pi;
  si->cb = sizeof *si;
  if (!CreateProcessA(nullptr, &line[0], nullptr, nullptr, TRUE, 0, nullptr, nullptr, si, &pi))
    return false;
  CloseHandle(pi.hThread);
  *process = pi.hProcess;
  *pid = pi.dwProcessId;
  return true;
}
}  // namespace

std::string build_dir() {
  // The first folder above this executable that holds service\kivd.exe.
  char path[MAX_PATH];
  std::string dir(path, GetModuleFileNameA(nullptr, path, sizeof path));
  for (int up = 0; up < 5; up++) {
    dir = dir.substr(0, dir.find_last_of('\\'));
    if (GetFileAttributesA((dir + "\\service\\kivd.exe").c_str()) != INVALID_FILE_ATTRIBUTES)
      return dir;
  }
  return dir;
}
std::string kivd_exe() { return build_dir() + "\\service\\kivd.exe"; }
std::string kivctl_exe() { return build_dir() + "\\tools\\kivctl\\kivctl.exe"; }
std::string testagent_exe() { return build_dir() + "\\tests\\testagent\\testagent.exe"; }
std::string echo_agent_exe() { return build_dir() + "\\agent\\echo-agent.exe"; }

bool poll(const std::function<bool()> &done, int ms) {
  DWORD start = GetTickCount();
  for (;;) {
    if (done()) return true;
    if (static_cast<int>(GetTickCount() - start) > ms) return done();
    Sleep(20);
  }
}

bool set_value(const std::string &key, const std::string &value, const std::string &text) {
  HKEY k;
  std::string path = std::string(ROOT) + "\\" + key;
  if (RegCreateKeyExA(HKEY_LOCAL_MACHINE, path.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &k,
                      nullptr) != ERROR_SUCCESS)
    return false;
  bool ok =
      RegSetValueExA(k, value.c_str(), 0, REG_SZ, reinterpret_cast<const BYTE *>(text.c_str()),
                     static_cast<DWORD>(text.size() + 1)) == ERROR_SUCCESS;
  RegCloseKey(k);
  return ok;
}

void remove_root() { RegDeleteTreeA(HKEY_LOCAL_MACHINE, ROOT); }

std::string event_source() {
  HKEY key;
  if (RegOpenKeyExA(HKEY_LOCAL_MACHINE,
                    "SYSTEM\\CurrentControlSet\\Services\\EventLog\\Application\\vesk_kivd", 0,
                    KEY_READ, &key) != ERROR_SUCCESS)
    return "";
  char file[MAX_PATH] = "";
  DWORD types = 0, size = sizeof file - 1;
  RegQueryValueExA(key, "EventMessageFile", nullptr, nullptr, reinterpret_cast<BYTE *>(file),
                   &size);
  size = sizeof types;
  RegQueryValueExA(key, "TypesSupported", nullptr, nullptr, reinterpret_cast<BYTE *>(&types),
                   &size);
  RegCloseKey(key);
  return std::string(file) + "|" + std::to_string(types);
}

void registry::port(int port, const char *start, const char *service) {
  std::string key = "tcp\\s" + std::to_string(port);
  set(key, "start", start);
  set(key, "service", service);
}

void registry::service(const char *name, const std::string &program) {
  set(std::string("services\\") + name, "program", program);
}

void registry::auto_ports(const char *name, const std::string &program,
                          const std::vector<int> &ports) {
  service(name, program);
  for (int p : ports) port(p, "auto", name);
}

const char NO_PROGRAM[] = "C:\\no\\such\\agent.exe";

std::string listening(int port) { return "Listening on port " + std::to_string(port) + " for"; }

int free_port() {
  // Linux's range for outgoing connections, which Wine uses, starts at 32768; below
  // 10000 lie the ports other programs are configured to take.
  static unsigned seed = GetCurrentProcessId() * 7919u + GetTickCount();
  for (;;) {
    seed = seed * 1103515245u + 12345u;
    unsigned port = 10000 + (seed >> 8) % 10000;
    sockaddr_in a;
    SOCKET s = loopback_socket(port, a);
    bool free = bind(s, reinterpret_cast<sockaddr *>(&a), sizeof a) == 0;
    closesocket(s);
    if (free) return static_cast<int>(port);
  }
}

std::vector<int> free_ports(int n) {
  std::vector<int> ports;
  while (static_cast<int>(ports.size()) < n) {
    int port = free_port();
    if (std::find(ports.begin(), ports.end(), port) == ports.end()) ports.push_back(port);
  }
  std::sort(ports.begin(), ports.end());
  return ports;
}

SOCKET connect_to(int port) {
  sockaddr_in a;
  SOCKET s = loopback_socket(static_cast<unsigned>(port), a);
  DWORD timeout = 10000;
  setsockopt(s, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<char *>(&timeout), sizeof timeout);
  if (connect(s, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0) {
    closesocket(s);
    return INVALID_SOCKET;
  }
  return s;
}

SOCKET listen_on(unsigned *port) {
  for (int attempt = 0; attempt < 20; attempt++) {
    unsigned want = *port ? *port : static_cast<unsigned>(free_port());
    sockaddr_in a;
    SOCKET s = loopback_socket(want, a);
    if (bind(s, reinterpret_cast<sockaddr *>(&a), sizeof a) == 0 && listen(s, 10) == 0) {
      // The manager watches FD_ACCEPT and stops watching before the hand-over; the event
      // selection leaves the socket non-blocking, and so it reaches the agent.
      WSAEVENT ev = WSACreateEvent();
      WSAEventSelect(s, ev, FD_ACCEPT);
      WSAEventSelect(s, ev, 0);
      WSACloseEvent(ev);
      *port = want;
      return s;
    }
    closesocket(s);
    if (*port) break;  // that port, or nothing
  }
  return INVALID_SOCKET;
}

std::string read_line(SOCKET s, int ms) {
  DWORD timeout = ms;
  setsockopt(s, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char *>(&timeout), sizeof timeout);
  std::string line;
  char c;
  while (recv(s, &c, 1, 0) == 1 && c != '\n')
    if (c != '\r') line += c;
  return line;
}

void send_text(SOCKET s, const std::string &text) {
  send(s, text.data(), static_cast<int>(text.size()), 0);
}

bool echoes(SOCKET c, const std::string &text) {
  if (send(c, text.data(), static_cast<int>(text.size()), 0) != static_cast<int>(text.size()))
    return false;
  std::string back;
  char buf[512];
  while (back.size() < text.size()) {
    int n = recv(c, buf, sizeof buf, 0);
    if (n <= 0) return false;
    back.append(buf, static_cast<size_t>(n));
  }
  return back == text;
}

bool echoes(int port) {
  SOCKET s = connect_to(port);
  if (s == INVALID_SOCKET) return false;
  bool ok = echoes(s, "ping\n");
  closesocket(s);  // the client closes first: no TIME_WAIT on the port
  return ok;
}

std::vector<std::string> names(const std::string &dir) {
  std::vector<std::string> out;
  WIN32_FIND_DATAA f;
  HANDLE h = FindFirstFileA((dir + "\\*").c_str(), &f);
  if (h == INVALID_HANDLE_VALUE) return out;
  do {
    std::string n = f.cFileName;
    if (n != "." && n != "..") out.push_back(n);
  } while (FindNextFileA(h, &f));
  FindClose(h);
  std::sort(out.begin(), out.end());
  return out;
}

void remove_tree(const std::string &dir) {
  for (const std::string &n : names(dir)) {
    std::string p = dir + "\\" + n;
    DWORD a = GetFileAttributesA(p.c_str());
    if ((a & FILE_ATTRIBUTE_DIRECTORY) && !(a & FILE_ATTRIBUTE_REPARSE_POINT))
      remove_tree(p);
    else
      DeleteFileA(p.c_str());
  }
  RemoveDirectoryA(dir.c_str());
}

bool exists(const std::string &path) {
  return GetFileAttributesA(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

process::process(const std::string &cmdline, const std::string &input) {
  out_file = temp_file("out");
  err_file = temp_file("err");
  HANDLE out = inheritable_file(out_file, true), err = inheritable_file(err_file, true);
  HANDLE in = INVALID_HANDLE_VALUE;
  std::string in_file;
  if (!input.empty()) {
    in_file = temp_file("in");
    std::ofstream(in_file, std::ios::binary) << input;
    in = inheritable_file(in_file, false);
  }
  STARTUPINFOA si = {};
  si.dwFlags = STARTF_USESTDHANDLES;
  si.hStdInput = in;
  si.hStdOutput = out;
  si.hStdError = err;
  start(cmdline, &si, &h, &pid);
  CloseHandle(out);
  CloseHandle(err);
  if (in != INVALID_HANDLE_VALUE) CloseHandle(in);
  if (!in_file.empty())
    DeleteFileA(in_file.c_str());  // shared for deletion: gone when the child closes it
}

process::~process() {
  if (h) {
    if (WaitForSingleObject(h, 0) != WAIT_OBJECT_0) {
      TerminateProcess(h, 99);
      WaitForSingleObject(h, 10000);
    }
    CloseHandle(h);
  }
  DeleteFileA(out_file.c_str());
  DeleteFileA(err_file.c_str());
}

bool process::wait(int ms) { return h && WaitForSingleObject(h, ms) == WAIT_OBJECT_0; }

DWORD process::exit_code() {
  DWORD code = 0x4711;
  if (h) GetExitCodeProcess(h, &code);
  return code;
}

std::string process::out() const { return slurp(out_file); }
std::string process::err() const { return slurp(err_file); }

static std::string without_cr(const std::string &text) {
  std::string out;
  for (char c : text)
    if (c != '\r') out += c;  // text-mode output writes each "\n" as CR LF
  return out;
}

ran run(const std::string &cmdline, const std::string &input) {
  process p(cmdline, input);
  p.wait(60000);
  return {without_cr(p.out()), without_cr(p.err()), p.exit_code()};
}

kivd::kivd(const std::string &options) : process("\"" + kivd_exe() + "\" " + options) {
  // Ready when the control pipe exists.
  poll([] { return WaitNamedPipeA(PIPE, NMPWAIT_NOWAIT) || GetLastError() == ERROR_SEM_TIMEOUT; },
       20000);
}

kivd::~kivd() {
  if (h && WaitForSingleObject(h, 0) != WAIT_OBJECT_0) quit();
}

bool kivd::log_has(const std::string &text, int ms) {
  return poll([&] { return err().find(text) != std::string::npos; }, ms);
}

int kivd::log_count(const std::string &text) {
  std::string log = err();
  int n = 0;
  for (size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + 1)) n++;
  return n;
}

void kivd::quit() {
  {
    client c;
    c.send("quit -Q");
  }
  wait(20000);
}

client::client(bool greet, int ms) {
  // A client can reach the last instance of a kivd that is just ending (the one of an
  // earlier test): with a greeting expected, such a connection is dropped and retried.
  poll(
      [&] {
        close();
        h = CreateFileA(PIPE, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                        FILE_FLAG_OVERLAPPED, nullptr);
        if (h == INVALID_HANDLE_VALUE) {
          error = GetLastError();
          return false;
        }
        DWORD mode = PIPE_READMODE_MESSAGE;
        SetNamedPipeHandleState(h, &mode, nullptr, nullptr);
        return !greet || receive() == "KIVD v0.1";
      },
      ms);
  if (greet && h != INVALID_HANDLE_VALUE &&
      !PeekNamedPipe(h, nullptr, 0, nullptr, nullptr, nullptr))
    close();
}

client::~client() { close(); }

void client::close() {
  if (h != INVALID_HANDLE_VALUE) CloseHandle(h);
  h = INVALID_HANDLE_VALUE;
}

bool client::send(const std::string &message) {
  OVERLAPPED ov = {};
  ov.hEvent = CreateEventA(nullptr, TRUE, FALSE, nullptr);
  DWORD put = 0;
  BOOL ok = WriteFile(h, message.data(), static_cast<DWORD>(message.size()), nullptr, &ov);
  if (!ok && GetLastError() == ERROR_IO_PENDING) {
    if (WaitForSingleObject(ov.hEvent, IO_MS) != WAIT_OBJECT_0) CancelIo(h);
    ok = TRUE;
  }
  ok = ok && GetOverlappedResult(h, &ov, &put, TRUE);
  CloseHandle(ov.hEvent);
  return ok;
}

std::string client::receive() {
  std::string out;
  char buf[2048];
  // Heap-held: a read that even a cancel cannot end must not outlive its stack frame.
  auto *ov = new OVERLAPPED();
  ov->hEvent = CreateEventA(nullptr, TRUE, FALSE, nullptr);
  for (;;) {
    DWORD got = 0;
    ResetEvent(ov->hEvent);
    if (!ReadFile(h, buf, sizeof buf, nullptr, ov) && GetLastError() == ERROR_IO_PENDING &&
        WaitForSingleObject(ov->hEvent, IO_MS) != WAIT_OBJECT_0) {
      CancelIoEx(h, ov);
      if (WaitForSingleObject(ov->hEvent, 2000) != WAIT_OBJECT_0)
        return "<timeout, read left pending>";
      GetOverlappedResult(h, ov, &got, FALSE);
      out = "<timeout>";
      break;
    }
    BOOL ok = GetOverlappedResult(h, ov, &got, FALSE);
    DWORD e = ok ? 0 : GetLastError();
    out.append(buf, got);
    if (ok) break;
    if (e != ERROR_MORE_DATA) {
      out = "<error " + std::to_string(e) + ">";
      break;
    }
  }
  CloseHandle(ov->hEvent);
  delete ov;
  return out;
}

bool client::hung_up(int ms) {
  return poll([&] { return !PeekNamedPipe(h, nullptr, 0, nullptr, nullptr, nullptr); }, ms);
}

std::vector<std::string> client::command(const std::string &line) {
  std::vector<std::string> reply;
  if (!send(line)) return {"<send failed>"};
  reply.push_back(receive());
  if (reply[0] == "!") {
    for (;;) {
      reply.push_back(receive());
      const std::string &last = reply.back();
      if (last == "." || last[0] == '<') break;
    }
  }
  return reply;
}

std::string user_name() {
  char name[128];
  DWORD size = sizeof name;
  return GetUserNameA(name, &size) ? name : "";
}

std::string port_line(int port, const char *service, const char *mode) {
  char line[256];
  snprintf(line, sizeof line, "%5d  %-11s   %s", port, service, mode);
  return line;
}

std::vector<std::string> listed_ports(const std::vector<std::string> &reply) {
  if (reply.size() < 2 || reply.front() != "!" || reply.back() != ".") return {};
  return std::vector<std::string>(reply.begin() + 1, reply.end() - 1);
}

namespace {

// The system's table of every open handle (SystemExtendedHandleInformation), counted for
// one process: the count where GetProcessHandleCount reports none (Wine leaves it 0).
struct handle_entry {
  PVOID object;
  ULONG_PTR pid;
  ULONG_PTR value;
  ULONG access;
  USHORT backtrace, type;
  ULONG attributes, reserved;
};
struct handle_table {
  ULONG_PTR count, reserved;
  handle_entry entries[1];
};
constexpr ULONG SYSTEM_EXTENDED_HANDLE_INFORMATION = 64;
constexpr LONG STATUS_INFO_LENGTH_MISMATCH = LONG(0xC0000004);

DWORD handles_in_table(DWORD pid) {
  using query = LONG(WINAPI *)(ULONG, PVOID, ULONG, PULONG);
  auto q = reinterpret_cast<query>(reinterpret_cast<void *>(
      GetProcAddress(GetModuleHandleA("ntdll.dll"), "NtQuerySystemInformation")));
  if (!q) return 0;
  std::vector<char> buffer(1 << 18);
  LONG status;
  ULONG need = 0;
  while ((status = q(SYSTEM_EXTENDED_HANDLE_INFORMATION, buffer.data(), ULONG(buffer.size()),
                     &need)) == STATUS_INFO_LENGTH_MISMATCH &&
         buffer.size() < (64u << 20))
    buffer.resize(buffer.size() * 2);
  if (status != 0) return 0;
  auto *table = reinterpret_cast<handle_table *>(buffer.data());
  DWORD n = 0;
  for (ULONG_PTR i = 0; i < table->count; i++) n += table->entries[i].pid == pid;
  return n;
}

}  // namespace

bool usage_of(DWORD pid, usage *out) {
  HANDLE h = OpenProcess(PROCESS_QUERY_INFORMATION | PROCESS_VM_READ, FALSE, pid);
  if (!h) return false;
  PROCESS_MEMORY_COUNTERS_EX counters = {};
  counters.cb = sizeof counters;
  bool ok = GetProcessHandleCount(h, &out->handles) &&
            GetProcessMemoryInfo(h, reinterpret_cast<PROCESS_MEMORY_COUNTERS *>(&counters),
                                 sizeof counters);
  CloseHandle(h);
  if (!ok) return false;
  if (out->handles == 0) out->handles = handles_in_table(pid);
  // The commit charge is the process's private memory; both fields carry it (Wine fills
  // only the older one).
  out->private_bytes = counters.PrivateUsage ? counters.PrivateUsage : counters.PagefileUsage;
  return out->handles > 0 && out->private_bytes > 0;
}

std::string describe(const usage &before, const usage &after) {
  return "handles " + std::to_string(before.handles) + " -> " + std::to_string(after.handles) +
         ", private KB " + std::to_string(before.private_bytes / 1024) + " -> " +
         std::to_string(after.private_bytes / 1024);
}

bool launch(const std::string &cmdline, launched *out) {
  *out = launched{};
  HANDLE rd = nullptr;
  if (!CreatePipe(&rd, &out->pipe, nullptr, 0)) return false;
  // Only the read end is inheritable, and only from here on.
  SetHandleInformation(rd, HANDLE_FLAG_INHERIT, HANDLE_FLAG_INHERIT);
  char tail[32];
  snprintf(tail, sizeof tail, " -C%#x", static_cast<unsigned>(reinterpret_cast<uintptr_t>(rd)));
  STARTUPINFOA si{};
  bool ok = start(cmdline + tail, &si, &out->process, &out->pid);
  CloseHandle(rd);
  if (!ok) end_launch(out);
  return ok;
}

bool send_line(HANDLE pipe, const std::string &line) {
  std::string text = line + "\r\n";
  DWORD put = 0;
  return WriteFile(pipe, text.data(), static_cast<DWORD>(text.size()), &put, nullptr) &&
         put == text.size();
}

std::string handover_line(SOCKET sock, unsigned port, DWORD pid) {
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

int processes_named(const char *exe) {
  HANDLE snap = CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
  PROCESSENTRY32 pe = {};
  pe.dwSize = sizeof pe;
  int n = 0;
  for (BOOL ok = Process32First(snap, &pe); ok; ok = Process32Next(snap, &pe))
    n += _stricmp(pe.szExeFile, exe) == 0;
  CloseHandle(snap);
  return n;
}

SERVICE_STATUS_PROCESS service_manager::status() {
  SERVICE_STATUS_PROCESS st = {};
  DWORD need = 0;
  with(SERVICE_QUERY_STATUS, [&](SC_HANDLE s) {
    return QueryServiceStatusEx(s, SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE *>(&st), sizeof st,
                                &need);
  });
  return st;
}

QUERY_SERVICE_CONFIGA *service_manager::config(std::vector<char> &buf) {
  buf.assign(8192, 0);
  auto *c = reinterpret_cast<QUERY_SERVICE_CONFIGA *>(buf.data());
  DWORD need = 0;
  return with(SERVICE_QUERY_CONFIG,
              [&](SC_HANDLE s) { return QueryServiceConfigA(s, c, 8192, &need); })
             ? c
             : nullptr;
}

DWORD service_manager::config2(DWORD level, std::vector<char> &buf) {
  buf.assign(8192, 0);
  DWORD need = 0, error = ERROR_SERVICE_DOES_NOT_EXIST;
  with(SERVICE_QUERY_CONFIG, [&](SC_HANDLE s) {
    bool ok = QueryServiceConfig2A(s, level, reinterpret_cast<BYTE *>(buf.data()), 8192, &need);
    error = ok ? 0 : GetLastError();
    return ok;
  });
  return error;
}

bool service_manager::start() {
  return with(SERVICE_START, [](SC_HANDLE s) { return StartServiceA(s, 0, nullptr); });
}

bool service_manager::control(DWORD code) {
  SERVICE_STATUS st;
  return with(SERVICE_STOP | SERVICE_INTERROGATE,
              [&](SC_HANDLE s) { return ControlService(s, code, &st); });
}

bool service_manager::state_is(DWORD state, int ms) {
  return poll([&] { return status().dwCurrentState == state; }, ms);
}

}  // namespace kt
