// Operations on the records from outside the pass: hooking and removing ports, disable
// and enable, the listing, shutdown, and the reset that tests use.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <initializer_list>
#include <vector>

#include "lib/heap.h"
#include "lib/printf.h"
#include "lib/wire.h"
#include "ports/internal.h"
#include "toolkit/config/info.h"
#include "toolkit/runtime/clock.h"
#include "toolkit/runtime/error.h"
#include "toolkit/runtime/mwait.h"

namespace {

// The room of a listing item with a value of up to `value` characters: " Name=value".
template <size_t N>
constexpr int item_room(const char (&)[N], int value) {
  return static_cast<int>(N) + 1 + value;
}
// The longest pieces of a listing line besides the service name: "%5d  " of a port and
// "  " after the name (9), " Hook" (5), the disable's date with a year of up to 11
// characters, the pids, and the service's account and limits.
constexpr int LISTING_FIXED = 9 + 5 + item_room(WIRE_ITEM_DISABLE, 23) +
                              item_room(WIRE_ITEM_PARENT, 11) + item_room(WIRE_ITEM_AGENT, 11) +
                              item_room(WIRE_ITEM_ACCOUNT, 14) + item_room(WIRE_ITEM_MEMORY, 7) +
                              item_room(WIRE_ITEM_PROCESSES, 5) + item_room(WIRE_ITEM_CPU, 3);
// Room past LISTING_SIZE for the items added since, so that the cut of a long name stays.
constexpr int LISTING_LATER = item_room(WIRE_ITEM_ADDRESS, WIRE_ADDRESS_MAX);
// Longer service names are cut in the listing so that the rest of the line always fits.
constexpr int LISTING_NAME_MAX = LISTING_SIZE - 1 - LISTING_FIXED;
static_assert(LISTING_NAME_MAX >= 160, "the listing shows long service names whole");

}  // namespace

void utc_breakdown(time_t t, tm *out) {
  long long days = t / 86400, seconds = t % 86400;
  if (seconds < 0) {
    seconds += 86400;
    days--;
  }
  // Civil date from a day count (days since 1970-01-01), in 400-year eras.
  days += 719468;
  long long era = (days >= 0 ? days : days - 146096) / 146097;
  long long doe = days - era * 146097;
  long long yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  long long doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  long long mp = (5 * doy + 2) / 153;
  long long day = doy - (153 * mp + 2) / 5 + 1;
  long long month = mp < 10 ? mp + 3 : mp - 9;
  long long year = yoe + era * 400 + (month <= 2);
  *out = tm{};
  out->tm_year = static_cast<int>(year - 1900);
  out->tm_mon = static_cast<int>(month - 1);
  out->tm_mday = static_cast<int>(day);
  out->tm_hour = static_cast<int>(seconds / 3600);
  out->tm_min = static_cast<int>(seconds / 60 % 60);
}

namespace {

void local_breakdown(time_t t, tm *out) {
  const tm *local = localtime(&t);
  if (local)
    *out = *local;
  else
    utc_breakdown(t, out);
}

}  // namespace

int ssock_add(int port, const char *pid, const char *extra_args) {
  static const char TAG[] = "ssock.ssock_add";
  port_record *existing = find_port(port);
  if (existing) {
    KIV_LOG(3, TAG, "Port %d exists", port);
    if (existing->start != START_HOOK) return KIV_ECONFIG;
  }
  const schema_value &start = schema_values[SCHEMA_PORT_START];
  char key[PATH_SIZE];
  char *value = nullptr;
  kivschema_path(key, start, port);
  // Numbers the configuration could not hold count as not configured for hooking.
  if (port < SCHEMA_PORT_MIN || port > SCHEMA_PORT_MAX || kivinfo_get(nullptr, key, &value) != 0 ||
      kivschema_judge(start, value) + 1 != START_HOOK) {
    xfree(value);
    KIV_LOG(3, TAG, "Port %d not configured as hook", port);
    return KIV_ECONFIG;
  }
  xfree(value);
  kivschema_path(key, schema_values[SCHEMA_PORT_SERVICE], port);
  char *name = nullptr;
  if (kivinfo_get(nullptr, key, &name) != 0) {
    KIV_LOG(3, TAG, "No service for port %d", port);
    return KIV_ECONFIG;
  }
  KIV_LOG(3, TAG, "Found port %d, service %s", port, name);
  service_record *svc = addservice(name);
  xfree(name);
  if (!svc) return KIV_ECONFIG;  // a name too long for its paths, logged by addservice
  // A hooked port listens where its configuration says, as a configured one does.
  char *address = nullptr;
  if (port_address(port, &address) != 0) return KIV_ECONFIG;
  HANDLE parent = nullptr;
  DWORD parent_pid = 0;
  if (pid) {
    parent_pid = static_cast<DWORD>(atoi(pid));
    if (existing) {
      if (existing->parent_pid != parent_pid) {
        xfree(address);
        return KIV_EBUSY;
      }
      parent = existing->parent;
      existing->parent = nullptr;
    } else {
      parent = OpenProcess(SYNCHRONIZE, FALSE, parent_pid);
      if (!parent) {
        xfree(address);
        kiv_logerror(nullptr, TAG, KIV_SEV_ERROR, KIV_ESYS, "Failed to open process %d [%d]",
                     static_cast<int>(parent_pid), static_cast<int>(GetLastError()));
        return KIV_ESYS;
      }
      KIV_LOG(3, TAG, "Got handle to process %d", static_cast<int>(parent_pid));
    }
  }
  port_record *p = addport(port, svc, START_HOOK, address);
  xfree(address);
  if (!p) {
    if (parent) CloseHandle(parent);
    return KIV_ENOMEM;
  }
  if (extra_args) {
    p->extra_args = xstrdup(extra_args, nullptr);
    KIV_LOG(3, TAG, "Extra args: \"%s\"", extra_args);
  }
  if (pid) {
    p->parent = parent;
    p->parent_pid = parent_pid;
  }
  ssock_update();
  return 0;
}

int ssock_remove(int port) {
  port_record *p = find_port(port);
  if (!p) return KIV_ENOTFOUND;
  if (p->start != START_HOOK) return KIV_ECONFIG;
  p->flags |= PORT_REMOVE | PORT_EXIT;
  KIV_LOG(3, "ssock.ssock_remove", "port %d", port);
  ssock_update();
  return 0;
}

// The current record of a configured (not hooked) port: 0, KIV_ENOTFOUND, KIV_ECONFIG.
static int configured_port(int port, port_record **out) {
  *out = find_port(port);
  if (!*out) return KIV_ENOTFOUND;
  return (*out)->start == START_AUTO || (*out)->start == START_ON ? 0 : KIV_ECONFIG;
}

int ssock_disable(int port) {
  port_record *p;
  if (int rc = configured_port(port, &p)) return rc;
  if (!disabled_by_command(p)) count_of<WIRE_STAT_PORT_DISABLES>(p)++;
  p->until = UNTIL_ENABLED;
  p->flags |= PORT_DISABLED;  // the pass tells its agent and closes its socket
  KIV_LOG(3, "ssock.ssock_disable", "Port %d disabled", port);
  kivev_event ev{};
  ev.id = KIVEV_PORT_DISABLED;
  ev.port = port;
  ev.service = p->service->name;
  ev.until = UNTIL_ENABLED;
  kivev_emit(&ev);
  ssock_update();
  return 0;
}

int ssock_enable(int port) {
  port_record *p;
  if (int rc = configured_port(port, &p)) return rc;
  // A record still held by the agent it told waits for that agent's end, then listens.
  p->until = 0;
  p->flags &= ~PORT_DISABLED;
  KIV_LOG(3, "ssock.ssock_enable", "Port %d enabled", port);
  kivev_event ev{};
  ev.id = KIVEV_PORT_ENABLED;
  ev.port = port;
  ev.service = p->service->name;
  kivev_emit(&ev);
  ssock_update();
  return 0;
}

int ssock_info(int context, ssock_writefunc write) {
  for (port_record *p = ssock_ports; p; p = p->next) {
    char line[LISTING_SIZE + LISTING_LATER];
    int n = xsnprintf(line, sizeof line, "%5d  %-11.*s   %s", p->port, LISTING_NAME_MAX,
                      p->service->name, START_NAMES[p->start]);
    if (p->flags & PORT_DISABLED) {
      tm when;
      local_breakdown(p->until, &when);
      n += xsnprintf(line + n, sizeof line - n, " " WIRE_ITEM_DISABLE "=" WIRE_DISABLE_DATE,
                     when.tm_year + 1900, when.tm_mon + 1, when.tm_mday, when.tm_hour, when.tm_min);
    }
    if (p->parent)
      n += xsnprintf(line + n, sizeof line - n, " " WIRE_ITEM_PARENT "=%d",
                     static_cast<int>(p->parent_pid));
    if (p->agent)
      n += xsnprintf(line + n, sizeof line - n, " " WIRE_ITEM_AGENT "=%d",
                     static_cast<int>(p->agent->pid));
    if (p->address)
      n += xsnprintf(line + n, sizeof line - n, " " WIRE_ITEM_ADDRESS "=%s", p->address);
    // Only what differs from kivd's own account and no limit, so other lines stay as they were.
    const service_record *s = p->service;
    if (s->account != ACCOUNT_SYSTEM)
      n += xsnprintf(line + n, sizeof line - n, " " WIRE_ITEM_ACCOUNT "=%s",
                     ACCOUNT_NAMES[s->account]);
    if (s->limits.memory)
      n += xsnprintf(line + n, sizeof line - n, " " WIRE_ITEM_MEMORY "=%u", s->limits.memory);
    if (s->limits.processes)
      n += xsnprintf(line + n, sizeof line - n, " " WIRE_ITEM_PROCESSES "=%u", s->limits.processes);
    if (s->limits.cpu)
      n += xsnprintf(line + n, sizeof line - n, " " WIRE_ITEM_CPU "=%u", s->limits.cpu);
    write(context, line, n);
  }
  return 0;
}

namespace {

// A stats line: what it counts (first item name and value), then the record's counts.
void write_stats(int context, ssock_writefunc write, const char *first, const char *name,
                 const port_record *p, wire_stats_kind kind, const uint64_t *counts) {
  char line[KIV_STATS_LINE];
  int n = p ? xsnprintf(line, sizeof line,
                        WIRE_STATS_PORT "=%d " WIRE_STATS_SERVICE "=%.*s " WIRE_STATS_STATE "=%s",
                        p->port, KIV_STATS_NAME_MAX, p->service->name, WIRE_STATS_WORDS[p->state])
            : xsnprintf(line, sizeof line, "%s=%.*s", first, KIV_STATS_NAME_MAX, name);
  kiv_stats_items(line, sizeof line, &n, kind, counts);
  write(context, line, n);
}

// Whether a record's number has a current record besides it: a removed record's counts
// join its successor's, whose line alone is written.
bool superseded(const port_record *p) { return (p->flags & PORT_REMOVE) && find_port(p->port); }

}  // namespace

int ssock_stats(int context, ssock_writefunc write, const char *what, const char *head) {
  int number = -1;
  if (what && *what && strspn(what, "0123456789") == strlen(what))
    number = strlen(what) <= 5 ? atoi(what) : 0;
  port_record *port = number > 0 ? find_port(number) : nullptr;
  // A number without a current record may still have a removed one.
  for (port_record *p = ssock_ports; number > 0 && !port && p; p = p->next)
    if (p->port == number) port = p;
  service_record *service = what && number < 0 ? find_service(what) : nullptr;
  prog_record *prog = what && number < 0 ? find_prog(what) : nullptr;
  if (what && !port && !service && !prog) return KIV_ENOTFOUND;
  if (head) write(context, head, static_cast<int>(strlen(head)));
  time_t now = kiv_time();
  for (port_record *p = ssock_ports; p; p = p->next) {
    if (what ? p != port : superseded(p)) continue;
    account_state(p, now);
    write_stats(context, write, nullptr, nullptr, p, WIRE_OF_PORT, p->counts);
  }
  for (service_record *s = ssock_services; s; s = s->next)
    if (!what || s == service)
      write_stats(context, write, WIRE_STATS_SERVICE, s->name, nullptr, WIRE_OF_SERVICE, s->counts);
  for (prog_record *g = ssock_progs; g; g = g->next)
    if (!what || g == prog)
      write_stats(context, write, WIRE_STATS_PROGRAM, g->name, nullptr, WIRE_OF_PROGRAM, g->counts);
  return 0;
}

namespace {

// Writes the lines of ring, oldest first.
void write_ring(const kivev_ring *ring, int context, ssock_writefunc write) {
  for (int i = 0; const char *line = kivev_kept(ring, i); i++)
    write(context, line, static_cast<int>(strlen(line)));
}

// The last line of `why PORT`: the port's state now, in the events' line format with
// number 0 (port, service, state and what the state has of pid, parent and until).
void write_state(const port_record *p, int number, int context, ssock_writefunc write) {
  time_t now = kiv_time();
  char line[KIVEV_LINE_SIZE], fields[160] = "";
  int n = xsnprintf(line, sizeof line, "0\t%lld\tinfo\t", static_cast<long long>(now));
  if (!p) {
    n += xsnprintf(line + n, sizeof line - n, "Port %d is not listened on.\tport=%d\tstate=down",
                   number, number);
    write(context, line, n);
    return;
  }
  // Service names have no tab or line end (the configuration's keys cannot hold them).
  n += xsnprintf(line + n, sizeof line - n, "Port %d of service %.*s ", number, 160,
                 p->service->name);
  const char *state;
  if (disabled_by_command(p)) {
    state = WIRE_STATES[WIRE_DISABLED];
    n += xsnprintf(line + n, sizeof line - n, "is disabled until enabled.");
    xsnprintf(fields, sizeof fields, "\tuntil=%lld", static_cast<long long>(p->until));
  } else if ((p->flags & PORT_DISABLED) && p->until > now) {
    tm when;
    local_breakdown(p->until, &when);
    state = "resting";
    n += xsnprintf(line + n, sizeof line - n, "rests until %d-%02d-%02d %02d:%02d:%02d.",
                   when.tm_year + 1900, when.tm_mon + 1, when.tm_mday, when.tm_hour, when.tm_min,
                   when.tm_sec);
    xsnprintf(fields, sizeof fields, "\tuntil=%lld", static_cast<long long>(p->until));
  } else if (p->agent) {
    state = WIRE_STATES[WIRE_SERVING];
    n += xsnprintf(line + n, sizeof line - n, "is served by its agent, process %lu.",
                   static_cast<unsigned long>(p->agent->pid));
    xsnprintf(fields, sizeof fields, "\tpid=%lu", static_cast<unsigned long>(p->agent->pid));
  } else if (p->sock != INVALID_SOCKET) {
    state = WIRE_STATES[WIRE_IDLE];
    n += xsnprintf(line + n, sizeof line - n,
                   "is listened on: its agent starts at the next connection.");
  } else {
    state = WIRE_STATES[WIRE_IDLE];
    n += xsnprintf(line + n, sizeof line - n, "is neither listened on nor served.");
  }
  char parent[24] = "";
  if (p->start == START_HOOK && p->parent) {
    n += xsnprintf(line + n, sizeof line - n, " It is hooked by process %lu.",
                   static_cast<unsigned long>(p->parent_pid));
    xsnprintf(parent, sizeof parent, "\tparent=%lu", static_cast<unsigned long>(p->parent_pid));
  } else if (p->start == START_HOOK) {
    n += xsnprintf(line + n, sizeof line - n, " It is hooked.");
  }
  n += xsnprintf(line + n, sizeof line - n, "\tport=%d\tservice=%.*s\tstate=%s%s%s", number, 160,
                 p->service->name, state, fields, parent);
  write(context, line, n);
}

}  // namespace

int ssock_why(const char *what, int context, ssock_writefunc write, const char *head) {
  // A record without a ring (a port without a program, a service whose account was
  // refused, ...) is answered from kivd's own lines that name it.
  kivev_ring own, programs{};
  const kivev_ring *ring = &own;
  port_record *p = nullptr;
  int number = 0;
  bool digits = *what != '\0' && strspn(what, "0123456789") == strlen(what);
  if (digits) {
    number = strlen(what) <= 5 ? atoi(what) : 0;
    if (number <= 0 || number > 65535) return KIV_ENOTFOUND;
    if ((p = find_port(number)))
      ring = p->ring;
    else if (kivev_own_named(KIVEV_F_PORT, number, nullptr, &own) == 0)
      return KIV_ENOTFOUND;
  } else if (service_record *s = find_service(what)) {
    ring = s->ring;
  } else if (prog_record *g = find_prog(what)) {
    ring = g->ring;
  } else if (kivev_own_named(KIVEV_F_SERVICE, 0, what, &own) +
                 kivev_own_named(KIVEV_F_PROGRAM, 0, what, &programs) ==
             0) {
    return KIV_ENOTFOUND;
  }
  if (head) write(context, head, static_cast<int>(strlen(head)));
  write_ring(ring, context, write);
  write_ring(&programs, context, write);
  if (digits) write_state(p, number, context, write);
  return 0;
}

bool ssock_keep(const kivev_event *ev, const char *text) {
  bool kept = false;
  port_record *p = ev->port ? find_port(ev->port) : nullptr;
  service_record *s = ev->service ? find_service(ev->service) : nullptr;
  prog_record *g = ev->program ? find_prog(ev->program) : nullptr;
  for (kivev_ring **ring : {p ? &p->ring : nullptr, s ? &s->ring : nullptr, g ? &g->ring : nullptr})
    if (ring) kivev_keep(ring, ev, text), kept = true;
  // An event of a port is kept when its port has a record, not by its service alone.
  return ev->port ? p != nullptr : kept;
}

int ssock_cleanup() {
  static const char TAG[] = "ssock.ssock_cleanup";
  KIV_LOG(3, TAG, "Closing the shop");
  for (port_record *p = ssock_ports; p; p = p->next) p->flags |= PORT_REMOVE | PORT_EXIT;
  for (prog_record *g = ssock_progs; g; g = g->next) g->flags |= PROG_REMOVE;
  ssock_update();
  if (ssock_waitcount == 0) return 0;
  KIV_LOG(3, TAG, "Waiting for %d children", static_cast<int>(ssock_waitcount));
  // One 5-second limit for them all, however many there are.
  if (mwait_all(ssock_waitcount, ssock_waithandles, 5000) != MWAIT_TIMEOUT) return 0;
  KIV_LOG(3, TAG, "timeout");
  for (port_record *p = ssock_ports; p; p = p->next) {
    child_record *c = p->agent;
    if (!c) continue;
    if (c->process) {
      if (TerminateProcess(c->process, 1))
        KIV_LOG(3, TAG, "Process %d terminated", static_cast<int>(c->pid));
      CloseHandle(c->process);
      c->process = nullptr;
    }
    // Cleared so that no record keeps pointing at a freed agent.
    p->agent = nullptr;
    if (--c->links == 0) free_child(c);
  }
  for (prog_record *g = ssock_progs; g; g = g->next) {
    if (!g->process) continue;
    if (TerminateProcess(g->process, 1))
      KIV_LOG(3, TAG, "Prog %d terminated", static_cast<int>(g->pid));
    CloseHandle(g->process);
    g->process = nullptr;
  }
  return 0;
}

void ssock_reset() {
  std::vector<child_record *> agents;
  for (port_record *p = ssock_ports; p;) {
    if (p->agent && std::find(agents.begin(), agents.end(), p->agent) == agents.end())
      agents.push_back(p->agent);
    port_record *next = p->next;
    free_port(p);
    p = next;
  }
  for (child_record *c : agents) free_child(c);
  for (service_record *s = ssock_services; s;) {
    service_record *next = s->next;
    free_service(s);
    s = next;
  }
  for (prog_record *g = ssock_progs; g;) {
    prog_record *next = g->next;
    free_prog(g);
    g = next;
  }
  xfree(ssock_waithandles);
  xfree(ssock_waitports);
  ssock_ports = nullptr;
  ssock_services = nullptr;
  ssock_progs = nullptr;
  ssock_waithandles = nullptr;
  ssock_waitports = nullptr;
  ssock_waitcount = 0;
  ssock_nextdue = 0;
}
