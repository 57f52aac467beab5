#include "service/sserv.h"

#include <aclapi.h>

#include <cstdio>
#include <cstring>

#include "control/cmd.h"
#include "toolkit/runtime/mwait.h"
#include "control/npipe.h"
#include "lib/heap.h"
#include "lib/printf.h"
#include "lib/wire.h"
#include "ports/ssock.h"
#include "service/evlog.h"
#include "service/handover.h"
#include "service/retired.h"
#include "service/metrics.h"
#include "toolkit/config/info.h"
#include "toolkit/runtime/cinit.h"
#include "toolkit/runtime/counters.h"
#include "toolkit/runtime/clock.h"
#include "toolkit/runtime/error.h"
#include "toolkit/runtime/events.h"
#include "toolkit/runtime/log.h"
#include "toolkit/runtime/memory.h"
#include "toolkit/runtime/scoped_win.h"

const char SSERV_NAME[] = WIRE_SERVICE;
const char SSERV_DISPLAY[] = "Varnel Agent Port Manager";
const char SSERV_PIPE[] = WIRE_PIPE;
const char SSERV_DESCRIPTION[] =
    "Listens on TCP ports for agent programs and starts the configured agent when a client "
    "connects.";
const DWORD SSERV_RESTART_MS[3] = {5000, 10000, 60000};

namespace {

HANDLE die;
ULONGLONG swept;  // the last sweep of the retired agent files (GetTickCount64)
constexpr ULONGLONG SWEEP_EVERY_MS = 60000;
// Set by the first stop, from whatever thread: initialize then signals `die` at once, and
// the port manager starts nothing more.
volatile LONG stop_early;
SERVICE_STATUS status;
SERVICE_STATUS_HANDLE status_handle;
// The status is changed and reported by the service main and by the control handler, on
// two threads: each change and its report happen under this lock, so a stop pending
// reported by the handler is never followed by the main's running.
CRITICAL_SECTION status_lock;

bool stop_requested() { return InterlockedCompareExchange(&stop_early, 0, 0) != 0; }

// The agent files an upgrade moved aside go once nothing runs from them: looked for at
// start and stop, and after a process's end at most once a minute.
void sweep_install_folder() {
  sweep_retired_here();
  swept = GetTickCount64();
}

constexpr DWORD STATUS_TYPE = 0x30;  // own-process and share-process bits, as reported
constexpr int LOGGED_WAIT = 7200;    // waits shorter than this are logged

void report(const char *tag) {
  if (!SetServiceStatus(status_handle, &status))
    KIV_LOG(1, tag, "SetServiceStatus() error %d", static_cast<int>(GetLastError()));
}

}  // namespace

void WINAPI kivw32_service_start(DWORD, char **argv) {
  static const char tag[] = "sserv.kivw32_service_start";
  char user[128];
  DWORD size = sizeof user;
  if (GetUserNameA(user, &size)) KIV_LOG(3, tag, "My UserName: %s", user);
  KIV_LOG(3, tag, "Service %s startup ...", argv[0]);
  status.dwServiceType = STATUS_TYPE;
  status.dwCurrentState = SERVICE_START_PENDING;
  status.dwControlsAccepted = SERVICE_ACCEPT_STOP;
  status.dwWin32ExitCode = 0;
  status.dwServiceSpecificExitCode = 0;
  status.dwCheckPoint = 0;
  status.dwWaitHint = 0;
  InitializeCriticalSection(&status_lock);
  status_handle = RegisterServiceCtrlHandlerA(argv[0], kivw32_service_ctrl);
  if (!status_handle) {
    KIV_LOG(1, tag, "RegisterServiceCtrlHandler() error %d", static_cast<int>(GetLastError()));
    return;
  }
  if (!SetServiceStatus(status_handle, &status)) {
    KIV_LOG(1, tag, "SetServiceStatus() error %d", static_cast<int>(GetLastError()));
    return;
  }
  secure_registration();
  int result = initialize();
  if (result == 0) {
    EnterCriticalSection(&status_lock);
    bool running = status.dwCurrentState == SERVICE_START_PENDING;
    if (running) {
      status.dwCurrentState = SERVICE_RUNNING;
      SetServiceStatus(status_handle, &status);
    }
    LeaveCriticalSection(&status_lock);
    if (running) KIV_LOG(3, tag, "Service running");
    result = run_service();  // after a stop during start-up it only cleans up
  }
  KIV_LOG(3, tag, "Service stopped with code %d", result);
  kivw32_service_ctrl(SERVICE_CONTROL_STOP);
  // After a hand-over every millisecond counts: the successor starts once this ends.
  bool quick = handed_over();
  if (!quick) Sleep(1500);
  EnterCriticalSection(&status_lock);
  status.dwCurrentState = SERVICE_STOPPED;
  status.dwWin32ExitCode = result ? ERROR_SERVICE_SPECIFIC_ERROR : 0;
  status.dwServiceSpecificExitCode = static_cast<DWORD>(result);
  status.dwCheckPoint++;
  status.dwWaitHint = 0;
  BOOL reported = SetServiceStatus(status_handle, &status);
  LeaveCriticalSection(&status_lock);
  if (reported) {
    if (!quick) Sleep(1500);
  } else {
    KIV_LOG(1, tag, "SetServiceStatus() error %d", static_cast<int>(GetLastError()));
  }
}

void WINAPI kivw32_service_ctrl(DWORD control) {
  EnterCriticalSection(&status_lock);
  if (control == SERVICE_CONTROL_STOP) {
    stop_service();
    status.dwCheckPoint = 0;
    // Once stopped, the state only goes on: a late stop never reports stopped backwards.
    if (status.dwCurrentState != SERVICE_STOPPED) status.dwCurrentState = SERVICE_STOP_PENDING;
  } else if (control == SERVICE_CONTROL_INTERROGATE) {
    status.dwCheckPoint++;
  }
  report("sserv.kivw32_service_ctrl");
  LeaveCriticalSection(&status_lock);
}

// The integrity the pipe is labelled with: high, or kivd's own where that is lower. A
// label above the creator's own is refused; a console kivd of a user who is not elevated
// keeps its pipe at its own level, still above its restricted agents (low), and only the
// system account and elevated administrators pass the access list in any case.
static DWORD pipe_integrity() {
  DWORD level = SECURITY_MANDATORY_HIGH_RID, size = 0;
  alignas(8) BYTE buffer[sizeof(TOKEN_MANDATORY_LABEL) + SECURITY_MAX_SID_SIZE];
  HANDLE token = nullptr;
  if (OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token)) {
    if (GetTokenInformation(token, TokenIntegrityLevel, buffer, sizeof buffer, &size)) {
      PSID sid = reinterpret_cast<TOKEN_MANDATORY_LABEL *>(buffer)->Label.Sid;
      DWORD own = *GetSidSubAuthority(sid, *GetSidSubAuthorityCount(sid) - 1);
      if (own < level) level = own;
    }
    CloseHandle(token);
  }
  return level;
}

void *MakePipeSecurity() {
  static const char tag[] = "sserv.MakePipeSecurity";
  char system[] = "SYSTEM", admins[] = "ADMINISTRATORS";
  EXPLICIT_ACCESSA entries[2];
  BuildExplicitAccessWithNameA(&entries[0], system, GENERIC_READ | GENERIC_WRITE, GRANT_ACCESS,
                               NO_INHERITANCE);
  BuildExplicitAccessWithNameA(&entries[1], admins, GENERIC_READ | GENERIC_WRITE, GRANT_ACCESS,
                               NO_INHERITANCE);
  PACL acl = nullptr;
  DWORD rc = SetEntriesInAclA(2, entries, nullptr, &acl);
  scoped_local acl_memory(acl);
  if (rc != ERROR_SUCCESS) {
    kiv_logerror(nullptr, tag, KIV_SEV_FATAL, static_cast<int>(rc), "SetEntriesInAcl() failed: %d",
                 static_cast<int>(rc));
    return nullptr;
  }
  unsigned aclsize = acl->AclSize;
  KIV_LOG(3, tag, "ACL size: %d", static_cast<int>(aclsize));
  // The label, in a system access list behind the access list: a restricted agent runs as
  // kivd's own user, so only its integrity keeps it from opening the pipe at all.
  alignas(8) BYTE label[SECURITY_MAX_SID_SIZE];
  SID_IDENTIFIER_AUTHORITY mandatory = SECURITY_MANDATORY_LABEL_AUTHORITY;
  InitializeSid(label, &mandatory, 1);
  *GetSidSubAuthority(label, 0) = pipe_integrity();
  unsigned saclsize =
      (sizeof(ACL) + sizeof(SYSTEM_MANDATORY_LABEL_ACE) - sizeof(DWORD) + GetLengthSid(label) + 3) &
      ~3u;
  unsigned size = sizeof(SECURITY_DESCRIPTOR) + aclsize + saclsize;
  auto *sd = static_cast<SECURITY_DESCRIPTOR *>(kiv_alloc(size, tag));
  if (!sd || !InitializeSecurityDescriptor(sd, SECURITY_DESCRIPTOR_REVISION)) {
    kiv_logerror(nullptr, tag, KIV_SEV_FATAL, 0, "InitializeSecurityDescriptor() failed: %d", 0);
    xfree(sd);
    return nullptr;
  }
  PACL copy = reinterpret_cast<PACL>(sd + 1);
  memcpy(copy, acl, aclsize);
  PACL sacl = reinterpret_cast<PACL>(reinterpret_cast<char *>(copy) + aclsize);
  const char *step = "SetSecurityDescriptorDacl";
  bool ok = SetSecurityDescriptorDacl(sd, TRUE, copy, FALSE);
  if (ok) {
    step = "AddMandatoryAce";
    ok = InitializeAcl(sacl, saclsize, ACL_REVISION) &&
         AddMandatoryAce(sacl, ACL_REVISION, 0,
                         SYSTEM_MANDATORY_LABEL_NO_WRITE_UP | SYSTEM_MANDATORY_LABEL_NO_READ_UP,
                         label) &&
         SetSecurityDescriptorSacl(sd, TRUE, sacl, FALSE);
  }
  if (!ok) {
    kiv_logerror(nullptr, tag, KIV_SEV_FATAL, 0, "%s() failed: %d", step,
                 static_cast<int>(GetLastError()));
    xfree(sd);
    return nullptr;
  }
  return sd;
}

// The per-record ring's outlet: the event's sentence kept with its record for `why`.
// Not limited: `why` shows every event, the event log the first of a minute's repeats.
// Events of kivd itself (no port, service or program) go to its own ring, which any
// thread may reach; the records' rings only from the loop's thread. An event of a port
// that has no record (a port whose service has no program) goes to kivd's ring too, and
// so does every refused value: its record may be gone by the end of the reconfiguration.
static void keep_event(void *, const kivev_event *ev) {
  char text[KIVEV_LINE_SIZE];
  evlog_text(ev, text, sizeof text);
  if ((!ev->port && !ev->service && !ev->program) || !ssock_keep(ev, text) ||
      ev->id == KIVEV_CONFIG_REFUSED)
    kivev_keep_own(ev, text);
}

int initialize() {
  static const char tag[] = "sserv.initialize";
  WSADATA wsa;
  if (WSAStartup(MAKEWORD(2, 2), &wsa) != 0) return KIV_ESYS;
  kiv_counters_begin();
  evlog_start(nullptr);
  kivev_addoutlet(keep_event, nullptr, 0);
  HANDLE event = CreateEventA(nullptr, TRUE, FALSE, nullptr);
  InterlockedExchangePointer(&die, event);
  if (event && InterlockedCompareExchange(&stop_early, 0, 0)) SetEvent(event);

  SECURITY_ATTRIBUTES sa;
  sa.nLength = sizeof sa;
  sa.lpSecurityDescriptor = MakePipeSecurity();
  sa.bInheritHandle = FALSE;
  int rc = npipe_setup_server(2, SSERV_PIPE, &sa);
  xfree(sa.lpSecurityDescriptor);
  if (rc == 0 && !die) rc = KIV_ESYS;
  if (rc != 0) {
    KIV_LOG(3, tag, "die:%d, npipe_setup_server() -> %d", die ? 1 : 0, rc);
    evlog_stop(rc);
    return rc;
  }
  KIV_LOG(3, tag, "OK");
  cmd_setstop(stop_service);
  cmd_sethandover(handover_begin);
  ssock_setstopping(stop_requested);
  kiv_cinit(nullptr);
  kivinfo_init(0);
  // What a holder keeps for this process is adopted first; reading the configuration then
  // makes it agree, as a reconfiguration does.
  bool claimed = handover_claim();
  ssock_reconfig();
  sweep_install_folder();
  metrics_start();
  if (claimed) {
    handover_completed();
  } else {
    handover_sweep();
    kivev_event started{};
    started.id = KIVEV_SERVICE_STARTED;
    kivev_emit(&started);
  }
  return 0;
}

int wait_seconds(time_t due, time_t now) {
  time_t t = due - now;
  if (t <= 0) t = 5;
  t += 1;
  // With no handle too the loop wakes when something is due (a lone port disabled for a
  // few seconds must come back then); nothing due means a week.
  return static_cast<int>(t > SSERV_WEEK ? SSERV_WEEK : t);
}

int loop_wait(DWORD count, HANDLE *handles, DWORD timeout, DWORD *index) {
  static const char tag[] = "sserv.run_service";
  static bool failing;  // the last full wait failed: logged once, not at every retry
  int p = npipe_wait(count, handles, timeout, FALSE, mwait_any, index);
  if (p != 0 || *index != WAIT_FAILED) {
    if (failing) KIV_LOG(1, tag, "Waiting on %d handles again", static_cast<int>(count));
    failing = false;
    return p;
  }
  if (!failing) {
    long error = static_cast<long>(GetLastError());
    kiv_logerror(nullptr, tag, KIV_SEV_ERROR, KIV_ESYS,
                 "Wait on %d handles failed [%d]: serving stop and the pipe alone",
                 static_cast<int>(count), static_cast<int>(error));
    kivev_event ev{};
    ev.id = KIVEV_WAIT_FAILED;
    ev.count = static_cast<long>(count);
    ev.syserror = error;
    kivev_emit(&ev);
  }
  failing = true;
  // `die` and the pipe still work while the whole set cannot be waited on; the whole set
  // is tried again a second later, never at once.
  DWORD bounded = timeout < SSERV_RETRY_MS ? timeout : SSERV_RETRY_MS;
  p = npipe_wait(1, &handles[count - 1], bounded, FALSE, mwait_any, index);
  if (p == 0 && *index == 0) {
    *index = count - 1;
  } else if (p == 0 && *index == WAIT_FAILED) {
    Sleep(bounded);
    *index = MWAIT_TIMEOUT;
  }
  return p;
}

// The wait set, rebuilt before every wait: first the port manager's list (ssock_waitset,
// from its last pass: each idle listening port's event, each agent's process once, each
// hooking process, each running global program), then `die` (here; stop_service sets it),
// then the pipe server's read and write events (npipe_wait appends them). mwait_any
// (toolkit/runtime/mwait.h) takes the whole set at any count.
int run_service() {
  static const char tag[] = "sserv.run_service";
  char line[CMD_LINE + 1];
  time_t forced = 0;  // the due time whose update ran without a time-out
  for (;;) {
    HANDLE *handles = nullptr;
    time_t due = 0;
    unsigned n = ssock_waitset(&handles, &due);
    // The timer is due at due + 1 whatever else wakes the loop: a client whose commands
    // come faster than the wait can time out must not keep a resting port at rest. Once
    // per due time, so a due time that the pass does not move cannot spin the loop.
    if (due < kiv_time() && due != forced) {
      forced = due;
      strcpy(line, "update");
      cmd(-1, line);
      continue;
    }
    // The monitoring file's timer shares the one wait: a time-out before the port
    // manager's due time only lets it write.
    DWORD metrics_ms = metrics_tick();
    HANDLE alone[1];
    if (n == 0) handles = alone;
    handles[n] = die;
    int t = wait_seconds(due, kiv_time());
    if (t < LOGGED_WAIT) KIV_LOG(3, tag, "Waiting ... (%d seconds)", t);
    DWORD index = 0, timeout = static_cast<DWORD>(t) * 1000;
    bool ports_due = timeout <= metrics_ms;
    int p = loop_wait(n + 1, handles, ports_due ? timeout : metrics_ms, &index);
    if (p >= 1) {
      int connected = 0;
      int rc = npipe_read(p, line, CMD_LINE, &connected);
      if (connected) {
        npipe_write(p, "KIVD v0.1", 9);
      } else if (rc >= 0) {
        line[rc] = '\0';
        cmd(p, line);
        // Handed over: nothing more may happen to what the holder now holds.
        if (handed_over()) break;
      } else if (rc == KIV_EOVERFLOW) {
        // The message was read whole and dropped; the client learns why, and its next
        // message is read as usual.
        static const char refused[] = "-Message too long";
        npipe_write(p, refused, sizeof refused - 1);
      } else if (rc != KIV_EOF) {
        KIV_LOG(3, tag, "npipe_read() -> %d", rc);
      }
      continue;
    }
    if (index == n) break;
    if (index == MWAIT_TIMEOUT) {
      if (!ports_due) continue;
      strcpy(line, "update");
      cmd(-1, line);
    } else if (index < n) {
      KIV_LOG(3, tag, "wait -> %d/%d", static_cast<int>(index), n + 1);
      ssock_callback(index);
      if (GetTickCount64() - swept >= SWEEP_EVERY_MS) sweep_install_folder();
    }
  }
  KIV_LOG(3, tag, "RIP!");
  if (handed_over()) {
    handover_release();
  } else {
    ssock_cleanup();
    handover_sweep();
    sweep_install_folder();
    // Not after a hand-over: the successor writes the file as it starts.
    metrics_stop();
  }
  evlog_stop(0);
  return 0;
}

void stop_service() {
  InterlockedExchange(&stop_early, 1);
  HANDLE event = static_cast<HANDLE>(InterlockedCompareExchangePointer(&die, nullptr, nullptr));
  if (event) SetEvent(event);
}
