// Supervision: the pass that carries out removals, listens, launches and restarts, the
// wait list it leaves for the main loop, and the handling of one signalled entry.
#include <ws2tcpip.h>

#include <cstring>

#include "lib/heap.h"
#include "lib/wire.h"
#include "ports/internal.h"
#include "ports/util.h"
#include "toolkit/runtime/clock.h"
#include "toolkit/runtime/error.h"
#include "toolkit/runtime/memory.h"

namespace {

const char UPDATE_TAG[] = "ssock.ssock_update";
const char CALLBACK_TAG[] = "ssock.ssock_callback";
ssock_stopfunc stopping_hook;

bool stopping() { return stopping_hook && stopping_hook(); }

// Adds the counts of a removed record to its successor's, its state's seconds excepted:
// the successor counts its own time.
void merge_counts(port_record *to, const port_record *from) {
  constexpr int SECONDS_FIRST = WIRE_STAT_PORT_SERVING_SECONDS - kiv_stats_first(WIRE_OF_PORT);
  constexpr int SECONDS_LAST = WIRE_STAT_PORT_DISABLED_SECONDS - kiv_stats_first(WIRE_OF_PORT);
  for (int i = 0; i < KIV_PORT_COUNTS; i++)
    if (i < SECONDS_FIRST || i > SECONDS_LAST) to->counts[i] += from->counts[i];
}

// Unlinks the port *link points at and frees it; *link then points at its successor.
void unlink_port(port_record **link) {
  port_record *p = *link;
  KIV_LOG(3, UPDATE_TAG, "Port %d/%s unlinked", p->port, START_NAMES[p->start]);
  *link = p->next;
  free_port(p);
}

// Tells the agent of a port that is removed or disabled by command to drop it: the sole
// port of an agent is told and waits for the agent's exit; a port among others is
// detached at once.
void tell_agent(port_record *p) {
  child_record *c = p->agent;
  KIV_LOG(3, UPDATE_TAG, "Removing port %d from pid %d", p->port, static_cast<int>(c->pid));
  if (c->links == 1) {
    if (p->flags & PORT_EXIT) {
      sendcmd(c, WIRE_EXIT);
    } else {
      sendcmd(c, WIRE_REMOVE "%u", static_cast<unsigned>(p->port));
      CloseHandle(c->pipe);
      c->pipe = nullptr;
    }
    p->flags |= PORT_TOLD;
  } else {
    sendcmd(c, WIRE_REMOVE "%u", static_cast<unsigned>(p->port));
    c->links--;
    p->agent = nullptr;
  }
}

// Opens the listening socket of a port that should listen; a failure disables the port.
void start_listening(port_record *p) {
  SOCKET s = INVALID_SOCKET;
  int error = 0;
  int rc = listen_on(p->port, &s, p->address, &error);
  WSAEVENT event = WSA_INVALID_EVENT;
  if (rc == 0) {
    event = WSACreateEvent();
    // A port without its event could never report a connection: treated as a failure.
    if (event == WSA_INVALID_EVENT) {
      error = WSAGetLastError();
      closesocket(s);
      rc = KIV_ESYS;
    }
  }
  if (rc != 0) {
    kiv_logerror(nullptr, UPDATE_TAG, KIV_SEV_ERROR, rc, "Failed to listen to port %d", p->port);
    kivev_event ev{};
    ev.id = KIVEV_PORT_LISTEN_FAILED;
    ev.syserror = error;
    disable_port(p, DISABLE_THROTTLED, WIRE_STAT_PORT_RESTS_LISTEN_FAILED, &ev);
    return;
  }
  p->flags &= ~PORT_DISABLED;
  p->sock = s;
  p->event = event;
  WSAEventSelect(s, event, FD_ACCEPT);
  KIV_LOG(3, UPDATE_TAG, "Listening on port %d for %s", p->port, p->service->name);
}

// A launch for p that the system refused: p rests a little, as after a crash, and says why.
void rest_failed_start(port_record *p, DWORD error) {
  kivev_event ev{};
  ev.id = KIVEV_PORT_START_FAILED;
  ev.syserror = static_cast<long>(error);
  disable_port(p, DISABLE_CRASHED, WIRE_STAT_PORT_RESTS_START_FAILED, &ev);
}

// Takes a port out of service: its agent is told, its socket closed.
void release_port(port_record *p) {
  if (p->agent && !(p->flags & PORT_TOLD)) tell_agent(p);
  if (p->sock != INVALID_SOCKET) {
    KIV_LOG(3, UPDATE_TAG, "Not listening on port %d", p->port);
    close_socket(p);
    KIV_LOG(3, UPDATE_TAG, "Socket closed");
  }
}

// The port pass; returns the number of the port due next, or 0.
int port_pass(time_t now) {
  int nextport = 0;
  int held = 0;  // a number whose removed record's agent may still hold its socket
  // An unlink leaves link pointing at the successor, which is handled next.
  for (port_record **link = &ssock_ports, *p; (p = *link) != nullptr;) {
    if (p->agent) p->agent->listed = 0;
    if (p->flags & PORT_REMOVE) {
      if (p->parent) {
        CloseHandle(p->parent);
        p->parent = nullptr;
      }
      release_port(p);
      // A removed record is never live again: once no agent holds it, it goes, whatever
      // disable it carries (a disable by command lives on in its successor).
      if (!p->agent) {
        // What its agent did after its successor took its counts over joins them.
        if (port_record *successor = find_port(p->port)) merge_counts(successor, p);
        unlink_port(link);
        continue;
      }
      held = p->port;
    } else if (disabled_by_command(p)) {
      release_port(p);
    } else if (p->agent || stopping() || p->port == held) {
      // Held by its agent or by an older record's (whose end runs the pass that starts
      // this one), or the service is stopping: nothing to start.
    } else if (p->start == START_ON) {
      if (!((p->flags & PORT_DISABLED) && now < p->until)) {
        p->flags &= ~PORT_DISABLED;
        DWORD error = 0;
        int rc = start_agent(p, &error);
        if (rc == 0)
          p->agent->listed = 0;
        else if (rc == KIV_ESYS)
          rest_failed_start(p, error);
        else if (rc == KIV_ECONFIG)
          // Its program cannot be used, and PORT_NO_PROGRAM said so once: the port rests
          // rather than say it again at every pass; a reconfiguration lifts the rest.
          disable_port(p, DISABLE_THROTTLED, WIRE_STAT_PORT_RESTS_START_FAILED);
      }
    } else if (p->sock == INVALID_SOCKET) {
      if (!((p->flags & PORT_DISABLED) && now < p->until)) start_listening(p);
    }
    if ((p->flags & PORT_DISABLED) && p->until < ssock_nextdue) {
      ssock_nextdue = p->until;
      nextport = p->port;
    }
    account_state(p, now);
    link = &p->next;
  }
  return nextport;
}

void prog_pass(time_t now) {
  for (prog_record **link = &ssock_progs, *g; (g = *link) != nullptr;) {
    if (g->flags & PROG_REMOVE) {
      // A killed program stays, its process in the wait list, until its end is handled:
      // shutdown then waits for it like for an agent.
      if (!g->process) {
        *link = g->next;
        free_prog(g);
        continue;
      }
      if (!(g->flags & PROG_KILLED)) {
        KIV_LOG(3, UPDATE_TAG, "Prog %s/%d killed", g->name, static_cast<int>(g->pid));
        TerminateProcess(g->process, 1);
        g->flags |= PROG_KILLED;
      }
    } else if (!g->process && !stopping() && (!(g->flags & PROG_DISABLED) || now > g->until)) {
      g->flags &= ~PROG_DISABLED;
      DWORD error = 0;
      if (int rc = start_prog(g, &error)) {
        g->flags |= PROG_DISABLED;
        g->until = now + PROG_DISABLE_FAILED;
        KIV_LOG(3, UPDATE_TAG, "Prog %s disabled for 600 sec.", g->name);
        kivev_event ev{};
        ev.id = rc == KIV_EINVAL ? KIVEV_PROG_THROTTLED : KIVEV_PROG_START_FAILED;
        ev.program = g->name;
        ev.count = PROG_STARTS + 1;
        ev.period = START_PERIOD;
        ev.syserror = static_cast<long>(error);
        ev.until = g->until;
        kivev_emit(&ev);
      }
    }
    if ((g->flags & PROG_DISABLED) && g->until < ssock_nextdue) ssock_nextdue = g->until;
    link = &g->next;
  }
}

void service_pass() {
  for (service_record **link = &ssock_services, *s; (s = *link) != nullptr;) {
    if (s->nports != 0) {
      link = &s->next;
      continue;
    }
    KIV_LOG(3, UPDATE_TAG, "Service %s no longer used", s->name);
    *link = s->next;
    free_service(s);
  }
}

// Rebuilds the wait list: each idle listening port by its event, each agent once by its
// process handle, each hooking process and each running program by its handle.
void build_waitlist() {
  unsigned count = 0;
  for (port_record *p = ssock_ports; p; p = p->next) {
    if (p->agent) {
      if (p->agent->listed == 0) {
        p->agent->listed = 1;
        count++;
      }
    } else if (p->sock != INVALID_SOCKET) {
      count++;
    }
    if (p->parent) count++;
  }
  for (prog_record *g = ssock_progs; g; g = g->next)
    if (g->process) count++;
  xfree(ssock_waithandles);
  xfree(ssock_waitports);
  ssock_waitcount = 0;
  ssock_waithandles =
      static_cast<HANDLE *>(kiv_alloc((count + WAIT_SPARE) * sizeof(HANDLE), UPDATE_TAG));
  ssock_waitports = static_cast<uint16_t *>(kiv_alloc(count * sizeof(uint16_t), UPDATE_TAG));
  // Without its arrays the list stays empty; the next pass tries again.
  if (!ssock_waithandles || (count && !ssock_waitports)) return;
  unsigned n = 0;
  auto append = [&n](HANDLE h, uint16_t number) {
    ssock_waithandles[n] = h;
    ssock_waitports[n++] = number;
  };
  for (port_record *p = ssock_ports; p; p = p->next) {
    if (p->agent) {
      if (p->agent->listed == 1) {
        p->agent->listed = 2;
        append(p->agent->process, 0);
      }
    } else if (p->sock != INVALID_SOCKET) {
      append(p->event, p->port);
    }
    if (p->parent) append(p->parent, 0);
  }
  for (prog_record *g = ssock_progs; g; g = g->next)
    if (g->process) append(g->process, 0);
  ssock_waitcount = n;
}

DWORD exit_code(HANDLE process) {
  DWORD code;
  return GetExitCodeProcess(process, &code) ? code : EXIT_UNKNOWN;
}

// Takes the waiting connection off p's socket and closes it. The peer's storage fits
// every family: into a sockaddr_in, Windows refuses an IPv6 peer (WSAEFAULT) and leaves it
// queued, and the port's event would fire again at once, for ever.
void refuse_connection(port_record *p) {
  sockaddr_storage peer = {};
  int length = sizeof peer;
  SOCKET s = accept(p->sock, reinterpret_cast<sockaddr *>(&peer), &length);
  char host[NI_MAXHOST];
  if (s != INVALID_SOCKET) closesocket(s);
  if (s == INVALID_SOCKET || getnameinfo(reinterpret_cast<sockaddr *>(&peer), length, host,
                                         sizeof host, nullptr, 0, NI_NUMERICHOST) != 0)
    memcpy(host, "?", 2);
  KIV_LOG(3, CALLBACK_TAG, "Peer %s on port %d killed", host, p->port);
  WSAEventSelect(p->sock, p->event, FD_ACCEPT);
}

// A connection on a listening port: launch its agent, or refuse the connection.
int port_event(uint16_t number, HANDLE h) {
  LARGE_INTEGER woken;
  QueryPerformanceCounter(&woken);
  port_record *p = find_port(number);
  if (!p) {
    kiv_logerror(nullptr, CALLBACK_TAG, KIV_SEV_ERROR, KIV_EINTERNAL, "Port %d not found. Argh!",
                 number);
    WSAResetEvent(h);
    return KIV_EINTERNAL;
  }
  if (p->sock == INVALID_SOCKET) {
    kiv_logerror(nullptr, CALLBACK_TAG, KIV_SEV_ERROR, KIV_EINTERNAL,
                 "No socket for port %d. Argh!", number);
    WSAResetEvent(h);
    return KIV_EINTERNAL;
  }
  WSANETWORKEVENTS events;
  if (WSAEnumNetworkEvents(p->sock, p->event, &events) == SOCKET_ERROR) {
    kiv_logerror(nullptr, CALLBACK_TAG, KIV_SEV_ERROR, KIV_ESYS, "WSAEnumNetworkEvent failed %d",
                 WSAGetLastError());
    WSAResetEvent(h);
    return KIV_ESYS;
  }
  if (!(events.lNetworkEvents & FD_ACCEPT)) {
    KIV_LOG(3, CALLBACK_TAG, "NetEvents = %#x", static_cast<unsigned>(events.lNetworkEvents));
    return 0;
  }
  count_of<WIRE_STAT_PORT_CONNECTIONS>(p)++;
  // A stopping service starts nothing: the connection is refused like one without agent.
  DWORD error = 0;
  int rc = stopping() ? KIV_ENOTREADY : start_agent(p, &error);
  if (rc == 0) {
    LARGE_INTEGER started;
    QueryPerformanceCounter(&started);
    kiv_count_launch(p->counts, microseconds(started.QuadPart - woken.QuadPart));
  } else if (rc == KIV_ESYS) {
    rest_failed_start(p, error);
  } else if (rc != 0 && p->sock != INVALID_SOCKET) {
    refuse_connection(p);
  }
  ssock_update();
  return rc;
}

// The end of an agent, of a global program or of a process that hooked ports.
int process_event(unsigned index, HANDLE h) {
  for (prog_record *g = ssock_progs; g; g = g->next) {
    if (g->process != h) continue;
    DWORD code = exit_code(h);
    KIV_LOG(3, CALLBACK_TAG, "Prog %s/%d died with code %#x", g->name, static_cast<int>(g->pid),
            static_cast<unsigned>(code));
    count_end(&count_of<WIRE_STAT_PROGRAM_ENDS_ZERO>(g), code,
              &count_of<WIRE_STAT_PROGRAM_LAST_EXIT>(g));
    CloseHandle(g->process);
    g->process = nullptr;
    // What the program left running ends with it.
    if (g->job) CloseHandle(g->job);
    g->job = nullptr;
    kivev_event ev{};
    ev.id = KIVEV_PROG_ENDED;
    ev.program = g->name;
    ev.pid = g->pid;
    ev.exitcode = code;
    if (code >= EXIT_EXCEPTION) {
      g->flags |= PROG_DISABLED;
      g->until = kiv_time() + PROG_DISABLE_CRASHED;
      KIV_LOG(3, CALLBACK_TAG, "Prog %s disabled for 1 minute", g->name);
      ev.id = KIVEV_PROG_EXCEPTION;
      ev.until = g->until;
    }
    // A program removed or killed by kivd is not started again: its end changes nothing.
    if (!(g->flags & PROG_REMOVE)) kivev_emit(&ev);
    ssock_update();
    return 0;
  }
  child_record *c = nullptr;
  int parents = 0;
  for (port_record *p = ssock_ports; p && !c; p = p->next) {
    if (p->agent && p->agent->process == h) {
      c = p->agent;
    } else if (p->parent == h) {
      KIV_LOG(3, CALLBACK_TAG, "Parent for port %d died", p->port);
      p->flags |= PORT_REMOVE | PORT_EXIT;
      parents++;
    }
  }
  if (!c) {
    if (parents) {
      ssock_update();
      return 0;
    }
    kiv_logerror(nullptr, CALLBACK_TAG, KIV_SEV_ERROR, KIV_EINTERNAL,
                 "Child event 0x%x signaled, but not found! (%d)",
                 static_cast<unsigned>(reinterpret_cast<uintptr_t>(h)), static_cast<int>(index));
    return KIV_EINTERNAL;
  }
  DWORD code = exit_code(h);
  KIV_LOG(3, CALLBACK_TAG, "Child %d died with code %#x", static_cast<int>(c->pid),
          static_cast<unsigned>(code));
  if (code >= EXIT_EXCEPTION)
    kiv_logerror(nullptr, CALLBACK_TAG, KIV_SEV_WARNING, KIV_EINVAL, "Child %d caused exeption %#x",
                 static_cast<int>(c->pid), static_cast<unsigned>(code));
  bool counted = false;  // the agent's end in its service's counts
  for (port_record *p = ssock_ports; p; p = p->next) {
    if (p->agent != c) continue;
    p->agent = nullptr;
    p->flags &= ~PORT_TOLD;
    c->links--;
    count_end(&count_of<WIRE_STAT_PORT_ENDS_ZERO>(p), code);
    if (!counted)
      count_end(&count_of<WIRE_STAT_SERVICE_ENDS_ZERO>(p->service), code,
                &count_of<WIRE_STAT_SERVICE_LAST_EXIT>(p->service));
    counted = true;
    kivev_event ev{};
    ev.pid = c->pid;
    ev.exitcode = code;
    if (code >= EXIT_EXCEPTION) {
      ev.id = KIVEV_PORT_EXCEPTION;
      disable_port(p, DISABLE_CRASHED, WIRE_STAT_PORT_RESTS_EXCEPTION, &ev);
    } else if (code != 0) {
      close_socket(p);  // the next pass listens on a new socket
      ev.id = KIVEV_AGENT_ENDED;
      ev.port = p->port;
      ev.service = p->service->name;
      if (!(p->flags & PORT_REMOVE)) kivev_emit(&ev);
    } else if (p->flags & PORT_REMOVE) {
      KIV_LOG(3, CALLBACK_TAG, "Stale old port %d", p->port);
    } else if (p->sock != INVALID_SOCKET) {
      KIV_LOG(3, CALLBACK_TAG, "Listening on port %d again", p->port);
      WSAEventSelect(p->sock, p->event, FD_ACCEPT);
    }
  }
  if (c->links != 0)
    KIV_LOG(1, CALLBACK_TAG, "Link count for %d is %d (!= 0)", static_cast<int>(c->pid), c->links);
  free_child(c);
  ssock_update();
  return 0;
}

}  // namespace

// The counter's frequency never changes.
uint64_t microseconds(long long ticks) {
  static long long frequency = [] {
    LARGE_INTEGER f;
    return QueryPerformanceFrequency(&f) && f.QuadPart > 0 ? f.QuadPart : 1000000LL;
  }();
  if (ticks <= 0) return 0;
  return static_cast<uint64_t>(ticks / frequency * 1000000 +
                               ticks % frequency * 1000000 / frequency);
}

void ssock_setstopping(ssock_stopfunc stopping) { stopping_hook = stopping; }

int ssock_update() {
  time_t now = kiv_time();
  ssock_nextdue = now + NEXT_DUE_IDLE;
  int nextport = port_pass(now);
  if (nextport) KIV_LOG(3, UPDATE_TAG, "Next port is %d", nextport);
  prog_pass(now);
  service_pass();
  build_waitlist();
  return 0;
}

unsigned ssock_waitset(HANDLE **handles, time_t *due) {
  // The array exists after every pass, with its spare entries even when empty.
  *handles = ssock_waithandles;
  *due = ssock_nextdue;
  return ssock_waitcount;
}

int ssock_callback(unsigned index) {
  if (index >= ssock_waitcount) return KIV_EINTERNAL;
  uint16_t number = ssock_waitports[index];
  HANDLE h = ssock_waithandles[index];
  return number > 0 ? port_event(number, h) : process_event(index, h);
}

void disable_port(port_record *p, int seconds, wire_stat cause, kivev_event *why) {
  close_socket(p);
  // A rest never revives a removed record (it would stand beside its successor) and
  // never cuts short a disable by command.
  if ((p->flags & PORT_REMOVE) || disabled_by_command(p)) return;
  KIV_LOG(3, "ssock.disable_port", "Port %d disabled for %d seconds", p->port, seconds);
  p->counts[cause - kiv_stats_first(WIRE_OF_PORT)]++;
  p->flags |= PORT_DISABLED | PORT_REST;
  p->until = kiv_time() + seconds;
  if (!why) return;
  why->port = p->port;
  why->service = p->service->name;
  why->until = p->until;
  kivev_emit(why);
}

void count_end(uint64_t *ends, DWORD code, uint64_t *last) {
  static_assert(WIRE_STAT_PORT_ENDS_CODE == WIRE_STAT_PORT_ENDS_ZERO + 1 &&
                    WIRE_STAT_PORT_ENDS_EXCEPTION == WIRE_STAT_PORT_ENDS_ZERO + 2 &&
                    WIRE_STAT_SERVICE_ENDS_EXCEPTION == WIRE_STAT_SERVICE_ENDS_ZERO + 2 &&
                    WIRE_STAT_PROGRAM_ENDS_EXCEPTION == WIRE_STAT_PROGRAM_ENDS_ZERO + 2,
                "ends by kind in the order zero, code, exception");
  static_assert(WIRE_STAT_SERVICE_LAST_EXIT_TIME == WIRE_STAT_SERVICE_LAST_EXIT + 1 &&
                    WIRE_STAT_PROGRAM_LAST_EXIT_TIME == WIRE_STAT_PROGRAM_LAST_EXIT + 1,
                "a last exit's time follows its code");
  ends[code == 0 ? 0 : code >= EXIT_EXCEPTION ? 2 : 1]++;
  if (!last) return;
  last[0] = code;
  time_t now = kiv_time();
  last[1] = now > 0 ? static_cast<uint64_t>(now) : 0;
}

wire_stats_state stats_state(const port_record *p, time_t now) {
  if (disabled_by_command(p)) return WIRE_STATS_UNTIL_ENABLED;
  if ((p->flags & PORT_DISABLED) && now < p->until)
    return p->flags & PORT_REST ? WIRE_STATS_RESTING : WIRE_STATS_DISABLED;
  return p->agent ? WIRE_STATS_SERVING : WIRE_STATS_IDLE;
}

void account_state(port_record *p, time_t now) {
  static_assert(WIRE_STAT_PORT_IDLE_SECONDS == WIRE_STAT_PORT_SERVING_SECONDS + 1 &&
                    WIRE_STAT_PORT_RESTING_SECONDS == WIRE_STAT_PORT_SERVING_SECONDS + 2 &&
                    WIRE_STAT_PORT_DISABLED_SECONDS == WIRE_STAT_PORT_SERVING_SECONDS + 3 &&
                    WIRE_STATS_IDLE == WIRE_STATS_SERVING + 1 &&
                    WIRE_STATS_RESTING == WIRE_STATS_SERVING + 2 &&
                    WIRE_STATS_DISABLED == WIRE_STATS_SERVING + 3,
                "a state's seconds by its word's order");
  int state = p->state == WIRE_STATS_UNTIL_ENABLED ? WIRE_STATS_DISABLED : p->state;
  // A clock set back counts no time, nor does a record not yet accounted (one built from a
  // hand-over: its time starts here).
  if (p->state_since != 0 && now > p->state_since)
    p->counts[WIRE_STAT_PORT_SERVING_SECONDS - kiv_stats_first(WIRE_OF_PORT) + state] +=
        static_cast<uint64_t>(now - p->state_since);
  p->state_since = now;
  p->state = stats_state(p, now);
}
