#include <string>

#include <gtest/gtest.h>

#include "lib/heap.h"
#include "lib/strvec.h"
#include "lib/unescape.h"

namespace {
TEST(Strvec, AppendCopiesAndKeepsTheOldVectorOnFailure) {
  char text[] = "x";
  char **vec = vecapp(nullptr, text);
  ASSERT_NE(nullptr, vec);
  text[0] = 'q';  // the vector holds its own copy
  EXPECT_STREQ("x", vec[0]);
  EXPECT_EQ(nullptr, vec[1]);
  for (const char *t : {"b", "c", ""}) {
    vec = vecapp(vec, t);
    ASSERT_NE(nullptr, vec);
  }
  EXPECT_STREQ("c", vec[2]);
  EXPECT_STREQ("", vec[3]);
  EXPECT_EQ(nullptr, vec[4]);

  // Fails on the copy, then on the resize: each time the old vector is intact.
  for (long n : {0L, 1L}) {
    xheap_failafter(n);
    EXPECT_EQ(nullptr, vecapp(vec, "d")) << n;
    xheap_failafter(-1);
    EXPECT_STREQ("c", vec[2]);
    EXPECT_EQ(nullptr, vec[4]);
  }
  EXPECT_EQ(nullptr, vecapp(vec, nullptr));
  vecfree(vec);
  vecfree(nullptr);
}

TEST(Unescape, Table) {
  struct {
    std::string in;
    std::string out;
  } cases[] = {
      {"a\\tb\\101\\", "a\tbA"},
      {"\\q", "q"},
      {"", ""},
      {"plain", "plain"},
      {"\\a\\b\\e\\f\\n\\r\\t", "\a\b\x1b\f\n\r\t"},
      {"\\\\\\\"\\v", "\\\"v"},
      {"\\19", std::string(1, 17)},
      {"\\999", std::string(1, static_cast<char>(657 % 256))},
      {"\\400", std::string(1, '\0')},
      {"\\1234", "S4"},
      {"\\7x", "\ax"},
      {"\\0", std::string(1, '\0')},
      {"\\", ""},
  };
  for (const auto &c : cases) {
    std::string buffer = c.in;
    int n = unescape(&buffer[0]);
    EXPECT_EQ(static_cast<int>(c.out.size()), n) << c.in;
    EXPECT_EQ(c.out, buffer.substr(0, static_cast<size_t>(n > 0 ? n : 0))) << c.in;
    EXPECT_EQ('\0', buffer.c_str()[n]) << c.in;
  }
  EXPECT_EQ(-1, unescape(nullptr));
}
}  // namespace
