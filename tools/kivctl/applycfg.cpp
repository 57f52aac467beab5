// applycfg: the checked model of a configuration file and its comparison with the
// registry's configuration.
#include "tools/kivctl/applycfg.h"

#include <algorithm>
#include <climits>
#include <cstring>

#include "lib/heap.h"
#include "toolkit/config/conf.h"
#include "toolkit/config/info.h"
#include "toolkit/config/schema.h"
#include "toolkit/runtime/error.h"

namespace {

std::string folded(const std::string &text) {
  std::string out = text;
  for (char &c : out)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return out;
}

constexpr int NODE = SCHEMA_SECTIONS, UNKNOWN = -1;

// What a key is by its name: a section's folder or a folder above one ("global"), NODE;
// one key of a section (the last component being its name), that section; else UNKNOWN.
// A single key's section is the key itself ("global"), though it is a folder above another.
int section_of(const std::string &foldedname) {
  for (int s = 0; s < SCHEMA_SECTIONS; s++)
    if (schema_sections[s].single && foldedname == schema_sections[s].folder) return s;
  for (int s = 0; s < SCHEMA_SECTIONS; s++) {
    if (schema_sections[s].single) continue;
    std::string folder = schema_sections[s].folder;
    if (folder == foldedname || folder.compare(0, foldedname.size() + 1, foldedname + ".") == 0)
      return NODE;
    if (foldedname.compare(0, folder.size() + 1, folder + ".") == 0 &&
        foldedname.find('.', folder.size() + 1) == std::string::npos)
      return s;
  }
  return UNKNOWN;
}

// The row of the value named foldedname in section s, or null.
const schema_value *row_of(int s, const std::string &foldedname) {
  for (const schema_value &v : schema_values)
    if (v.section == s && foldedname == v.name) return &v;
  return nullptr;
}

// The number of a port key's last component "s<number>" (either case of s, no sign, no
// leading zero, within the ports' range), or 0. The port manager reads the number as
// strtol does, so "s025" would be port 25 too: only one spelling per port is taken, so
// that two keys can never name one port.
int port_number(const std::string &name) {
  const std::string prefix = schema_sections[SCHEMA_PORTS].prefix;
  if (name.size() <= prefix.size() || folded(name.substr(0, prefix.size())) != prefix ||
      name.size() > prefix.size() + std::to_string(SCHEMA_PORT_MAX).size() ||
      name[prefix.size()] == '0')
    return 0;
  long number = 0;
  for (size_t i = prefix.size(); i < name.size(); i++) {
    if (name[i] < '0' || name[i] > '9') return 0;
    number = number * 10 + (name[i] - '0');
  }
  return number >= SCHEMA_PORT_MIN && number <= SCHEMA_PORT_MAX ? static_cast<int>(number) : 0;
}

const std::string &last_component(const std::string &dotted, std::string *holder) {
  size_t dot = dotted.rfind('.');
  *holder = dot == std::string::npos ? dotted : dotted.substr(dot + 1);
  return *holder;
}

// The first fault of a check, by line.
struct faults {
  int line = INT_MAX;
  std::string message;
  void add(int at, const std::string &text) {
    if (at < line) {
      line = at;
      message = text;
    }
  }
};

// The port manager looks a port's service up at ".services.<name>" with "." made "_",
// without regard to case: the same folding finds it here.
std::string service_key(const std::string &service) {
  std::string out = service;
  kivinfo_fixname(&out[0]);
  return std::string(schema_sections[SCHEMA_SERVICES].folder) + "." + out;
}

// The fault of value v, given as text (null when absent), of the key that a message
// names as id, or "" when the port manager can use it.
std::string fault_of(const applycfg &cfg, const schema_value &v, const applycfg_value *given,
                     const std::string &id) {
  std::string key = std::string(schema_sections[v.section].what) + (id.empty() ? "" : " " + id);
  if (!given) return v.required ? key + " has no " + v.label : "";
  const std::string &text = given->text;
  bool usable = kivschema_judge(v, text.c_str()) >= 0;
  switch (v.kind) {
    case SCHEMA_WORDS:
      return usable ? "" : std::string("unknown ") + v.label + " " + text + " for " + key;
    case SCHEMA_DIGITS:
      return usable
                 ? ""
                 : std::string(v.label) + " " + text + " of " + key + " is not a number of " +
                       v.unit + " from " + std::to_string(v.min) + " to " + std::to_string(v.max);
    case SCHEMA_LINE:
      if (text.empty()) return key + " has no " + v.label;
      return usable ? ""
                    : std::string(v.label) + " of " + key + " is longer than " +
                          std::to_string(v.max) + " characters";
    case SCHEMA_NAME:
      if (text.empty()) return key + " has no " + v.label;
      return usable && cfg.keys.count(service_key(text))
                 ? ""
                 : std::string(v.label) + " " + text + " of " + key + " is not given";
    case SCHEMA_ADDRESS:
      return usable ? ""
                    : std::string(v.label) + " " + text + " of " + key +
                          " is not a numeric IPv4 or IPv6 address";
    case SCHEMA_FILE:
      if (usable) return "";
      return std::string(v.label) + " of " + key +
             (text.size() > static_cast<size_t>(v.max)
                  ? " is longer than " + std::to_string(v.max) + " characters"
                  : " holds a control character");
    default:
      return "";
  }
}

void check(const applycfg &cfg, faults *f) {
  for (const auto &entry : cfg.keys) {
    const applycfg_key &key = entry.second;
    int s = section_of(entry.first);
    std::string name;
    last_component(key.name, &name);
    if (s == UNKNOWN) {
      if (key.name.empty())  // values outside any section
        for (const auto &v : key.values) f->add(v.second.line, "unknown entry " + v.second.name);
      else
        f->add(key.line, "unknown section " + key.name);
      continue;
    }
    for (const auto &v : key.values)
      if (s == NODE || !row_of(s, v.first))
        f->add(v.second.line, "unknown value " + v.second.name + " in " + key.name);
    if (s == NODE) continue;
    if (!schema_sections[s].single && name.size() > kivschema_name_max(s))
      f->add(key.line, "name too long (" + std::to_string(name.size()) + " characters, at most " +
                           std::to_string(kivschema_name_max(s)) + ")");
    std::string id = schema_sections[s].single ? "" : name;
    if (s == SCHEMA_PORTS) {
      int port = port_number(name);
      if (!port) {
        f->add(key.line, "bad port " + name + " (" + schema_sections[s].prefix +
                             " and a number from " + std::to_string(SCHEMA_PORT_MIN) + " to " +
                             std::to_string(SCHEMA_PORT_MAX) + ")");
        continue;
      }
      id = std::to_string(port);
    }
    for (const schema_value &v : schema_values) {
      if (v.section != s) continue;
      auto it = key.values.find(v.name);
      const applycfg_value *given = it == key.values.end() ? nullptr : &it->second;
      std::string fault = fault_of(cfg, v, given, id);
      if (!fault.empty()) f->add(given ? given->line : key.line, fault);
    }
  }
}

// The parse in progress, handed to the add function as its context.
struct parsing {
  applycfg *cfg;
  faults *duplicates;
};

int add_from_file(void *context, int line, const char *name, const char *value, const char *, int) {
  auto *p = static_cast<parsing *>(context);
  std::string dotted = name ? name : "";
  if (value) {
    size_t dot = dotted.rfind('.');
    std::string keyname = dot == std::string::npos ? "" : dotted.substr(0, dot);
    std::string vname = dot == std::string::npos ? dotted : dotted.substr(dot + 1);
    auto found = p->cfg->keys.find(folded(keyname));
    if (found != p->cfg->keys.end() && found->second.values.count(folded(vname)))
      p->duplicates->add(line, "value " + dotted + " given twice");
  }
  applycfg_add(p->cfg, name, value, line);
  return 0;
}

std::string octal(unsigned char c) {
  char out[5] = {'\\', static_cast<char>('0' + (c >> 6)), static_cast<char>('0' + ((c >> 3) & 7)),
                 static_cast<char>('0' + (c & 7)), 0};
  return out;
}

bool white(char c) {
  return c == ' ' || c == '\t' || c == '\r' || c == '\f' || c == '\v' || c == '\n';
}

// The value as the parser will read it back: unquoted when that is literal (no blank
// at either end, no leading quote, no control character), else quoted with escapes.
std::string value_text(const std::string &text) {
  bool quote = !text.empty() && (white(text.front()) || white(text.back()) || text.front() == '"');
  for (unsigned char c : text)
    if (c < 0x20 || c == 0x7f) quote = true;
  if (!quote) return text;
  std::string out = "\"";
  for (unsigned char c : text) {
    if (c == '\\' || c == '"')
      out += '\\', out += static_cast<char>(c);
    else if (c == '\t')
      out += "\\t";
    else if (c == '\n')
      out += "\\n";
    else if (c == '\r')
      out += "\\r";
    else if (c < 0x20 || c == 0x7f)
      out += octal(c);  // always three digits, so a digit after it stays a digit
    else
      out += static_cast<char>(c);
  }
  return out + "\"";
}

// True when the parser reads name back as itself.
bool name_survives(const std::string &name) {
  if (name.empty()) return false;
  std::vector<char> copy(name.begin(), name.end());
  copy.push_back(0);
  int length = 0;
  return conf_checkname(copy.data(), &length, 0, nullptr) == 0 && name == copy.data();
}

}  // namespace

void applycfg_add(applycfg *cfg, const char *dotted, const char *value, int line) {
  std::string name = dotted ? dotted : "";
  std::string vname;
  if (value) {
    size_t dot = name.rfind('.');
    vname = dot == std::string::npos ? name : name.substr(dot + 1);
    name = dot == std::string::npos ? "" : name.substr(0, dot);
  }
  auto inserted = cfg->keys.emplace(folded(name), applycfg_key{});
  applycfg_key &key = inserted.first->second;
  if (inserted.second) {
    key.name = name;
    key.line = line;
  }
  if (!value) return;
  // A repeated value takes the later text, as the info tree would; the file check
  // refuses the repetition before that matters.
  applycfg_value &v = key.values[folded(vname)];
  v.name = vname;
  v.text = value;
  v.line = line;
}

int applycfg_read(FILE *stream, applycfg *out, char **error) {
  if (error) *error = nullptr;
  out->keys.clear();
  if (!stream) return conf_error(error, 0, "cannot read the file");
  faults duplicates;
  parsing p{out, &duplicates};
  if (kivconf_parse_lines(stream, add_from_file, &p, nullptr, error)) {
    out->keys.clear();
    return -1;
  }
  faults f = duplicates;
  check(*out, &f);
  if (f.line != INT_MAX) {
    out->keys.clear();
    return conf_error(error, f.line, "%s", f.message.c_str());
  }
  // Value names are written in the form the port manager's table gives them.
  for (auto &k : out->keys)
    for (auto &v : k.second.values) v.second.name = v.first;
  return 0;
}

std::vector<std::string> applycfg_diff(const applycfg &old, const applycfg &next) {
  std::vector<std::string> lines;
  std::map<std::string, std::pair<const applycfg_key *, const applycfg_key *>> all;
  for (const auto &k : old.keys) all[k.first].first = &k.second;
  for (const auto &k : next.keys) all[k.first].second = &k.second;
  static const applycfg_key none;
  for (const auto &entry : all) {
    const applycfg_key &a = entry.second.first ? *entry.second.first : none;
    const applycfg_key &b = entry.second.second ? *entry.second.second : none;
    std::map<std::string, std::pair<const applycfg_value *, const applycfg_value *>> values;
    for (const auto &v : a.values) values[v.first].first = &v.second;
    for (const auto &v : b.values) values[v.first].second = &v.second;
    for (const auto &v : values) {
      const applycfg_value *was = v.second.first, *now = v.second.second;
      if (!was)
        lines.push_back("add " + b.name + "." + now->name + " = " + now->text);
      else if (!now)
        lines.push_back("remove " + a.name + "." + was->name);
      else if (was->text != now->text)
        lines.push_back("change " + b.name + "." + now->name + " = " + now->text + " (was " +
                        was->text + ")");
    }
  }
  return lines;
}

std::string applycfg_export(const applycfg &cfg, std::vector<std::string> *skipped) {
  std::vector<std::pair<int, const applycfg_key *>> keys[SCHEMA_SECTIONS];
  for (const auto &entry : cfg.keys) {
    const applycfg_key &key = entry.second;
    int s = section_of(entry.first);
    if (key.values.empty()) continue;
    std::string name;
    last_component(key.name, &name);
    int port = s == SCHEMA_PORTS ? port_number(name) : 0;
    if (s == NODE || s == UNKNOWN || !name_survives(name) || (s == SCHEMA_PORTS && !port)) {
      for (const auto &v : key.values) skipped->push_back(key.name + "." + v.second.name);
      continue;
    }
    keys[s].emplace_back(port, &key);
  }
  std::string out;
  // kivd's own values, services, then global programs, then ports by number: what a port
  // names comes before it.
  for (int s : {SCHEMA_GLOBAL, SCHEMA_SERVICES, SCHEMA_PROGRAMS, SCHEMA_PORTS}) {
    std::stable_sort(keys[s].begin(), keys[s].end(),
                     [](const auto &a, const auto &b) { return a.first < b.first; });
    for (const auto &k : keys[s]) {
      const applycfg_key &key = *k.second;
      std::string name, body;
      last_component(key.name, &name);
      for (const auto &v : key.values) {
        if (!row_of(s, v.first)) {
          skipped->push_back(key.name + "." + v.second.name);
          continue;
        }
        body += "\t" + v.first + " = " + value_text(v.second.text) + "\n";
      }
      std::string head =
          schema_sections[s].single ? key.name : schema_sections[s].folder + ("." + name);
      if (!body.empty()) out += head + ":\n" + body;
    }
  }
  return out;
}
