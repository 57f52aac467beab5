// A small JSON reader for the tests that read kivctl's JSON output back field by field
// (the service and package tests). Values keep their kind; a parse failure is `ok` false.
#pragma once
#include <cstdlib>
#include <cstring>
#include <map>
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
    if (peek()) ok_ = false;
    return v;
  }
  bool ok() const { return ok_; }

 private:
  // The next character after blanks, or 0 at the end.
  char peek() {
    while (at_ < s_.size() &&
           (s_[at_] == ' ' || s_[at_] == '\n' || s_[at_] == '\r' || s_[at_] == '\t'))
      at_++;
    return at_ < s_.size() ? s_[at_] : 0;
  }
  bool eat(char c) { return peek() == c && ++at_; }
  void expect(char c) { ok_ = eat(c) && ok_; }
  bool word(const char *w) { return s_.compare(at_, strlen(w), w) == 0 && (at_ += strlen(w)); }
  std::string str() {
    std::string out;
    for (expect('"'); ok_ && at_ < s_.size() && s_[at_] != '"';) {
      char c = s_[at_++];
      const char *plain = "\"\\/bfnrt", *meant = "\"\\/\b\f\n\r\t", *p;
      if (static_cast<unsigned char>(c) < 0x20) ok_ = false;
      if (c != '\\') {
        out += c;
      } else if (at_ < s_.size() && s_[at_] && (p = strchr(plain, s_[at_]))) {
        out += meant[p - plain], at_++;
      } else if (s_.compare(at_, 1, "u") == 0 && at_ + 5 <= s_.size()) {
        out += static_cast<char>(strtol(s_.substr(at_ + 1, 4).c_str(), nullptr, 16)), at_ += 5;
      } else {
        ok_ = false;
      }
    }
    expect('"');
    return out;
  }
  value any() {
    value v;
    char c = peek();
    if (c == '{' || c == '[') {
      v.kind = c == '{' ? value::OBJECT : value::ARRAY;
      at_++;
      if (eat(c == '{' ? '}' : ']')) return v;
      do {
        if (c == '[') {
          v.items.push_back(any());
          continue;
        }
        std::string key = str();
        expect(':');
        v.fields[key] = any();
      } while (ok_ && eat(','));
      expect(c == '{' ? '}' : ']');
    } else if (c == '"') {
      v.kind = value::STRING;
      v.text = str();
    } else if (word("true") || word("false")) {
      v.kind = value::BOOL;
      v.boolean = s_[at_ - 1] == 'e' && s_[at_ - 2] == 'u';
    } else if (!word("null")) {
      char *end = nullptr;
      v.kind = value::NUMBER;
      v.number = strtod(s_.c_str() + at_, &end);
      ok_ = ok_ && end != s_.c_str() + at_;
      at_ = static_cast<size_t>(end - s_.c_str());
    }
    return v;
  }
  std::string s_;
  size_t at_ = 0;
  bool ok_ = true;
};

}  // namespace kj
