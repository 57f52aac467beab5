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

TEST(Conf, ParsesLinesOrGivesTheLineAndTheText) {
  struct {
    const char *text, *calls, *error;  // error empty: success
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
      {"  k = \"abc\n", "", "1: missing end quote"},
      {"  a..b = 1\n", "", "1: zero length name"},
      {"  = v\n", "", "1: zero length name"},
      // Blank and comment lines count; nothing after the failing line is read.
      {"# c\n\n  # x\nsec:\n  nokey\n  k = v\n", "sec|(null)|.P|0;", "5: \"=\" expected"},
  };
  for (const auto &c : cases) {
    calls.clear();
    FILE *f = fopen(tempfile("conf.cfg", c.text).c_str(), "r");
    char *error = nullptr;
    int rc = kivconf_parse(f, record, ".P", &error);
    fclose(f);
    EXPECT_EQ(*c.error ? -1 : 0, rc) << c.text;
    EXPECT_EQ(c.calls, calls) << c.text;
    EXPECT_EQ(c.error, std::string(error ? error : "")) << c.text;
    xfree(error);
  }
}

TEST(Conf, ReadFile) {
  EXPECT_EQ(KIV_EACCES, kivconf_readfile(".P", "/nonexistent/kivconf/none.cfg", record));
  EXPECT_EQ(0, kivconf_readfile(".m", tempfile("conf.cfg", "sec:\n  k = v\n").c_str(), record));
  EXPECT_EQ(KIV_EFTYPE,
            kivconf_readfile(".m", tempfile("conf.cfg", "sec:\n  broken\n").c_str(), record));
}

// The parser with the heap failing at every point in turn: a refusal ends the parse with
// -1 and "<line>: out of memory" (or no text when that copy is refused too), every call
// made before it is one the complete parse makes too, and nothing leaks.
TEST(ConfOutOfMemory, ParseStopsCleanlyAtEveryRefusal) {
  std::string text = "# agents\nglobal:\n  port = 25\n  name = \"two\\tparts\"\n  long = " +
                     std::string(200, 'L') + "\nt.s25:\r\n\tservice = smtp\n" +
                     std::string(40, 's') + ":\n  " + std::string(60, 'n') + " = v\n";
  std::string path = tempfile("conf.cfg", text);
  calls.clear();
  FILE *f = fopen(path.c_str(), "r");
  ASSERT_EQ(0, kivconf_parse(f, record, ".P", nullptr));
  fclose(f);
  const std::string full = calls;
  int points = failpoints(".cfg reader: eight lines, long values and names", [&] {
    calls.clear();
    FILE *in = fopen(path.c_str(), "r");
    char *error = nullptr;
    int rc = kivconf_parse(in, record, ".P", &error);
    xheap_failafter(-1);
    fclose(in);
    std::string message = error ? error : "";
    xfree(error);
    if (rc == 0) {
      EXPECT_EQ(full, calls);
      EXPECT_EQ("", message);
      return true;
    }
    EXPECT_EQ(-1, rc);
    // The seam refuses every allocation after the n-th, the error text's copy too.
    EXPECT_TRUE(message.empty() || message.find(": out of memory") != std::string::npos) << message;
    EXPECT_EQ(full.substr(0, calls.size()), calls);
    return false;
  });
  EXPECT_GE(points, 6);  // two texts, and the long line and the long names grow them
}

}  // namespace
