#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "control/cmd.h"
#include "lib/dstr.h"
#include "toolkit/runtime/error.h"

namespace {

struct split_case {
  const char *line;
  std::vector<std::string> words;
};

std::vector<std::string> split(const char *text, int *count = nullptr) {
  char line[CMD_LINE + 1];
  snprintf(line, sizeof line, "%s", text);
  char *vector[CMD_MAXWORDS];
  int n = cmd_split(line, vector);
  if (count) *count = n;
  std::vector<std::string> out;
  for (int i = 0; i < n && i < CMD_MAXWORDS; i++) out.push_back(vector[i]);
  return out;
}

TEST(CmdSplit, Table) {
  const split_case cases[] = {
      {"ls", {"ls"}},
      {"  \tls", {"ls"}},
      {"", {""}},
      {" \t  ", {""}},
      {"disable 25", {"disable", "25"}},
      {"a\tb", {"a", "b"}},
      {"a  \t b", {"a", "b"}},
      {"a ", {"a", ""}},
      {"a \t", {"a", ""}},
      {"\"a b\" c", {"a b", "c"}},
      {"ab\"c d\"e", {"abc de"}},
      {"\"\"", {""}},
      {"a \"\" b", {"a", "", "b"}},
      {"a\\ b", {"a b"}},
      {"a\\\\b", {"a\\b"}},
      {"a\\\"b", {"a\"b"}},
      {"\"a\\\"b\"", {"a\"b"}},
      {"\"in\\\\side\"", {"in\\side"}},
      {"end\\", {"end"}},
      {"\"unmatched rest  of\tline", {"unmatched rest  of\tline"}},
      {"quit\n", {"quit\n"}},
      {"add -p 99 -- \"x y\" -v", {"add", "-p", "99", "--", "x y", "-v"}},
  };
  for (const split_case &c : cases) {
    int count = 0;
    std::vector<std::string> got = split(c.line, &count);
    EXPECT_EQ(count, static_cast<int>(c.words.size())) << "line: [" << c.line << "]";
    EXPECT_EQ(got, c.words) << "line: [" << c.line << "]";
  }
}

TEST(CmdSplit, MoreWordsThanTheVectorAreRefusedWithoutWritingPastIt) {
  std::string twenty, more;
  for (int i = 0; i < CMD_MAXWORDS; i++) twenty += (i ? " w" : "w") + std::to_string(i);
  more = twenty + " extra and more";
  struct {
    char *vector[CMD_MAXWORDS];
    char *guard[4];
  } v;
  for (char *&g : v.guard) g = nullptr;

  char line[CMD_LINE + 1];
  snprintf(line, sizeof line, "%s", twenty.c_str());
  EXPECT_EQ(cmd_split(line, v.vector), CMD_MAXWORDS);
  EXPECT_STREQ(v.vector[CMD_MAXWORDS - 1], "w19");

  snprintf(line, sizeof line, "%s", more.c_str());
  EXPECT_EQ(cmd_split(line, v.vector), CMD_MAXWORDS + 1);
  EXPECT_STREQ(v.vector[0], "w0");
  EXPECT_STREQ(v.vector[CMD_MAXWORDS - 1], "w19");
  for (char *g : v.guard) EXPECT_EQ(g, nullptr);

  // A line of blanks and backslashes only: the longest a line can be, nothing past it.
  std::string blanks(CMD_LINE, ' ');
  snprintf(line, sizeof line, "%s", blanks.c_str());
  EXPECT_EQ(cmd_split(line, v.vector), 1);
  EXPECT_STREQ(v.vector[0], "");
}

}  // namespace

namespace {

TEST(CmdAddArgs, Table) {
  struct {
    const char *line;
    int result;  // extra words, or KIV_EINVAL for the usage reply
    int port;
    const char *pid;
    const char *extra;
  } cases[] = {
      {"add", KIV_EINVAL, 0, nullptr, ""},
      {"add -p 0", KIV_EINVAL, 0, nullptr, ""},
      {"add -p x", KIV_EINVAL, 0, nullptr, ""},
      {"add -i 5", KIV_EINVAL, 0, "5", ""},
      {"add -x -p 99", KIV_EINVAL, 0, nullptr, ""},
      {"add -p 99 -x", KIV_EINVAL, 99, nullptr, ""},
      {"add -p 99", 0, 99, nullptr, ""},
      {"add -p99abc", 0, 99, nullptr, ""},
      {"add -p 1 -p 99", 0, 99, nullptr, ""},
      {"add -p 99 -i", 0, 99, nullptr, ""},  // a value-less option at the end is ignored
      {"add -p 99 -- prog -v", 2, 99, nullptr, "prog -v"},
      {"add -p 99 prog -v", 2, 99, nullptr, "prog -v"},
      {"add -p 99 -i 1234 -- \"a b\"  c", 2, 99, "1234", "a b c"},
      {"add -i 1 -i 77 -p 5 -- -x", 1, 5, "77", "-x"},
  };
  for (auto &c : cases) {
    char line[CMD_LINE + 1];
    snprintf(line, sizeof line, "%s", c.line);
    char *words[CMD_MAXWORDS];
    int n = cmd_split(line, words);
    int port = -1;
    const char *pid = "unset";
    dstr extra;
    dstr_init(&extra);
    EXPECT_EQ(cmd_addargs(n, words, &port, &pid, &extra), c.result) << c.line;
    if (c.result != KIV_EINVAL) {
      EXPECT_EQ(port, c.port) << c.line;
      EXPECT_STREQ(pid, c.pid) << c.line;
    }
    EXPECT_STREQ(extra.buffer, c.extra) << c.line;
    dstr_free(&extra, 0);
  }
}

}  // namespace
