#include <string>

#include "tests/lib/testing.h"
#include "toolkit/config/conf.h"
#include "toolkit/runtime/error.h"

namespace {

std::string calls;  // what the add function saw, one "name|value|prefix|letter;" a call

int record(const char *name, const char *value, const char *prefix, int letter) {
  calls += std::string(name) + "|" + (value ? value : "(null)") + "|" + prefix + "|" +
           (letter ? std::string(1, char(letter)) : "0") + ";";
  return 0;
}

// Each text is parsed whole, then again with the heap failing at every point in turn: a
// refusal ends the parse with -1 and "<line>: out of memory" (or no text when that copy is
// refused too), every call made before it is one the complete parse makes too, and
// nothing leaks.
TEST(Conf, ParsesLinesOrGivesTheLineAndTheText) {
  std::string value(200, 'L'), section(40, 's'), name(60, 'n');
  struct {
    std::string text, calls;
    const char *error;  // empty: success
  } cases[] = {
      {"# only\n\n   \n\t# comments\n", "", ""},
      {"g:\n  port = 25\n  b = \"two\\tparts\"\nt.s25:\n\tservice = smtp\n",
       "g|(null)|.P|0;g.port|25|.P|s;g.b|two\tparts|.P|s;t.s25|(null)|.P|0;t.s25.service|smtp|.P|"
       "s;",
       ""},
      {"  x = 1\nb: whatever\n  z.w = 3\n", "x|1|.P|s;b|(null)|.P|0;b.z.w|3|.P|s;", ""},
      {"  key =\n  k2 = \"\"\n  k3 = \"\n", "key||.P|s;k2||.P|s;k3||.P|s;", ""},
      {"  k =   padded  \t\n  q = \"  w  \"  \n", "k|padded|.P|s;q|  w  |.P|s;", ""},
      {"  k = a#b\n  u = a\\n\"b\"\n", "k|a#b|.P|s;u|a\\n\"b\"|.P|s;", ""},
      {"  k = \"a\\x\"\n  n = \"\\101\"\n  e = \"ab\\\"\n", "k|ax|.P|s;n|A|.P|s;e|ab|.P|s;", ""},
      {"  a . b = 1\n  a  \t b=2\n", "a.b|1|.P|s;a b|2|.P|s;", ""},
      {"s :\n  k = v", "s|(null)|.P|0;s.k|v|.P|s;", ""},  // last line without a line feed
      {"sec:\r\n  k = v\r\n", "sec|(null)|.P|0;sec.k|v|.P|s;", ""},
      {"port = 25\n", "", "1: \":\" expected"},
      {"time = 12:30\n", "", "1: bad char (=) in name."},
      {"  a\"b = 1\n", "", "1: bad char (\") in name."},
      {":x\n", "", "1: syntax error"},
      {"  k = \"a\n", "", "1: missing end quote"},  // two characters: the shortest refused
      {"  a..b = 1\n", "", "1: zero length name"},
      {"  = v\n", "", "1: zero length name"},
      // Blank and comment lines count; nothing after the failing line is read.
      {"# c\n\n  # x\nsec:\n  nokey\n  k = v\n", "sec|(null)|.P|0;", "5: \"=\" expected"},
      // Long values and names grow the reader's texts.
      {"g:\n  long = " + value + "\n" + section + ":\n  " + name + " = v\n",
       "g|(null)|.P|0;g.long|" + value + "|.P|s;" + section + "|(null)|.P|0;" + section + "." +
           name + "|v|.P|s;",
       ""},
  };
  int points = 0;
  for (const auto &c : cases) {
    std::string path = tempfile("conf.cfg", c.text), message;
    auto parse = [&] {
      calls.clear();
      FILE *f = fopen(path.c_str(), "r");
      char *error = nullptr;
      int rc = kivconf_parse(f, record, ".P", &error);
      xheap_failafter(-1);
      fclose(f);
      message = error ? error : "";
      xfree(error);
      return rc;
    };
    int complete = *c.error ? -1 : 0;
    EXPECT_EQ(complete, parse()) << c.text;
    EXPECT_EQ(c.calls, calls) << c.text;
    EXPECT_EQ(c.error, message) << c.text;
    points += failpoints(".cfg reader", [&] {
      int rc = parse();
      if (rc == complete && message == c.error) {
        EXPECT_EQ(c.calls, calls) << c.text;
        return true;
      }
      EXPECT_EQ(-1, rc) << c.text;
      EXPECT_TRUE(message.empty() || message.find(": out of memory") != std::string::npos)
          << message;
      EXPECT_EQ(c.calls.substr(0, calls.size()), calls) << c.text;
      return false;
    });
  }
  EXPECT_GE(points, 40);
}

TEST(Conf, ReadFile) {
  EXPECT_EQ(KIV_EACCES, kivconf_readfile(".P", "/nonexistent/kivconf/none.cfg", record));
  EXPECT_EQ(0, kivconf_readfile(".m", tempfile("conf.cfg", "sec:\n  k = v\n").c_str(), record));
  EXPECT_EQ(KIV_EFTYPE,
            kivconf_readfile(".m", tempfile("conf.cfg", "sec:\n  broken\n").c_str(), record));
}

}  // namespace
