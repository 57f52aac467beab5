// kivctl: the control client. `kivctl [--raw|--json] WORDS...` sends one command and
// prints its reply; with no words it reads commands from standard input, one per line.
// kivctl's own options count wherever they stand before a "--". `kivctl why PORT|NAME` lists
// what happened to a port, service or global program and what kivd does next.
// Output: for people by default (ls as a table, no protocol framing, a "-" reply's text on
// standard error), the protocol's elements one per line with --raw, JSON with --json.
// Exit codes: 0 for "+", a listing, or a "quit" that hung up; 1 for a "-" reply or a
// wrong option; 2 when the pipe cannot be opened or breaks.
// `kivctl status` says whether the service is installed, its state, and kivd's pid and
// ports by state. `kivctl --version` prints the version; `--help` (or `-h`, `/?` as the
// first word) prints the usage. `kivctl apply [--dry-run] FILE.cfg` and `kivctl
// export` work on the registry (apply.h).
#include <windows.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "kiv_version.h"
#include "lib/cmdsplit.h"
#include "lib/dstr.h"
#include "lib/wire.h"
#include "tools/kivctl/answer.h"
#include "tools/kivctl/apply.h"
#include "tools/kivctl/client.h"
#include "tools/kivctl/listing.h"
#include "tools/kivctl/restart.h"
#include "tools/kivctl/stats.h"
#include "tools/kivctl/why.h"
#include "toolkit/runtime/scoped_win.h"

namespace {

// How replies are printed: for people (a table, no framing, "-" texts on standard
// error), the protocol's elements as they come (--raw), or JSON (--json).
enum class output { people, raw, json };

// What `kivctl --help` prints: every command with its words, kivctl's own options and
// the exit codes a script tells results by.
const char USAGE[] =
    "usage: kivctl [--raw|--json] COMMAND [WORDS...]\n"
    "       kivctl [--raw|--json]       commands from standard input, one per line\n"
    "\n"
    "Commands of kivd (over " WIRE_PIPE
    "):\n"
    "  ls                             the ports: service, mode, state, agent\n"
    "  why [PORT|NAME]                the last events of a port, service or global program\n"
    "                                 and what kivd does next; no word: kivd's own\n"
    "  stats [PORT|NAME]              what each port, service, global program and kivd\n"
    "                                 counted since kivd started: ports with the most\n"
    "                                 connections first, services and programs with the\n"
    "                                 most starts; a word: that port, service or program\n"
    "  disable PORT                   take a port out of service until enabled\n"
    "  enable PORT                    put a disabled port back into service\n"
    "  add -p PORT [-i PID] [-- ARGS] hook a port (for process PID, extra agent arguments)\n"
    "  remove PORT                    remove a hooked port\n"
    "  reconfig                       read the configuration from the registry again\n"
    "  update                         run the port manager's pass now\n"
    "  info                           the account kivd runs as\n"
    "  quit [-Q]                      hang up; with -Q kivd stops\n"
    "  restart [SECONDS]              hand everything to the successor, which takes it\n"
    "                                 over: nothing refused, nothing cut (the holder\n"
    "                                 waits SECONDS for it, 60 by default)\n"
    "  handover [SECONDS]             the same, for installers: returns once kivd has\n"
    "                                 ended, and whoever starts it again claims\n"
    "\n"
    "Commands of kivctl:\n"
    "  status                         the service, kivd's pid and its ports by state\n"
    "  apply [--dry-run] FILE.cfg     make the registry's configuration what the file says\n"
    "  export                         the registry's configuration in the file syntax\n"
    "\n"
    "Options (wherever they stand before a --):\n"
    "  --raw                          the reply's protocol elements, one per line\n"
    "  --json                         the reply as JSON\n"
    "  --version                      kivctl's version\n"
    "  --help, -h, -?, /?             this text\n"
    "\n"
    "Exit codes: 0 success (\"+\", a listing); 1 a \"-\" reply or a wrong option;\n"
    "  2 the pipe cannot be opened or breaks.\n"
    "apply: 0 the registry already says what the file says; 3 it was changed (--dry-run:\n"
    "  would be); 1 the file is refused or the usage is wrong; 2 the registry or the pipe\n"
    "  failed. export: 0, or 2 when the registry cannot be read.\n";

// A request for the usage: --help wherever kivctl's options count; -h and /? as the
// first word only, since after a command word they may be the command's own.
bool asks_help(const char *word, bool first) {
  return strcmp(word, "--help") == 0 ||
         (first && (strcmp(word, "-h") == 0 || strcmp(word, "/?") == 0 || strcmp(word, "-?") == 0));
}

// The command word of a line, as the server splits it.
std::string first_word(const char *line, int length) {
  char copy[CMD_LINE + 1];
  int n = length < CMD_LINE ? length : CMD_LINE;
  memcpy(copy, line, static_cast<size_t>(n));
  copy[n] = '\0';
  char *words[CMD_MAXWORDS];
  cmd_split(copy, words);
  return words[0];
}

// Every line of a listing read by parse into *out; false at the first line it refuses, so
// the caller prints the lines as kivd sent them.
template <typename T>
bool parse_all(const std::vector<std::string> &lines, bool (*parse)(const std::string &, T *),
               std::vector<T> *out) {
  for (const std::string &line : lines) {
    out->emplace_back();
    if (!parse(line, &out->back())) return false;
  }
  return true;
}

// Prints the elements of one reply to the command `word` as `mode` asks.
void print_reply(output mode, const std::string &word, const std::vector<std::string> &elements) {
  if (mode == output::raw) {
    for (const std::string &e : elements) printf("%s\n", e.c_str());
    return;
  }
  if (elements.front() != "!") {
    const std::string &r = elements.front();
    if (mode == output::json)
      printf("%s\n", reply_json(r).c_str());
    else if (r[0] == '-')
      fprintf(stderr, "kivctl: %s\n", r.c_str() + 1);
    else if (r != "+")
      printf("%s\n", r.c_str());
    return;
  }
  std::vector<std::string> inner(elements.begin() + 1, elements.end() - 1);
  std::vector<why_event> events;
  if (_stricmp(word.c_str(), "why") == 0 && parse_all(inner, parse_why_line, &events)) {
    printf("%s",
           mode == output::json ? (why_json(events) + "\n").c_str() : why_table(events).c_str());
    return;
  }
  std::vector<stats_line> counted;
  if (_stricmp(word.c_str(), "stats") == 0 && parse_all(inner, parse_stats_line, &counted)) {
    printf("%s", mode == output::json ? (stats_json(counted) + "\n").c_str()
                                      : stats_table(counted).c_str());
    return;
  }
  std::vector<listed_port> ports;
  if (_stricmp(word.c_str(), "ls") == 0 && parse_all(inner, parse_listing_line, &ports)) {
    printf("%s", mode == output::json ? (listing_json(ports) + "\n").c_str()
                                      : listing_table(ports).c_str());
  } else if (mode == output::json) {
    std::string out = "[";
    for (size_t i = 0; i < inner.size(); i++) out += (i ? "," : "") + json_string(inner[i]);
    printf("%s]\n", out.c_str());
  } else {
    for (const std::string &line : inner) printf("%s\n", line.c_str());
  }
}

// Sends one command line and prints its reply as `mode` asks. The exit code of it.
int send_command(HANDLE pipe, const char *line, int length, output mode) {
  std::vector<std::string> elements;
  int code = client_exchange(pipe, line, length, &elements);
  if (code != 2 && !elements.empty()) print_reply(mode, first_word(line, length), elements);
  fflush(stdout);
  return code;
}

const char *state_name(DWORD state) {
  static const char *const names[] = {"unknown",       "stopped", "start pending",
                                      "stop pending",  "running", "continue pending",
                                      "pause pending", "paused"};
  return state < sizeof names / sizeof names[0] ? names[state] : "unknown";
}

// `kivctl status`: the service as the service manager knows it, and kivd as its pipe
// answers (its pid and its ports by state). Readable whether or not kivd runs: 0.
int status(output mode) {
  bool installed = false;
  DWORD state = 0, service_pid = 0;
  scoped_service scm(OpenSCManagerA(nullptr, nullptr, SC_MANAGER_CONNECT));
  scoped_service svc(scm.valid() ? OpenServiceA(scm.get(), WIRE_SERVICE, SERVICE_QUERY_STATUS)
                                 : nullptr);
  if (svc.valid()) {
    installed = true;
    SERVICE_STATUS_PROCESS st = {};
    DWORD need = 0;
    if (QueryServiceStatusEx(svc.get(), SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE *>(&st),
                             sizeof st, &need)) {
      state = st.dwCurrentState;
      service_pid = st.dwProcessId;
    }
  }
  scoped_handle pipe;
  ULONG pid = 0;
  std::vector<std::string> elements;
  bool answering = client_open(pipe.put(), if_absent::quiet) == 0;
  if (answering) {
    if (!GetNamedPipeServerProcessId(pipe.get(), &pid)) pid = service_pid;
    answering = client_exchange(pipe.get(), "ls", 2, &elements) == 0;
  }
  std::vector<listed_port> ports;
  for (size_t i = 1; answering && i + 1 < elements.size(); i++) {
    ports.emplace_back();
    if (!parse_listing_line(elements[i], &ports.back())) ports.pop_back();
  }
  port_counts n = count_ports(ports);
  std::string by_state, json_by_state;  // "idle 1, serving 0, " and ",\"idle\":1,\"serving\":0"
  for (int i = 0; i < WIRE_STATE_COUNT; i++) {
    by_state += std::string(WIRE_STATES[i]) + " " + std::to_string(n.in[i]) + ", ";
    json_by_state += ",\"" + std::string(WIRE_STATES[i]) + "\":" + std::to_string(n.in[i]);
  }
  if (mode == output::json) {
    printf("{\"installed\":%s,\"state\":%s,\"running\":%s,\"pid\":%s,\"ports\":",
           installed ? "true" : "false",
           installed ? json_string(state_name(state)).c_str() : "null",
           answering ? "true" : "false", answering && pid ? std::to_string(pid).c_str() : "null");
    if (answering)
      printf("{\"total\":%d%s,\"hooked\":%d}}\n", n.total, json_by_state.c_str(), n.hooked);
    else
      printf("null}\n");
    return 0;
  }
  printf("service:  %s\n",
         installed ? (std::string("installed, ") + state_name(state)).c_str() : "not installed");
  if (answering)
    printf("kivd:     running%s\nports:    %d (%shooked %d)\n",
           pid ? (", pid " + std::to_string(pid)).c_str() : "", n.total, by_state.c_str(),
           n.hooked);
  else
    printf("kivd:     not running\n");
  // Each port that neither serves nor waits idle, with the latest reason kivd gave.
  for (const listed_port &p : ports) {
    if (!p.disabled) continue;
    std::string line = "why " + std::to_string(p.port), reason;
    elements.clear();
    why_event e;
    bool answered =
        client_exchange(pipe.get(), line.c_str(), static_cast<int>(line.size()), &elements) == 0;
    // The latest event, not the state line that ends the listing.
    for (size_t i = 1; answered && i + 1 < elements.size(); i++)
      if (parse_why_line(elements[i], &e) && e.number != WHY_STATE) reason = ": " + e.text;
    printf("port %d:  %s%s\n", p.port, port_state(p).c_str(), reason.c_str());
  }
  return 0;
}

// The command line's words as one command: each word stays one word for the server,
// whatever blanks, tabs, quotes or backslashes it holds.
void join_words(int argc, char **argv, dstr *line) {
  for (int i = 1; i < argc; i++) {
    if (i > 1) dstr_append(line, " ", 1);
    if (argv[i][0] == '\0') dstr_append(line, "\"\"", 2);
    for (const char *c = argv[i]; *c; c++) {
      if (*c == ' ' || *c == '\t' || *c == '"' || *c == '\\') dstr_append(line, "\\", 1);
      dstr_append(line, c, 1);
    }
  }
}

// One line of input without its line end, however long (the server refuses what is too
// long for it). false at the end of the input.
bool read_line(FILE *in, dstr *line) {
  dstr_truncate(line, 0);
  int c;
  while ((c = getc(in)) != EOF && c != '\n') {
    char ch = static_cast<char>(c);
    dstr_append(line, &ch, 1);
  }
  while (line->length > 0 && line->buffer[line->length - 1] == '\r')
    dstr_truncate(line, line->length - 1);
  return c != EOF || line->length > 0;
}

}  // namespace

int main(int argc, char **argv) {
  output mode = output::people;
  // kivctl's own options count wherever they stand before a "--" (which stays, a word of
  // the command); other "--" words are refused before the command word and kept after it
  // (apply --dry-run).
  int kept = 1;
  bool command = false, ended = false;
  for (int i = 1; i < argc; i++) {
    const char *word = argv[i];
    if (!ended && asks_help(word, !command)) {
      fputs(USAGE, stdout);
      return 0;
    }
    if (ended || strncmp(word, "--", 2) != 0) {
      command = true;
    } else if (strcmp(word, "--") == 0) {
      ended = true;
      if (!command) continue;
    } else if (strcmp(word, "--version") == 0) {
      printf("kivctl %s\n", KIV_VERSION);
      return 0;
    } else if (strcmp(word, "--raw") == 0) {
      mode = output::raw;
      continue;
    } else if (strcmp(word, "--json") == 0) {
      mode = output::json;
      continue;
    } else if (!command) {
      fprintf(stderr, "kivctl: unknown option %s (--raw, --json, --version, --help)\n", word);
      return 1;
    }
    argv[kept++] = argv[i];
  }
  argc = kept;
  if (argc > 1 && strcmp(argv[1], "status") == 0) {
    if (argc > 2) {
      fprintf(stderr, "kivctl: status takes no words\n");
      return 1;
    }
    return status(mode);
  }
  // apply and export work on the registry; they are not commands of the pipe.
  if (argc > 1 && strcmp(argv[1], "apply") == 0) return kivctl_apply(argc - 1, argv + 1);
  if (argc > 1 && strcmp(argv[1], "export") == 0) return kivctl_export(argc - 1, argv + 1);
  if (argc > 1 && (strcmp(argv[1], "restart") == 0 || strcmp(argv[1], "handover") == 0))
    return kivctl_restart(argc - 1, argv + 1, mode == output::json);
  scoped_handle pipe;
  int code = client_open(pipe.put(), if_absent::report);
  if (code) return code;

  if (argc > 1) {
    dstr line;
    dstr_init(&line);
    join_words(argc, argv, &line);
    code = send_command(pipe.get(), line.buffer, line.length, mode);
    dstr_free(&line, 0);
    return code;
  }
  dstr line;
  dstr_init(&line);
  while (read_line(stdin, &line)) {
    code = send_command(pipe.get(), line.buffer, line.length, mode);
    if (code == 2 || server_answer(line.buffer, line.length) == answer::hangup) break;
  }
  dstr_free(&line, 0);
  return code;
}
