// applycfg: the checked model of a configuration file and its comparison with the
// registry's configuration.
#include "tools/kivctl/applycfg.h"

#include <algorithm>
#include <climits>
#include <cstring>

#include "lib/heap.h"
#include "toolkit/config/conf.h"
#include "toolkit/runtime/error.h"

namespace {

std::string folded(const std::string &text) {
  std::string out = text;
  for (char &c : out)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return out;
}

std::vector<std::string> components(const std::string &dotted) {
  std::vector<std::string> parts;
  size_t start = 0;
  for (;;) {
    size_t dot = dotted.find('.', start);
    parts.push_back(dotted.substr(start, dot == std::string::npos ? dot : dot - start));
    if (dot == std::string::npos) return parts;
    start = dot + 1;
  }
}

enum class shape { NODE, PORT, SERVICE, PROGRAM, UNKNOWN };

// What a key is by its name: the folders tcp, services, global and global.start, or one
// port, service or global program (the last component being its name).
shape shape_of(const std::string &foldedname) {
  if (foldedname == "tcp" || foldedname == "services" || foldedname == "global" ||
      foldedname == "global.start")
    return shape::NODE;
  std::vector<std::string> parts = components(foldedname);
  if (parts.size() == 2 && parts[0] == "tcp") return shape::PORT;
  if (parts.size() == 2 && parts[0] == "services") return shape::SERVICE;
  if (parts.size() == 3 && parts[0] == "global" && parts[1] == "start") return shape::PROGRAM;
  return shape::UNKNOWN;
}

const char *const PORT_VALUES[] = {"start", "service", nullptr};
const char *const SERVICE_VALUES[] = {"program", "description", "lifespan", nullptr};
const char *const PROGRAM_VALUES[] = {"start", "program", nullptr};

const char *const *values_of(shape s) {
  switch (s) {
    case shape::PORT:
      return PORT_VALUES;
    case shape::SERVICE:
      return SERVICE_VALUES;
    case shape::PROGRAM:
      return PROGRAM_VALUES;
    default:
      return nullptr;
  }
}

bool known_value(shape s, const std::string &foldedname) {
  const char *const *names = values_of(s);
  for (; names && *names; names++)
    if (foldedname == *names) return true;
  return false;
}

// The number of a port key's last component "s<number>" (either case of s, no sign, no
// leading zero, 1..65534), or 0. The port manager reads the number as strtol does, so
// "s025" would be port 25 too: only one spelling per port is taken, so that two keys can
// never name one port.
int port_number(const std::string &name) {
  if (name.size() < 2 || name.size() > 6 || (name[0] != 's' && name[0] != 'S') || name[1] == '0')
    return 0;
  long number = 0;
  for (size_t i = 1; i < name.size(); i++) {
    if (name[i] < '0' || name[i] > '9') return 0;
    number = number * 10 + (name[i] - '0');
  }
  return number >= 1 && number <= 65534 ? static_cast<int>(number) : 0;
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

const applycfg_value *value_of(const applycfg_key &key, const char *name) {
  auto it = key.values.find(name);
  return it == key.values.end() ? nullptr : &it->second;
}

bool all_digits(const std::string &text) {
  if (text.empty()) return false;
  for (char c : text)
    if (c < '0' || c > '9') return false;
  return true;
}

// The port manager looks a port's service up at ".services.<name>" with "." made "_",
// without regard to case: the same folding finds it here.
std::string service_lookup_name(const std::string &service) {
  std::string out = folded(service);
  std::replace(out.begin(), out.end(), '.', '_');
  return out;
}

void check(const applycfg &cfg, faults *f) {
  for (const auto &entry : cfg.keys) {
    const applycfg_key &key = entry.second;
    shape s = shape_of(entry.first);
    std::string name;
    last_component(key.name, &name);
    if (s == shape::UNKNOWN) {
      if (key.name.empty())  // values outside any section
        for (const auto &v : key.values) f->add(v.second.line, "unknown entry " + v.second.name);
      else
        f->add(key.line, "unknown section " + key.name);
      continue;
    }
    for (const auto &v : key.values)
      if (!known_value(s, v.first))
        f->add(v.second.line, "unknown value " + v.second.name + " in " + key.name);
    if (s != shape::NODE && name.size() > APPLYCFG_NAME_MAX)
      f->add(key.line, "name too long (" + std::to_string(name.size()) + " characters, at most " +
                           std::to_string(APPLYCFG_NAME_MAX) + ")");
    if (s == shape::PORT) {
      int port = port_number(name);
      if (!port) {
        f->add(key.line, "bad port " + name + " (s and a number from 1 to 65534)");
        continue;
      }
      std::string number = std::to_string(port);
      const applycfg_value *start = value_of(key, "start");
      const applycfg_value *service = value_of(key, "service");
      if (!start)
        f->add(key.line, "port " + number + " has no start mode");
      else if (start->text != "auto" && start->text != "on" && start->text != "hook")
        f->add(start->line, "unknown start mode " + start->text + " for port " + number);
      if (!service || service->text.empty()) {
        f->add(service ? service->line : key.line, "port " + number + " has no service");
      } else {
        auto it = cfg.keys.find("services." + service_lookup_name(service->text));
        if (it == cfg.keys.end())
          f->add(service->line,
                 "service " + service->text + " of port " + number + " is not given");
      }
    } else if (s == shape::SERVICE) {
      const applycfg_value *program = value_of(key, "program");
      if (!program || program->text.empty())
        f->add(program ? program->line : key.line, "service " + name + " has no program");
      const applycfg_value *lifespan = value_of(key, "lifespan");
      if (lifespan && !all_digits(lifespan->text))
        f->add(lifespan->line, "lifespan " + lifespan->text + " of service " + name +
                                   " is not a number of seconds");
    } else if (s == shape::PROGRAM) {
      const applycfg_value *program = value_of(key, "program");
      if (!program || program->text.empty())
        f->add(program ? program->line : key.line, "global program " + name + " has no program");
      const applycfg_value *start = value_of(key, "start");
      // The port manager starts a global program for "on" in any letter case; "off" is
      // the one other word taken, so that a misspelt "on" is not silently off.
      if (start && folded(start->text) != "on" && folded(start->text) != "off")
        f->add(start->line, "unknown start mode " + start->text + " for global program " + name);
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
  std::vector<const applycfg_key *> services, programs;
  std::vector<std::pair<int, const applycfg_key *>> ports;
  for (const auto &entry : cfg.keys) {
    const applycfg_key &key = entry.second;
    shape s = shape_of(entry.first);
    if (key.values.empty()) continue;
    std::string name;
    last_component(key.name, &name);
    if (s == shape::NODE || s == shape::UNKNOWN || !name_survives(name)) {
      for (const auto &v : key.values) skipped->push_back(key.name + "." + v.second.name);
      continue;
    }
    if (s == shape::PORT) {
      int port = port_number(name);
      if (!port) {
        for (const auto &v : key.values) skipped->push_back(key.name + "." + v.second.name);
        continue;
      }
      ports.emplace_back(port, &key);
    } else {
      (s == shape::SERVICE ? services : programs).push_back(&key);
    }
  }
  std::sort(ports.begin(), ports.end());
  std::string out;
  auto section = [&](const applycfg_key &key, shape s) {
    std::string name;
    last_component(key.name, &name);
    const char *kind = s == shape::PORT      ? "tcp."
                       : s == shape::SERVICE ? "services."
                                             : "global.start.";
    std::string body;
    for (const auto &v : key.values) {
      if (!known_value(s, v.first)) {
        skipped->push_back(key.name + "." + v.second.name);
        continue;
      }
      body += "\t" + v.first + " = " + value_text(v.second.text) + "\n";
    }
    if (!body.empty()) out += kind + name + ":\n" + body;
  };
  for (const applycfg_key *k : services) section(*k, shape::SERVICE);
  for (const applycfg_key *k : programs) section(*k, shape::PROGRAM);
  for (const auto &p : ports) section(*p.second, shape::PORT);
  return out;
}
