#include <cstdio>
#include <unistd.h>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "lib/dfgets.h"
#include "lib/heap.h"

// Writes content to a real file and reads it back line by line into one record.
std::vector<std::string> lines_of(const std::string &content) {
  // One name per process: the native and the Windows runs may overlap.
  std::string path = testing::TempDir() + "kiv_dfgets_test_" + std::to_string(getpid()) + ".txt";
  FILE *f = fopen(path.c_str(), "wb");
  fwrite(content.data(), 1, content.size(), f);
  fclose(f);
  f = fopen(path.c_str(), "rb");
  dstr rec = {0, 0, 0, nullptr};  // no buffer yet: dfgets gets one
  std::vector<std::string> lines;
  for (char *line; (line = dfgets(f, &rec)) != nullptr; dstr_truncate(&rec, 0))
    lines.emplace_back(line, static_cast<size_t>(rec.length));
  fclose(f);
  remove(path.c_str());
  dstr_free(&rec, 0);
  return lines;
}

TEST(Dfgets, Lines) {
  struct { std::string content; std::vector<std::string> lines; } cases[] = {
      {"", {}}, {"one\ntwo", {"one", "two"}}, {"\n\n", {"", ""}}, {"a\r\nb\r\n", {"a\r", "b\r"}},
      {std::string(100000, 'L') + "\nend\n", {std::string(100000, 'L'), "end"}}};
  for (const auto &c : cases) EXPECT_EQ(c.lines, lines_of(c.content)) << c.content.substr(0, 20);
}

// A refused growth returns null with the stream not at its end; the part read stays in
// the record and the next call carries on, so no character of the line is lost.
TEST(Dfgets, ResumesAfterARefusedGrowth) {
  std::string path = testing::TempDir() + "kiv_dfgets_resume_" + std::to_string(getpid()) + ".txt";
  std::string longline;
  for (int i = 0; i < 100; i++) longline += static_cast<char>('A' + i % 26);
  FILE *f = fopen(path.c_str(), "wb");
  ASSERT_NE(nullptr, f);
  fputs(("short\n" + longline + "\nend").c_str(), f);
  fclose(f);
  f = fopen(path.c_str(), "rb");
  dstr rec;
  ASSERT_EQ(&rec, dstr_init(&rec));
  ASSERT_STREQ("short", dfgets(f, &rec));
  dstr_truncate(&rec, 0);
  xheap_failafter(0);
  EXPECT_EQ(nullptr, dfgets(f, &rec));
  EXPECT_FALSE(feof(f));
  EXPECT_EQ(longline.substr(0, static_cast<size_t>(rec.capacity - 1)), rec.buffer);
  EXPECT_EQ(nullptr, dfgets(f, &rec));  // still refused: nothing is lost either
  xheap_failafter(-1);
  EXPECT_EQ(longline, dfgets(f, &rec));
  dstr_truncate(&rec, 0);
  EXPECT_STREQ("end", dfgets(f, &rec));
  EXPECT_EQ(nullptr, dfgets(f, &rec));
  fclose(f);
  remove(path.c_str());
  dstr_free(&rec, 0);
}
