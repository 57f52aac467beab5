// Reconfiguration: the tables made to agree with the registry configuration.
#include <cstring>

#include "lib/heap.h"
#include "lib/printf.h"
#include "lib/wire.h"
#include "ports/internal.h"
#include "toolkit/config/info.h"
#include "toolkit/config/schema.h"
#include "toolkit/runtime/error.h"

int servnode_cb(const char *path, const char *value, void *) {
  KIV_LOG(4, "ssock.servnode_cb", "%s = %s", path, value);
  return 0;
}

int tcpnode_cb(const char *path, const char *value, void *) {
  static const char TAG[] = "ssock.tcpnode_cb";
  KIV_LOG(4, TAG, "%s = %s", path, value);
  const char *end = nullptr;
  long number = kivschema_port(path, &end);
  if (number == 0) return 0;
  if (!kivschema_is(end, schema_values[SCHEMA_PORT_START])) return 0;
  KIV_LOG(3, TAG, "Found port %d, start=%s", static_cast<int>(number), value);
  int start = kivschema_judge(schema_values[SCHEMA_PORT_START], value) + 1;
  if (start == 0) {
    // A misspelt mode leaves the port out; it says so rather than go down in silence.
    kiv_logerror(nullptr, TAG, KIV_SEV_ERROR, KIV_ECONFIG,
                 "Port %d: bad start mode \"%.40s\", not listened on", static_cast<int>(number),
                 value);
    refused(schema_values[SCHEMA_PORT_START], nullptr, static_cast<int>(number), value);
  }
  if (start != START_AUTO && start != START_ON) return 0;
  char key[PATH_SIZE];
  kivschema_path(key, schema_values[SCHEMA_PORT_SERVICE], number);
  char *name = nullptr;
  if (kivinfo_get(nullptr, key, &name) != 0) return 0;
  service_record *svc = find_service(name);
  if (!svc || svc->refs == 0) svc = addservice(name);
  xfree(name);
  if (!svc) return 0;  // a name too long for its paths, logged by addservice
  svc->refs++;
  if (!svc->program) {
    KIV_LOG(1, TAG, "No program for service %s. %d not added", svc->name, static_cast<int>(number));
    kivev_event ev{};
    ev.id = KIVEV_PORT_NO_PROGRAM;
    ev.port = static_cast<int>(number);
    ev.service = svc->name;
    kivev_emit(&ev);
    return 0;
  }
  char *address = nullptr;
  if (port_address(static_cast<int>(number), &address) != 0) return 0;
  port_record *p = find_port(static_cast<int>(number));
  if (p && (p->service != svc || p->start != start || !same_address(p->address, address)))
    p = nullptr;
  if (!p) {
    p = addport(static_cast<int>(number), svc, start, address);
    xfree(address);
    if (!p) return 0;
  } else if (xfree(address), (p->flags & PORT_DISABLED) && p->until != UNTIL_ENABLED &&
                                 !(p->flags & PORT_ADOPTED)) {
    KIV_LOG(3, TAG, "Reenable port %d", static_cast<int>(number));
    p->flags &= ~PORT_DISABLED;
  }
  p->refs++;
  return 0;
}

int startnode_cb(const char *path, const char *value, void *) {
  static const char TAG[] = "ssock.startnode_cb";
  const schema_value &row = schema_values[SCHEMA_PROGRAM_START];
  KIV_LOG(4, TAG, "%s = %s", path, value);
  size_t namelength = 0;
  const char *key = kivschema_key(path, row, &namelength);
  if (!key) return 0;
  int judged = kivschema_judge(row, value);
  if (judged > 0) return 0;  // "off"; word 0, "on", starts the program
  char name[PATH_SIZE];
  if (namelength >= sizeof name) {
    kiv_logerror(nullptr, TAG, KIV_SEV_ERROR, KIV_ECONFIG, "Prog name too long: %.40s...", key);
    return 0;
  }
  memcpy(name, key, namelength);
  name[namelength] = '\0';
  if (judged < 0) {
    kiv_logerror(nullptr, TAG, KIV_SEV_ERROR, KIV_ECONFIG,
                 "Bad start mode %.40s of global program %s: not started", value, name);
    refused(row, name, 0, value);
    return 0;
  }
  KIV_LOG(3, TAG, "Adding prog %s", name);
  addprog(name);
  return 0;
}

int ssock_reconfig() {
  static const char TAG[] = "ssock.ssock_reconfig";
  // Each section's top key ("global" of "global.start") is attached as a registry source.
  for (const schema_section &section : schema_sections) {
    int top = static_cast<int>(strcspn(section.folder, "."));
    char path[PATH_SIZE], source[PATH_SIZE];
    xsnprintf(path, sizeof path, ".%.*s", top, section.folder);
    xsnprintf(source, sizeof source, "%.*s\\%.*s", 240, SSOCK_ROOT, top, section.folder);
    kivinfo_set(path, source, KIVINFO_REGISTRY);
  }
  int oldcount = 0;
  // Records handed over count as none, as at a start: their agents hear nothing.
  for (port_record *p = ssock_ports; p; p = p->next) {
    oldcount += !(p->flags & PORT_ADOPTED);
    p->refs = 0;
  }
  for (service_record *s = ssock_services; s; s = s->next) s->refs = 0;
  for (prog_record *g = ssock_progs; g; g = g->next) g->refs = 0;

  // The global key's own values are looked up by their readers, not walked.
  static const kivinfo_walkfunc WALKS[SCHEMA_SECTIONS] = {servnode_cb, tcpnode_cb, startnode_cb,
                                                          nullptr};
  for (int i = 0; i < SCHEMA_SECTIONS; i++) {
    if (!WALKS[i]) continue;
    char path[PATH_SIZE];
    xsnprintf(path, sizeof path, ".%s", schema_sections[i].folder);
    kivinfo_walk(path, WALKS[i], nullptr);
  }

  for (port_record *p = ssock_ports; p; p = p->next) {
    p->flags &= ~PORT_ADOPTED;
    if (p->refs == 0 && !(p->flags & PORT_REMOVE) && p->start != START_HOOK) {
      KIV_LOG(3, TAG, "Port %d no longer used", p->port);
      p->flags = PORT_REMOVE | (p->flags & PORT_TOLD);  // a disable goes with the record
    }
  }
  for (prog_record *g = ssock_progs; g; g = g->next) {
    g->flags &= ~PROG_ADOPTED;
    if (g->refs == 0) {
      KIV_LOG(3, TAG, "Prog %s no longer used", g->name);
      g->flags |= PROG_REMOVE;
    }
  }
  ssock_update();

  int newcount = 0, nagents = 0;
  child_record *agents[RECONFIG_AGENTS];
  for (port_record *p = ssock_ports; p; p = p->next) {
    newcount++;
    if (!p->agent || nagents == RECONFIG_AGENTS) continue;
    bool seen = false;
    for (int i = 0; i < nagents && !seen; i++) seen = agents[i] == p->agent;
    if (!seen) agents[nagents++] = p->agent;
  }
  if (oldcount > 0 && oldcount == newcount) {
    for (int i = 0; i < nagents; i++) {
      KIV_LOG(3, TAG, "No port removed/added sending reconfig");
      send_reconfig(agents[i]);
    }
  }
  return 0;
}
