#include "tools/kivctl/listing.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>

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

// The number of an item, or false when it is given and not a positive number.
bool take_number(std::map<std::string, std::string> &items, const char *key, unsigned *n) {
  auto it = items.find(key);
  if (it == items.end()) return true;
  char *end = nullptr;
  unsigned long value = strtoul(it->second.c_str(), &end, 10);
  if (it->second.empty() || *end != '\0' || value == 0) return false;
  *n = static_cast<unsigned>(value);
  return true;
}

std::string lower(std::string s) {
  for (char &c : s)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return s;
}

// The disable command's mark is the largest time, 2038-01-19 03:14 UTC, as kivd's local
// time: within a day of that whatever kivd's zone. A disable for a time ends minutes after
// kivd's clock, so it shows there only when that clock is there, where 32-bit times end.
bool until_enabled(const std::string &until) {
  int year = 0, month = 0, day = 0, hour = 0, minute = 0;
  if (sscanf(until.c_str(), "%d-%d-%d_%d:%d", &year, &month, &day, &hour, &minute) != 5 ||
      year != 2038 || month != 1)
    return false;
  int from_mark = ((day - 19) * 24 + hour - 3) * 60 + minute - 14;
  return from_mark >= -24 * 60 && from_mark <= 24 * 60;
}

const char *state_word(const listed_port &p) {
  return p.disabled ? "disabled" : p.agent ? "serving" : "idle";
}

std::string number_or_null(unsigned n) { return n ? std::to_string(n) : "null"; }

std::string padded(const std::string &s, size_t width) {
  return s.size() >= width ? s : s + std::string(width - s.size(), ' ');
}

}  // namespace

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
  std::map<std::string, std::string> items = take_items(&rest);
  std::string until = items["Disable"];
  out->address = items["Address"];
  out->account = items["Account"];
  if (!take_number(items, "Agent", &out->agent) || !take_number(items, "Parent", &out->parent) ||
      !take_number(items, "Memory", &out->memory) ||
      !take_number(items, "Processes", &out->processes) || !take_number(items, "Cpu", &out->cpu))
    return false;
  if (!until.empty()) {
    out->disabled = true;
    out->until_enabled = until_enabled(until);
    if (!out->until_enabled) {
      out->until = until;
      size_t sep = out->until.find('_');
      if (sep != std::string::npos) out->until[sep] = ' ';
    }
  }
  size_t blank = rest.rfind(' ');
  if (blank == std::string::npos) return false;
  std::string mode = rest.substr(blank + 1);
  if (mode != "Auto" && mode != "Hook" && mode != "On") return false;
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
  else if (p.agent)
    s = "serving (pid " + std::to_string(p.agent) + ")";
  else
    s = "idle";
  if (p.parent) s += ", hooked by pid " + std::to_string(p.parent);
  return s;
}

port_counts count_ports(const std::vector<listed_port> &ports) {
  port_counts n;
  for (const listed_port &p : ports) {
    n.total++;
    std::string state = state_word(p);
    (state == "disabled" ? n.disabled : state == "serving" ? n.serving : n.idle)++;
    n.hooked += p.parent != 0;
  }
  return n;
}

std::string port_text(const listed_port &p) {
  std::string number = std::to_string(p.port);
  if (p.address.empty()) return number;
  bool v6 = p.address.find(':') != std::string::npos;
  return (v6 ? "[" + p.address + "]" : p.address) + ":" + number;
}

std::string listing_table(const std::vector<listed_port> &ports) {
  size_t service_width = strlen("SERVICE"), port_width = 5, account_width = 0;
  for (const auto &p : ports) {
    if (p.service.size() > service_width) service_width = p.service.size();
    if (port_text(p).size() > port_width) port_width = port_text(p).size();
    if (!p.account.empty())
      account_width = std::max(account_width, std::max(p.account.size(), strlen("ACCOUNT")));
  }
  // kivd's own account shows as "system" once some other account has a column.
  auto account = [&](const std::string &a) {
    return account_width ? padded(a, account_width) + "  " : "";
  };
  std::string out = padded("PORT", port_width + 2) + padded("SERVICE", service_width) +
                    "  MODE  " + account("ACCOUNT") + "STATE\n";
  for (const auto &p : ports) {
    std::string number = port_text(p);
    number = std::string(port_width - number.size(), ' ') + number;
    out += number + "  " + padded(p.service, service_width) + "  " + padded(p.mode, 4) + "  " +
           account(p.account.empty() ? "system" : p.account) + port_state(p) + "\n";
  }
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
    const listed_port &p = ports[i];
    out += i ? ",\n " : "";
    out +=
        "{\"port\":" + std::to_string(p.port) + ",\"service\":" + json_string(p.service) +
        ",\"mode\":" + json_string(p.mode) + ",\"state\":\"" + state_word(p) + "\"" +
        ",\"agent\":" + (p.agent ? std::to_string(p.agent) : "null") +
        ",\"parent\":" + (p.parent ? std::to_string(p.parent) : "null") +
        ",\"disabled_until\":" + (p.disabled && !p.until_enabled ? json_string(p.until) : "null") +
        ",\"until_enabled\":" + (p.until_enabled ? "true" : "false") +
        ",\"address\":" + (p.address.empty() ? "null" : json_string(p.address)) +
        ",\"account\":" + (p.account.empty() ? "null" : json_string(p.account)) +
        ",\"memory\":" + number_or_null(p.memory) +
        ",\"processes\":" + number_or_null(p.processes) + ",\"cpu\":" + number_or_null(p.cpu) + "}";
  }
  return out + "]";
}

std::string reply_json(const std::string &reply) {
  if (!reply.empty() && reply[0] == '-')
    return "{\"ok\":false,\"error\":" + json_string(reply.substr(1)) + "}";
  return "{\"ok\":true}";
}
