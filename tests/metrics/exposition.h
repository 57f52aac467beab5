// A reader of the text exposition format as strict as a collector's, for the tests: every
// line a comment, a HELP, a TYPE or a sample; names and label names of the format's
// letters; label values with only its three escapes; values that are numbers; HELP and
// TYPE at most once per family and before its samples; a family's samples together; no
// sample twice; a histogram's buckets cumulative up to +Inf, which equals its count.
#pragma once
#include <cstdlib>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace expo {

struct parsed {
  std::string error;  // the first fault, with its line; "" for a whole, valid text
  std::map<std::string, std::string> types;  // family -> its TYPE
  std::map<std::string, double> samples;     // "name{labels as written}" -> value
};

inline bool name_char(char c, bool first) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' || c == ':' ||
         (!first && c >= '0' && c <= '9');
}

// A metric or label name at text[at]; its end in *end, false when there is none.
inline bool read_name(const std::string &text, size_t at, size_t *end) {
  size_t i = at;
  while (i < text.size() && name_char(text[i], i == at)) i++;
  *end = i;
  return i > at;
}

inline bool read_value(const std::string &text, double *value) {
  if (text == "+Inf" || text == "-Inf" || text == "NaN") {
    *value = text == "NaN" ? 0 : text[0] == '+' ? 1e308 : -1e308;
    return true;
  }
  char *end = nullptr;
  *value = strtod(text.c_str(), &end);
  return !text.empty() && end == text.c_str() + text.size() &&
         text.find_first_of(" \t") == std::string::npos;
}

// The family a sample belongs to: a histogram's series carry a suffix.
inline std::string family_of(const std::string &name,
                             const std::map<std::string, std::string> &types) {
  for (const char *suffix : {"_bucket", "_sum", "_count"}) {
    std::string s = suffix;
    if (name.size() > s.size() && name.compare(name.size() - s.size(), s.size(), s) == 0) {
      auto it = types.find(name.substr(0, name.size() - s.size()));
      if (it != types.end() && it->second == "histogram") return it->first;
    }
  }
  return name;
}

inline parsed parse(const std::string &text) {
  parsed out;
  auto fail = [&](int line, const std::string &why) {
    if (out.error.empty()) out.error = std::to_string(line) + ": " + why;
  };
  if (text.empty()) return out;
  if (text.back() != '\n') fail(0, "the text does not end with a line end");
  std::set<std::string> helped, finished;
  std::string current;  // the family whose samples came last
  // Per histogram and label set (le left out): its buckets in order, and its count.
  std::map<std::string, std::vector<std::pair<double, double>>> buckets;
  std::map<std::string, double> counts;
  size_t at = 0;
  for (int number = 1; at < text.size(); number++) {
    size_t end = text.find('\n', at);
    if (end == std::string::npos) end = text.size();
    std::string line = text.substr(at, end - at);
    at = end + 1;
    if (line.empty()) continue;
    if (line[0] == '#') {
      std::string kind = line.substr(0, 7);
      if (kind != "# HELP " && kind != "# TYPE ") continue;  // a plain comment
      size_t nameend;
      if (!read_name(line, 7, &nameend) || nameend >= line.size() || line[nameend] != ' ') {
        fail(number, "bad " + kind);
        continue;
      }
      std::string name = line.substr(7, nameend - 7), rest = line.substr(nameend + 1);
      if (finished.count(name) || current == name) fail(number, kind + "after samples of " + name);
      if (kind == "# HELP ") {
        if (!helped.insert(name).second) fail(number, "second HELP of " + name);
      } else {
        if (out.types.count(name)) fail(number, "second TYPE of " + name);
        if (rest != "counter" && rest != "gauge" && rest != "histogram" && rest != "summary" &&
            rest != "untyped")
          fail(number, "unknown type " + rest);
        out.types[name] = rest;
      }
      continue;
    }
    size_t nameend;
    if (!read_name(line, 0, &nameend)) {
      fail(number, "no metric name: " + line);
      continue;
    }
    std::string name = line.substr(0, nameend), labels, le;
    size_t i = nameend;
    if (i < line.size() && line[i] == '{') {
      std::set<std::string> labelnames;
      i++;
      while (i < line.size() && line[i] != '}') {
        size_t lend;
        if (!read_name(line, i, &lend) || lend + 1 >= line.size() || line[lend] != '=' ||
            line[lend + 1] != '"') {
          fail(number, "bad label in " + line);
          break;
        }
        std::string lname = line.substr(i, lend - i), value;
        if (!labelnames.insert(lname).second) fail(number, "label " + lname + " twice");
        size_t j = lend + 2;
        for (; j < line.size() && line[j] != '"'; j++) {
          if (line[j] == '\\') {
            char e = j + 1 < line.size() ? line[++j] : 0;
            if (e != '\\' && e != '"' && e != 'n') fail(number, "bad escape in " + line);
            value += e == 'n' ? '\n' : e;
          } else {
            value += line[j];
          }
        }
        if (j >= line.size()) {
          fail(number, "label value not closed: " + line);
          break;
        }
        if (lname == "le")
          le = value;
        else
          labels += (labels.empty() ? "" : ",") + lname + "=\"" + value + "\"";
        i = j + 1;
        if (i < line.size() && line[i] == ',') i++;
      }
      if (i >= line.size()) {
        fail(number, "labels not closed: " + line);
        continue;
      }
      i++;
    }
    if (i >= line.size() || line[i] != ' ') {
      fail(number, "no value: " + line);
      continue;
    }
    std::string valuetext = line.substr(i + 1);
    double value;
    if (!read_value(valuetext, &value)) fail(number, "bad value: " + line);
    std::string family = family_of(name, out.types);
    if (!out.types.count(family)) fail(number, "sample before the TYPE of " + family);
    if (family != current) {
      if (finished.count(family)) fail(number, "samples of " + family + " apart");
      if (!current.empty()) finished.insert(current);
      current = family;
    }
    std::string key = name + "{" + labels + (le.empty() ? "" : ",le=" + le) + "}";
    if (!out.samples.emplace(key, value).second) fail(number, "second sample " + key);
    if (name == family + "_bucket") {
      double bound = le == "+Inf" ? 1e308 : strtod(le.c_str(), nullptr);
      auto &list = buckets[family + "{" + labels + "}"];
      if (!list.empty() && (bound <= list.back().first || value < list.back().second))
        fail(number, "buckets not cumulative: " + line);
      list.push_back({bound, value});
    } else if (name == family + "_count") {
      counts[family + "{" + labels + "}"] = value;
    }
  }
  for (const auto &b : buckets)
    if (b.second.back().first != 1e308 || !counts.count(b.first) ||
        counts[b.first] != b.second.back().second)
      fail(0, "histogram " + b.first + " without +Inf equal to its count");
  return out;
}

}  // namespace expo
