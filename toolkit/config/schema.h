// schema: every value of the configuration in one table (the section whose keys hold it,
// its name, how its text is judged, its default) and the tree paths built from it. kivd's
// readers and kivctl apply's check and export walk this table, so a value is described
// once: adding one is a row here plus the code that uses it. Portable.
#pragma once
#include <cstddef>

#include "lib/wire.h"

// Tree paths built from a key's name fit buffers of this size, terminator included.
constexpr int SCHEMA_PATH_SIZE = 256;

// The numbers a port key may carry.
constexpr long SCHEMA_PORT_MIN = 1;
constexpr long SCHEMA_PORT_MAX = 65534;
// The longest agent program of a service that kivd launches.
constexpr long SCHEMA_AGENT_PROGRAM_MAX = 256;
// The accounts an agent or a global program runs as (the `account` value), taken in any
// letter case; ports' ACCOUNT_* kinds are their indexes.
constexpr int SCHEMA_ACCOUNT_KINDS = 4;
extern const char *const SCHEMA_ACCOUNTS[SCHEMA_ACCOUNT_KINDS + 1];  // null-terminated

// Sections, in the order kivd walks them: one key per service, port or global program;
// then the global key, whose values are kivd's own and are looked up, not walked.
enum { SCHEMA_SERVICES, SCHEMA_PORTS, SCHEMA_PROGRAMS, SCHEMA_GLOBAL, SCHEMA_SECTIONS };

struct schema_section {
  const char *folder;  // the keys' parent, dotted below the root: "tcp", "global.start"
  const char *prefix;  // what a key's name begins with: "s" before a port's number
  const char *what;    // how messages name one key: "port", "global program"
  bool single;         // the folder is itself the section's one key, with no name below it
};
extern const schema_section schema_sections[SCHEMA_SECTIONS];

// How a value's text is judged.
enum {
  SCHEMA_TEXT,     // anything
  SCHEMA_LINE,     // a command line of 1 to `max` characters
  SCHEMA_WORDS,    // one of `words`: exactly, or in any letter case with `anycase`
  SCHEMA_DIGITS,   // decimal digits, no more of them than `max` has, worth `min` to `max`
  SCHEMA_NAME,     // a service's name, one its section's paths can be built from
  SCHEMA_ADDRESS,  // a numeric IPv4 or IPv6 address of at most `max` characters, as the
                   // system's getaddrinfo reads it with AI_NUMERICHOST
  SCHEMA_FILE,     // a file's path of at most `max` characters, no control character in
                   // it; empty means no file
};

struct schema_value {
  int section;
  const char *name;   // as the registry holds it: "start"
  const char *label;  // how messages name it: "start mode"
  int kind;
  const char *const *words;  // SCHEMA_WORDS: null-terminated
  bool anycase;
  long min, max;
  const char *unit;      // SCHEMA_DIGITS: what the number counts, for messages
  const char *fallback;  // what kivd takes when the value is absent, or null
  bool required;         // a key without it means nothing to kivd
};

// The words of a port's start, in the order of kivd's start modes (1 auto, 2 hook, 3 on):
// the word's index plus 1 is the mode. A global program's: word 0, "on" in any letter
// case, starts it; "off" is the one other word taken, so a misspelt "on" is refused.
extern const char *const SCHEMA_PORT_STARTS[];
extern const char *const SCHEMA_PROGRAM_STARTS[];
// A global program's line goes to CreateProcess: at most 32767 characters with the zero.
constexpr long SCHEMA_PROGRAM_LINE_MAX = 32766;
// A job's memory limit in megabytes, at most 1 TB: far above what one agent should need,
// and its bytes fit any SIZE_T of 64 bits.
constexpr long SCHEMA_MEMORY_MAX = 1048576;
// Processes alive in one job at once: one agent and the programs it starts. The bound is
// a sanity check of the number, well below what any machine can run.
constexpr long SCHEMA_PROCESSES_MAX = 65536;
// The monitoring file's path: with the temporary name written beside it (".tmp" behind)
// it fits the system's path limit (MAX_PATH, 260 with the terminator).
constexpr long SCHEMA_FILE_PATH_MAX = 240;
#define SCHEMA_TEXT_OF(x) SCHEMA_TEXT_OF2(x)
#define SCHEMA_TEXT_OF2(x) #x

// The account an agent or a global program runs as and its job's three limits, in the
// order SCHEMA_LIMIT_* gives them: the same four rows in each section that has them.
#define SCHEMA_LIMIT_ROWS(X, WHO, section)                                                       \
  X(WHO##_ACCOUNT, section, "account", "account", SCHEMA_WORDS, SCHEMA_ACCOUNTS, true, 0, 0,     \
    nullptr, nullptr, false)                                                                     \
  X(WHO##_MEMORY, section, "memory", "memory", SCHEMA_DIGITS, nullptr, false, 1,                 \
    SCHEMA_MEMORY_MAX, "megabytes", nullptr, false)                                              \
  X(WHO##_PROCESSES, section, "processes", "processes", SCHEMA_DIGITS, nullptr, false, 1,        \
    SCHEMA_PROCESSES_MAX, "processes", nullptr, false)                                           \
  X(WHO##_CPU, section, "cpu", "cpu", SCHEMA_DIGITS, nullptr, false, 1, 100, "percent", nullptr, \
    false)

// Every value, by section: X(NAME, section, name, label, kind, words, anycase, min, max,
// unit, fallback, required), in schema_value's order. SCHEMA_<NAME> is its row's index in
// schema_values: a value added is one line here, and code naming one that has none does
// not compile. An absent account is kivd's own ("system"), an absent limit no limit.
#define SCHEMA_ROWS(X)                                                                            \
  X(PORT_START, SCHEMA_PORTS, "start", "start mode", SCHEMA_WORDS, SCHEMA_PORT_STARTS, false, 0,  \
    0, nullptr, nullptr, true)                                                                    \
  X(PORT_SERVICE, SCHEMA_PORTS, "service", "service", SCHEMA_NAME, nullptr, false, 0, 0, nullptr, \
    nullptr, true)                                                                                \
  /* the local address a port listens on; absent: every IPv4 address */                           \
  X(PORT_ADDRESS, SCHEMA_PORTS, "address", "address", SCHEMA_ADDRESS, nullptr, false, 1,          \
    WIRE_ADDRESS_MAX, nullptr, nullptr, false)                                                    \
  X(SERVICE_PROGRAM, SCHEMA_SERVICES, "program", "program", SCHEMA_LINE, nullptr, false, 1,       \
    SCHEMA_AGENT_PROGRAM_MAX, nullptr, nullptr, true)                                             \
  X(SERVICE_DESCRIPTION, SCHEMA_SERVICES, "description", "description", SCHEMA_TEXT, nullptr,     \
    false, 0, 0, nullptr, nullptr, false)                                                         \
  X(SERVICE_LIFESPAN, SCHEMA_SERVICES, "lifespan", "lifespan", SCHEMA_DIGITS, nullptr, false, 0,  \
    WIRE_LIFESPAN_MAX, "seconds", SCHEMA_TEXT_OF(WIRE_DEFAULT_LIFESPAN), false)                   \
  SCHEMA_LIMIT_ROWS(X, SERVICE, SCHEMA_SERVICES)                                                  \
  X(PROGRAM_START, SCHEMA_PROGRAMS, "start", "start mode", SCHEMA_WORDS, SCHEMA_PROGRAM_STARTS,   \
    true, 0, 0, nullptr, nullptr, false)                                                          \
  X(PROGRAM_PROGRAM, SCHEMA_PROGRAMS, "program", "program", SCHEMA_LINE, nullptr, false, 1,       \
    SCHEMA_PROGRAM_LINE_MAX, nullptr, nullptr, true)                                              \
  SCHEMA_LIMIT_ROWS(X, PROGRAM, SCHEMA_PROGRAMS)                                                  \
  /* the file kivd writes its counters into for monitoring; absent or empty: none */              \
  X(GLOBAL_METRICS, SCHEMA_GLOBAL, "metrics", "monitoring file", SCHEMA_FILE, nullptr, false, 0,  \
    SCHEMA_FILE_PATH_MAX, nullptr, nullptr, false)

#define SCHEMA_ID(NAME, ...) SCHEMA_##NAME,
enum { SCHEMA_ROWS(SCHEMA_ID) SCHEMA_VALUES };
#undef SCHEMA_ID
// The account and the three job limits, in this order from a section's account row.
enum {
  SCHEMA_LIMIT_ACCOUNT,
  SCHEMA_LIMIT_MEMORY,
  SCHEMA_LIMIT_PROCESSES,
  SCHEMA_LIMIT_CPU,
  SCHEMA_LIMITS
};
// Each section's account and limit rows by name, in SCHEMA_LIMIT_* order.
constexpr int SCHEMA_SERVICE_LIMITS[SCHEMA_LIMITS] = {SCHEMA_SERVICE_ACCOUNT, SCHEMA_SERVICE_MEMORY,
                                                      SCHEMA_SERVICE_PROCESSES, SCHEMA_SERVICE_CPU};
constexpr int SCHEMA_PROGRAM_LIMITS[SCHEMA_LIMITS] = {SCHEMA_PROGRAM_ACCOUNT, SCHEMA_PROGRAM_MEMORY,
                                                      SCHEMA_PROGRAM_PROCESSES, SCHEMA_PROGRAM_CPU};
extern const schema_value schema_values[SCHEMA_VALUES];

// kivd's judgement of text by v's row: for SCHEMA_WORDS the index of the word it is, for
// the other kinds 0; -1 when kivd cannot use it.
int kivschema_judge(const schema_value &v, const char *text);
// The longest key name of a section whose every value path fits SCHEMA_PATH_SIZE (0 for
// a single key: it has no name of its own).
size_t kivschema_name_max(int section);
// The tree path of value v of the key named name (a port's decimal number), as the
// registry loader stores it: ".<folder>.<prefix><name>.<value>" with every "." of the
// name made "_"; of a single key's value ".<folder>.<value>", name unused. 0, or
// KIV_EOVERFLOW when it would not fit SCHEMA_PATH_SIZE.
int kivschema_path(char *buffer, const schema_value &v, const char *name);
int kivschema_path(char *buffer, const schema_value &v, long port);
// The port number of a tree path below the ports' folder as kivd reads it: the folder and
// prefix in any letter case, then the number as strtol reads it; 0 when that is outside
// SCHEMA_PORT_MIN..SCHEMA_PORT_MAX. *rest receives what follows the number.
long kivschema_port(const char *path, const char **rest);
// True when rest begins with "." and v's name, in any letter case: the walks take a value
// by the beginning of what follows the key's name.
bool kivschema_is(const char *rest, const schema_value &v);
// The key's name in a path ".<folder>.<name>.<value>" of value v (folder and value name
// in any letter case): a pointer into path, its length in *length; null for another path.
const char *kivschema_key(const char *path, const schema_value &v, size_t *length);
