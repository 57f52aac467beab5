// kivd's events: the record of what happened to a port, service or global program, each
// with a fixed number, a severity and its fields. The port manager and the control channel
// emit them; the service host hands in the outlets at start-up (the Windows event log, a
// per-record ring). Events come in addition to the debug log's lines, never instead.
#pragma once
#include <ctime>

// Severities, as the Windows event log's types.
constexpr int KIVEV_INFO = 0;
constexpr int KIVEV_WARNING = 1;
constexpr int KIVEV_ERROR = 2;

// How a field's value is written in an event's line, and read back (kivctl's JSON).
enum kivev_kind {
  KIVEV_DECIMAL,  // a number
  KIVEV_HEX,      // a number written 0x%08X
  KIVEV_WORDS,    // a text
  KIVEV_TIME,     // seconds since 1970 in a line, local date and time in a message
};

// Every field an event's message takes as an insert: X(NAME, name in a line, kind).
#define KIVEV_FIELDS(X)                                                                    \
  X(PORT, "port", KIVEV_DECIMAL)         /* port number */                                 \
  X(SERVICE, "service", KIVEV_WORDS)     /* service name */                                \
  X(PROGRAM, "program", KIVEV_WORDS)     /* global program name */                         \
  X(PID, "pid", KIVEV_DECIMAL)           /* process id */                                  \
  X(EXIT, "exit", KIVEV_DECIMAL)         /* exit code */                                   \
  X(EXCEPTION, "exception", KIVEV_HEX)   /* exit code of an ending by exception */         \
  X(SYSERROR, "syserror", KIVEV_DECIMAL) /* the system's error number */                   \
  X(ERRORTEXT, "errortext", KIVEV_WORDS) /* its text */                                    \
  X(UNTIL, "until", KIVEV_TIME)          /* when a rest ends */                            \
  X(COUNT, "count", KIVEV_DECIMAL)       /* a number of starts, handles, messages */       \
  X(PERIOD, "period", KIVEV_DECIMAL)     /* seconds */                                     \
  X(SIZE, "size", KIVEV_DECIMAL)         /* bytes */                                       \
  X(TEXT, "text", KIVEV_WORDS)           /* a configuration value's path, a file, a tag */ \
  X(VALUE, "value", KIVEV_WORDS)         /* a configuration value as read */               \
  X(CODE, "code", KIVEV_DECIMAL)         /* a toolkit result code */                       \
  X(AGENTS, "agents", KIVEV_DECIMAL)     /* running agents handed over */                  \
  X(PROGRAMS, "programs", KIVEV_DECIMAL) /* running global programs handed over */         \
  X(GAP, "gap", KIVEV_DECIMAL)           /* milliseconds between two kivd processes */

#define KIVEV_FIELD_ID(name, ...) KIVEV_F_##name,
enum kivev_field { KIVEV_FIELDS(KIVEV_FIELD_ID) };
#undef KIVEV_FIELD_ID

// What kivd does next after an event that has no rest: kivctl's words. An event whose
// next step is its rest (an until field) says KIVEV_RESTS instead, and the build checks
// that each event has one or the other.
#define KIVEV_RESTS nullptr

// Every event: X(NAME, number, severity, next step, inserts...). The number is the one the
// message table gives it (service/kivd_messages.mc, checked by the compiler against the generated
// header); a new event is one row here and one message there.
#define KIVEV_EVENTS(X)                                                                            \
  X(SERVICE_STARTED, 1, KIVEV_INFO, "serving")                                                     \
  X(SERVICE_STOPPED, 2, KIVEV_INFO, "stopped", KIVEV_F_CODE)                                       \
  X(PORT_LISTEN_FAILED, 101, KIVEV_ERROR, KIVEV_RESTS, KIVEV_F_PORT, KIVEV_F_SERVICE,              \
    KIVEV_F_SYSERROR, KIVEV_F_ERRORTEXT, KIVEV_F_UNTIL)                                            \
  X(PORT_THROTTLED, 102, KIVEV_WARNING, KIVEV_RESTS, KIVEV_F_PORT, KIVEV_F_SERVICE, KIVEV_F_COUNT, \
    KIVEV_F_PERIOD, KIVEV_F_UNTIL)                                                                 \
  X(PORT_START_FAILED, 103, KIVEV_ERROR, KIVEV_RESTS, KIVEV_F_PORT, KIVEV_F_SERVICE,               \
    KIVEV_F_SYSERROR, KIVEV_F_ERRORTEXT, KIVEV_F_UNTIL)                                            \
  X(PORT_EXCEPTION, 104, KIVEV_WARNING, KIVEV_RESTS, KIVEV_F_PORT, KIVEV_F_SERVICE, KIVEV_F_PID,   \
    KIVEV_F_EXCEPTION, KIVEV_F_UNTIL)                                                              \
  X(PORT_NO_PROGRAM, 105, KIVEV_WARNING, "not serving the port until a program is configured",     \
    KIVEV_F_PORT, KIVEV_F_SERVICE)                                                                 \
  X(CONFIG_REFUSED, 106, KIVEV_WARNING, "going on without the value", KIVEV_F_TEXT, KIVEV_F_VALUE) \
  X(PORT_DISABLED, 107, KIVEV_INFO, "disabled until enabled", KIVEV_F_PORT, KIVEV_F_SERVICE)       \
  X(PORT_ENABLED, 108, KIVEV_INFO, "serving again", KIVEV_F_PORT, KIVEV_F_SERVICE)                 \
  X(AGENT_ENDED, 201, KIVEV_WARNING, "serving again", KIVEV_F_SERVICE, KIVEV_F_PID, KIVEV_F_EXIT)  \
  X(PROG_ENDED, 202, KIVEV_WARNING, "starting it again", KIVEV_F_PROGRAM, KIVEV_F_PID,             \
    KIVEV_F_EXIT)                                                                                  \
  X(PROG_EXCEPTION, 203, KIVEV_WARNING, KIVEV_RESTS, KIVEV_F_PROGRAM, KIVEV_F_PID,                 \
    KIVEV_F_EXCEPTION, KIVEV_F_UNTIL)                                                              \
  X(PROG_THROTTLED, 204, KIVEV_WARNING, KIVEV_RESTS, KIVEV_F_PROGRAM, KIVEV_F_COUNT,               \
    KIVEV_F_PERIOD, KIVEV_F_UNTIL)                                                                 \
  X(PROG_START_FAILED, 205, KIVEV_ERROR, KIVEV_RESTS, KIVEV_F_PROGRAM, KIVEV_F_SYSERROR,           \
    KIVEV_F_ERRORTEXT, KIVEV_F_UNTIL)                                                              \
  X(PIPE_CLIENT_HUNG_UP, 301, KIVEV_WARNING, "serving the other clients", KIVEV_F_COUNT,           \
    KIVEV_F_SIZE)                                                                                  \
  X(WAIT_FAILED, 302, KIVEV_ERROR, "trying the whole wait again each second", KIVEV_F_COUNT,       \
    KIVEV_F_SYSERROR, KIVEV_F_ERRORTEXT)                                                           \
  X(OUT_OF_MEMORY, 303, KIVEV_ERROR, "going on without what it asked for", KIVEV_F_SIZE,           \
    KIVEV_F_TEXT)                                                                                  \
  X(TRACE_FAILED, 304, KIVEV_WARNING, "going on, the trace resumes when it can", KIVEV_F_TEXT,     \
    KIVEV_F_SYSERROR, KIVEV_F_ERRORTEXT)                                                           \
  X(TRACE_RESUMED, 305, KIVEV_INFO, "tracing again", KIVEV_F_TEXT)                                 \
  X(METRICS_FAILED, 306, KIVEV_WARNING, "trying again at each write", KIVEV_F_TEXT,                \
    KIVEV_F_SYSERROR, KIVEV_F_ERRORTEXT)                                                           \
  X(METRICS_RESUMED, 307, KIVEV_INFO, "writing it again", KIVEV_F_TEXT)                            \
  X(HANDOVER_BEGUN, 401, KIVEV_INFO, "ending, its successor claims from the holder", KIVEV_F_PID,  \
    KIVEV_F_COUNT, KIVEV_F_AGENTS, KIVEV_F_PROGRAMS)                                               \
  X(HANDOVER_COMPLETED, 402, KIVEV_INFO, "serving", KIVEV_F_PID, KIVEV_F_COUNT, KIVEV_F_AGENTS,    \
    KIVEV_F_PROGRAMS, KIVEV_F_GAP)                                                                 \
  X(HANDOVER_EXPIRED, 403, KIVEV_WARNING, "stopped: agents told to exit, ports closed",            \
    KIVEV_F_PID, KIVEV_F_PERIOD, KIVEV_F_COUNT, KIVEV_F_AGENTS, KIVEV_F_PROGRAMS)                  \
  X(HANDOVER_FAILED, 404, KIVEV_ERROR, "serving on, nothing handed over", KIVEV_F_TEXT,            \
    KIVEV_F_SYSERROR, KIVEV_F_ERRORTEXT)

#define KIVEV_NUMBER(name, number, ...) KIVEV_##name = number,
enum kivev_id : int { KIVEV_EVENTS(KIVEV_NUMBER) };
#undef KIVEV_NUMBER

// One event as emitted. The emitter fills id, the fields its event has and the port,
// service or program it belongs to (the rest stay zero or null); texts are the emitter's
// and live only for the call, so an outlet copies what it keeps.
struct kivev_event {
  int id;               // KIVEV_*
  time_t time;          // set by kivev_emit
  int port;             // 0: none
  const char *service;  // the service of the port, or of the agent
  const char *program;  // a global program's name
  unsigned long pid;
  unsigned long exitcode;  // exit code, or the code of the exception
  long syserror;           // the system's error number
  const char *errortext;   // its text; kivev_systext gives the platform's
  time_t until;            // when a rest ends
  long count;
  long period;
  unsigned long size;
  const char *text;
  const char *value;
  int code;       // a toolkit result code
  long agents;    // a hand-over's running agents,
  long programs;  // its running global programs,
  long gap;       // and the milliseconds without a kivd process
  int held;       // limited outlets: identical events held back before this one
};

#define KIVEV_COUNT_ONE(...) +1
constexpr int KIVEV_NEVENTS = 0 KIVEV_EVENTS(KIVEV_COUNT_ONE);
#undef KIVEV_COUNT_ONE
// Identical events (same number, port, service, program, text and value) reach a limited
// outlet at most once in this many seconds; the next one that does carries the count held
// back.
constexpr int KIVEV_REPEAT_SECONDS = 60;
constexpr int KIVEV_MAXOUTLETS = 4;
constexpr int KIVEV_MAXINSERTS = 5;  // fields of the largest event
constexpr int KIVEV_LIMITED = 1;     // kivev_addoutlet flag

// Called for each event, from the thread that emits it (the loop, or a thread whose log
// line failed): quick, never blocking, guarding its own state. An event emitted from
// inside an outlet on the same thread is dropped, so an outlet cannot loop.
using kivev_outlet = void (*)(void *context, const kivev_event *ev);

// Adds an outlet; with KIVEV_LIMITED it gets the repeat limit. 0, or KIV_EOVERFLOW when
// KIVEV_MAXOUTLETS are registered already.
int kivev_addoutlet(kivev_outlet outlet, void *context, int flags);
// Removes every outlet and forgets what the repeat limit held back (shutdown, tests).
void kivev_reset();
// Stamps the event with kiv_time() and hands it to every outlet.
void kivev_emit(kivev_event *ev);

// The event's definition: severity, name ("PORT_LISTEN_FAILED"), its inserts in order
// (the count, -1 for a number that is no event). The i-th event in number order: kivev_at.
int kivev_severity(int id);
const char *kivev_name(int id);
int kivev_fields(int id, const kivev_field **fields);
int kivev_at(int i);
// What kivd does next after the event, for people; null for an event whose next step is
// the rest its until field names, and for a number that is no event.
const char *kivev_next(int id);
// The event's inserts as texts, in its message's order: each written into buffer (size
// bytes, cut to fit, each terminated) and pointed to from inserts. Returns their count, or
// KIV_EINVAL for a number that is no event.
int kivev_inserts(const kivev_event *ev, char *buffer, int size, const char **inserts);
// The platform's text for a system error number, without a trailing line end.
void kivev_systext(long syserror, char *buffer, int size);

// The per-record ring that `why` lists: the last KIVEV_RING events of a port, service or
// global program, each kept as its listing line. The port manager holds one per record
// (null until its first event) and frees it with the record.
constexpr int KIVEV_RING = 8;
constexpr int KIVEV_LINE_SIZE = 640;
struct kivev_ring {
  int next;  // the slot the next event takes
  int count;
  char lines[KIVEV_RING][KIVEV_LINE_SIZE];
};
// The line of an event, tab-separated: its number, time (seconds since 1970, UTC), severity
// ("info", "warning", "error"), text, then one "name=value" per field (until in seconds
// since 1970 too), then port, service and program where the event names them and its
// fields do not. Tabs and line ends inside texts become spaces; a line too long is cut.
// Returns its length.
int kivev_line(const kivev_event *ev, const char *text, char *buffer, int size);
// Appends ev's line to *ring, allocating the ring at its first event (nothing is kept when
// the heap refuses). kivev_forget frees it and sets *ring null.
void kivev_keep(kivev_ring **ring, const kivev_event *ev, const char *text);
// Appends a line as kivev_line wrote it (one a hand-over carried), cut to fit.
void kivev_keep_line(kivev_ring **ring, const char *line);
void kivev_forget(kivev_ring **ring);
// The i-th kept line, oldest first (i from 0 to count-1); null past the end or for no ring.
const char *kivev_kept(const kivev_ring *ring, int i);
// A field's name in an event's line: "port", "service", ... "code"; its kind; the field of
// a name (-1 for a name that is no field's).
const char *kivev_fieldname(kivev_field field);
kivev_kind kivev_fieldkind(kivev_field field);
int kivev_fieldof(const char *name);
// kivd's own ring: the events that name no port, service or program (the service started,
// a pipe client hung up on, a wait that failed, ...), and those of records that have no
// ring of their own. Any thread may keep and read; the line is copied into buffer (size
// bytes). kivev_own_line: false past the end.
void kivev_keep_own(const kivev_event *ev, const char *text);
bool kivev_own_line(int i, char *buffer, int size);
// Copies into *out, oldest first, kivd's own lines whose event names the port (field
// KIVEV_F_PORT) or the service or program of that name (KIVEV_F_SERVICE, KIVEV_F_PROGRAM),
// as its port, service or program. Returns how many.
int kivev_own_named(kivev_field field, int port, const char *name, kivev_ring *out);
// Forgets kivd's own ring (kivev_reset).
void kivev_forget_own();
// A record's name as the own ring keeps it: a registry key's name has at most 255
// characters.
constexpr int KIVEV_NAME_SIZE = 256;
