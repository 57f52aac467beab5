// kivexec: any console program as a network service. Configured as a service's program,
// `kivexec [options] -- PROGRAM [ARGS...]` takes every port the port manager hands it
// and, for each connection it accepts, starts PROGRAM with the connection as its standard
// input and output.
//
// Options: --max N (programs at once, default 40; past it a connection waits in the
// backlog), --per-ip N (connections served at once from one address, default no limit;
// past it a connection is closed at once), --timeout S (seconds a program may run, default
// no limit; past it the program is ended, which closes its connection), --grace S (after
// "exit", seconds running programs may finish before they are ended, default 10),
// --stderr (the program's standard error goes to the connection too; otherwise to
// kivexec's).
//
// The program's environment names the two ends: TCPREMOTEIP, TCPREMOTEPORT, TCPLOCALIP,
// TCPLOCALPORT and PROTO=TCP.
//
// Exit codes: 0 on "exit", when the pipe closes, and after `lifespan` seconds with no
// program running and nothing accepted (the manager then listens again); 1 when no port
// can be served; 2 for a wrong command line or a start-up that cannot be read.
#include <ws2tcpip.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "agent/kivagent.h"

namespace {

struct options {
  unsigned max = 40;
  unsigned per_ip = 0;  // 0: no limit
  DWORD timeout_ms = INFINITE;
  DWORD grace_ms = 10000;
  bool stderr_too = false;
  std::string program;       // for messages
  std::string command_line;  // PROGRAM and its arguments, quoted for CreateProcess
};
options opt;

// One argument as CreateProcess's parser reads it back: in quotes when it holds a blank
// or a quote, backslashes doubled only where a quote follows them.
void append_quoted(std::string *line, const std::string &arg) {
  if (!line->empty()) *line += ' ';
  if (!arg.empty() && arg.find_first_of(" \t\n\v\"") == std::string::npos) {
    *line += arg;
    return;
  }
  *line += '"';
  for (size_t i = 0;; i++) {
    size_t backslashes = 0;
    while (i < arg.size() && arg[i] == '\\') i++, backslashes++;
    if (i == arg.size()) {
      line->append(backslashes * 2, '\\');
      break;
    }
    if (arg[i] == '"') {
      line->append(backslashes * 2 + 1, '\\');
    } else {
      line->append(backslashes, '\\');
    }
    *line += arg[i];
  }
  *line += '"';
}

bool number(const char *text, unsigned long low, unsigned long high, unsigned long *out) {
  char *end = nullptr;
  if (!text || !*text) return false;
  unsigned long v = strtoul(text, &end, 10);
  if (*end || v < low || v > high) return false;
  *out = v;
  return true;
}

// Reads the options and the program. The port manager adds its own arguments after the
// configured program line: "-C<pipe>" last and, when it traces, "-D<debug spec>" before
// it (both are the agent library's); they are not the program's. A refusal is said on
// standard error; false then.
bool parse(int argc, char **argv) {
  int end = argc;
  if (end > 1 && strncmp(argv[end - 1], "-C", 2) == 0) end--;
  if (end > 1 && strncmp(argv[end - 1], "-D", 2) == 0) end--;
  int i = 1;
  for (; i < end && strcmp(argv[i], "--") != 0; i++) {
    const char *name = argv[i];
    unsigned long v = 0;
    if (strcmp(name, "--stderr") == 0) {
      opt.stderr_too = true;
      continue;
    }
    if (strncmp(name, "-D", 2) == 0) continue;  // a debug spec given before the options
    bool known = strcmp(name, "--max") == 0 || strcmp(name, "--per-ip") == 0 ||
                 strcmp(name, "--timeout") == 0 || strcmp(name, "--grace") == 0;
    if (!known) {
      fprintf(stderr,
              "kivexec: unknown option %s (--max, --per-ip, --timeout, --grace, --stderr)\n", name);
      return false;
    }
    if (i + 1 >= end || strcmp(argv[i + 1], "--") == 0) {
      fprintf(stderr, "kivexec: %s needs a value\n", name);
      return false;
    }
    const char *value = argv[++i];
    bool seconds = strcmp(name, "--timeout") == 0 || strcmp(name, "--grace") == 0;
    // Seconds at most 4,000,000, so that their milliseconds fit a DWORD below INFINITE.
    if (!number(value, strcmp(name, "--per-ip") == 0 || seconds ? 0 : 1, seconds ? 4000000 : 100000,
                &v)) {
      fprintf(stderr, "kivexec: %s %s: not a number in range\n", name, value);
      return false;
    }
    if (strcmp(name, "--max") == 0)
      opt.max = static_cast<unsigned>(v);
    else if (strcmp(name, "--per-ip") == 0)
      opt.per_ip = static_cast<unsigned>(v);
    else if (strcmp(name, "--timeout") == 0)
      opt.timeout_ms = v ? static_cast<DWORD>(v * 1000) : INFINITE;
    else
      opt.grace_ms = static_cast<DWORD>(v * 1000);
  }
  if (i >= end) {
    fprintf(stderr,
            "kivexec: no \"--\" before the program (kivexec [options] -- PROGRAM [ARGS...])\n");
    return false;
  }
  if (i + 1 >= end) {
    fprintf(stderr, "kivexec: no program after \"--\"\n");
    return false;
  }
  opt.program = argv[i + 1];
  for (int k = i + 1; k < end; k++) append_quoted(&opt.command_line, argv[k]);
  return true;
}

// What runs, under `lock`: programs, connections per address, and since when nothing
// ran (GetTickCount64).
CRITICAL_SECTION lock;
unsigned running;
ULONGLONG idle_since;
std::map<std::string, unsigned> per_address;
std::vector<HANDLE> processes;  // of running programs, for the end of the grace
HANDLE slots;                   // semaphore of --max free places
HANDLE stopping;                // manual reset: accept nothing more
HANDLE changed;                 // auto reset: a program ended, the lifespan is reckoned again

// The environment every program gets: kivexec's own without the connection's names,
// sorted as the system expects; each connection adds its five names.
std::vector<std::string> base_environment;

bool connection_name(const char *name) {
  static const char *const names[] = {
      "TCPREMOTEIP=", "TCPREMOTEPORT=", "TCPLOCALIP=", "TCPLOCALPORT=", "PROTO="};
  for (const char *n : names)
    if (_strnicmp(name, n, strlen(n)) == 0) return true;
  return false;
}

void read_environment() {
  char *block = GetEnvironmentStringsA();
  for (char *e = block; e && *e; e += strlen(e) + 1)
    if (*e != '=' && !connection_name(e)) base_environment.push_back(e);
  if (block) FreeEnvironmentStringsA(block);
}

std::string environment_for(SOCKET s) {
  std::vector<std::string> env = base_environment;
  sockaddr_storage a;
  char host[NI_MAXHOST], port[NI_MAXSERV];
  for (bool remote : {true, false}) {
    int size = sizeof a;
    int r = remote ? getpeername(s, reinterpret_cast<sockaddr *>(&a), &size)
                   : getsockname(s, reinterpret_cast<sockaddr *>(&a), &size);
    if (r != 0 || getnameinfo(reinterpret_cast<sockaddr *>(&a), size, host, sizeof host, port,
                              sizeof port, NI_NUMERICHOST | NI_NUMERICSERV) != 0)
      continue;
    env.push_back(std::string(remote ? "TCPREMOTEIP=" : "TCPLOCALIP=") + host);
    env.push_back(std::string(remote ? "TCPREMOTEPORT=" : "TCPLOCALPORT=") + port);
  }
  env.push_back("PROTO=TCP");
  std::sort(env.begin(), env.end(), [](const std::string &x, const std::string &y) {
    return _stricmp(x.c_str(), y.c_str()) < 0;
  });
  std::string block;
  for (auto &e : env) block.append(e).push_back('\0');
  block.push_back('\0');
  return block;
}

std::string remote_address(SOCKET s) {
  sockaddr_storage a;
  int size = sizeof a;
  char host[NI_MAXHOST];
  if (getpeername(s, reinterpret_cast<sockaddr *>(&a), &size) != 0 ||
      getnameinfo(reinterpret_cast<sockaddr *>(&a), size, host, sizeof host, nullptr, 0,
                  NI_NUMERICHOST) != 0)
    return "?";
  return host;
}

// A program's end: its place and its address's count are given back.
void program_ended(HANDLE process, const std::string &address) {
  EnterCriticalSection(&lock);
  processes.erase(std::remove(processes.begin(), processes.end(), process), processes.end());
  running--;
  if (address.size() && --per_address[address] == 0) per_address.erase(address);
  idle_since = GetTickCount64();
  LeaveCriticalSection(&lock);
  ReleaseSemaphore(slots, 1, nullptr);
  SetEvent(changed);
}

struct started {
  HANDLE process;
  std::string address;
};

// Waits for one program, ending it when its time is up. The process handle is closed here.
DWORD WINAPI watch(void *arg) {
  auto *p = static_cast<started *>(arg);
  if (WaitForSingleObject(p->process, opt.timeout_ms) == WAIT_TIMEOUT) {
    fprintf(stderr, "kivexec: %s ran longer than %lu s: ended\n", opt.program.c_str(),
            static_cast<unsigned long>(opt.timeout_ms / 1000));
    TerminateProcess(p->process, 1);
    WaitForSingleObject(p->process, INFINITE);
  }
  program_ended(p->process, p->address);
  CloseHandle(p->process);
  delete p;
  return 0;
}

// Starts the program for connection c and closes kivexec's copy of c, whatever happens.
//
// The connection itself is the program's standard input and output: a socket made
// without overlapped I/O by the system's base provider is a handle the program reads and
// writes as it would a pipe, and the client's half-close is its end of input. The sockets
// kivexec accepts are of that kind: the port manager and the agent library make listening
// sockets so, and an accepted socket takes the listening socket's kind. No relay thread
// stands between client and program, and kivexec holds nothing of the connection once
// the program runs.
void start_program(SOCKET c, const std::string &address) {
  HANDLE h = reinterpret_cast<HANDLE>(c);
  HANDLE err = opt.stderr_too ? h : GetStdHandle(STD_ERROR_HANDLE);
  HANDLE inherit[2] = {h, err};
  DWORD flags = 0;
  int n = (err != h && err && GetHandleInformation(err, &flags) && (flags & HANDLE_FLAG_INHERIT))
              ? 2
              : 1;
  SetHandleInformation(h, HANDLE_FLAG_INHERIT, HANDLE_FLAG_INHERIT);

  // Only the connection (and standard error) is inherited, whatever else this process
  // holds inheritable at the moment: other connections being handed to their programs.
  char list[64];
  SIZE_T size = sizeof list;
  auto *attributes = reinterpret_cast<LPPROC_THREAD_ATTRIBUTE_LIST>(list);
  STARTUPINFOEXA info = {};
  info.StartupInfo.cb = sizeof info;
  info.StartupInfo.dwFlags = STARTF_USESTDHANDLES;
  info.StartupInfo.hStdInput = h;
  info.StartupInfo.hStdOutput = h;
  info.StartupInfo.hStdError = err;
  bool listed = InitializeProcThreadAttributeList(attributes, 1, 0, &size) &&
                UpdateProcThreadAttribute(attributes, 0, PROC_THREAD_ATTRIBUTE_HANDLE_LIST, inherit,
                                          n * sizeof(HANDLE), nullptr, nullptr);
  if (listed) info.lpAttributeList = attributes;
  std::string env = environment_for(c);
  std::vector<char> line(opt.command_line.begin(), opt.command_line.end());
  line.push_back('\0');
  PROCESS_INFORMATION pi = {};
  BOOL ok = listed && CreateProcessA(nullptr, line.data(), nullptr, nullptr, TRUE,
                                     EXTENDED_STARTUPINFO_PRESENT, env.data(), nullptr,
                                     &info.StartupInfo, &pi);
  DWORD error = ok ? 0 : GetLastError();
  DeleteProcThreadAttributeList(attributes);
  closesocket(c);
  if (!ok) {
    fprintf(stderr, "kivexec: cannot start %s: error %lu\n", opt.program.c_str(), error);
    program_ended(nullptr, address);
    return;
  }
  CloseHandle(pi.hThread);
  EnterCriticalSection(&lock);
  processes.push_back(pi.hProcess);
  LeaveCriticalSection(&lock);
  HANDLE t = CreateThread(nullptr, 64 * 1024, watch, new started{pi.hProcess, address},
                          STACK_SIZE_PARAM_IS_A_RESERVATION, nullptr);
  if (t) {
    CloseHandle(t);
  } else {
    // Nobody could watch it: it runs without its time limit, and its place is given back.
    program_ended(pi.hProcess, address);
    CloseHandle(pi.hProcess);
  }
}

struct server {
  unsigned port;
  SOCKET sock;
  volatile LONG stopping;  // set before the main thread closes sock under the port's thread
  HANDLE thread;
};

// One port: a free place first, then a connection. While every place is taken nothing
// is accepted, so further connections wait in the socket's backlog.
DWORD WINAPI accept_loop(void *arg) {
  auto *sv = static_cast<server *>(arg);
  for (;;) {
    HANDLE wait[2] = {stopping, slots};
    if (WaitForMultipleObjects(2, wait, FALSE, INFINITE) != WAIT_OBJECT_0 + 1) break;
    // The port may have been removed while this thread waited for a place: its socket is
    // closed, and the number may already name another socket.
    if (sv->stopping) {
      ReleaseSemaphore(slots, 1, nullptr);
      break;
    }
    SOCKET c = accept(sv->sock, nullptr, nullptr);
    if (c == INVALID_SOCKET) {
      ReleaseSemaphore(slots, 1, nullptr);
      // Closing the socket is how the main thread ends a blocked accept.
      if (sv->stopping) break;
      // A failure that lasts (out of sockets or memory) must not make the loop spin.
      if (WSAGetLastError() != WSAECONNRESET) WaitForSingleObject(stopping, 100);
      continue;
    }
    std::string address = remote_address(c);
    EnterCriticalSection(&lock);
    idle_since = GetTickCount64();
    bool over = opt.per_ip && per_address[address] >= opt.per_ip;
    if (!over) {
      per_address[address]++;
      running++;
    } else if (per_address[address] == 0) {
      per_address.erase(address);
    }
    LeaveCriticalSection(&lock);
    if (over) {
      fprintf(stderr, "kivexec: %s has %u connections already (--per-ip %u): closed\n",
              address.c_str(), opt.per_ip, opt.per_ip);
      closesocket(c);
      ReleaseSemaphore(slots, 1, nullptr);
      continue;
    }
    start_program(c, address);
  }
  return 0;
}

void stop_server(kivagent *agent, server *sv) {
  InterlockedExchange(&sv->stopping, 1);
  kivagent_drop(agent, sv->port);
  if (sv->thread) CloseHandle(sv->thread);
  sv->thread = nullptr;
  sv->port = 0;
}

// After "exit": running programs may finish for the grace; those left are ended.
void finish_programs() {
  ULONGLONG deadline = GetTickCount64() + opt.grace_ms;
  for (;;) {
    EnterCriticalSection(&lock);
    unsigned left = running;
    LeaveCriticalSection(&lock);
    ULONGLONG now = GetTickCount64();
    if (left == 0 || now >= deadline) break;
    WaitForSingleObject(changed, static_cast<DWORD>(deadline - now));
  }
  EnterCriticalSection(&lock);
  for (HANDLE p : processes) TerminateProcess(p, 1);
  LeaveCriticalSection(&lock);
  // Their watchers give their places back; wait for that so the programs are gone.
  for (int i = 0; i < 100; i++) {
    EnterCriticalSection(&lock);
    unsigned left = running;
    LeaveCriticalSection(&lock);
    if (left == 0) break;
    WaitForSingleObject(changed, 100);
  }
}

}  // namespace

int main(int argc, char **argv) {
  if (!parse(argc, argv)) return 2;
  WSADATA wsa;
  if (WSAStartup(MAKEWORD(2, 2), &wsa) != 0) return 2;
  InitializeCriticalSection(&lock);
  slots =
      CreateSemaphoreA(nullptr, static_cast<LONG>(opt.max), static_cast<LONG>(opt.max), nullptr);
  stopping = CreateEventA(nullptr, TRUE, FALSE, nullptr);
  changed = CreateEventA(nullptr, FALSE, FALSE, nullptr);
  if (!slots || !stopping || !changed) return 2;
  read_environment();

  kivagent agent;
  int r = kivagent_start(&agent, argc, argv, KIVAGENT_BLOCKING);
  if (r != 0) {
    fprintf(stderr, "kivexec: no start-up from the port manager (%d)\n", r);
    kivagent_end(&agent);
    return r == KIVAGENT_EOF ? 0 : 2;
  }
  idle_since = GetTickCount64();
  std::vector<server> servers(agent.nports);
  unsigned serving = 0;
  for (unsigned i = 0; i < agent.nports; i++) {
    kivagent_port *p = &agent.ports[i];
    if (p->sock == INVALID_SOCKET && kivagent_listen(p->port, KIVAGENT_BLOCKING, &p->sock) != 0) {
      fprintf(stderr, "kivexec: cannot listen on port %u (%d)\n", p->port, WSAGetLastError());
      continue;
    }
    servers[i].port = p->port;
    servers[i].sock = p->sock;
    servers[i].thread = CreateThread(nullptr, 64 * 1024, accept_loop, &servers[i],
                                     STACK_SIZE_PARAM_IS_A_RESERVATION, nullptr);
    if (servers[i].thread) serving++;
  }
  int code = serving ? 0 : 1;
  bool done = !serving;
  while (!done) {
    DWORD timeout = INFINITE;
    EnterCriticalSection(&lock);
    if (running == 0) {
      ULONGLONG idle = GetTickCount64() - idle_since, life = agent.lifespan * 1000ull;
      timeout = idle >= life ? 0 : static_cast<DWORD>(std::min<ULONGLONG>(life - idle, 0xFFFFFFFE));
    }
    LeaveCriticalSection(&lock);
    if (timeout == 0) break;
    HANDLE wait[2] = {agent.event, changed};
    DWORD w = WaitForMultipleObjects(2, wait, FALSE, timeout);
    if (w == WAIT_FAILED) break;
    if (w != WAIT_OBJECT_0) continue;  // a program ended or time passed: reckon again
    kivagent_event ev;
    while (!done && kivagent_next(&agent, &ev)) {
      if (ev.kind == KIVAGENT_REMOVE) {
        for (auto &sv : servers)
          if (sv.port == ev.port) stop_server(&agent, &sv);
      } else if (ev.kind == KIVAGENT_EXIT || ev.kind == KIVAGENT_CLOSED) {
        done = true;
      } else if (ev.kind == KIVAGENT_ERROR) {
        fprintf(stderr, "kivexec: line ignored (%d): %s\n", ev.code, ev.line);
      }  // "reconfig": nothing kivexec serves depends on the configuration
    }
  }
  SetEvent(stopping);
  for (auto &sv : servers) InterlockedExchange(&sv.stopping, 1);
  kivagent_end(&agent);  // closes the listening sockets: no accept is left waiting
  finish_programs();
  fflush(stderr);
  ExitProcess(static_cast<UINT>(code));
}
