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
  std::string command_line;  // PROGRAM and its arguments as kivexec's own line has them
};
options opt;

// Where each argument of a command line begins and ends (ends[i] is one past it), as the
// C runtime splits it into argv: the program name up to a blank (or within quotes), then
// words separated by blanks outside quotes; a quote after an even run of backslashes
// opens or closes quoting, and "" within quotes is a quote.
void split_offsets(const char *line, std::vector<size_t> *starts, std::vector<size_t> *ends) {
  size_t i = 0;
  bool quoted = false;
  starts->push_back(0);
  for (; line[i] && (quoted || (line[i] != ' ' && line[i] != '\t')); i++)
    if (line[i] == '"') quoted = !quoted;
  ends->push_back(i);
  for (;;) {
    while (line[i] == ' ' || line[i] == '\t') i++;
    if (!line[i]) return;
    starts->push_back(i);
    quoted = false;
    while (line[i] && (quoted || (line[i] != ' ' && line[i] != '\t'))) {
      if (line[i] == '\\') {
        size_t backslashes = 0;
        while (line[i] == '\\') i++, backslashes++;
        if (line[i] == '"' && backslashes % 2) i++;  // an escaped quote
      } else if (line[i] == '"') {
        if (quoted && line[i + 1] == '"') {
          i += 2;  // "" within quotes: a quote
        } else {
          quoted = !quoted;
          i++;
        }
      } else {
        i++;
      }
    }
    ends->push_back(i);
  }
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
  // The program's line is kivexec's own as written, from the program to the last argument
  // before those the manager appended: quotes the program reads itself stay as they are.
  const char *own = GetCommandLineA();
  std::vector<size_t> starts, ends;
  split_offsets(own, &starts, &ends);
  if (starts.size() != static_cast<size_t>(argc)) {
    fprintf(stderr, "kivexec: cannot find the program in the command line\n");
    return false;
  }
  opt.command_line.assign(own + starts[i + 1], own + ends[end - 1]);
  return true;
}

// Connections served at once per address, under `lock`.
CRITICAL_SECTION lock;
std::map<std::string, unsigned> per_address;

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

// The address's numeric text and port; an IPv4 peer of a dual-stack port (a mapped IPv6
// address) as plain dotted IPv4, the way it connected. false when it cannot be written.
bool address_text(const sockaddr_storage &given, int size, char (&host)[NI_MAXHOST],
                  char (&port)[NI_MAXSERV]) {
  sockaddr_storage a = given;
  const auto *v6 = reinterpret_cast<const sockaddr_in6 *>(&given);
  if (given.ss_family == AF_INET6 && IN6_IS_ADDR_V4MAPPED(&v6->sin6_addr)) {
    auto *v4 = reinterpret_cast<sockaddr_in *>(&a);
    memset(&a, 0, sizeof a);
    v4->sin_family = AF_INET;
    v4->sin_port = v6->sin6_port;
    memcpy(&v4->sin_addr, &v6->sin6_addr.s6_addr[12], 4);
    size = sizeof *v4;
  }
  return getnameinfo(reinterpret_cast<sockaddr *>(&a), size, host, sizeof host, port,
                     sizeof port, NI_NUMERICHOST | NI_NUMERICSERV) == 0;
}

std::string environment_for(SOCKET s) {
  std::vector<std::string> env = base_environment;
  sockaddr_storage a;
  char host[NI_MAXHOST], port[NI_MAXSERV];
  for (bool remote : {true, false}) {
    int size = sizeof a;
    int r = remote ? getpeername(s, reinterpret_cast<sockaddr *>(&a), &size)
                   : getsockname(s, reinterpret_cast<sockaddr *>(&a), &size);
    if (r != 0 || !address_text(a, size, host, port)) continue;
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

std::string remote_address(const kivagent_client *client) {
  char host[NI_MAXHOST], port[NI_MAXSERV];
  return address_text(client->peer, client->peerlen, host, port) ? host : "?";
}

// Starts the program for connection c and closes kivexec's copy of c, whatever happens.
// Returns the program's process, or null when it could not be started.
//
// The connection itself is the program's standard input and output: a socket made
// without overlapped I/O by the system's base provider is a handle the program reads and
// writes as it would a pipe, and the client's half-close is its end of input. The sockets
// kivexec accepts are of that kind: the port manager and the agent library make listening
// sockets so, and an accepted socket takes the listening socket's kind. No relay thread
// stands between client and program, and kivexec holds nothing of the connection once
// the program runs.
HANDLE start_program(SOCKET c) {
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
    return nullptr;
  }
  CloseHandle(pi.hThread);
  return pi.hProcess;
}

// One connection: refused past --per-ip, else its program, ended past --timeout or when
// the grace after "exit" is over.
void serve(kivagent_client *client) {
  std::string address = remote_address(client);
  EnterCriticalSection(&lock);
  bool over = opt.per_ip && per_address[address] >= opt.per_ip;
  if (!over) per_address[address]++;
  LeaveCriticalSection(&lock);
  if (over) {
    fprintf(stderr, "kivexec: %s has %u connections already (--per-ip %u): closed\n",
            address.c_str(), opt.per_ip, opt.per_ip);
    closesocket(client->sock);
    return;
  }
  if (HANDLE process = start_program(client->sock)) {
    HANDLE wait[2] = {process, client->stop};
    DWORD w = WaitForMultipleObjects(2, wait, FALSE, opt.timeout_ms);
    if (w == WAIT_TIMEOUT)
      fprintf(stderr, "kivexec: %s ran longer than %lu s: ended\n", opt.program.c_str(),
              static_cast<unsigned long>(opt.timeout_ms / 1000));
    if (w != WAIT_OBJECT_0) {
      TerminateProcess(process, 1);
      WaitForSingleObject(process, INFINITE);
    }
    CloseHandle(process);
  }
  EnterCriticalSection(&lock);
  if (--per_address[address] == 0) per_address.erase(address);
  LeaveCriticalSection(&lock);
}

}  // namespace

int main(int argc, char **argv) {
  if (!parse(argc, argv)) return 2;
  InitializeCriticalSection(&lock);
  read_environment();
  kivagent_serving serving = {};
  serving.size = sizeof serving;
  serving.name = "kivexec";
  serving.client = serve;
  serving.max = opt.max;
  serving.grace_ms = opt.grace_ms;
  serving.stop_ms = 10000;  // for the ended programs to be gone before kivexec is
  ExitProcess(static_cast<UINT>(kivagent_serve(argc, argv, &serving)));
}
