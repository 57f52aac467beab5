// Reconfiguration: the tables made to agree with the registry configuration.
#include <cstdlib>
#include <cstring>

#include "lib/heap.h"
#include "lib/printf.h"
#include "lib/strcase.h"
#include "lib/wire.h"
#include "ports/internal.h"
#include "toolkit/config/info.h"
#include "toolkit/runtime/error.h"

int servnode_cb(const char *path, const char *value, void *) {
  KIV_LOG(4, "ssock.servnode_cb", "%s = %s", path, value);
  return 0;
}

int tcpnode_cb(const char *path, const char *value, void *) {
  static const char TAG[] = "ssock.tcpnode_cb";
  KIV_LOG(4, TAG, "%s = %s", path, value);
  if (xstrncasecmp(path, ".tcp.s", 6) != 0) return 0;
  char *end = nullptr;
  long number = strtol(path + 6, &end, 10);
  if (number < 1 || number >= 65535) return 0;
  if (xstrncasecmp(end, ".start", 6) != 0) return 0;
  KIV_LOG(3, TAG, "Found port %d, start=%s", static_cast<int>(number), value);
  int start;
  if (strcmp(value, "auto") == 0)
    start = START_AUTO;
  else if (strcmp(value, "on") == 0)
    start = START_ON;
  else
    return 0;
  char key[PATH_SIZE];
  xsnprintf(key, sizeof key, ".tcp.s%u.service", static_cast<unsigned>(number));
  char *name = nullptr;
  if (kivinfo_get(nullptr, key, &name) != 0) return 0;
  service_record *svc = find_service(name);
  if (!svc || svc->refs == 0) svc = addservice(name);
  xfree(name);
  if (!svc) return 0;  // a name too long for its paths, logged by addservice
  svc->refs++;
  if (!svc->program) {
    KIV_LOG(1, TAG, "No program for service %s. %d not added", svc->name, static_cast<int>(number));
    return 0;
  }
  port_record *p = find_port(static_cast<int>(number));
  if (p && (p->service != svc || p->start != start)) p = nullptr;
  if (!p) {
    p = addport(static_cast<int>(number), svc, start);
    if (!p) return 0;
  } else if ((p->flags & PORT_DISABLED) && p->until != UNTIL_ENABLED) {
    KIV_LOG(3, TAG, "Reenable port %d", static_cast<int>(number));
    p->flags &= ~PORT_DISABLED;
  }
  p->refs++;
  return 0;
}

int startnode_cb(const char *path, const char *value, void *) {
  static const char TAG[] = "ssock.startnode_cb";
  static const char PREFIX[] = ".global.start.", SUFFIX[] = ".start";
  constexpr size_t PREFIXLEN = sizeof PREFIX - 1, SUFFIXLEN = sizeof SUFFIX - 1;
  KIV_LOG(4, TAG, "%s = %s", path, value);
  size_t length = strlen(path);
  // The name between the two must not be empty, so the two may not overlap.
  if (length <= PREFIXLEN + SUFFIXLEN - 1 || xstrncasecmp(path, PREFIX, PREFIXLEN) != 0 ||
      xstrncasecmp(path + length - SUFFIXLEN, SUFFIX, SUFFIXLEN) != 0)
    return 0;
  if (xstrncasecmp(value, "on", 3) != 0) return 0;
  size_t namelength = length - PREFIXLEN - SUFFIXLEN;
  char name[PATH_SIZE];
  if (namelength >= sizeof name) {
    kiv_logerror(nullptr, TAG, KIV_SEV_ERROR, KIV_ECONFIG, "Prog name too long: %.40s...",
                 path + PREFIXLEN);
    return 0;
  }
  memcpy(name, path + PREFIXLEN, namelength);
  name[namelength] = '\0';
  KIV_LOG(3, TAG, "Adding prog %s", name);
  addprog(name);
  return 0;
}

int ssock_reconfig() {
  static const char TAG[] = "ssock.ssock_reconfig";
  static const char *const SUBTREES[3][2] = {
      {".global", "%.*s\\global"}, {".services", "%.*s\\services"}, {".tcp", "%.*s\\tcp"}};
  for (const auto &subtree : SUBTREES) {
    char source[PATH_SIZE];
    xsnprintf(source, sizeof source, subtree[1], 240, SSOCK_ROOT);
    kivinfo_set(subtree[0], source, KIVINFO_REGISTRY);
  }
  int oldcount = 0;
  for (port_record *p = ssock_ports; p; p = p->next) {
    oldcount++;
    p->refs = 0;
  }
  for (service_record *s = ssock_services; s; s = s->next) s->refs = 0;
  for (prog_record *g = ssock_progs; g; g = g->next) g->refs = 0;

  kivinfo_walk(".services", servnode_cb, nullptr);
  kivinfo_walk(".tcp", tcpnode_cb, nullptr);
  kivinfo_walk(".global.start", startnode_cb, nullptr);

  for (port_record *p = ssock_ports; p; p = p->next) {
    if (p->refs == 0 && !(p->flags & PORT_REMOVE) && p->start != START_HOOK) {
      KIV_LOG(3, TAG, "Port %d no longer used", p->port);
      p->flags = PORT_REMOVE | (p->flags & PORT_TOLD);  // a disable goes with the record
    }
  }
  for (prog_record *g = ssock_progs; g; g = g->next) {
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
      sendcmd(agents[i], WIRE_RECONFIG);
    }
  }
  return 0;
}
