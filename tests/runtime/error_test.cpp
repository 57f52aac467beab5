#include <climits>

#include <gtest/gtest.h>

#include "toolkit/runtime/error.h"

TEST(Error, KnownCodesHaveTheirNameAndMessage) {
  struct {
    int code;
    const char *name;
    const char *message;
  } cases[] = {
      {KIV_OK, "OK", "OK"},
      {KIV_EINTERNAL, "EINTERNAL", "Internal toolkit error"},
      {KIV_ENOTFOUND, "ENOTFOUND", "Not found"},
      {KIV_EOF, "EOF", "End of data stream"},
      {KIV_EINVAL, "EINVAL", "Invalid argument"},
      {KIV_ESYS, "ESYS", "System error"},
      {KIV_EACCES, "EACCES", "Permission denied"},
      {KIV_ECONFIG, "ECONFIG", "Configuration error"},
      {KIV_ECERTBADKEYUSAGE, "ECERTBADKEYUSAGE", "Invalid certificate keyusage"},
      {KIV_ENODE, "ENODE", "Info node referenced as value"},
      {KIV_ENOPARENT, "ENOPARENT", "Info node or value has no parent"},
  };
  for (const auto &c : cases) {
    EXPECT_STREQ(c.name, kiv_errname(c.code)) << c.code;
    EXPECT_STREQ(c.message, kiv_strerror(c.code)) << c.code;
  }
}

TEST(Error, EveryCodeOfTheTableHasDistinctTexts) {
  for (int a = 0; a > -KIV_NCODES; a--)
    for (int b = a - 1; b > -KIV_NCODES; b--) {
      EXPECT_STRNE(kiv_errname(a), kiv_errname(b)) << a << " " << b;
      EXPECT_STRNE(kiv_strerror(a), kiv_strerror(b)) << a << " " << b;
    }
}

TEST(Error, CodesOutsideTheTableFallBack) {
  for (int code : {-32, -63, -64, 1, 12, INT_MAX, INT_MIN}) {
    EXPECT_STREQ("Unknown error code", kiv_strerror(code)) << code;
    EXPECT_STREQ("UNKNOWN", kiv_errname(code)) << code;
  }
}
