#include "tools/kivctl/why.h"

#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "lib/wire.h"
#include "toolkit/runtime/events.h"
#include "tools/kivctl/listing.h"

namespace {

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

// The kind of a field by its name; the state line's own fields (state, parent) are words.
kivev_kind kind(const std::string &name) {
  int field = kivev_fieldof(name.c_str());
  return field < 0 ? KIVEV_WORDS : kivev_fieldkind(static_cast<kivev_field>(field));
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
  std::string until = field(e, kivev_fieldname(KIVEV_F_UNTIL));
  if (!until.empty() && e.number != WHY_STATE) {
    long long t = atoll(until.c_str());
    if (t >= WIRE_UNTIL_ENABLED) return "disabled until enabled";
    // A rest that ends another day says the day too.
    bool today = format_time(t, "%Y-%m-%d", false) == format_time(e.time, "%Y-%m-%d", false);
    return "resting until " + format_time(t, today ? "%H:%M:%S" : "%Y-%m-%d %H:%M:%S", false);
  }
  // The state line is no event and says it itself; an event newer than this kivctl has none.
  const char *next = kivev_next(e.number);
  return next ? next : "";
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
      if (kind(f.first) == KIVEV_TIME)
        value = atoll(f.second.c_str()) >= WIRE_UNTIL_ENABLED
                    ? "null"
                    : json_string(format_time(atoll(f.second.c_str()), iso, true));
      else if (kind(f.first) == KIVEV_DECIMAL && !f.second.empty() &&
               f.second.find_first_not_of("-0123456789") == std::string::npos)
        value = f.second;
      out += (j ? "," : "") + json_string(f.first) + ":" + value;
    }
    out += "}}";
  }
  return out + "]";
}
