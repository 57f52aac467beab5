#include "tools/kivctl/why.h"

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <initializer_list>

#include "tools/kivctl/listing.h"

namespace {

constexpr long long UNTIL_ENABLED = 0x7FFFFFFF;  // kivd's mark of a disable by command

std::string field(const why_event &e, const char *name) {
  for (const auto &f : e.fields)
    if (f.first == name) return f.second;
  return "";
}

std::string format_time(long long t, const char *format, bool utc) {
  time_t when = static_cast<time_t>(t);
  const tm *broken = utc ? gmtime(&when) : localtime(&when);
  char text[40];
  if (!broken || strftime(text, sizeof text, format, broken) == 0) return std::to_string(t);
  return text;
}

bool numeric(const std::string &name) {
  for (const char *n : {"port", "pid", "exit", "syserror", "count", "period", "size", "code"})
    if (name == n) return true;
  return false;
}

}  // namespace

bool parse_why_line(const std::string &line, why_event *out) {
  std::vector<std::string> parts;
  size_t start = 0;
  for (size_t tab; (tab = line.find('\t', start)) != std::string::npos; start = tab + 1)
    parts.push_back(line.substr(start, tab - start));
  parts.push_back(line.substr(start));
  if (parts.size() < 4) return false;
  char *end = nullptr;
  out->number = static_cast<int>(strtol(parts[0].c_str(), &end, 10));
  if (parts[0].empty() || *end) return false;
  out->time = strtoll(parts[1].c_str(), &end, 10);
  if (parts[1].empty() || *end) return false;
  out->severity = parts[2];
  out->text = parts[3];
  out->fields.clear();
  for (size_t i = 4; i < parts.size(); i++) {
    size_t eq = parts[i].find('=');
    if (eq == std::string::npos) return false;
    out->fields.emplace_back(parts[i].substr(0, eq), parts[i].substr(eq + 1));
  }
  return true;
}

std::string why_next(const why_event &e) {
  std::string until = field(e, "until");
  if (!until.empty() && e.number != WHY_STATE) {
    long long t = atoll(until.c_str());
    if (t >= UNTIL_ENABLED) return "disabled until enabled";
    // A rest that ends another day says the day too.
    bool today = format_time(t, "%Y-%m-%d", false) == format_time(e.time, "%Y-%m-%d", false);
    return "resting until " + format_time(t, today ? "%H:%M:%S" : "%Y-%m-%d %H:%M:%S", false);
  }
  switch (e.number) {
    case WHY_STATE:
      return "";  // the state says it
    case 1:
      return "serving";
    case 2:
      return "stopped";
    case 105:
      return "not serving the port until a program is configured";
    case 106:
      return "going on without the value";
    case 107:
      return "disabled until enabled";
    case 108:
    case 201:
      return "serving again";
    case 202:
      return "starting it again";
    case 301:
      return "serving the other clients";
    case 302:
      return "trying the whole wait again each second";
    case 303:
      return "going on without what it asked for";
    case 304:
      return "going on, the trace resumes when it can";
    case 305:
      return "tracing again";
    default:
      return "";
  }
}

std::string why_table(const std::vector<why_event> &events) {
  std::string out;
  for (const why_event &e : events) {
    char head[64];
    // A port's state stands last, as of the time it was asked: "now" in the severity's place.
    snprintf(head, sizeof head, "%s  %-7s  ",
             format_time(e.time, "%Y-%m-%d %H:%M:%S", false).c_str(),
             e.number == WHY_STATE ? "now" : e.severity.c_str());
    std::string next = why_next(e);
    out += head + e.text + (next.empty() ? "" : "  Next: " + next) + "\n";
  }
  return out;
}

std::string why_json(const std::vector<why_event> &events) {
  const char *iso = "%Y-%m-%dT%H:%M:%SZ";
  std::string out = "[";
  for (size_t i = 0; i < events.size(); i++) {
    const why_event &e = events[i];
    out += (i ? ",{" : "{") + std::string("\"number\":") + std::to_string(e.number) +
           ",\"time\":" + json_string(format_time(e.time, iso, true)) +
           ",\"severity\":" + json_string(e.severity) + ",\"text\":" + json_string(e.text) +
           ",\"next\":" + json_string(why_next(e)) + ",\"fields\":{";
    for (size_t j = 0; j < e.fields.size(); j++) {
      const auto &f = e.fields[j];
      std::string value = json_string(f.second);
      if (f.first == "until")
        value = atoll(f.second.c_str()) >= UNTIL_ENABLED
                    ? "null"
                    : json_string(format_time(atoll(f.second.c_str()), iso, true));
      else if (numeric(f.first) && !f.second.empty() &&
               f.second.find_first_not_of("-0123456789") == std::string::npos)
        value = f.second;
      out += (j ? "," : "") + json_string(f.first) + ":" + value;
    }
    out += "}}";
  }
  return out + "]";
}
