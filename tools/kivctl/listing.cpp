#include "tools/kivctl/listing.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

// The optional " Name=value" items that end a listing line, taken off rest (the mode
// word then ends it) in whatever order they come; a later kivd may add names.
std::map<std::string, std::string> take_items(std::string *rest) {
  std::map<std::string, std::string> items;
  for (size_t blank; (blank = rest->rfind(' ')) != std::string::npos;) {
    size_t equals = rest->find('=', blank);
    if (equals == std::string::npos || equals == blank + 1) break;
    items[rest->substr(blank + 1, equals - blank - 1)] = rest->substr(equals + 1);
    rest->erase(blank);
  }
  return items;
}

bool positive_number(const std::string &text) {
  char *end = nullptr;
  unsigned long value = strtoul(text.c_str(), &end, 10);
  return !text.empty() && *end == '\0' && value != 0;
}

std::string lower(std::string s) {
  for (char &c : s)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return s;
}

// A disable's end as listed, "until enabled" by the wire's rule; otherwise its date with
// a blank for the underscore.
void read_disable(const std::string &until, listed_port *out) {
  int year = 0, month = 0, day = 0, hour = 0, minute = 0;
  out->disabled = true;
  out->until_enabled =
      sscanf(until.c_str(), "%d-%d-%d_%d:%d", &year, &month, &day, &hour, &minute) == 5 &&
      wire_until_enabled(year, month, day, hour, minute);
  if (out->until_enabled) return;
  out->until = until;
  size_t sep = out->until.find('_');
  if (sep != std::string::npos) out->until[sep] = ' ';
}

wire_state state_of(const listed_port &p) {
  return p.disabled ? WIRE_DISABLED : p.number(WIRE_ITEM_AGENT) ? WIRE_SERVING : WIRE_IDLE;
}

std::string padded(const std::string &s, size_t width) {
  return s.size() >= width ? s : s + std::string(width - s.size(), ' ');
}

// How a column shows.
constexpr unsigned NUMBER = 1;    // its item is a positive number, bare in JSON
constexpr unsigned RIGHT = 2;     // right-aligned in the table
constexpr unsigned WHEN_SET = 4;  // in the table only once some port has its item

// A column of the listing: the table shows those with a heading in this order, JSON those
// with a key. One that shows an item as listed needs no functions.
struct column {
  const char *heading;  // the table's, nullptr when only JSON has the column
  const char *key;      // JSON's, nullptr when only the table has it
  const char *item;     // the listing's item it shows, or nullptr
  unsigned how = 0;
  size_t width = 0;                                    // the table's least width
  std::string (*cell)(const listed_port &) = nullptr;  // the table's text otherwise
  std::string (*json)(const listed_port &) = nullptr;  // JSON's value otherwise
};

const column COLUMNS[] = {
    {"PORT", "port", nullptr, RIGHT, 5, port_text,
     [](const listed_port &p) { return std::to_string(p.port); }},
    {"SERVICE", "service", nullptr, 0, 0, [](const listed_port &p) { return p.service; },
     [](const listed_port &p) { return json_string(p.service); }},
    {"MODE", "mode", nullptr, 0, 0, [](const listed_port &p) { return p.mode; },
     [](const listed_port &p) { return json_string(p.mode); }},
    {nullptr, "state", nullptr, 0, 0, nullptr,
     [](const listed_port &p) { return json_string(WIRE_STATES[state_of(p)]); }},
    {nullptr, "agent", WIRE_ITEM_AGENT, NUMBER},
    {nullptr, "parent", WIRE_ITEM_PARENT, NUMBER},
    {nullptr, "disabled_until", nullptr, 0, 0, nullptr,
     [](const listed_port &p) {
       return p.disabled && !p.until_enabled ? json_string(p.until) : "null";
     }},
    {nullptr, "until_enabled", nullptr, 0, 0, nullptr,
     [](const listed_port &p) { return std::string(p.until_enabled ? "true" : "false"); }},
    {nullptr, "address", WIRE_ITEM_ADDRESS},
    // kivd's own account shows as "system" once some other account has a column.
    {"ACCOUNT", "account", WIRE_ITEM_ACCOUNT, WHEN_SET, 0,
     [](const listed_port &p) {
       std::string account = p.item(WIRE_ITEM_ACCOUNT);
       return account.empty() ? "system" : account;
     }},
    {nullptr, "memory", WIRE_ITEM_MEMORY, NUMBER},
    {nullptr, "processes", WIRE_ITEM_PROCESSES, NUMBER},
    {nullptr, "cpu", WIRE_ITEM_CPU, NUMBER},
    {"STATE", nullptr, nullptr, 0, 0, port_state},
};

// The column's item as listed, a number as read; "" when the port has none.
std::string item_text(const column &c, const listed_port &p) {
  if (!(c.how & NUMBER)) return p.item(c.item);
  unsigned n = p.number(c.item);
  return n ? std::to_string(n) : "";
}

std::string cell(const column &c, const listed_port &p) {
  return c.cell ? c.cell(p) : item_text(c, p);
}

std::string json_value(const column &c, const listed_port &p) {
  if (c.json) return c.json(p);
  std::string text = item_text(c, p);
  return text.empty() ? "null" : c.how & NUMBER ? text : json_string(text);
}

}  // namespace

std::string listed_port::item(const char *name) const {
  auto it = items.find(name);
  return it == items.end() ? "" : it->second;
}

unsigned listed_port::number(const char *name) const {
  return static_cast<unsigned>(strtoul(item(name).c_str(), nullptr, 10));
}

bool parse_listing_line(const std::string &line, listed_port *out) {
  *out = listed_port();
  // The number fills five columns, then two blanks; the fields after the mode are taken
  // from the end, so a service name may hold blanks.
  if (line.size() < 8 || line.compare(5, 2, "  ") != 0) return false;
  char *end = nullptr;
  long port = strtol(line.c_str(), &end, 10);
  if (end != line.c_str() + 5 || port < 1 || port > 65535) return false;
  out->port = static_cast<int>(port);
  std::string rest = line.substr(7);
  out->items = take_items(&rest);
  for (const column &c : COLUMNS)
    if ((c.how & NUMBER) && out->items.count(c.item) && !positive_number(out->items[c.item]))
      return false;
  auto disable = out->items.find(WIRE_ITEM_DISABLE);
  if (disable != out->items.end() && !disable->second.empty()) read_disable(disable->second, out);
  size_t blank = rest.rfind(' ');
  if (blank == std::string::npos) return false;
  std::string mode = rest.substr(blank + 1);
  if (mode != WIRE_MODE_AUTO && mode != WIRE_MODE_HOOK && mode != WIRE_MODE_ON) return false;
  out->mode = lower(mode);
  // The name, padded to 11 columns, is followed by two blanks and then " Mode".
  size_t stop = rest.find_last_not_of(' ', blank);
  if (stop == std::string::npos) return false;
  out->service = rest.substr(0, stop + 1);
  return true;
}

std::string port_state(const listed_port &p) {
  std::string s;
  if (p.disabled)
    s = p.until_enabled ? "disabled until enabled" : "disabled until " + p.until;
  else if (unsigned agent = p.number(WIRE_ITEM_AGENT))
    s = "serving (pid " + std::to_string(agent) + ")";
  else
    s = "idle";
  if (unsigned parent = p.number(WIRE_ITEM_PARENT))
    s += ", hooked by pid " + std::to_string(parent);
  return s;
}

port_counts count_ports(const std::vector<listed_port> &ports) {
  port_counts n;
  for (const listed_port &p : ports) {
    n.total++;
    n.in[state_of(p)]++;
    n.hooked += p.number(WIRE_ITEM_PARENT) != 0;
  }
  return n;
}

std::string port_text(const listed_port &p) {
  std::string number = std::to_string(p.port), address = p.item(WIRE_ITEM_ADDRESS);
  if (address.empty()) return number;
  bool v6 = address.find(':') != std::string::npos;
  return (v6 ? "[" + address + "]" : address) + ":" + number;
}

std::string listing_table(const std::vector<listed_port> &ports) {
  std::vector<const column *> shown;
  std::vector<size_t> widths;
  for (const column &c : COLUMNS) {
    if (!c.heading) continue;
    bool set = !(c.how & WHEN_SET);
    size_t width = std::max(c.width, strlen(c.heading));
    for (const listed_port &p : ports) {
      width = std::max(width, cell(c, p).size());
      set = set || !p.item(c.item).empty();
    }
    if (!set) continue;
    shown.push_back(&c);
    widths.push_back(width);
  }
  // The heading and each port's cells, padded to the column's width but the last.
  auto row = [&](const listed_port *p) {
    std::string out;
    for (size_t i = 0; i < shown.size(); i++) {
      const column &c = *shown[i];
      std::string s = p ? cell(c, *p) : c.heading;
      if (i + 1 == shown.size()) return out + s + "\n";
      bool right = p && (c.how & RIGHT);
      out += (right ? std::string(widths[i] - s.size(), ' ') + s : padded(s, widths[i])) + "  ";
    }
    return out + "\n";
  };
  std::string out = row(nullptr);
  for (const listed_port &p : ports) out += row(&p);
  return out;
}

std::string json_string(const std::string &text) {
  std::string out = "\"";
  for (unsigned char c : text) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c < 0x20) {
      char escaped[8];
      snprintf(escaped, sizeof escaped, "\\u%04x", c);
      out += escaped;
    } else {
      out += static_cast<char>(c);
    }
  }
  return out + "\"";
}

std::string listing_json(const std::vector<listed_port> &ports) {
  std::string out = "[";
  for (size_t i = 0; i < ports.size(); i++) {
    out += i ? "},\n {" : "{";
    const char *comma = "";
    for (const column &c : COLUMNS) {
      if (!c.key) continue;
      out += comma + json_string(c.key) + ":" + json_value(c, ports[i]);
      comma = ",";
    }
  }
  return out + (ports.empty() ? "]" : "}]");
}

std::string reply_json(const std::string &reply) {
  if (!reply.empty() && reply[0] == '-')
    return "{\"ok\":false,\"error\":" + json_string(reply.substr(1)) + "}";
  return "{\"ok\":true}";
}
