
#include <gtest/gtest.h>

#include "lib/heap.h"
#include "lib/strcase.h"

// The status word is set to 0 exactly when xrealloc hands back no block; callers that
// test it after a series of copies rely on success leaving it alone.
TEST(Heap, StatusWordIsClearedOnlyWhenNoBlockComesBack) {
  struct {
    const char *what;
    void *(*call)(int *status);
    int status;  // afterwards, from 7
    bool block;
  } cases[] = {
      {"allocation", [](int *st) { return xrealloc(nullptr, 8, st); }, 7, true},
      {"refused allocation", [](int *st) { xheap_failafter(0); return xrealloc(nullptr, 8, st); }, 0, false},
      {"size 0 releases", [](int *st) { return xrealloc(xrealloc(nullptr, 8, nullptr), 0, st); }, 0, false},
      {"text copy", [](int *st) { return static_cast<void *>(xstrdup("abc", st)); }, 7, true},
      {"refused text copy", [](int *st) { xheap_failafter(0); return static_cast<void *>(xstrdup("abc", st)); }, 0, false},
      {"no text", [](int *st) { return static_cast<void *>(xstrdup(nullptr, st)); }, 7, false},
      {"byte copy", [](int *st) { return memdup("abc", 3, st); }, 7, true},
      {"refused byte copy", [](int *st) { xheap_failafter(0); return memdup("abc", 3, st); }, 0, false},
      {"no bytes", [](int *st) { return memdup("abc", 0, st); }, 7, false},
  };
  for (const auto &c : cases) {
    int status = 7;
    void *block = c.call(&status);
    xheap_failafter(-1);
    EXPECT_EQ(c.status, status) << c.what;
    EXPECT_EQ(c.block, block != nullptr) << c.what;
    xfree(block);
  }
}

TEST(Strcase, FoldsOnlyAsciiLettersAndAnswersTheFoldedDifference) {
  struct {
    const char *a, *b;
    size_t count;
    int result;
  } cases[] = {
      {"Port", "pORT", 4, 0},       {"abc", "abd", 2, 0},         {"abc", "abd", 3, -1},
      {"a", "B", 1, -1},            {"[", "a", 1, 91 - 97},       {"A", "[", 1, 97 - 91},
      {"@", "`", 1, 64 - 96},       {"Z", "z", 1, 0},             {"[", "{", 1, 91 - 123},
      {"\xC4", "\xE4", 1, 0xC4 - 0xE4}, {"\xC4", "a", 1, 0xC4 - 97}, {"x", "y", 0, 0},
      {"", "", 5, 0},               {"ab", "abc", 5, -'c'},       {"abc", "AB", 5, 'c'},
      {"ab\0x", "AB\0y", 4, 0},
  };
  for (const auto &c : cases)
    EXPECT_EQ(c.result, xstrncasecmp(c.a, c.b, c.count)) << '"' << c.a << "\" \"" << c.b << "\" " << c.count;
}
