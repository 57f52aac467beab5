#include <cstdio>
#include <unistd.h>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "lib/dfgets.h"

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
