// schema: the configuration's table and the paths built from it.
#include "toolkit/config/schema.h"

#include <cstdlib>
#include <cstring>
#ifdef _WIN32
#include <winsock2.h>
#include <ws2tcpip.h>
#else
#include <netdb.h>
#include <sys/socket.h>
#endif

#include "lib/printf.h"
#include "lib/strcase.h"
#include "lib/wire.h"
#include "toolkit/runtime/error.h"
#include "toolkit/runtime/init.h"

const schema_section schema_sections[SCHEMA_SECTIONS] = {
    {"services", "", "service", false},
    {"tcp", "s", "port", false},
    {"global.start", "", "global program", false},
    {"global", "", "the global key", true},
};

namespace {

// True when the system's own parser reads text as one numeric IPv4 or IPv6 address (a
// scope included), as kivd's listen does; kivd and kivctl apply judge by this one call.
bool numeric_address(const char *text) {
  // Started once per process, whoever asks first (kivctl apply has no start-up of its own).
  if (kiv_net_init() != 0) return false;
  // Some systems' parsers take "[::1]" too; the brackets are how kivd writes an address
  // before a port, never part of one.
  if (text[0] == '[') return false;
  addrinfo hints = {}, *found = nullptr;
  hints.ai_flags = AI_NUMERICHOST | AI_PASSIVE;
  hints.ai_socktype = SOCK_STREAM;
  int rc = getaddrinfo(text, "1", &hints, &found);
  bool ok = rc == 0 && found && (found->ai_family == AF_INET || found->ai_family == AF_INET6);
  if (found) freeaddrinfo(found);
  return ok;
}
}  // namespace

const char *const SCHEMA_ACCOUNTS[SCHEMA_ACCOUNT_KINDS + 1] = {
    "system", "LocalService", "NetworkService", "restricted", nullptr};

// kivd compares a port's start exactly; "hook" only lets a port be hooked by "add".
const char *const SCHEMA_PORT_STARTS[] = {"auto", "hook", "on", nullptr};
const char *const SCHEMA_PROGRAM_STARTS[] = {"on", "off", nullptr};

#define SCHEMA_ROW(NAME, ...) {__VA_ARGS__},
const schema_value schema_values[SCHEMA_VALUES] = {SCHEMA_ROWS(SCHEMA_ROW)};
#undef SCHEMA_ROW

int kivschema_judge(const schema_value &v, const char *text) {
  size_t length = strlen(text);
  switch (v.kind) {
    case SCHEMA_LINE:
      return length >= static_cast<size_t>(v.min) && length <= static_cast<size_t>(v.max) ? 0 : -1;
    case SCHEMA_WORDS:
      for (int i = 0; v.words[i]; i++)
        if ((v.anycase ? xstrncasecmp(text, v.words[i], length + 1) : strcmp(text, v.words[i])) ==
            0)
          return i;
      return -1;
    case SCHEMA_DIGITS: {
      // As many digits as the largest value has, so that the value cannot overflow.
      char largest[24];
      size_t most = static_cast<size_t>(xsnprintf(largest, sizeof largest, "%ld", v.max));
      if (length == 0 || length > most || strspn(text, "0123456789") != length) return -1;
      long value = strtol(text, nullptr, 10);
      return value >= v.min && value <= v.max ? 0 : -1;
    }
    case SCHEMA_NAME:
      return length >= 1 && length <= kivschema_name_max(SCHEMA_SERVICES) ? 0 : -1;
    case SCHEMA_ADDRESS:
      return length >= static_cast<size_t>(v.min) && length <= static_cast<size_t>(v.max) &&
                     numeric_address(text)
                 ? 0
                 : -1;
    case SCHEMA_FILE:
      if (length > static_cast<size_t>(v.max)) return -1;
      for (const char *c = text; *c; c++)
        if (static_cast<unsigned char>(*c) < 0x20 || *c == 0x7f) return -1;
      return 0;
    default:
      return 0;
  }
}

size_t kivschema_name_max(int section) {
  const schema_section &s = schema_sections[section];
  if (s.single) return 0;
  size_t longest = 0;
  for (const schema_value &v : schema_values)
    if (v.section == section && strlen(v.name) > longest) longest = strlen(v.name);
  // "." folder "." prefix name "." value, and the terminator.
  return SCHEMA_PATH_SIZE - 1 - (strlen(s.folder) + strlen(s.prefix) + longest + 3);
}

int kivschema_path(char *buffer, const schema_value &v, const char *name) {
  const schema_section &s = schema_sections[v.section];
  if (s.single) {
    int n = xsnprintf(buffer, SCHEMA_PATH_SIZE, ".%s.%s", s.folder, v.name);
    return n < 0 || n >= SCHEMA_PATH_SIZE ? KIV_EOVERFLOW : 0;
  }
  int n = xsnprintf(buffer, SCHEMA_PATH_SIZE, ".%s.%s%s.%s", s.folder, s.prefix, name, v.name);
  if (n < 0 || n >= SCHEMA_PATH_SIZE) return KIV_EOVERFLOW;
  // The registry loader stores a key's name with its dots made "_".
  char *first = buffer + strlen(s.folder) + 2 + strlen(s.prefix);
  for (char *c = first; c < first + strlen(name); c++)
    if (*c == '.') *c = '_';
  return 0;
}

int kivschema_path(char *buffer, const schema_value &v, long port) {
  char number[24];
  xsnprintf(number, sizeof number, "%ld", port);
  return kivschema_path(buffer, v, number);
}

long kivschema_port(const char *path, const char **rest) {
  const schema_section &s = schema_sections[SCHEMA_PORTS];
  size_t folder = strlen(s.folder), prefix = strlen(s.prefix);
  *rest = path;
  if (path[0] != '.' || xstrncasecmp(path + 1, s.folder, folder) != 0 || path[folder + 1] != '.' ||
      xstrncasecmp(path + folder + 2, s.prefix, prefix) != 0)
    return 0;
  char *end = nullptr;
  long number = strtol(path + folder + 2 + prefix, &end, 10);
  *rest = end;
  return number >= SCHEMA_PORT_MIN && number <= SCHEMA_PORT_MAX ? number : 0;
}

bool kivschema_is(const char *rest, const schema_value &v) {
  return rest[0] == '.' && xstrncasecmp(rest + 1, v.name, strlen(v.name)) == 0;
}

const char *kivschema_key(const char *path, const schema_value &v, size_t *length) {
  const char *folder = schema_sections[v.section].folder;
  size_t folderlength = strlen(folder), namelength = strlen(v.name), total = strlen(path);
  // The key's name lies between the two, so they may not overlap.
  if (total < folderlength + namelength + 3 || path[0] != '.' ||
      xstrncasecmp(path + 1, folder, folderlength) != 0 || path[folderlength + 1] != '.' ||
      !kivschema_is(path + total - namelength - 1, v))
    return nullptr;
  *length = total - folderlength - namelength - 3;
  return path + folderlength + 2;
}
