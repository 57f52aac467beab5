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

#define SCHEMA_TEXT_OF(x) SCHEMA_TEXT_OF2(x)
#define SCHEMA_TEXT_OF2(x) #x

const schema_section schema_sections[SCHEMA_SECTIONS] = {
    {"services", "", "service"},
    {"tcp", "s", "port"},
    {"global.start", "", "global program"},
};

namespace {
// kivd compares a port's start exactly; "hook" only lets a port be hooked by "add".
const char *const PORT_STARTS[] = {"auto", "hook", "on", nullptr};
// kivd starts a global program for "on" in any letter case; "off" is the one other word
// taken, so that a misspelt "on" is refused rather than silently off.
const char *const PROGRAM_STARTS[] = {"on", "off", nullptr};
// A global program's line goes to CreateProcess, which takes at most 32767 characters
// with the terminator.
constexpr long PROGRAM_LINE_MAX = 32766;

// True when the system's own parser reads text as one numeric IPv4 or IPv6 address (a
// scope included), as kivd's listen does; kivd and kivctl apply judge by this one call.
bool numeric_address(const char *text) {
#ifdef _WIN32
  // Counted: kivd's own start-up stays in force; kivctl apply has none of its own.
  WSADATA data;
  if (WSAStartup(MAKEWORD(2, 2), &data) != 0) return false;
#endif
  // Some systems' parsers take "[::1]" too; the brackets are how kivd writes an address
  // before a port, never part of one.
  if (text[0] == '[') return false;
  addrinfo hints = {}, *found = nullptr;
  hints.ai_flags = AI_NUMERICHOST | AI_PASSIVE;
  hints.ai_socktype = SOCK_STREAM;
  int rc = getaddrinfo(text, "1", &hints, &found);
  bool ok = rc == 0 && found && (found->ai_family == AF_INET || found->ai_family == AF_INET6);
  if (found) freeaddrinfo(found);
#ifdef _WIN32
  WSACleanup();
#endif
  return ok;
}
// A job's memory limit in megabytes, at most 1 TB: far above what one agent should need,
// and its bytes fit any SIZE_T of 64 bits.
constexpr long MEMORY_MAX = 1048576;
// Processes alive in one job at once: one agent and the programs it starts. The bound is
// a sanity check of the number, well below what any machine can run.
constexpr long PROCESSES_MAX = 65536;
}  // namespace

// An absent account is kivd's own ("system"), an absent limit no limit.
const char *const SCHEMA_ACCOUNTS[SCHEMA_ACCOUNT_KINDS + 1] = {
    "system", "LocalService", "NetworkService", "restricted", nullptr};

const schema_value schema_values[SCHEMA_VALUES] = {
    {SCHEMA_PORTS, "start", "start mode", SCHEMA_WORDS, PORT_STARTS, false, 0, 0, nullptr, nullptr,
     true},
    {SCHEMA_PORTS, "service", "service", SCHEMA_NAME, nullptr, false, 0, 0, nullptr, nullptr, true},
    {SCHEMA_PORTS, "address", "address", SCHEMA_ADDRESS, nullptr, false, 1, WIRE_ADDRESS_MAX,
     nullptr, nullptr, false},
    {SCHEMA_SERVICES, "program", "program", SCHEMA_LINE, nullptr, false, 1,
     SCHEMA_AGENT_PROGRAM_MAX, nullptr, nullptr, true},
    {SCHEMA_SERVICES, "description", "description", SCHEMA_TEXT, nullptr, false, 0, 0, nullptr,
     nullptr, false},
    {SCHEMA_SERVICES, "lifespan", "lifespan", SCHEMA_DIGITS, nullptr, false, 0, WIRE_LIFESPAN_MAX,
     "seconds", SCHEMA_TEXT_OF(WIRE_DEFAULT_LIFESPAN), false},
    {SCHEMA_SERVICES, "account", "account", SCHEMA_WORDS, SCHEMA_ACCOUNTS, true, 0, 0, nullptr,
     nullptr, false},
    {SCHEMA_SERVICES, "memory", "memory", SCHEMA_DIGITS, nullptr, false, 1, MEMORY_MAX, "megabytes",
     nullptr, false},
    {SCHEMA_SERVICES, "processes", "processes", SCHEMA_DIGITS, nullptr, false, 1, PROCESSES_MAX,
     "processes", nullptr, false},
    {SCHEMA_SERVICES, "cpu", "cpu", SCHEMA_DIGITS, nullptr, false, 1, 100, "percent", nullptr,
     false},
    {SCHEMA_PROGRAMS, "start", "start mode", SCHEMA_WORDS, PROGRAM_STARTS, true, 0, 0, nullptr,
     nullptr, false},
    {SCHEMA_PROGRAMS, "program", "program", SCHEMA_LINE, nullptr, false, 1, PROGRAM_LINE_MAX,
     nullptr, nullptr, true},
    {SCHEMA_PROGRAMS, "account", "account", SCHEMA_WORDS, SCHEMA_ACCOUNTS, true, 0, 0, nullptr,
     nullptr, false},
    {SCHEMA_PROGRAMS, "memory", "memory", SCHEMA_DIGITS, nullptr, false, 1, MEMORY_MAX, "megabytes",
     nullptr, false},
    {SCHEMA_PROGRAMS, "processes", "processes", SCHEMA_DIGITS, nullptr, false, 1, PROCESSES_MAX,
     "processes", nullptr, false},
    {SCHEMA_PROGRAMS, "cpu", "cpu", SCHEMA_DIGITS, nullptr, false, 1, 100, "percent", nullptr,
     false},
};

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
    default:
      return 0;
  }
}

size_t kivschema_name_max(int section) {
  const schema_section &s = schema_sections[section];
  size_t longest = 0;
  for (const schema_value &v : schema_values)
    if (v.section == section && strlen(v.name) > longest) longest = strlen(v.name);
  // "." folder "." prefix name "." value, and the terminator.
  return SCHEMA_PATH_SIZE - 1 - (strlen(s.folder) + strlen(s.prefix) + longest + 3);
}

int kivschema_path(char *buffer, const schema_value &v, const char *name) {
  const schema_section &s = schema_sections[v.section];
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
