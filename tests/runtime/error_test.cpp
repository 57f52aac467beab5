#include <climits>

#include <gtest/gtest.h>

#include "toolkit/runtime/base64.h"
#include "toolkit/runtime/error.h"

// The ends of the table and the first codes past them: an off-by-one in the lookup
// shifts or drops the end entries; a copy-paste slip shows as two codes with one text.
TEST(Error, TableEndsCodesOutsideItAndDistinctTexts) {
  for (int a = 0; a > -KIV_NCODES; a--)
    for (int b = a - 1; b > -KIV_NCODES; b--) {
      EXPECT_STRNE(kiv_errname(a), kiv_errname(b)) << a << " " << b;
      EXPECT_STRNE(kiv_strerror(a), kiv_strerror(b)) << a << " " << b;
    }
  struct {
    int code;
    const char *name, *message;
  } cases[] = {
      {0, "OK", "OK"},
      {-1, "EINTERNAL", "Internal toolkit error"},
      {-31, "ENOPARENT", "Info node or value has no parent"},
      {-32, "UNKNOWN", "Unknown error code"},
      {-64, "UNKNOWN", "Unknown error code"},
      {1, "UNKNOWN", "Unknown error code"},
      {INT_MAX, "UNKNOWN", "Unknown error code"},
      {INT_MIN, "UNKNOWN", "Unknown error code"},
  };
  for (const auto &c : cases) {
    EXPECT_STREQ(c.name, kiv_errname(c.code)) << c.code;
    EXPECT_STREQ(c.message, kiv_strerror(c.code)) << c.code;
  }
}

// Its results otherwise: the library's own (the fuzz target compares them for every input).
TEST(Base64, ToolkitEntryPointTurnsARefusalIntoEINVAL) {
  char out[8];
  EXPECT_EQ(KIV_EINVAL, kiv_b64encode(nullptr, 3, out));
  EXPECT_EQ(KIV_EINVAL, kiv_b64encode("abc", 3, nullptr));
}
