#include "tools/kivctl/stats.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "tools/kivctl/listing.h"

namespace {

const char *const KIND_ITEMS[] = {WIRE_STATS_PORT, WIRE_STATS_SERVICE, WIRE_STATS_PROGRAM,
                                  WIRE_STATS_KIVD};
const char *const KIND_WORDS[] = {"port", "service", "program", "kivd"};

// "Name=" with a name of letters and digits, its first a letter; the length of "Name".
size_t item_name(const std::string &word) {
  size_t equals = word.find('=');
  if (equals == std::string::npos || equals == 0 || !isalpha(static_cast<unsigned char>(word[0])))
    return 0;
  for (size_t i = 1; i < equals; i++)
    if (!isalnum(static_cast<unsigned char>(word[i]))) return 0;
  return equals;
}

bool digits(const std::string &text) {
  return !text.empty() && text.size() <= 20 &&
         text.find_first_not_of("0123456789") == std::string::npos;
}

// An aligned table: the heading and the rows, the columns `right` says right-aligned.
std::string table(const std::vector<std::string> &heading,
                  const std::vector<std::vector<std::string>> &rows, const std::string &right) {
  std::vector<size_t> widths;
  for (const std::string &h : heading) widths.push_back(h.size());
  for (const auto &row : rows)
    for (size_t i = 0; i < row.size(); i++) widths[i] = std::max(widths[i], row[i].size());
  auto line = [&](const std::vector<std::string> &cells, bool head) {
    std::string out;
    for (size_t i = 0; i < cells.size(); i++) {
      std::string gap(widths[i] - cells[i].size(), ' ');
      bool last = i + 1 == cells.size();
      if (!head && right[i] == 'r')
        out += gap + cells[i];
      else
        out += cells[i] + (last ? "" : gap);
      if (!last) out += "  ";
    }
    return out + "\n";
  };
  std::string out = line(heading, true);
  for (const auto &row : rows) out += line(row, false);
  return out;
}

std::string count(const stats_line &l, const char *name) { return std::to_string(l.number(name)); }

// "zero/code/exception" ends.
std::string ends(const stats_line &l) {
  return count(l, "EndsZero") + "/" + count(l, "EndsCode") + "/" + count(l, "EndsException");
}

// The bucket that holds the middle launch: "<=5ms", ">500ms"; "-" without launches.
std::string launch_median(const stats_line &l) {
  unsigned long long in[WIRE_LAUNCH_BUCKETS + 1], total = 0;
  for (int i = 0; i <= WIRE_LAUNCH_BUCKETS; i++) {
    std::string name = i < WIRE_LAUNCH_BUCKETS
                           ? "Launch" + std::to_string(WIRE_LAUNCH_BUCKETS_MS[i]) + "ms"
                           : WIRE_LAUNCH_MORE;
    total += in[i] = l.number(name.c_str());
  }
  if (total == 0) return "-";
  unsigned long long seen = 0;
  for (int i = 0; i < WIRE_LAUNCH_BUCKETS; i++)
    if ((seen += in[i]) * 2 >= total)
      return "<=" + std::to_string(WIRE_LAUNCH_BUCKETS_MS[i]) + "ms";
  return ">" + std::to_string(WIRE_LAUNCH_BUCKETS_MS[WIRE_LAUNCH_BUCKETS - 1]) + "ms";
}

// The last exit: its code (an exception's in hex) and local time; "-" before the first.
std::string last_exit(const stats_line &l) {
  unsigned long long when = l.number("LastExitTime"), code = l.number("LastExit");
  if (when == 0) return "-";
  char text[64];
  time_t t = static_cast<time_t>(when);
  const tm *local = localtime(&t);
  char date[32] = "?";
  if (local) strftime(date, sizeof date, "%Y-%m-%d %H:%M:%S", local);
  snprintf(text, sizeof text, code >= 0xC0000000ull ? "%#llx at %s" : "%llu at %s", code, date);
  return text;
}

std::string duration(unsigned long long seconds) {
  char text[48];
  unsigned long long days = seconds / 86400;
  snprintf(text, sizeof text, "%02llu:%02llu:%02llu", seconds / 3600 % 24, seconds / 60 % 60,
           seconds % 60);
  return days ? std::to_string(days) + "d " + text : text;
}

std::vector<const stats_line *> of_kind(const std::vector<stats_line> &lines, wire_stats_kind k) {
  std::vector<const stats_line *> out;
  for (const stats_line &l : lines)
    if (l.kind == k) out.push_back(&l);
  return out;
}

// Services and programs, most starts first, then by name.
std::string starts_table(std::vector<const stats_line *> lines, const char *heading) {
  std::stable_sort(lines.begin(), lines.end(), [](const stats_line *a, const stats_line *b) {
    unsigned long long x = a->number("Starts"), y = b->number("Starts");
    return x != y ? x > y : a->name < b->name;
  });
  std::vector<std::vector<std::string>> rows;
  for (const stats_line *l : lines)
    rows.push_back({l->name, count(*l, "Starts"), count(*l, "StartFailures"), ends(*l),
                    count(*l, "Throttles"), last_exit(*l)});
  return table({heading, "STARTS", "FAILED", "ENDS 0/CODE/EXC", "THROTTLES", "LAST EXIT"}, rows,
               "lrrlrl");
}

}  // namespace

std::string stats_line::item(const char *name) const {
  for (const auto &i : items)
    if (i.first == name) return i.second;
  return "";
}

unsigned long long stats_line::number(const char *name) const {
  std::string text = item(name);
  return digits(text) ? strtoull(text.c_str(), nullptr, 10) : 0;
}

bool parse_stats_line(const std::string &line, stats_line *out) {
  *out = stats_line();
  std::vector<std::pair<std::string, std::string>> items;
  size_t start = 0;
  for (;;) {
    size_t blank = line.find(' ', start);
    std::string word = line.substr(start, blank == std::string::npos ? blank : blank - start);
    if (size_t n = item_name(word))
      items.emplace_back(word.substr(0, n), word.substr(n + 1));
    else if (items.empty())
      return false;
    else
      items.back().second += " " + word;
    if (blank == std::string::npos) break;
    start = blank + 1;
  }
  for (int k = WIRE_OF_PORT; k <= WIRE_OF_KIVD; k++) {
    if (items[0].first != KIND_ITEMS[k]) continue;
    out->kind = static_cast<wire_stats_kind>(k);
    out->name = items[0].second;
    out->items.assign(items.begin() + 1, items.end());
    // A port's and kivd's line are known by their number.
    return (k != WIRE_OF_PORT && k != WIRE_OF_KIVD) || digits(out->name);
  }
  return false;
}

std::string stats_table(const std::vector<stats_line> &lines) {
  std::vector<std::string> parts;
  std::vector<const stats_line *> ports = of_kind(lines, WIRE_OF_PORT);
  std::stable_sort(ports.begin(), ports.end(), [](const stats_line *a, const stats_line *b) {
    unsigned long long x = a->number("Connections"), y = b->number("Connections");
    if (x != y) return x > y;
    x = a->number("Starts"), y = b->number("Starts");
    return x != y ? x > y : atoi(a->name.c_str()) < atoi(b->name.c_str());
  });
  std::vector<std::vector<std::string>> rows;
  for (const stats_line *p : ports) {
    unsigned long long rests = p->number("RestsThrottled") + p->number("RestsStartFailed") +
                               p->number("RestsException") + p->number("RestsListenFailed");
    rows.push_back({p->name, p->item(WIRE_STATS_SERVICE), p->item(WIRE_STATS_STATE),
                    count(*p, "Connections"), count(*p, "Starts"), ends(*p), std::to_string(rests),
                    count(*p, "Disables"), launch_median(*p)});
  }
  if (!ports.empty())
    parts.push_back(table({"PORT", "SERVICE", "STATE", "CONNECTIONS", "STARTS", "ENDS 0/CODE/EXC",
                           "RESTS", "DISABLES", "LAUNCH MEDIAN"},
                          rows, "rllrrlrrl"));
  std::vector<const stats_line *> services = of_kind(lines, WIRE_OF_SERVICE);
  if (!services.empty()) parts.push_back(starts_table(services, "SERVICE"));
  std::vector<const stats_line *> programs = of_kind(lines, WIRE_OF_PROGRAM);
  if (!programs.empty()) parts.push_back(starts_table(programs, "PROGRAM"));
  for (const stats_line *k : of_kind(lines, WIRE_OF_KIVD))
    parts.push_back("kivd (pid " + k->name + "): up " + duration(k->number("Uptime")) +
                    ", commands " + count(*k, "Commands") + " (" + count(*k, "CommandsRefused") +
                    " refused), clients hung up on " + count(*k, "ClientsHungUp") + ", events " +
                    count(*k, "Events") + " (" + count(*k, "EventsHeld") +
                    " held back), hand-overs " + count(*k, "Handovers") + "\n");
  std::string out;
  for (size_t i = 0; i < parts.size(); i++) out += (i ? "\n" : "") + parts[i];
  return out;
}

namespace {

// A count as JSON writes numbers: no leading zero.
bool json_number(const std::string &text) {
  return digits(text) && (text == "0" || text[0] != '0');
}

}  // namespace

std::string stats_json(const std::vector<stats_line> &lines) {
  std::string out = "[";
  for (size_t i = 0; i < lines.size(); i++) {
    const stats_line &l = lines[i];
    const char *first = KIND_ITEMS[l.kind];
    out += (i ? ",\n {" : "{") + json_string("kind") + ":" + json_string(KIND_WORDS[l.kind]) + "," +
           json_string(first) + ":" +
           (json_number(l.name) && (l.kind == WIRE_OF_PORT || l.kind == WIRE_OF_KIVD)
                ? l.name
                : json_string(l.name));
    for (const auto &item : l.items) {
      // Names and words are text whatever they look like; a count is a number.
      bool text = item.first == WIRE_STATS_SERVICE || item.first == WIRE_STATS_PROGRAM ||
                  item.first == WIRE_STATS_STATE || !json_number(item.second);
      out += "," + json_string(item.first) + ":" + (text ? json_string(item.second) : item.second);
    }
    out += "}";
  }
  return out + "]";
}
