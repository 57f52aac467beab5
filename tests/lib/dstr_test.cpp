#include <climits>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "lib/dstr.h"
#include "lib/heap.h"

namespace {
struct HeapFailureOff {
  ~HeapFailureOff() { xheap_failafter(-1); }
};

TEST(Dstr, InitAndAppendGrowToTwiceTheNeed) {
  dstr rec;
  ASSERT_EQ(&rec, dstr_init(&rec));
  EXPECT_EQ(0, rec.length);
  EXPECT_EQ(16, rec.capacity);
  EXPECT_EQ(0u, rec.flags);
  EXPECT_STREQ("", rec.buffer);

  EXPECT_EQ(20, dstr_append(&rec, "abcdefghijklmnopqrst", -1));
  EXPECT_EQ(42, rec.capacity);
  EXPECT_EQ(22, dstr_append(&rec, "abc", 2));
  // Copies stop at the text's end, but room is made for the whole count.
  EXPECT_EQ(24, dstr_append(&rec, "xy", 100));
  EXPECT_EQ(2 * (22 + 100 + 1), rec.capacity);
  EXPECT_EQ(24, dstr_append(&rec, nullptr, -1));
  EXPECT_STREQ("abcdefghijklmnopqrstabxy", rec.buffer);
  dstr_free(&rec, 0);
  EXPECT_EQ(nullptr, rec.buffer);

  // A released caller's record is empty and takes a new buffer on the next append.
  EXPECT_EQ(3, dstr_append(&rec, "new", -1));
  EXPECT_STREQ("new", rec.buffer);
  char *kept = dstr_free(&rec, 1);
  EXPECT_STREQ("new", kept);
  xfree(kept);

  dstr *own = dstr_init(nullptr);
  ASSERT_NE(nullptr, own);
  EXPECT_EQ(DSTR_ALLOCATED, own->flags);
  EXPECT_EQ(16, own->capacity);
  dstr_append(own, "text", -1);
  kept = dstr_free(own, 1);  // the record goes, the text stays
  EXPECT_STREQ("text", kept);
  xfree(kept);
}

TEST(Dstr, TruncateShrinksOnlyLargeBuffersCutShort) {
  struct {
    int to;
    int length;
    int capacity;
  } cases[] = {{10, 10, 256}, {500, 500, 4096}, {255, 255, 256}, {256, 256, 4096},
               {3000, 2000, 4096}, {-5, 0, 256}};
  std::string text(2000, 'x');
  for (const auto &c : cases) {
    dstr rec;
    ASSERT_NE(nullptr, dstr_init(&rec));
    dstr_append(&rec, std::string(2047, 'x').c_str(), -1);
    ASSERT_EQ(4096, rec.capacity);
    ASSERT_EQ(2000, dstr_truncate(&rec, 2000));
    EXPECT_EQ(c.length, dstr_truncate(&rec, c.to)) << c.to;
    EXPECT_EQ(c.length, rec.length) << c.to;
    EXPECT_EQ(c.capacity, rec.capacity) << c.to;
    EXPECT_EQ(std::string(static_cast<size_t>(c.length), 'x'), rec.buffer) << c.to;
    dstr_free(&rec, 0);
  }
}

TEST(Dstr, NullRecordsAndCorruptLengths) {
  EXPECT_EQ(DSTR_NULLREC, dstr_append(nullptr, "a", -1));
  EXPECT_EQ(DSTR_NULLREC, dstr_truncate(nullptr, 0));
  EXPECT_EQ(nullptr, dstr_free(nullptr, 1));
  // length + count + 1 beyond an int is refused before anything is touched.
  char small[4] = "abc";
  dstr rec = {INT_MAX - 3, INT_MAX - 2, 0, small};
  EXPECT_EQ(-1, dstr_append(&rec, "abcdef", -1));
  EXPECT_EQ(INT_MAX - 3, rec.length);
  EXPECT_EQ(small, rec.buffer);
}

TEST(Dstr, HeapRefusalLeavesTheRecordUsable) {
  HeapFailureOff reset;
  xheap_failafter(0);
  EXPECT_EQ(nullptr, dstr_init(nullptr));
  xheap_failafter(1);  // the record is had, its buffer is not; no leak (ASan checks)
  EXPECT_EQ(nullptr, dstr_init(nullptr));
  dstr rec;
  xheap_failafter(0);
  EXPECT_EQ(nullptr, dstr_init(&rec));
  xheap_failafter(-1);
  EXPECT_EQ(2, dstr_append(&rec, "ok", -1));  // the failed init left it appendable
  dstr_free(&rec, 0);

  ASSERT_NE(nullptr, dstr_init(&rec));
  dstr_append(&rec, std::string(2047, 'y').c_str(), -1);
  char *buffer = rec.buffer;
  xheap_failafter(0);
  EXPECT_EQ(-1, dstr_append(&rec, std::string(5000, 'z').c_str(), -1));
  EXPECT_EQ(-1, dstr_truncate(&rec, 5));
  xheap_failafter(-1);
  EXPECT_EQ(2047, rec.length);
  EXPECT_EQ(4096, rec.capacity);
  EXPECT_EQ(buffer, rec.buffer);
  EXPECT_EQ(std::string(2047, 'y'), rec.buffer);
  EXPECT_EQ(2049, dstr_append(&rec, "zz", -1));
  EXPECT_EQ(5, dstr_truncate(&rec, 5));
  dstr_free(&rec, 0);
}
}  // namespace
