// The one home of word splitting and of the options of "add": what the server and
// kivctl make of a line is asserted here and nowhere else.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "control/cmd.h"
#include "lib/dstr.h"
#include "toolkit/runtime/error.h"

namespace {

std::string words(int n, const char *tail = "") {
  std::string s;
  for (int i = 0; i < n; i++) s += (i ? " w" : "w") + std::to_string(i);
  return s + tail;
}
// What the vector holds of a long line: w0 ... w18 and the twentieth word.
std::vector<std::string> held(const char *last = "w19") {
  std::vector<std::string> v;
  for (int i = 0; i < CMD_MAXWORDS - 1; i++) v.push_back("w" + std::to_string(i));
  v.push_back(last);
  return v;
}

// The count, and the words the vector holds (at most CMD_MAXWORDS); a guard behind the
// vector must stay untouched.
TEST(CmdSplit, Table) {
  struct {
    std::string line;
    int count;
    std::vector<std::string> words;
  } cases[] = {
      {"ls", 1, {"ls"}},
      {"  \tls", 1, {"ls"}},
      {"", 1, {""}},
      {" \t  ", 1, {""}},
      {"disable 25", 2, {"disable", "25"}},
      {"a\tb", 2, {"a", "b"}},
      {"a  \t b", 2, {"a", "b"}},
      {"a ", 2, {"a", ""}},
      {"a \t", 2, {"a", ""}},
      {"\"a b\" c", 2, {"a b", "c"}},
      {"ab\"c d\"e", 1, {"abc de"}},
      {"\"\"", 1, {""}},
      {"a \"\" b", 3, {"a", "", "b"}},
      {"a\\ b", 1, {"a b"}},
      {"a\\\\b", 1, {"a\\b"}},
      {"a\\\"b", 1, {"a\"b"}},
      {"\"a\\\"b\"", 1, {"a\"b"}},
      {"\"in\\\\side\"", 1, {"in\\side"}},
      {"end\\", 1, {"end"}},
      {"quit\n", 1, {"quit\n"}},
      {"\"unmatched rest  of\tline", 1, {"unmatched rest  of\tline"}},
      {"add -p 99 -- \"x y\" -v", 6, {"add", "-p", "99", "--", "x y", "-v"}},
      {std::string(CMD_LINE, ' '), 1, {""}},  // the longest line, blanks only
      // Exactly as many words as the vector holds; one more (a trailing blank starts an
      // empty one) is refused, the vector holding the first ones.
      {words(20), 20, held()},
      {words(20, " "), 21, held()},
      {words(21), 21, held()},
      {words(19, " \"w19 x\""), 20, held("w19 x")},
      {words(19, " w19\\ x"), 20, held("w19 x")},
      {words(20, " \"\""), 21, held()},
      {words(23), 21, held()},
  };
  for (auto &c : cases) {
    char line[CMD_LINE + 1];
    snprintf(line, sizeof line, "%s", c.line.c_str());
    struct {
      char *vector[CMD_MAXWORDS], *guard[4];
    } v = {};
    int n = cmd_split(line, v.vector);
    EXPECT_EQ(c.count, n) << "line: [" << c.line << "]";
    std::vector<std::string> got(v.vector, v.vector + std::min(n, CMD_MAXWORDS));
    EXPECT_EQ(c.words, got) << "line: [" << c.line << "]";
    for (char *g : v.guard) EXPECT_EQ(nullptr, g) << c.line;
  }
}

TEST(CmdAddArgs, Table) {
  struct {
    const char *line;
    int result;  // extra words, or KIV_EINVAL for the usage reply
    int port;
    const char *pid, *extra;
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
      {"add -p 9 -- a\\ b \"c\\\"\" d e f g h i j k l m n o p q", 16, 9, nullptr,
       "a b c\" d e f g h i j k l m n o p q"},  // 20 words
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
    EXPECT_EQ(c.result, cmd_addargs(n, words, &port, &pid, &extra)) << c.line;
    if (c.result != KIV_EINVAL) {
      EXPECT_EQ(c.port, port) << c.line;
      EXPECT_STREQ(c.pid, pid) << c.line;
    }
    EXPECT_STREQ(c.extra, extra.buffer) << c.line;
    dstr_free(&extra, 0);
  }
}

}  // namespace
