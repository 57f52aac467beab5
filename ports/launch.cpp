// Launching: agents with their listening sockets handed over, global programs, and the
// agent commands written on an agent's pipe.
#include <cstdarg>
#include <cstring>
#include <initializer_list>

#include "lib/heap.h"
#include "lib/printf.h"
#include "lib/wire.h"
#include "ports/internal.h"
#include "toolkit/config/info.h"
#include "toolkit/runtime/base64.h"
#include "toolkit/runtime/clock.h"
#include "toolkit/runtime/error.h"
#include "toolkit/runtime/memory.h"
#include "toolkit/runtime/scoped_win.h"

static_assert(sizeof(WSAPROTOCOL_INFOA) == WIRE_INFO_SIZE,
              "agents decode the protocol information");

namespace {

constexpr int B64_SIZE = WIRE_INFO_TEXT + 1;  // the protocol information in base64 and its zero
// The longest port line with its CR LF.
constexpr int PORT_LINE_MAX = WIRE_PORT_LINE_MAX + 2;
// Room in an agent's pipe beyond its start-up for the commands of its life ("remove",
// "reconfig", "exit"), so that those too are written while the agent is busy.
constexpr int LATER_COMMANDS = 4096;

// A further auto port that a launch for p hands to the same agent: same service, idle and
// listening. A hooked port's agent serves that port alone.
bool joins_launch(const port_record *q, const port_record *p) {
  return p->start == START_AUTO && q != p && q->service == p->service && !q->agent &&
         q->sock != INVALID_SOCKET && q->start == START_AUTO && !(q->flags & PORT_REMOVE);
}

// The pipe an agent for p gets holds its whole start-up and more: kivd's writes are
// synchronous, and an agent slow to read must not stall kivd.
DWORD agent_pipe_size(const port_record *p) {
  DWORD ports = 1;
  for (const port_record *q = ssock_ports; q; q = q->next) ports += joins_launch(q, p);
  return ports * PORT_LINE_MAX + sizeof WIRE_END_PORTS "\r\n" + SENDCMD_SIZE + 2 + LATER_COMMANDS;
}

// Duplicates p's socket for pid and writes its port line; the caller has cancelled the
// socket's event selection. False (nothing written) when the duplication fails.
bool handover(port_record *p, child_record *c, char *b64) {
  WSAPROTOCOL_INFOA info;
  if (WSADuplicateSocketA(p->sock, c->pid, &info) == SOCKET_ERROR) return false;
  kiv_b64encode(&info, sizeof info, b64);
  sendcmd(c, WIRE_PORT_HANDOVER, static_cast<unsigned>(p->port), b64);
  p->agent = c;
  c->links++;
  return true;
}

// The agent command line without its -C piece. The debug spec has no bound of its own, so
// a line that outgrows the usual buffer gets a heap block of its exact size instead
// of being cut: the agent must see it whole. Null when the heap refuses.
char *agent_command_line(const char *program, const char *debugspec, const char *extra,
                         char (&fixed)[CMDLINE_SIZE]) {
  size_t need = strlen(program) + (debugspec ? 3 + strlen(debugspec) : 0) +
                (extra ? 1 + strlen(extra) : 0) + 1;
  char *line = need <= sizeof fixed
                   ? fixed
                   : static_cast<char *>(kiv_alloc(unsigned(need), "ssock.start_agent"));
  if (!line) return nullptr;
  xsnprintf(line, unsigned(need), "%s%s%s%s%s", program, debugspec ? " -D" : "",
            debugspec ? debugspec : "", extra ? " " : "", extra ? extra : "");
  return line;
}

// What an agent is started with: its standard handles named as kivd's own, and the list
// of handles it may inherit limited to those and its pipe's read end, so that nothing
// else kivd holds inheritable (a handle kivd itself inherited, say) reaches it.
struct agent_startup {
  STARTUPINFOEXA info = {};
  HANDLE inherit[4];
  char list[64];  // the attribute list; its size for one attribute is well below this
  bool listed = false;

  explicit agent_startup(HANDLE pipe) {
    info.StartupInfo.cb = sizeof info;
    info.StartupInfo.dwFlags = STARTF_USESTDHANDLES;
    info.StartupInfo.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
    info.StartupInfo.hStdOutput = GetStdHandle(STD_OUTPUT_HANDLE);
    info.StartupInfo.hStdError = GetStdHandle(STD_ERROR_HANDLE);
    int n = 0;
    inherit[n++] = pipe;
    for (HANDLE h :
         {info.StartupInfo.hStdInput, info.StartupInfo.hStdOutput, info.StartupInfo.hStdError}) {
      DWORD flags = 0;
      bool seen = false;
      for (int i = 0; i < n; i++) seen |= inherit[i] == h;
      // Only an inheritable handle may be listed; a console's or an absent one is not.
      if (!seen && GetHandleInformation(h, &flags) && (flags & HANDLE_FLAG_INHERIT))
        inherit[n++] = h;
    }
    SIZE_T size = sizeof list;
    auto *attributes = reinterpret_cast<LPPROC_THREAD_ATTRIBUTE_LIST>(list);
    if (InitializeProcThreadAttributeList(attributes, 1, 0, &size)) {
      listed = UpdateProcThreadAttribute(attributes, 0, PROC_THREAD_ATTRIBUTE_HANDLE_LIST, inherit,
                                         n * sizeof(HANDLE), nullptr, nullptr);
      if (listed)
        info.lpAttributeList = attributes;
      else
        DeleteProcThreadAttributeList(attributes);
    }
  }
  ~agent_startup() {
    if (listed) DeleteProcThreadAttributeList(info.lpAttributeList);
  }
  DWORD flags() const { return listed ? EXTENDED_STARTUPINFO_PRESENT : 0; }
};

bool limited(const job_limits &limits) { return limits.memory || limits.processes || limits.cpu; }

// Starts line as `account` in a job of its own with `limits`, the job in *job; every
// failure is reported, a failed CreateProcess naming application and `shown`, and its
// system error goes to *error. Created
// suspended, the process joins its job before its first instruction, so whatever it
// starts joins too; the job ends them all when kivd closes it, however kivd ends. A
// process that cannot join (a system without nested jobs, when kivd runs in a job itself)
// still runs, reported, unless it has limits: it never runs without them.
// Processes of another account get the window station and desktop of their own logon
// session (an empty desktop name; the system makes them as it does for services of that
// account): kivd's station and desktop stay closed to them and no access list changes.
int run_in_job(const char *application, char *line, const char *shown, int account,
               const job_limits &limits, BOOL inherit, DWORD flags, STARTUPINFOA *startup,
               PROCESS_INFORMATION *info, HANDLE *job, const char *tag, DWORD *error) {
  *job = nullptr;
  scoped_handle token;
  if (int rc = account_token(account, token.put(), tag, error)) return rc;
  char own_session[] = "";
  if (token.valid()) startup->lpDesktop = own_session;
  flags |= CREATE_SUSPENDED;
  bool started = token.valid()
                     ? CreateProcessAsUserA(token.get(), application, line, nullptr, nullptr,
                                            inherit, flags, nullptr, nullptr, startup, info)
                     : CreateProcessA(application, line, nullptr, nullptr, inherit, flags, nullptr,
                                      nullptr, startup, info);
  startup->lpDesktop = nullptr;
  if (!started) {
    *error = GetLastError();
    kiv_logerror(nullptr, tag, KIV_SEV_ERROR, KIV_ESYS, "CreateProcess(%s,%s) failed %d",
                 application, shown, static_cast<int>(*error));
    return KIV_ESYS;
  }
  scoped_handle j;
  DWORD job_error = 0;
  bool joined = job_create(limits, j.put(), tag, &job_error) == 0;
  if (joined && !AssignProcessToJobObject(j.get(), info->hProcess)) {
    job_error = GetLastError();
    joined = false;
  }
  if (!joined) {
    if (limited(limits)) {
      *error = job_error;
      kiv_logerror(nullptr, tag, KIV_SEV_ERROR, KIV_ESYS, "Process %d not started: no job [%d]",
                   static_cast<int>(info->dwProcessId), static_cast<int>(job_error));
      TerminateProcess(info->hProcess, 1);
      CloseHandle(info->hThread);
      CloseHandle(info->hProcess);
      return KIV_ESYS;
    }
    kiv_logerror(nullptr, tag, KIV_SEV_WARNING, KIV_ESYS, "Process %d runs outside kivd's job [%d]",
                 static_cast<int>(info->dwProcessId), static_cast<int>(job_error));
  }
  ResumeThread(info->hThread);
  CloseHandle(info->hThread);
  *job = joined ? j.release() : nullptr;
  return 0;
}

}  // namespace

bool start_allowed(int *starts, time_t *period_start, int limit) {
  if (*period_start != 0 && (*starts)++ < limit) return true;
  time_t now = kiv_time();
  bool allowed = now - *period_start >= START_PERIOD;
  // A refusal starts the counting afresh as well.
  *period_start = now;
  *starts = 0;
  return allowed;
}

int start_agent(port_record *p, DWORD *error) {
  static const char TAG[] = "ssock.start_agent";
  service_record *svc = p->service;
  if (!svc->program || strlen(svc->program) > PROGRAM_MAX) {
    kiv_logerror(nullptr, TAG, KIV_SEV_ERROR, KIV_ECONFIG, "No program configured for service %s",
                 svc->name);
    kivev_event ev{};
    ev.id = KIVEV_PORT_NO_PROGRAM;
    ev.port = p->port;
    ev.service = svc->name;
    kivev_emit(&ev);
    return KIV_ECONFIG;
  }
  if (!start_allowed(&svc->starts, &svc->period_start, AGENT_STARTS)) {
    KIV_LOG(3, TAG, "Too many agents started for service %s", svc->name);
    count_of<WIRE_STAT_SERVICE_THROTTLES>(svc)++;
    kivev_event ev{};
    ev.id = KIVEV_PORT_THROTTLED;
    ev.count = AGENT_STARTS + 1;
    ev.period = START_PERIOD;
    disable_port(p, DISABLE_THROTTLED, WIRE_STAT_PORT_RESTS_THROTTLED, &ev);
    for (port_record *q = ssock_ports; q; q = q->next)
      if (q != p && q->service == svc && !q->agent && q->sock != INVALID_SOCKET &&
          !(q->flags & PORT_REMOVE))
        disable_port(q, DISABLE_THROTTLED, WIRE_STAT_PORT_RESTS_THROTTLED, &ev);
    return KIV_EINVAL;
  }
  if (p->extra_args && strlen(p->extra_args) > EXTRA_ARGS_MAX) {
    kiv_logerror(nullptr, TAG, KIV_SEV_ERROR, KIV_ECONFIG, "Too big extra_args (len=%d)",
                 static_cast<int>(strlen(p->extra_args)));
    return KIV_ECONFIG;
  }
  char fixed[CMDLINE_SIZE];
  char *line = agent_command_line(svc->program, kiv_logspec(), p->extra_args, fixed);
  auto *c = static_cast<child_record *>(kiv_zalloc(sizeof(child_record), TAG));
  int rc = line && c
               ? start_child(nullptr, line, agent_pipe_size(p), svc->account, svc->limits, c, error)
               : KIV_ENOMEM;
  if (line != fixed) xfree(line);
  if (rc != 0) {
    if (rc == KIV_ESYS) count_of<WIRE_STAT_SERVICE_START_FAILURES>(svc)++;
    kiv_logerror(nullptr, TAG, KIV_SEV_ERROR, rc, "Failed to start agent for service %s. Code = %d",
                 svc->name, rc);
    xfree(c);
    return rc;
  }
  KIV_LOG(3, TAG, "Child %d started for port %d [%s, %s]", static_cast<int>(c->pid), p->port,
          svc->name, START_NAMES[p->start]);
  if (p->start == START_ON) {
    if (!p->address)
      sendcmd(c, WIRE_PORT_ON, static_cast<unsigned>(p->port));
    else if (strchr(p->address, ':'))
      sendcmd(c, WIRE_PORT_AT "[%s]:%u", p->address, static_cast<unsigned>(p->port));
    else
      sendcmd(c, WIRE_PORT_AT "%s:%u", p->address, static_cast<unsigned>(p->port));
    p->agent = c;
    c->links++;
  } else {
    char b64[B64_SIZE];
    WSAEventSelect(p->sock, p->event, 0);
    if (!handover(p, c, b64)) {
      *error = static_cast<DWORD>(WSAGetLastError());
      kiv_logerror(nullptr, TAG, KIV_SEV_ERROR, KIV_ESYS,
                   "Failed to WSADuplicateSocket(). Error %d", static_cast<int>(*error));
      WSAEventSelect(p->sock, p->event, FD_ACCEPT);
      count_of<WIRE_STAT_SERVICE_START_FAILURES>(svc)++;
      // The agent runs on without its port; closing its pipe tells it so.
      free_child(c);
      return KIV_ESYS;
    }
    for (port_record *q = ssock_ports; q; q = q->next) {
      if (!joins_launch(q, p)) continue;
      WSAEventSelect(q->sock, q->event, 0);
      if (!handover(q, c, b64)) {
        KIV_LOG(2, TAG, "Failed to WSADuplicateSocket() for port %d, Error %d", q->port,
                WSAGetLastError());
        WSAEventSelect(q->sock, q->event, FD_ACCEPT);
        continue;
      }
      KIV_LOG(3, TAG, "Port %d added to %d", q->port, static_cast<int>(c->pid));
    }
  }
  sendcmd(c, WIRE_END_PORTS);
  const schema_value &row = schema_values[SCHEMA_SERVICE_LIFESPAN];
  char path[PATH_SIZE];
  char *lifespan = nullptr;
  if (kivschema_path(path, row, svc->name) == 0) kivinfo_get(nullptr, path, &lifespan);
  sendcmd(c, WIRE_LIFESPAN "%s", lifespan ? lifespan : row.fallback);
  xfree(lifespan);
  count_of<WIRE_STAT_PORT_STARTS>(p)++;
  count_of<WIRE_STAT_SERVICE_STARTS>(svc)++;
  return 0;
}

bool agent_pipe(HANDLE *read, HANDLE *write, DWORD size) {
  // kivd never waits for an agent to read: an anonymous pipe is a named pipe, whose write
  // end can be made not to wait, once for all its writes.
  DWORD nowait = PIPE_READMODE_BYTE | PIPE_NOWAIT;
  if (!CreatePipe(read, write, nullptr, size)) return false;
  if (SetNamedPipeHandleState(*write, &nowait, nullptr, nullptr)) return true;
  DWORD error = GetLastError();
  CloseHandle(*read);
  CloseHandle(*write);
  *read = *write = nullptr;
  SetLastError(error);
  return false;
}

int start_child(const char *application, const char *command_line, DWORD pipe_size, int account,
                const job_limits &limits, child_record *c, DWORD *error) {
  static const char TAG[] = "ssock.start_child";
  c->pipe = nullptr;
  c->process = nullptr;
  c->pid = 0;
  c->job = nullptr;
  size_t length = strlen(command_line) + 20;  // " -C0x" and eight digits, and the zero
  auto *line = static_cast<char *>(kiv_alloc(static_cast<unsigned>(length), TAG));
  if (!line) return KIV_ENOMEM;
  scoped_handle read, write;
  HANDLE inheritable = nullptr;
  PROCESS_INFORMATION info = {};
  int rc = KIV_ESYS;
  if (!agent_pipe(read.put(), write.put(), pipe_size)) {
    *error = GetLastError();
    kiv_logerror(nullptr, TAG, KIV_SEV_ERROR, KIV_ESYS, "CreatePipe() failed %d",
                 static_cast<int>(*error));
  } else if (!DuplicateHandle(GetCurrentProcess(), read.release(), GetCurrentProcess(),
                              &inheritable, 0, TRUE,
                              DUPLICATE_CLOSE_SOURCE | DUPLICATE_SAME_ACCESS)) {
    // DUPLICATE_CLOSE_SOURCE closes the source even when the duplication fails.
    *error = GetLastError();
    kiv_logerror(nullptr, TAG, KIV_SEV_ERROR, KIV_ESYS, "DuplicateHandle() failed %d",
                 static_cast<int>(*error));
  } else {
    read.reset(inheritable);
    // The handle value is what the agent's -C names; handles fit in 32 bits.
    xsnprintf(line, static_cast<unsigned>(length), "%s -C%#x", command_line,
              static_cast<unsigned>(reinterpret_cast<uintptr_t>(inheritable)));
    agent_startup startup(inheritable);
    rc = run_in_job(application, line, command_line, account, limits, TRUE, startup.flags(),
                    &startup.info.StartupInfo, &info, &c->job, TAG, error);
  }
  // The read end now lives on in the agent alone.
  read.reset();
  xfree(line);
  if (rc != 0) return rc;
  c->process = info.hProcess;
  c->pid = info.dwProcessId;
  c->pipe = write.release();
  return 0;
}

int start_prog(prog_record *pg, DWORD *error) {
  static const char TAG[] = "ssock.start_prog";
  if (!start_allowed(&pg->starts, &pg->period_start, PROG_STARTS)) {
    KIV_LOG(3, TAG, "Too many prog started for %s", pg->name);
    count_of<WIRE_STAT_PROGRAM_THROTTLES>(pg)++;
    pg->flags |= PROG_DISABLED;
    return KIV_EINVAL;
  }
  // CreateProcessA may write into its command line: it gets a copy.
  char *line = pg->program ? xstrdup(pg->program, nullptr) : nullptr;
  STARTUPINFOA startup = {};
  startup.cb = sizeof startup;
  PROCESS_INFORMATION info = {};
  int rc = line ? run_in_job(nullptr, line, pg->program, pg->account, pg->limits, FALSE, 0,
                             &startup, &info, &pg->job, TAG, error)
                : KIV_ESYS;
  if (!line) {
    *error = ERROR_INVALID_PARAMETER;
    kiv_logerror(nullptr, TAG, KIV_SEV_ERROR, KIV_ESYS, "CreateProcess(%s) failed %d", pg->program,
                 static_cast<int>(ERROR_INVALID_PARAMETER));
  }
  xfree(line);
  if (rc != 0) {
    count_of<WIRE_STAT_PROGRAM_START_FAILURES>(pg)++;
    return rc;
  }
  count_of<WIRE_STAT_PROGRAM_STARTS>(pg)++;
  pg->process = info.hProcess;
  pg->pid = info.dwProcessId;
  KIV_LOG(3, TAG, "Started pid %d: %s", static_cast<int>(pg->pid), pg->program);
  return 0;
}

namespace {

const char NOTICE[] = WIRE_RECONFIG "\r\n";
constexpr DWORD NOTICE_LENGTH = sizeof NOTICE - 1;

// Writes what the agent's pipe (made not to wait by start_child) takes at once: the
// count written, or -1 once the agent has closed its end (handled as any other end).
long write_nowait(child_record *c, const char *text, DWORD length) {
  DWORD written = 0;
  if (!WriteFile(c->pipe, text, length, &written, nullptr))
    return GetLastError() == ERROR_NO_DATA ? -1 : 0;
  return static_cast<long>(written);
}

// The rest of a notice that a full pipe cut (Windows writes what fits) goes before any
// other line, so the agent never reads a line cut short; true when nothing is owed.
bool pay_owed(child_record *c) {
  if (c->owed == 0) return true;
  long n = write_nowait(c, NOTICE + NOTICE_LENGTH - c->owed, static_cast<DWORD>(c->owed));
  if (n > 0) c->owed -= static_cast<int>(n);
  return c->owed == 0 || n < 0;
}

}  // namespace

void sendcmd(child_record *c, const char *format, ...) {
  static const char TAG[] = "ssock.sendcmd";
  if (!c->pipe) return;
  // wvsprintfA never writes more than 1024 characters with its zero; the longest agent
  // command, a port line for port 65535, has 509.
  char text[SENDCMD_SIZE + 2];
  va_list args;
  va_start(args, format);
  int length = wvsprintfA(text, format, args);
  va_end(args);
  if (length < 0) length = 0;
  if (length > 20)
    KIV_LOG(3, TAG, "To %d: \"%.20s ...\"", static_cast<int>(c->pid), text);
  else
    KIV_LOG(3, TAG, "To %d: \"%s\"", static_cast<int>(c->pid), text);
  text[length] = '\r';
  text[length + 1] = '\n';
  long written = pay_owed(c) ? write_nowait(c, text, static_cast<DWORD>(length + 2)) : 0;
  if (written < 0 || written == length + 2) return;
  // A command the agent must get (a port to drop, the end) that its full pipe cannot
  // take: rather than wait for it, or leave it serving what it was not told, kivd ends it.
  // Its start-up always fits: its pipe is made for it.
  kiv_logerror(nullptr, TAG, KIV_SEV_WARNING, KIV_EBUSY, "Agent %d does not read its pipe: ended",
               static_cast<int>(c->pid));
  TerminateProcess(c->process, 1);
}

void send_reconfig(child_record *c) {
  if (!c->pipe) return;
  long written = pay_owed(c) ? write_nowait(c, NOTICE, NOTICE_LENGTH) : 0;
  if (written > 0 && written < static_cast<long>(NOTICE_LENGTH))
    c->owed = static_cast<int>(NOTICE_LENGTH - written);
  // An agent may miss this notice: while its pipe is full, it is dropped, so that an agent
  // that reads only its start-up is neither waited for nor ended for it.
  if (written == 0)
    KIV_LOG(2, "ssock.send_reconfig", "Pipe of %d full: reconfig notice dropped",
            static_cast<int>(c->pid));
}
