#include <string>

#include <gtest/gtest.h>

#include "lib/strvec.h"
#include "lib/unescape.h"

// Heap refusals: the out-of-memory run in oom_test.cpp.
TEST(Strvec, AppendCopies) {
  char text[] = "x";
  char **vec = vecapp(nullptr, text);
  ASSERT_NE(nullptr, vec);
  text[0] = 'q';  // the vector holds its own copy
  vec = vecapp(vec, "");
  EXPECT_STREQ("x", vec[0]);
  EXPECT_STREQ("", vec[1]);
  EXPECT_EQ(nullptr, vec[2]);
  vecfree(vec);
}

TEST(Unescape, Table) {
  struct { std::string in, out; } cases[] = {
      {"a\\tb\\101\\", "a\tbA"}, {"\\q", "q"}, {"", ""}, {"\\a\\b\\e\\f\\n\\r\\t", "\a\b\x1b\f\n\r\t"},
      {"\\\\\\\"\\v", "\\\"v"},  {"\\19", "\x11"}, {"\\999", std::string(1, static_cast<char>(657 % 256))},
      {"\\1234", "S4"},          {"\\7x", "\ax"},  {"\\0", std::string(1, '\0')},
  };
  for (const auto &c : cases) {
    std::string buffer = c.in;
    int n = unescape(&buffer[0]);
    EXPECT_EQ(c.out, buffer.substr(0, static_cast<size_t>(n > 0 ? n : 0))) << c.in;
    EXPECT_EQ('\0', buffer.c_str()[n]) << c.in;
  }
  EXPECT_EQ(-1, unescape(nullptr));
}
