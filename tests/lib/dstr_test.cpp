#include <climits>
#include <string>

#include <gtest/gtest.h>

#include "lib/dstr.h"
#include "lib/heap.h"

TEST(Dstr, AppendGrowsToTwiceTheNeedOrRefuses) {
  dstr rec;
  ASSERT_EQ(&rec, dstr_init(&rec));
  EXPECT_EQ(16, rec.capacity);
  EXPECT_EQ(20, dstr_append(&rec, "abcdefghijklmnopqrst", -1));
  EXPECT_EQ(42, rec.capacity);
  EXPECT_EQ(22, dstr_append(&rec, "abc", 2));
  EXPECT_EQ(24, dstr_append(&rec, "xy", 100));  // the copy stops at the text's end...
  EXPECT_EQ(2 * (22 + 100 + 1), rec.capacity);  // ...but room is made for the whole count
  EXPECT_STREQ("abcdefghijklmnopqrstabxy", rec.buffer);
  xfree(dstr_free(&rec, 1));  // the text stays with the caller (ASan would see a leak)
  // length + count + 1 beyond an int is refused before anything is touched.
  char small[4] = "abc";
  dstr big = {INT_MAX - 3, INT_MAX - 2, 0, small};
  EXPECT_EQ(-1, dstr_append(&big, "abcdef", -1));
  // Heap refusals: the out-of-memory run in oom_test.cpp.
}

TEST(Dstr, TruncateShrinksOnlyLargeBuffersCutShort) {
  struct { int to, length, capacity; } cases[] = {{10, 10, 256},     {500, 500, 4096},   {255, 255, 256},
                                                  {256, 256, 4096},  {3000, 2000, 4096}, {-5, 0, 256}};
  for (const auto &c : cases) {
    dstr rec = {0, 0, 0, nullptr};
    dstr_append(&rec, std::string(2047, 'x').c_str(), -1);
    dstr_truncate(&rec, 2000);
    EXPECT_EQ(c.length, dstr_truncate(&rec, c.to)) << c.to;
    EXPECT_EQ(c.capacity, rec.capacity) << c.to;
    EXPECT_EQ(std::string(static_cast<size_t>(c.length), 'x'), rec.buffer) << c.to;
    dstr_free(&rec, 0);
  }
}
