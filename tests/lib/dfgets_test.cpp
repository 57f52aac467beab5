#include <cstdio>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "lib/dfgets.h"
#include "lib/heap.h"

namespace {
// Writes content to a real file and reads it back line by line, each line on its own.
std::vector<std::string> lines_of(const std::string &content, dstr *rec) {
  std::string path = testing::TempDir() + "kiv_dfgets_test.txt";
  FILE *f = fopen(path.c_str(), "wb");
  EXPECT_NE(nullptr, f);
  if (!f) return {};
  fwrite(content.data(), 1, content.size(), f);
  fclose(f);
  f = fopen(path.c_str(), "rb");
  std::vector<std::string> lines;
  for (;;) {
    dstr_truncate(rec, 0);
    char *line = dfgets(f, rec);
    if (!line) break;
    EXPECT_EQ(rec->buffer, line);
    lines.emplace_back(line, static_cast<size_t>(rec->length));
  }
  EXPECT_EQ(nullptr, dfgets(f, rec));  // already at the end
  fclose(f);
  remove(path.c_str());
  return lines;
}

TEST(Dfgets, Lines) {
  std::string long_line(100000, 'L');
  struct {
    std::string content;
    std::vector<std::string> lines;
  } cases[] = {
      {"", {}},
      {"one\ntwo", {"one", "two"}},
      {"\n\n", {"", ""}},
      {"a\r\nb\r\n", {"a\r", "b\r"}},
      {long_line + "\nend\n", {long_line, "end"}},
  };
  for (const auto &c : cases) {
    dstr rec;
    ASSERT_NE(nullptr, dstr_init(&rec));
    EXPECT_EQ(c.lines, lines_of(c.content, &rec)) << c.content.substr(0, 20);
    dstr_free(&rec, 0);
  }
}

TEST(Dfgets, AppendsAndResumesAfterAHeapRefusal) {
  std::string path = testing::TempDir() + "kiv_dfgets_append.txt";
  FILE *f = fopen(path.c_str(), "wb");
  ASSERT_NE(nullptr, f);
  std::string line(100, 'a');
  fputs(("ab\n" + line + "\n").c_str(), f);
  fclose(f);
  f = fopen(path.c_str(), "rb");
  dstr rec = {0, 0, 0, nullptr};  // no buffer yet: dfgets gets one
  EXPECT_STREQ("ab", dfgets(f, &rec));
  dstr_truncate(&rec, 0);
  xheap_failafter(0);
  EXPECT_EQ(nullptr, dfgets(f, &rec));
  xheap_failafter(-1);
  EXPECT_FALSE(feof(f));
  EXPECT_EQ(std::string(static_cast<size_t>(rec.length), 'a'), rec.buffer);
  EXPECT_EQ(line, dfgets(f, &rec));  // carries on where it stopped
  EXPECT_EQ(nullptr, dfgets(f, &rec));
  fclose(f);
  remove(path.c_str());
  dstr_free(&rec, 0);
}
}  // namespace
