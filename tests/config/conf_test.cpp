#include <cstdio>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>

#include <gtest/gtest.h>

#include "lib/heap.h"
#include "toolkit/config/conf.h"
#include "toolkit/runtime/error.h"

namespace {

std::string calls;  // what the recording add function saw, one "name|value|prefix|letter;" a call
int addresult = 0;

int record(const char *name, const char *value, const char *prefix, int letter) {
  calls += std::string(name ? name : "(null)") + "|" + (value ? value : "(null)") + "|" +
           (prefix ? prefix : "(null)") + "|" + (letter ? std::string(1, char(letter)) : "0") +
           ";";
  return addresult;
}

// A file of exactly these bytes, written in binary and read by the parser in text mode.
struct tempfile {
  std::string path;
  explicit tempfile(const std::string &bytes) {
    path = (std::filesystem::temp_directory_path() /
            ("kivconf-" + std::to_string(std::random_device{}()) + ".cfg"))
               .string();
    FILE *f = fopen(path.c_str(), "wb");
    EXPECT_NE(nullptr, f) << path;
    if (f) {
      fwrite(bytes.data(), 1, bytes.size(), f);
      fclose(f);
    }
  }
  ~tempfile() { std::remove(path.c_str()); }
};

struct parsed {
  int rc;
  std::string calls, error;
};

parsed parse(const std::string &text, const char *prefix = ".P") {
  tempfile file(text);
  calls.clear();
  FILE *f = fopen(file.path.c_str(), "r");
  char *error = reinterpret_cast<char *>(1);  // must be cleared by the parser
  int rc = kivconf_parse(f, record, prefix, &error);
  fclose(f);
  parsed out{rc, calls, error ? error : ""};
  xfree(error);
  return out;
}

}  // namespace

TEST(Conf, ParsesLinesIntoAddCalls) {
  struct {
    const char *text, *calls;
  } cases[] = {
      {"# only comments\n\n   \n\t# indented comment\n  #\n", ""},
      {"global:\n  port = 25\n  banner = \"two\\tparts\"\ntcp.s25:\n\tservice = smtp\n#tcp.s26:\n",
       "global|(null)|.P|0;global.port|25|.P|s;global.banner|two\tparts|.P|s;"
       "tcp.s25|(null)|.P|0;tcp.s25.service|smtp|.P|s;"},
      {"  x = 1\na:\n  y = 2\nb: whatever = \"\n  z.w = 3\n",
       "x|1|.P|s;a|(null)|.P|0;a.y|2|.P|s;b|(null)|.P|0;b.z.w|3|.P|s;"},
      {"  key =\n  k2 = \"\"\n  k3 = \"\n", "key||.P|s;k2||.P|s;k3||.P|s;"},
      {"  k =   padded  \t\n  q = \"  w  \"  \n", "k|padded|.P|s;q|  w  |.P|s;"},
      {"  k = a#b\n  u = a\\n\"b\"\n", "k|a#b|.P|s;u|a\\n\"b\"|.P|s;"},
      {"  k = \"a\\x\"\n  n = \"\\101\"\n  e = \"ab\\\"\n", "k|ax|.P|s;n|A|.P|s;e|ab|.P|s;"},
      {"  a . b = 1\n  a  \t b=2\n  a\tb = 3\n", "a.b|1|.P|s;a b|2|.P|s;a\tb|3|.P|s;"},
      {"s :\n  k = v", "s|(null)|.P|0;s.k|v|.P|s;"},  // last line without a line feed
      {"sec:\r\n\r\n  k = v\r\n  q = \"x\"\r\n", "sec|(null)|.P|0;sec.k|v|.P|s;sec.q|x|.P|s;"},
  };
  for (const auto &c : cases) {
    parsed p = parse(c.text);
    EXPECT_EQ(0, p.rc) << c.text;
    EXPECT_EQ(c.calls, p.calls) << c.text;
    EXPECT_EQ("", p.error) << c.text;
  }
}

TEST(Conf, FailuresGiveTheLineAndTheText) {
  struct {
    const char *text, *error, *calls;
  } cases[] = {
      {"port = 25\n", "1: \":\" expected", ""},
      {"time = 12:30\n", "1: bad char (=) in name.", ""},
      {":x\n", "1: syntax error", ""},
      {"  nokey\n", "1: \"=\" expected", ""},
      {"  k = \"abc\n", "1: missing end quote", ""},
      {"  a..b = 1\n", "1: zero length name", ""},
      {"  .a = 1\n", "1: zero length name", ""},
      {"  a. = 1\n", "1: zero length name", ""},
      {"  = v\n", "1: zero length name", ""},  // an empty name is refused
      {"  a\"b = 1\n", "1: bad char (\") in name.", ""},
      {"  a\\b = 1\n", "1: bad char (\\) in name.", ""},
      {"  a\rb = 1\n", "1: bad char (\r) in name.", ""},
      // Blank and comment lines count; nothing after the failing line is read.
      {"# c\n\n  # x\nsec:\n  nokey\n  k = v\n", "5: \"=\" expected", "sec|(null)|.P|0;"},
  };
  for (const auto &c : cases) {
    parsed p = parse(c.text);
    EXPECT_EQ(-1, p.rc) << c.text;
    EXPECT_EQ(c.error, p.error) << c.text;
    EXPECT_EQ(c.calls, p.calls) << c.text;
  }
}

TEST(Conf, AddResultDoesNotStopTheFile) {
  addresult = KIV_ENOMEM;
  parsed p = parse("a:\n  b = 1\n  c = 2\n", nullptr);
  addresult = 0;
  EXPECT_EQ(0, p.rc);
  EXPECT_EQ("a|(null)|(null)|0;a.b|1|(null)|s;a.c|2|(null)|s;", p.calls);
}

TEST(Conf, CheckNameRewritesInPlace) {
  struct {
    const char *in, *out;  // out null: refused with error
    const char *error;
  } cases[] = {
      {"port", "port", nullptr},
      {"", "", nullptr},
      {"a . b", "a.b", nullptr},
      {"a.\t\r b", "a.b", nullptr},
      {"a \t\r\n b", "a b", nullptr},
      {" a", " a", nullptr},
      {"a  ", "a", nullptr},
      {"x_-/@%&:+~*.Z9", "x_-/@%&:+~*.Z9", nullptr},
      {"a. .b", nullptr, "7: zero length name"},
      {" .a", nullptr, "7: zero length name"},
      {"a .", nullptr, "7: zero length name"},
      {"a=b", nullptr, "7: bad char (=) in name."},
      {"a\vb", nullptr, "7: bad char (\v) in name."},
      {"a\xe9", nullptr, "7: bad char (\xe9) in name."},
  };
  for (const auto &c : cases) {
    std::string name = c.in;
    int length = -5;
    char *error = nullptr;
    int rc = conf_checkname(name.data(), &length, 7, &error);
    if (c.out) {
      EXPECT_EQ(0, rc) << c.in;
      EXPECT_STREQ(c.out, name.c_str()) << c.in;
      EXPECT_EQ(strlen(c.out), size_t(length)) << c.in;
      EXPECT_EQ(nullptr, error) << c.in;
    } else {
      EXPECT_EQ(-1, rc) << c.in;
      EXPECT_STREQ(c.error, error) << c.in;
    }
    xfree(error);
  }
}

TEST(Conf, ErrorTextIsCutAt255) {
  std::string message(400, 'm');
  char *error = nullptr;
  EXPECT_EQ(-1, conf_error(&error, 123, "%s", message.c_str()));
  ASSERT_NE(nullptr, error);
  EXPECT_EQ(255u, strlen(error));
  EXPECT_EQ("123: " + std::string(250, 'm'), error);
  xfree(error);
  EXPECT_EQ(-1, conf_error(nullptr, 1, "no place"));
}

TEST(Conf, ReadFile) {
  calls.clear();
  EXPECT_EQ(KIV_EACCES, kivconf_readfile(".P", "/nonexistent/kivconf/none.cfg", record));
  EXPECT_EQ(KIV_EACCES, kivconf_readfile(".P", nullptr, record));
  {
    tempfile good("sec:\n  k = v\n");
    EXPECT_EQ(0, kivconf_readfile(".m", good.path.c_str(), record));
  }
  {
    tempfile bad("sec:\n  k = v\n  broken\n");
    EXPECT_EQ(KIV_EFTYPE, kivconf_readfile(".m", bad.path.c_str(), record));
  }
  // What came before the failing line was reported all the same.
  EXPECT_EQ("sec|(null)|.m|0;sec.k|v|.m|s;sec|(null)|.m|0;sec.k|v|.m|s;", calls);
}

TEST(Conf, HeapFailuresAreRefusedCleanly) {
  std::string text = "sec.a:\n  k = v\n" + std::string(300, ' ') + "long = \"" +
                     std::string(500, 'x') + "\"\n  bad\n";
  for (long n = 0; n < 40; n++) {
    xheap_failafter(n);
    parsed p = parse(text);
    xheap_failafter(-1);
    EXPECT_EQ(-1, p.rc) << n;  // either the heap or line 4 stops it, never a short read
  }
}
