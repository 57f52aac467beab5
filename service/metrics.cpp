#include "service/metrics.h"

#include <cstdlib>
#include <cstring>
#include <new>
#include <set>
#include <utility>
#include <vector>

#include "lib/heap.h"
#include "lib/wire.h"
#include "ports/ssock.h"
#include "toolkit/config/info.h"
#include "toolkit/config/schema.h"
#include "toolkit/runtime/clock.h"
#include "toolkit/runtime/counters.h"
#include "toolkit/runtime/error.h"
#include "toolkit/runtime/events.h"
#include "toolkit/runtime/log.h"
#include "toolkit/runtime/scoped_win.h"

namespace {

const char TAG[] = "metrics.write";

struct row {
  int kind;
  const char *item, *metric, *label, *type, *help;
};
#define METRICS_ROW(id, kind, item, metric, label, type, help) \
  {kind, item, metric, label, type, help},
const row ROWS[] = {WIRE_STATS_ROWS(METRICS_ROW)};
#undef METRICS_ROW
constexpr int NROWS = sizeof ROWS / sizeof ROWS[0];

const char LAUNCH[] = "port_launch_seconds";
const char LAUNCH_HELP[] =
    "Time from a connection's event to the agent's start-up lines written, in seconds.";
const char STATE[] = "port_state";
const char STATE_HELP[] = "The port's state: 1 for the state it is in, 0 for the others.";

struct family {
  const char *name, *type, *help;
  std::string samples;
};

// "name=value" items of one line, in their order.
struct item {
  std::string name, value;
};

std::vector<item> items_of(const std::string &line) {
  std::vector<item> out;
  size_t at = 0;
  while (at < line.size()) {
    size_t end = line.find(' ', at);
    if (end == std::string::npos) end = line.size();
    size_t equal = line.find('=', at);
    if (equal != std::string::npos && equal > at && equal < end)
      out.push_back({line.substr(at, equal - at), line.substr(equal + 1, end - equal - 1)});
    else if (!out.empty() && end > at)
      // A name may hold blanks: a word that is no item goes on the value before it.
      out.back().value += " " + line.substr(at, end - at);
    at = end + 1;
  }
  return out;
}

// A whole number as the stats lines write one: digits, a minus only before a gauge's.
bool whole(const std::string &value) {
  if (value.empty()) return false;
  size_t digits = value.size() - (value[0] == '-' ? 1 : 0);
  return digits >= 1 && digits <= 20 &&
         value.find_first_not_of("0123456789", value.size() - digits) == std::string::npos;
}

bool count(const std::string &value, unsigned long long *out) {
  if (value.empty() || value[0] == '-' || !whole(value)) return false;
  *out = strtoull(value.c_str(), nullptr, 10);
  return true;
}

// A label value escaped as the format wants it: backslash, double quote, line feed.
std::string escaped(const std::string &text, bool quote = true) {
  std::string out;
  for (char c : text) {
    if (c == '\\')
      out += "\\\\";
    else if (c == '"' && quote)
      out += "\\\"";
    else if (c == '\n')
      out += "\\n";
    else
      out += c;
  }
  return out;
}

// Microseconds as decimal seconds, exactly and without trailing zeros: 20000 is "0.02".
std::string seconds(unsigned long long micro) {
  std::string fraction = std::to_string(micro % 1000000);
  fraction = std::string(6 - fraction.size(), '0') + fraction;
  fraction.erase(fraction.find_last_not_of('0') + 1);
  return std::to_string(micro / 1000000) + (fraction.empty() ? "" : "." + fraction);
}

std::string sample(const char *name, const char *suffix, const std::string &labels,
                   const std::string &extra, const std::string &value) {
  std::string all = labels.empty() ? extra : extra.empty() ? labels : labels + "," + extra;
  return std::string("kivd_") + name + suffix + (all.empty() ? "" : "{" + all + "}") + " " + value +
         "\n";
}

// The launch histogram of a port line, cumulative; nothing when the line has no launch
// item or one that is no count.
std::string histogram(const std::vector<item> &items, const std::string &labels) {
  unsigned long long buckets[WIRE_LAUNCH_BUCKETS + 1] = {}, micro = 0;
  bool any = false;
  for (const item &i : items) {
    int at = -1;
    for (int b = 0; b < WIRE_LAUNCH_BUCKETS; b++)
      if (i.name == "Launch" + std::to_string(WIRE_LAUNCH_BUCKETS_MS[b]) + "ms") at = b;
    if (i.name == WIRE_LAUNCH_MORE) at = WIRE_LAUNCH_BUCKETS;
    unsigned long long *into = at >= 0                     ? &buckets[at]
                               : i.name == WIRE_LAUNCH_SUM ? &micro
                                                           : nullptr;
    if (!into) continue;
    if (!count(i.value, into)) return "";
    any = true;
  }
  if (!any) return "";
  std::string out;
  unsigned long long total = 0;
  for (int b = 0; b <= WIRE_LAUNCH_BUCKETS; b++) {
    total += buckets[b];
    std::string le =
        b < WIRE_LAUNCH_BUCKETS
            ? seconds(static_cast<unsigned long long>(WIRE_LAUNCH_BUCKETS_MS[b]) * 1000)
            : "+Inf";
    out += sample(LAUNCH, "_bucket", labels, "le=\"" + le + "\"", std::to_string(total));
  }
  out += sample(LAUNCH, "_sum", labels, "", seconds(micro));
  out += sample(LAUNCH, "_count", labels, "", std::to_string(total));
  return out;
}

}  // namespace

std::string metrics_text(const std::string &lines) {
  // The families in the rows' order, the port's state and launches behind its counters.
  std::vector<family> families;
  int of_row[NROWS], launch = -1, state = -1;
  for (int r = 0; r < NROWS; r++) {
    if (ROWS[r].kind != WIRE_OF_PORT && state < 0) {
      state = static_cast<int>(families.size());
      families.push_back({STATE, "gauge", STATE_HELP, ""});
      launch = static_cast<int>(families.size());
      families.push_back({LAUNCH, "histogram", LAUNCH_HELP, ""});
    }
    if (families.empty() || strcmp(families.back().name, ROWS[r].metric) != 0)
      families.push_back({ROWS[r].metric, ROWS[r].type, ROWS[r].help, ""});
    of_row[r] = static_cast<int>(families.size()) - 1;
  }
  static const char *const KINDS[] = {WIRE_STATS_PORT, WIRE_STATS_SERVICE, WIRE_STATS_PROGRAM,
                                      WIRE_STATS_KIVD};
  static const char *const LABELS[] = {"port", "service", "program", nullptr};
  std::set<std::string> seen;
  size_t at = 0;
  while (at < lines.size()) {
    size_t end = lines.find('\n', at);
    if (end == std::string::npos) end = lines.size();
    std::string line = lines.substr(at, end - at);
    at = end + 1;
    if (!line.empty() && line.back() == '\r') line.pop_back();
    std::vector<item> items = items_of(line);
    if (items.empty()) continue;
    int kind = -1;
    for (int k = 0; k < static_cast<int>(sizeof KINDS / sizeof KINDS[0]); k++)
      if (items[0].name == KINDS[k]) kind = k;
    if (kind < 0) continue;
    std::string labels, word;
    bool stated = false;
    if (LABELS[kind]) labels = std::string(LABELS[kind]) + "=\"" + escaped(items[0].value) + "\"";
    if (kind == WIRE_OF_PORT)
      for (const item &i : items) {
        if (i.name == WIRE_STATS_SERVICE && labels.find(",service=") == std::string::npos)
          labels += ",service=\"" + escaped(i.value) + "\"";
        if (i.name == WIRE_STATS_STATE) word = i.value, stated = true;
      }
    // A second line of one port, service or program would make the file's samples clash.
    if (!seen.insert(std::to_string(kind) + items[0].value).second) continue;
    for (size_t n = 1; n < items.size(); n++)
      for (int r = 0; r < NROWS; r++)
        if (ROWS[r].kind == kind && items[n].name == ROWS[r].item && whole(items[n].value))
          families[of_row[r]].samples +=
              sample(ROWS[r].metric, "", labels, ROWS[r].label, items[n].value);
    if (kind != WIRE_OF_PORT) continue;
    if (stated)
      for (const char *w : WIRE_STATS_WORDS)
        families[state].samples +=
            sample(STATE, "", labels, std::string("state=\"") + w + "\"", word == w ? "1" : "0");
    families[launch].samples += histogram(items, labels);
  }
  std::string out;
  for (const family &f : families) {
    if (f.samples.empty()) continue;
    out += std::string("# HELP kivd_") + f.name + " " + escaped(f.help, false) + "\n";
    out += std::string("# TYPE kivd_") + f.name + " " + f.type + "\n" + f.samples;
  }
  return out;
}

namespace {

// The writer thread holds the one text not yet written: a newer one replaces it, so a
// slow disk costs the loop nothing and the file only ever lags.
CRITICAL_SECTION lock;
std::string queued_path, queued_text;
bool queued, stopping;
bool queued_lines;  // queued_text is stats lines, made into the file's text by the writer
HANDLE ready;       // auto-reset: something was queued, or stop
HANDLE idle;        // manual-reset: nothing queued and nothing being written
HANDLE writer;
bool failing;  // the writer's own: the last write failed, and said so once

void tell(const std::string &path, DWORD error) {
  if (error) {
    KIV_LOG(3, TAG, "Cannot write %s: error %d", path.c_str(), static_cast<int>(error));
  } else {
    KIV_LOG(3, TAG, "Wrote %s", path.c_str());
  }
  if ((error != 0) == failing) return;
  failing = error != 0;
  kivev_event ev{};
  ev.id = failing ? KIVEV_METRICS_FAILED : KIVEV_METRICS_RESUMED;
  ev.text = path.c_str();
  ev.syserror = static_cast<long>(error);
  kivev_emit(&ev);
}

DWORD WINAPI write_files(void *) {
  for (;;) {
    WaitForSingleObject(ready, INFINITE);
    for (;;) {
      EnterCriticalSection(&lock);
      if (!queued) {
        bool stop = stopping;
        SetEvent(idle);
        LeaveCriticalSection(&lock);
        if (stop) return 0;
        break;
      }
      std::string path, text;
      path.swap(queued_path);
      text.swap(queued_text);
      bool lines = queued_lines;
      queued = false;
      LeaveCriticalSection(&lock);
      // The text of 1,000 ports takes tens of milliseconds: made here, off the loop.
      try {
        if (lines) text = metrics_text(text);
      } catch (const std::bad_alloc &) {
        KIV_LOG(1, TAG, "Out of memory: %s not written", path.c_str());
        continue;
      }
      if (!path.empty()) tell(path, metrics_write(path, text));
    }
  }
}

uint32_t due;
bool running, first;
std::string refused;  // the last value refused, said once

// The file's path from the global key, "" for none; a value kivd cannot use is said once.
std::string configured() {
  const schema_value &v = schema_values[SCHEMA_GLOBAL_METRICS];
  char path[SCHEMA_PATH_SIZE];
  char *text = nullptr;
  if (kivschema_path(path, v, "") != 0 || kivinfo_get(nullptr, path, &text) != 0 || !text) {
    refused.clear();
    return "";
  }
  std::string value = text;
  xfree(text);
  if (kivschema_judge(v, value.c_str()) >= 0) {
    refused.clear();
    return value;
  }
  if (value != refused) {
    refused = value;
    kiv_logerror(nullptr, "metrics.configured", KIV_SEV_ERROR, KIV_ECONFIG,
                 "Bad %s %.40s: no file written", v.label, value.c_str());
    kivev_event ev{};
    ev.id = KIVEV_CONFIG_REFUSED;
    ev.text = path;
    ev.value = value.c_str();
    kivev_emit(&ev);
  }
  return "";
}

// ---------------------------------------------------------------------------------------
// The stats lines of every port, service and global program and of kivd itself, as the
// stats command lists them, each with its line end.
std::string *gathering;

int append_line(int, const char *text, int length) {
  gathering->append(text, static_cast<size_t>(length));
  *gathering += '\n';
  return 0;
}

void gather(std::string *lines) {
  gathering = lines;
  ssock_stats(0, append_line);
  char line[KIV_STATS_LINE];
  int length = kiv_counters_line(line, sizeof line, GetCurrentProcessId());
  append_line(0, line, length);
  gathering = nullptr;
}

// Hands the writer text for path, or stats lines it makes the text of.
void queue(std::string path, std::string text, bool lines) {
  if (!writer) return;
  // Swapped, not copied: nothing under the lock allocates, so nothing there can throw.
  EnterCriticalSection(&lock);
  queued_path.swap(path);
  queued_text.swap(text);
  queued_lines = lines;
  queued = true;
  ResetEvent(idle);
  LeaveCriticalSection(&lock);
  SetEvent(ready);
}

void post_gathered() {
  std::string path = configured();
  if (path.empty()) return;
  // Out of memory skips this write: the next one is tried in METRICS_SECONDS.
  try {
    std::string lines;
    gather(&lines);
    queue(std::move(path), std::move(lines), true);
  } catch (const std::bad_alloc &) {
    KIV_LOG(1, TAG, "Out of memory: %s not written", path.c_str());
  }
}

}  // namespace

DWORD metrics_write(const std::string &path, const std::string &text) {
  std::string temp = path + METRICS_TEMP;
  DWORD error = 0;
  {
    scoped_handle file(CreateFileA(temp.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                                   FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file.valid()) return GetLastError();
    for (size_t at = 0; at < text.size() && !error;) {
      DWORD part = static_cast<DWORD>(text.size() - at > 65536 ? 65536 : text.size() - at),
            done = 0;
      if (!WriteFile(file.get(), text.data() + at, part, &done, nullptr)) error = GetLastError();
      at += done;
    }
    // On the disk before the rename: after a crash the file is the old text or the new one.
    if (!error && !FlushFileBuffers(file.get())) error = GetLastError();
  }
  for (int tries = 1; !error; tries++) {
    if (MoveFileExA(temp.c_str(), path.c_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH))
      return 0;
    error = GetLastError();
    // A reader that opened the file without sharing its deletion holds the rename off.
    if ((error != ERROR_ACCESS_DENIED && error != ERROR_SHARING_VIOLATION) ||
        tries == METRICS_RENAME_TRIES)
      break;
    error = 0;
    Sleep(METRICS_RENAME_PAUSE_MS);
  }
  DeleteFileA(temp.c_str());
  return error;
}

void metrics_post(std::string path, std::string text) {
  queue(std::move(path), std::move(text), false);
}

bool metrics_flush(DWORD ms) { return writer && WaitForSingleObject(idle, ms) == WAIT_OBJECT_0; }

int metrics_start() {
  if (writer) return 0;
  InitializeCriticalSection(&lock);
  queued = stopping = failing = false;
  first = true;
  ready = CreateEventA(nullptr, FALSE, FALSE, nullptr);
  idle = CreateEventA(nullptr, TRUE, TRUE, nullptr);
  writer = ready && idle ? CreateThread(nullptr, 0, write_files, nullptr, 0, nullptr) : nullptr;
  running = writer != nullptr;
  return running ? 0 : KIV_ESYS;
}

DWORD metrics_tick() {
  if (!running) return INFINITE;
  uint32_t now = kiv_ticks();
  // The tick moves in steps of 10 to 16 ms: a wait that ended within one is due.
  int32_t left = static_cast<int32_t>(due - now);
  if (!first && left > 20) return static_cast<DWORD>(left);
  first = false;
  due = now + METRICS_SECONDS * 1000;
  post_gathered();
  return METRICS_SECONDS * 1000;
}

void metrics_stop() {
  if (!running) return;
  post_gathered();
  running = false;
  EnterCriticalSection(&lock);
  stopping = true;
  LeaveCriticalSection(&lock);
  SetEvent(ready);
  // A writer held up by the disk past the limit is left behind: the process ends.
  if (WaitForSingleObject(writer, METRICS_DRAIN_MS) == WAIT_OBJECT_0) {
    CloseHandle(writer);
    writer = nullptr;
  }
}
