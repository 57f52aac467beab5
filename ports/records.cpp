// The records' lists, the lookups, the record constructors and their destructors.
#include <cstdlib>
#include <cstring>

#include "lib/heap.h"
#include "lib/printf.h"
#include "lib/wire.h"
#include "ports/internal.h"
#include "toolkit/config/info.h"
#include "toolkit/config/schema.h"
#include "toolkit/runtime/clock.h"
#include "toolkit/runtime/error.h"
#include "toolkit/runtime/events.h"
#include "toolkit/runtime/memory.h"

const char SSOCK_ROOT[] = WIRE_ROOT;
const char *const START_NAMES[4] = {"", WIRE_MODE_AUTO, WIRE_MODE_HOOK, WIRE_MODE_ON};

port_record *ssock_ports;
service_record *ssock_services;
prog_record *ssock_progs;
unsigned ssock_waitcount;
HANDLE *ssock_waithandles;
uint16_t *ssock_waitports;
time_t ssock_nextdue;

port_record *find_port(int number) {
  for (port_record *p = ssock_ports; p; p = p->next)
    if (p->port == static_cast<unsigned>(number) && !(p->flags & PORT_REMOVE)) return p;
  return nullptr;
}

service_record *find_service(const char *name) {
  for (service_record *s = ssock_services; s; s = s->next)
    if (strcmp(s->name, name) == 0) return s;
  return nullptr;
}

prog_record *find_prog(const char *name) {
  for (prog_record *g = ssock_progs; g; g = g->next)
    if (strcmp(g->name, name) == 0) return g;
  return nullptr;
}

// A new zeroed record named by a copy of name, pushed at the head of its list.
template <typename R>
R *push_new(R *&head, const char *name, const char *tag) {
  auto *r = static_cast<R *>(kiv_zalloc(sizeof(R), tag));
  if (!r) return nullptr;
  r->name = xstrdup(name, nullptr);
  if (!r->name) {
    xfree(r);
    return nullptr;
  }
  r->next = head;
  head = r;
  return r;
}

// Value v of the key name, or null when it is missing; the caller owns it.
static char *getvalue(const schema_value &v, const char *name) {
  char path[PATH_SIZE];
  char *value = nullptr;
  if (kivschema_path(path, v, name) != 0) return nullptr;
  return kivinfo_get(nullptr, path, &value) == 0 ? value : nullptr;
}

// The event of a value its row refuses, named by the value's path and by the port, service
// or program it belongs to: `why` finds it by that name, and the repeat limit tells the
// records apart. The record may rest without a program or be gone by the end of the
// reconfiguration, so kivd's own events keep it too (service/).
void refused(const schema_value &v, const char *name, int port, const char *text) {
  char path[PATH_SIZE];
  int rc = port ? kivschema_path(path, v, port) : kivschema_path(path, v, name);
  kivev_event ev{};
  ev.id = KIVEV_CONFIG_REFUSED;
  ev.port = port;
  if (!port) (v.section == SCHEMA_PROGRAMS ? ev.program : ev.service) = name;
  ev.text = rc == 0 ? path : v.name;
  ev.value = text;
  kivev_emit(&ev);
}

// The account and job limits of the key name from its section's rows (SCHEMA_*_LIMITS). A value its row refuses is reported, naming the key and the value, and
// false returned: the caller starts nothing rather than fall back to kivd's own account
// or to no limit.
static bool getlimits(const int (&rows)[SCHEMA_LIMITS], const char *name, int *account,
                      job_limits *limits, const char *tag) {
  unsigned *numbers[SCHEMA_LIMITS] = {nullptr, &limits->memory, &limits->processes, &limits->cpu};
  *account = ACCOUNT_SYSTEM;
  *limits = job_limits();
  bool usable = true;
  for (int i = 0; i < SCHEMA_LIMITS; i++) {
    const schema_value &v = schema_values[rows[i]];
    char *text = getvalue(v, name);
    if (!text) continue;
    int judged = kivschema_judge(v, text);
    if (judged < 0) {
      kiv_logerror(nullptr, tag, KIV_SEV_ERROR, KIV_ECONFIG, "Bad %s %.40s of %s %s: not started",
                   v.label, text, schema_sections[v.section].what, name);
      refused(v, name, 0, text);
      usable = false;
    } else if (numbers[i]) {
      *numbers[i] = static_cast<unsigned>(strtoul(text, nullptr, 10));
    } else {
      *account = judged;
    }
    xfree(text);
  }
  return usable;
}

service_record *addservice(const char *name) {
  static const char TAG[] = "ssock.addservice";
  // A name whose paths would not fit in their buffers is refused before a record exists.
  if (strlen(name) > kivschema_name_max(SCHEMA_SERVICES)) {
    kiv_logerror(nullptr, TAG, KIV_SEV_ERROR, KIV_ECONFIG, "Service name too long: %.40s...", name);
    return nullptr;
  }
  service_record *s = find_service(name);
  if (!s && !(s = push_new(ssock_services, name, TAG))) return nullptr;
  xfree(s->description);
  s->description = getvalue(schema_values[SCHEMA_SERVICE_DESCRIPTION], name);
  xfree(s->program);
  s->program = getvalue(schema_values[SCHEMA_SERVICE_PROGRAM], name);
  // Refused: no program, so that its ports rest as those of a service without one.
  if (!getlimits(SCHEMA_SERVICE_LIMITS, name, &s->account, &s->limits, TAG)) {
    xfree(s->program);
    s->program = nullptr;
  }
  return s;
}

int port_address(int number, char **address) {
  const schema_value &row = schema_values[SCHEMA_PORT_ADDRESS];
  char path[PATH_SIZE];
  *address = nullptr;
  kivschema_path(path, row, number);
  if (kivinfo_get(nullptr, path, address) != 0) return 0;
  if (kivschema_judge(row, *address) == 0) return 0;
  kiv_logerror(nullptr, "ssock.port_address", KIV_SEV_ERROR, KIV_ECONFIG,
               "Port %d: bad address \"%.*s\", not listened on", number,
               static_cast<int>(WIRE_ADDRESS_MAX) + 1, *address);
  refused(row, nullptr, number, *address);
  xfree(*address);
  *address = nullptr;
  return KIV_ECONFIG;
}

bool same_address(const char *a, const char *b) { return a && b ? strcmp(a, b) == 0 : a == b; }

port_record *addport(int number, service_record *svc, int start, const char *address) {
  static const char TAG[] = "ssock.addport";
  auto *p = static_cast<port_record *>(kiv_zalloc(sizeof(port_record), TAG));
  if (!p) return nullptr;
  if (address && !(p->address = xstrdup(address, nullptr))) {
    xfree(p);
    return nullptr;
  }
  p->port = static_cast<uint16_t>(number);
  p->start = start;
  p->service = svc;
  p->sock = INVALID_SOCKET;
  p->state = WIRE_STATS_IDLE;
  p->state_since = kiv_time();
  svc->nports++;
  if (!ssock_ports || p->port < ssock_ports->port) {
    p->next = ssock_ports;
    ssock_ports = p;
    return p;
  }
  port_record *cur = ssock_ports;
  while (cur->next && cur->next->port <= p->port) cur = cur->next;
  p->next = cur->next;
  cur->next = p;
  if (cur->port == p->port) {
    bool held_off = !(cur->flags & PORT_REMOVE) && disabled_by_command(cur);
    p->ring = cur->ring;  // `why` goes on with the number's history
    cur->ring = nullptr;
    // And so do its counts: what the old record counts from now on joins them at its end.
    memcpy(p->counts, cur->counts, sizeof p->counts);
    memset(cur->counts, 0, sizeof cur->counts);
    cur->flags |= PORT_REMOVE;
    if (cur->start == start && same_address(cur->address, p->address)) {
      p->sock = cur->sock;
      p->event = cur->event;
      cur->sock = INVALID_SOCKET;
      cur->event = nullptr;
      // An agent's launch cancelled the selection on this socket; the new record has
      // no agent and is in the wait list, so it must really listen. A pending
      // connection signals the event again.
      if (p->sock != INVALID_SOCKET) WSAEventSelect(p->sock, p->event, FD_ACCEPT);
    } else if (cur->start == start) {
      // Another address: the old record's agent is told to remove the port, and the new
      // binding could collide with the agent's copy of the old socket. The pass waits for
      // the end of an agent the port was the last of; one that keeps other ports never
      // ends, so the new record rests as for a start-mode change.
      KIV_LOG(3, TAG, "Port %d moves to %s", p->port, p->address ? p->address : "0.0.0.0");
      if (cur->agent && cur->agent->links > 1) {
        p->flags |= PORT_DISABLED;
        p->until = kiv_time() + DISABLE_MODECHANGE;
      }
    } else {
      cur->flags |= PORT_EXIT;
      KIV_LOG(3, TAG, "New port disabled for 10 seconds");
      p->flags |= PORT_DISABLED;
      p->until = kiv_time() + DISABLE_MODECHANGE;
    }
    // A disable by command carries over; a timed rest does not.
    if (held_off) {
      p->flags |= PORT_DISABLED;
      p->until = UNTIL_ENABLED;
    }
    KIV_LOG(3, TAG, "Old port %d [%s] marked for removal", cur->port, cur->service->name);
  }
  return p;
}

prog_record *addprog(const char *name) {
  static const char TAG[] = "ssock.addprog";
  if (strlen(name) > kivschema_name_max(SCHEMA_PROGRAMS)) {
    kiv_logerror(nullptr, TAG, KIV_SEV_ERROR, KIV_ECONFIG, "Prog name too long: %.40s...", name);
    return nullptr;
  }
  int account;
  job_limits limits;
  // Refused: not counted, so that the reconfiguration ends a program already running.
  if (!getlimits(SCHEMA_PROGRAM_LIMITS, name, &account, &limits, TAG)) return nullptr;
  prog_record *g = find_prog(name);
  if (!g && !(g = push_new(ssock_progs, name, TAG))) return nullptr;
  g->account = account;
  g->limits = limits;
  // A rest handed over with the program outlives the first reconfiguration, as at a start.
  g->flags = g->flags & PROG_ADOPTED ? g->flags & PROG_DISABLED : 0;
  xfree(g->program);
  g->program = getvalue(schema_values[SCHEMA_PROGRAM_PROGRAM], name);
  g->refs++;
  return g;
}

void close_socket(port_record *p) {
  if (p->sock == INVALID_SOCKET) return;
  closesocket(p->sock);
  WSACloseEvent(p->event);
  p->sock = INVALID_SOCKET;
  p->event = nullptr;
}

void free_port(port_record *p) {
  close_socket(p);
  if (p->parent) CloseHandle(p->parent);
  p->service->nports--;
  xfree(p->extra_args);
  kivev_forget(&p->ring);
  xfree(p->address);
  xfree(p);
}

void free_service(service_record *s) {
  xfree(s->name);
  xfree(s->description);
  xfree(s->program);
  kivev_forget(&s->ring);
  xfree(s);
}

void free_prog(prog_record *g) {
  if (g->process) CloseHandle(g->process);
  if (g->job) CloseHandle(g->job);
  xfree(g->name);
  xfree(g->program);
  kivev_forget(&g->ring);
  xfree(g);
}

void free_child(child_record *c) {
  if (c->process) CloseHandle(c->process);
  if (c->pipe) CloseHandle(c->pipe);
  if (c->job) CloseHandle(c->job);
  xfree(c);
}
