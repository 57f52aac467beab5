// The agent wire contract and the names kivd is reached by: what the port manager writes
// on an agent's pipe and what agents read there, the control pipe's name, the service's
// name and the configuration root. The manager, the agent library, kivctl and the test
// agent all take them from here, so that the two ends cannot drift apart. The texts are
// macros so that they join other literals and printf-style formats stay checked.
#pragma once

// Agent commands, one per line, each ended by CR LF. At start-up: one port line per
// port, WIRE_END_PORTS, then the lifespan line; afterwards any of remove, exit, reconfig.
#define WIRE_PORT "-Ptcp::"                   // starts every port line
#define WIRE_PORT_HANDOVER WIRE_PORT "%u@%s"  // port, base64 of the protocol information
#define WIRE_PORT_ON WIRE_PORT "%u"           // an "on" port: the agent listens itself
#define WIRE_END_PORTS "--"
#define WIRE_LIFESPAN "lifespan "   // followed by the seconds
#define WIRE_REMOVE "remove tcp::"  // followed by the port
#define WIRE_EXIT "exit"
#define WIRE_RECONFIG "reconfig"
// The lifespan line's seconds: the manager sends WIRE_DEFAULT_LIFESPAN for a service that
// names none; an agent reads up to WIRE_LIFESPAN_MAX (its milliseconds fit 32 bits). A
// number, so both ends can check theirs against it; the manager sends its decimal text.
#define WIRE_DEFAULT_LIFESPAN 86400
constexpr unsigned long WIRE_LIFESPAN_MAX = 4294967;

// The protocol information of a handed-over socket: a WSAPROTOCOL_INFOA of the 64-bit
// system (each side that knows the record asserts the size), and its length in base64
// (padded, no line breaks).
constexpr int WIRE_INFO_SIZE = 372;
constexpr int WIRE_INFO_TEXT = (WIRE_INFO_SIZE + 2) / 3 * 4;
// The flags both ends give WSASocket for a listening socket: the manager makes its own
// without overlapped I/O, and the agent rebuilds a handed-over one with the same flags, as
// a duplicated socket requires. A connection accepted on such a socket is a handle a
// program can take as its standard input and output.
constexpr unsigned WIRE_SOCKET_FLAGS = 0;
// An "on" port with a configured address: "-Ptcp:<address>:<port>", an IPv6 address in
// brackets. Its start differs from WIRE_PORT, so an agent that knows only "-Ptcp::"
// refuses the line rather than listen on every address. The address is at most
// WIRE_ADDRESS_MAX characters.
#define WIRE_PORT_AT "-Ptcp:"
constexpr int WIRE_ADDRESS_MAX = 63;
// The listen backlog of every listening socket of a port, kivd's and an "on" agent's alike.
constexpr int WIRE_LISTEN_BACKLOG = 10;
// The longest port line: port 65535 handed over, without its CR LF.
constexpr int WIRE_PORT_LINE_MAX = sizeof WIRE_PORT "65535@" - 1 + WIRE_INFO_TEXT;

// The service's name, the control pipe's name, and the configuration's registry key
// under HKEY_LOCAL_MACHINE (WIRE_ROOT_PARENT\WIRE_ROOT_KEY).
#define WIRE_SERVICE "vesk_kivd"
#define WIRE_PIPE "\\\\.\\pipe\\vesk_kivd"
// The pipe a holder gives a hand-over on to kivd's successor.
#define WIRE_HANDOVER_PIPE "\\\\.\\pipe\\vesk_kivd_handover"
#define WIRE_ROOT_PARENT "SOFTWARE\\Orvane"
#define WIRE_ROOT_KEY "Agents"
#define WIRE_ROOT "HKEY_LOCAL_MACHINE\\" WIRE_ROOT_PARENT "\\" WIRE_ROOT_KEY
// Where an upgrade moves the package's agent files that still run, so the installer finds
// none in its way: "<install folder>\retired\<one folder per upgrade>\". kivctl moves
// them there and kivd deletes each once nothing runs from it.
#define WIRE_RETIRED "retired"

// The port listing, one line per port record: "%5d  %-11s   " with the port and the
// service's name, the mode word, then " Name=value" items, each only when the port has a
// value, so the line of a port that uses nothing newer stays as it always was. A reader
// skips names it does not know, so an item is added here, with kivd's value for it.
#define WIRE_MODE_AUTO "Auto"
#define WIRE_MODE_HOOK "Hook"
#define WIRE_MODE_ON "On"
#define WIRE_ITEM_DISABLE "Disable"      // its end in kivd's local time, WIRE_DISABLE_DATE
#define WIRE_ITEM_PARENT "Parent"        // the pid of the process that hooked the port
#define WIRE_ITEM_AGENT "Agent"          // the pid of the agent that serves the port
#define WIRE_ITEM_ADDRESS "Address"      // the configured local address
#define WIRE_ITEM_ACCOUNT "Account"      // the service's account, when not kivd's own
#define WIRE_ITEM_MEMORY "Memory"        // the service's job limits, each when set: megabytes,
#define WIRE_ITEM_PROCESSES "Processes"  // processes at once,
#define WIRE_ITEM_CPU "Cpu"              // percent of the machine
#define WIRE_DISABLE_DATE "%d-%02d-%02d_%02d:%02d"  // year, month 1 to 12, day, hour, minute

// A port's state in a word, as kivctl reads a listing line; `why`'s state field has these
// words among its own.
enum wire_state { WIRE_IDLE, WIRE_SERVING, WIRE_DISABLED, WIRE_STATE_COUNT };
constexpr const char *WIRE_STATES[WIRE_STATE_COUNT] = {"idle", "serving", "disabled"};

// A disable that only the enable command lifts lasts until the largest 32-bit time, and the
// listing shows its end in kivd's local time. Whatever the reader's zone and kivd's, such
// a date is within a day of the mark, and a disable for a time ends minutes after kivd's
// clock: only a clock at the end of 32-bit times could show one there.
constexpr long long WIRE_UNTIL_ENABLED = 0x7FFFFFFF;

// Minutes since 1970-01-01 00:00 of a date and time in UTC (days from the civil date, in
// 400-year eras).
constexpr long long wire_minutes(int year, int month, int day, int hour, int minute) {
  long long y = year - (month <= 2);
  long long era = (y >= 0 ? y : y - 399) / 400;
  long long yoe = y - era * 400;
  long long doy = (153 * (month > 2 ? month - 3 : month + 9) + 2) / 5 + day - 1;
  long long days = era * 146097 + yoe * 365 + yoe / 4 - yoe / 100 + doy - 719468;
  return (days * 24 + hour) * 60 + minute;
}
static_assert(wire_minutes(2038, 1, 19, 3, 14) == WIRE_UNTIL_ENABLED / 60, "the mark's date");

// Whether a listed disable's end (WIRE_DISABLE_DATE's fields) reads as "until enabled".
constexpr bool wire_until_enabled(int year, int month, int day, int hour, int minute) {
  if (month < 1 || month > 12 || day < 1 || day > 31 || hour < 0 || hour > 23 || minute < 0 ||
      minute > 59)
    return false;
  long long from_mark = wire_minutes(year, month, day, hour, minute) - WIRE_UNTIL_ENABLED / 60;
  return from_mark >= -24 * 60 && from_mark <= 24 * 60;
}

// The stats listing: one line per port record, service, global program and kivd itself.
// Its first item names what the line counts ("Port=7000", "Service=echo", "Program=sync",
// "Kivd=<pid>"); a port's line then has "Service=<name>" and "State=<word>"; then every
// counter of that kind of line as Name=value, a count of 0 too. A reader skips items it
// does not know, so a counter is added as one row of WIRE_STATS_ROWS.
#define WIRE_STATS_PORT "Port"
#define WIRE_STATS_SERVICE "Service"
#define WIRE_STATS_PROGRAM "Program"
#define WIRE_STATS_KIVD "Kivd"
#define WIRE_STATS_STATE "State"
enum wire_stats_kind { WIRE_OF_PORT, WIRE_OF_SERVICE, WIRE_OF_PROGRAM, WIRE_OF_KIVD };
// A port's state in the stats listing, one word each: a rest is what a failure or the
// throttle imposes, a disable a pause kivd or the operator chose (a mode change's, the
// disable command's until enabled).
enum wire_stats_state {
  WIRE_STATS_SERVING,
  WIRE_STATS_IDLE,
  WIRE_STATS_RESTING,
  WIRE_STATS_DISABLED,
  WIRE_STATS_UNTIL_ENABLED,
  WIRE_STATS_STATES
};
constexpr const char *WIRE_STATS_WORDS[WIRE_STATS_STATES] = {"serving", "idle", "resting",
                                                             "disabled", "disabled-until-enabled"};

// Every counter: X(ID, kind of line, item name, metric name after the "kivd_" prefix, the
// metric's extra label or "", its type, its help). Rows of one metric name are adjacent and
// share type and help; the monitoring file writes "# HELP" and "# TYPE" once per name.
#define WIRE_STATS_ROWS(X)                                                                         \
  X(PORT_CONNECTIONS, WIRE_OF_PORT, "Connections", "port_connections_total", "", "counter",        \
    "Connections that woke kivd on the port.")                                                     \
  X(PORT_STARTS, WIRE_OF_PORT, "Starts", "port_agent_starts_total", "", "counter",                 \
    "Agents started for the port.")                                                                \
  X(PORT_ENDS_ZERO, WIRE_OF_PORT, "EndsZero", "port_agent_ends_total", "kind=\"zero\"", "counter", \
    "Ends of the port's agents: exit code 0, another code, an exception.")                         \
  X(PORT_ENDS_CODE, WIRE_OF_PORT, "EndsCode", "port_agent_ends_total", "kind=\"code\"", "counter", \
    "Ends of the port's agents: exit code 0, another code, an exception.")                         \
  X(PORT_ENDS_EXCEPTION, WIRE_OF_PORT, "EndsException", "port_agent_ends_total",                   \
    "kind=\"exception\"", "counter",                                                               \
    "Ends of the port's agents: exit code 0, another code, an exception.")                         \
  X(PORT_RESTS_THROTTLED, WIRE_OF_PORT, "RestsThrottled", "port_rests_total",                      \
    "cause=\"throttled\"", "counter", "Rests of the port by cause.")                               \
  X(PORT_RESTS_START_FAILED, WIRE_OF_PORT, "RestsStartFailed", "port_rests_total",                 \
    "cause=\"start_failed\"", "counter", "Rests of the port by cause.")                            \
  X(PORT_RESTS_EXCEPTION, WIRE_OF_PORT, "RestsException", "port_rests_total",                      \
    "cause=\"exception\"", "counter", "Rests of the port by cause.")                               \
  X(PORT_RESTS_LISTEN_FAILED, WIRE_OF_PORT, "RestsListenFailed", "port_rests_total",               \
    "cause=\"listen_failed\"", "counter", "Rests of the port by cause.")                           \
  X(PORT_DISABLES, WIRE_OF_PORT, "Disables", "port_disables_total", "", "counter",                 \
    "Disables of the port by command.")                                                            \
  X(PORT_SERVING_SECONDS, WIRE_OF_PORT, "ServingSeconds", "port_state_seconds_total",              \
    "state=\"serving\"", "counter", "Seconds the port spent in each state.")                       \
  X(PORT_IDLE_SECONDS, WIRE_OF_PORT, "IdleSeconds", "port_state_seconds_total", "state=\"idle\"",  \
    "counter", "Seconds the port spent in each state.")                                            \
  X(PORT_RESTING_SECONDS, WIRE_OF_PORT, "RestingSeconds", "port_state_seconds_total",              \
    "state=\"resting\"", "counter", "Seconds the port spent in each state.")                       \
  X(PORT_DISABLED_SECONDS, WIRE_OF_PORT, "DisabledSeconds", "port_state_seconds_total",            \
    "state=\"disabled\"", "counter", "Seconds the port spent in each state.")                      \
  X(SERVICE_STARTS, WIRE_OF_SERVICE, "Starts", "service_starts_total", "", "counter",              \
    "Agents of the service started.")                                                              \
  X(SERVICE_START_FAILURES, WIRE_OF_SERVICE, "StartFailures", "service_start_failures_total", "",  \
    "counter", "Agent starts of the service the system refused.")                                  \
  X(SERVICE_ENDS_ZERO, WIRE_OF_SERVICE, "EndsZero", "service_ends_total", "kind=\"zero\"",         \
    "counter", "Ends of the service's agents: exit code 0, another code, an exception.")           \
  X(SERVICE_ENDS_CODE, WIRE_OF_SERVICE, "EndsCode", "service_ends_total", "kind=\"code\"",         \
    "counter", "Ends of the service's agents: exit code 0, another code, an exception.")           \
  X(SERVICE_ENDS_EXCEPTION, WIRE_OF_SERVICE, "EndsException", "service_ends_total",                \
    "kind=\"exception\"", "counter",                                                               \
    "Ends of the service's agents: exit code 0, another code, an exception.")                      \
  X(SERVICE_THROTTLES, WIRE_OF_SERVICE, "Throttles", "service_throttles_total", "", "counter",     \
    "Times the service's starts were throttled.")                                                  \
  X(SERVICE_LAST_EXIT, WIRE_OF_SERVICE, "LastExit", "service_last_exit_code", "", "gauge",         \
    "Exit code of the service's last agent to end.")                                               \
  X(SERVICE_LAST_EXIT_TIME, WIRE_OF_SERVICE, "LastExitTime", "service_last_exit_time_seconds", "", \
    "gauge", "When the service's last agent ended, in seconds since 1970 (0: none yet).")          \
  X(PROGRAM_STARTS, WIRE_OF_PROGRAM, "Starts", "program_starts_total", "", "counter",              \
    "Starts of the global program.")                                                               \
  X(PROGRAM_START_FAILURES, WIRE_OF_PROGRAM, "StartFailures", "program_start_failures_total", "",  \
    "counter", "Starts of the global program the system refused.")                                 \
  X(PROGRAM_ENDS_ZERO, WIRE_OF_PROGRAM, "EndsZero", "program_ends_total", "kind=\"zero\"",         \
    "counter", "Ends of the global program: exit code 0, another code, an exception.")             \
  X(PROGRAM_ENDS_CODE, WIRE_OF_PROGRAM, "EndsCode", "program_ends_total", "kind=\"code\"",         \
    "counter", "Ends of the global program: exit code 0, another code, an exception.")             \
  X(PROGRAM_ENDS_EXCEPTION, WIRE_OF_PROGRAM, "EndsException", "program_ends_total",                \
    "kind=\"exception\"", "counter",                                                               \
    "Ends of the global program: exit code 0, another code, an exception.")                        \
  X(PROGRAM_THROTTLES, WIRE_OF_PROGRAM, "Throttles", "program_throttles_total", "", "counter",     \
    "Times the global program's starts were throttled.")                                           \
  X(PROGRAM_LAST_EXIT, WIRE_OF_PROGRAM, "LastExit", "program_last_exit_code", "", "gauge",         \
    "Exit code of the global program's last end.")                                                 \
  X(PROGRAM_LAST_EXIT_TIME, WIRE_OF_PROGRAM, "LastExitTime", "program_last_exit_time_seconds", "", \
    "gauge", "When the global program last ended, in seconds since 1970 (0: never yet).")          \
  X(KIVD_UPTIME, WIRE_OF_KIVD, "Uptime", "uptime_seconds", "", "gauge",                            \
    "Seconds since the counters began: kivd's start, carried across hand-overs.")                  \
  X(KIVD_COMMANDS, WIRE_OF_KIVD, "Commands", "commands_total", "", "counter",                      \
    "Control commands served.")                                                                    \
  X(KIVD_COMMANDS_REFUSED, WIRE_OF_KIVD, "CommandsRefused", "commands_refused_total", "",          \
    "counter", "Control commands refused (unknown, malformed or failed).")                         \
  X(KIVD_HUNG_UP, WIRE_OF_KIVD, "ClientsHungUp", "pipe_clients_hung_up_total", "", "counter",      \
    "Control pipe clients kivd hung up on.")                                                       \
  X(KIVD_EVENTS, WIRE_OF_KIVD, "Events", "events_total", "", "counter", "Events written.")         \
  X(KIVD_EVENTS_HELD, WIRE_OF_KIVD, "EventsHeld", "events_held_total", "", "counter",              \
    "Events held back by the repeat limit.")                                                       \
  X(KIVD_HANDOVERS, WIRE_OF_KIVD, "Handovers", "handovers_total", "", "counter",                   \
    "Hand-overs this kivd's counters came through.")

#define WIRE_STATS_ID(id, ...) WIRE_STAT_##id,
enum wire_stat { WIRE_STATS_ROWS(WIRE_STATS_ID) WIRE_STAT_COUNT };
#undef WIRE_STATS_ID

// The launch histogram of a port: the time from its connection's event to the agent's
// start-up lines written. Items "Launch<ms>ms" per bucket (a launch counts in the first
// bucket it fits, not cumulatively), "LaunchMore" above the last, and "LaunchMicroseconds"
// their sum; the monitoring file writes kivd_port_launch_seconds, cumulative, in seconds.
constexpr int WIRE_LAUNCH_BUCKETS_MS[] = {1, 5, 20, 100, 500};
constexpr int WIRE_LAUNCH_BUCKETS = sizeof WIRE_LAUNCH_BUCKETS_MS / sizeof(int);
#define WIRE_LAUNCH_MORE "LaunchMore"
#define WIRE_LAUNCH_SUM "LaunchMicroseconds"
