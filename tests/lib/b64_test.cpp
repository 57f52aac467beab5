#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "lib/b64.h"

TEST(Base64, VectorsAndRefusals) {
  struct { std::string in; const char *out; } cases[] = {
      {"", ""}, {"f", "Zg=="}, {"fo", "Zm8="}, {"foo", "Zm9v"}, {"foobar", "Zm9vYmFy"}, {"\xff\xff\xff", "////"},
      {std::string("\0\xfb\xef", 3), "APvv"}};
  char out[32];
  for (const auto &c : cases) {
    memset(out, 'X', sizeof out);
    int n = b64_encode(c.in.data(), static_cast<int>(c.in.size()), out);
    ASSERT_TRUE(n >= 0 && n < 30) << n;
    EXPECT_EQ(std::string(c.out) + '\0' + 'X', std::string(out, static_cast<size_t>(n) + 2));  // nothing past the zero
  }
  EXPECT_EQ(0, b64_encode("abc", -3, out));
  EXPECT_STREQ("", out);
  EXPECT_EQ(-1, b64_encode(nullptr, 3, out));
}
