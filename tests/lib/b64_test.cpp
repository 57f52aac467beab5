#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "lib/b64.h"
#include "toolkit/runtime/error.h"

namespace {
TEST(Base64, KnownVectors) {
  struct {
    std::string in;
    const char *out;
  } cases[] = {
      {"", ""},         {"f", "Zg=="},         {"fo", "Zm8="},          {"foo", "Zm9v"},
      {"foob", "Zm9vYg=="}, {"fooba", "Zm9vYmE="}, {"foobar", "Zm9vYmFy"}, {"abc", "YWJj"},
      {"a", "YQ=="},    {"ab", "YWI="},        {"\xff\xff\xff", "////"}, {std::string("\0\xfb\xef", 3), "APvv"},
  };
  for (const auto &c : cases) {
    char out[32];
    memset(out, 'X', sizeof out);
    int n = b64_encode(c.in.data(), static_cast<int>(c.in.size()), out);
    EXPECT_EQ(static_cast<int>(strlen(c.out)), n) << c.out;
    EXPECT_STREQ(c.out, out);
    EXPECT_EQ('X', out[n + 1]) << c.out;  // exactly the text and its terminator
    EXPECT_EQ(n, kiv_b64encode(c.in.data(), static_cast<int>(c.in.size()), out));
  }
}

TEST(Base64, Refusals) {
  char out[8] = "junk";
  EXPECT_EQ(0, b64_encode("abc", -3, out));
  EXPECT_STREQ("", out);
  EXPECT_EQ(-1, b64_encode(nullptr, 3, out));
  EXPECT_EQ(KIV_EINVAL, kiv_b64encode(nullptr, 3, out));
  EXPECT_EQ(-1, b64_encode("abc", 3, nullptr));
}
}  // namespace
