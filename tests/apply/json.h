// A small JSON reader for tests: kivctl's JSON output is parsed back and its fields
// checked, never compared as text. Values keep their kind; a parse failure is `ok` false.
#pragma once
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace kj {

struct value {
  enum kind_t { NUL, BOOL, NUMBER, STRING, ARRAY, OBJECT } kind = NUL;
  bool boolean = false;
  double number = 0;
  std::string text;
  std::vector<value> items;
  std::map<std::string, value> fields;
  const value &operator[](const std::string &key) const {
    static const value none;
    auto it = fields.find(key);
    return it == fields.end() ? none : it->second;
  }
  bool has(const std::string &key) const { return fields.count(key) != 0; }
};

class reader {
 public:
  explicit reader(const std::string &s) : s_(s) {}
  // The whole text as one value; ok() tells whether it was well-formed.
  value parse() {
    value v = any();
    blanks();
    if (at_ != s_.size()) ok_ = false;
    return v;
  }
  bool ok() const { return ok_; }

 private:
  void blanks() {
    while (at_ < s_.size() && (s_[at_] == ' ' || s_[at_] == '\n' || s_[at_] == '\r' || s_[at_] == '\t')) at_++;
  }
  bool eat(char c) {
    blanks();
    if (at_ < s_.size() && s_[at_] == c) return ++at_, true;
    return false;
  }
  bool word(const char *w) {
    std::string t(w);
    if (s_.compare(at_, t.size(), t) != 0) return false;
    at_ += t.size();
    return true;
  }
  std::string str() {
    std::string out;
    if (!eat('"')) return ok_ = false, out;
    while (at_ < s_.size() && s_[at_] != '"') {
      char c = s_[at_++];
      if (static_cast<unsigned char>(c) < 0x20) ok_ = false;
      if (c != '\\') {
        out += c;
        continue;
      }
      if (at_ >= s_.size()) break;
      char e = s_[at_++];
      const char *plain = "\"\\/bfnrt", *meant = "\"\\/\b\f\n\r\t";
      if (const char *p = strchr(plain, e); p && e) {
        out += meant[p - plain];
      } else if (e == 'u' && at_ + 4 <= s_.size()) {
        out += static_cast<char>(strtol(s_.substr(at_, 4).c_str(), nullptr, 16));
        at_ += 4;
      } else {
        ok_ = false;
      }
    }
    if (!eat('"')) ok_ = false;
    return out;
  }
  value any() {
    value v;
    blanks();
    if (at_ >= s_.size()) return ok_ = false, v;
    char c = s_[at_];
    if (c == '{') {
      v.kind = value::OBJECT;
      at_++;
      if (eat('}')) return v;
      do {
        std::string key = str();
        if (!eat(':')) ok_ = false;
        v.fields[key] = any();
      } while (ok_ && eat(','));
      if (!eat('}')) ok_ = false;
    } else if (c == '[') {
      v.kind = value::ARRAY;
      at_++;
      if (eat(']')) return v;
      do v.items.push_back(any());
      while (ok_ && eat(','));
      if (!eat(']')) ok_ = false;
    } else if (c == '"') {
      v.kind = value::STRING;
      v.text = str();
    } else if (word("true") || word("false")) {
      v.kind = value::BOOL;
      v.boolean = s_[at_ - 1] == 'e' && s_[at_ - 2] == 'u';
    } else if (word("null")) {
      v.kind = value::NUL;
    } else {
      char *end = nullptr;
      v.kind = value::NUMBER;
      v.number = strtod(s_.c_str() + at_, &end);
      if (end == s_.c_str() + at_) ok_ = false;
      at_ = static_cast<size_t>(end - s_.c_str());
    }
    return v;
  }
  std::string s_;
  size_t at_ = 0;
  bool ok_ = true;
};

}  // namespace kj
