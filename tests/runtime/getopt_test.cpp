#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "toolkit/runtime/getopt.h"

// Scans words (word 0 is the program name) from index `reset`, at most `limit` results,
// each shown as: the letter with "=" and its argument; "?" or ":" followed by kiv_optopt
// (nothing when it is 0); "end@" and kiv_optind for -1.
static std::vector<std::string> scan(std::vector<std::string> words, const char *opts, int reset,
                                     size_t limit = 20) {
  std::vector<char *> argv;  // mutable copies, as a process's argument vector would be
  for (auto &w : words) argv.push_back(&w[0]);
  argv.push_back(nullptr);
  std::vector<std::string> out;
  kiv_optind = reset;
  kiv_optopt = 0;
  for (int r = 0; r != -1 && out.size() < limit;) {
    r = kiv_getopt(static_cast<int>(words.size()), argv.data(), opts);
    std::string s =
        r == -1 ? "end@" + std::to_string(kiv_optind) : std::string(1, static_cast<char>(r));
    if ((r == '?' || r == ':') && kiv_optopt) s += static_cast<char>(kiv_optopt);
    if (r != -1 && r != '?' && r != ':' && kiv_optarg) s += "=" + std::string(kiv_optarg);
    out.push_back(s);
  }
  return out;
}

TEST(Getopt, Table) {
  struct {
    const char *opts;
    int reset;
    std::vector<std::string> words, results;
  } cases[] = {
      {"D:SBIU", 0, {"kivd", "-S", "-D3;>c:/kivd.txt"}, {"S", "D=3;>c:/kivd.txt", "end@3"}},
      {"D:SBIU", 0, {"kivd", "-D"}, {":D", "end@2"}},
      {"D:SBIU", 0, {"kivd", "-X", "-S"}, {"?X", "S", "end@3"}},
      {"D:SBIU", 0, {"kivd", "-SB", "extra", "-I"}, {"S", "B", "end@2"}},
      {"D:SBIU", 0, {"kivd", "--", "-S"}, {"end@2"}},
      {"D:SBIU", 0, {"kivd", "-", "-S"}, {"S", "end@3"}},
      {"D:SBIU", 0, {"kivd", "--help", "-S"}, {"?", "S", "end@3"}},
      {"D:SBIU", 0, {"kivd"}, {"end@1"}},
      {"D:SBIU", 0, {"kivd", "-SDx", "-B"}, {"S", "D=x", "B", "end@3"}},
      {"D:SBIU", 0, {"kivd", "-D", "-S"}, {"D=-S", "end@3"}},
      {"D:SBIU", 0, {"kivd", "-SXB"}, {"S", "?X", "B", "end@2"}},
      {"D:SBIU", 0, {"kivd", "-:"}, {"?:", "end@2"}},
      {"D:SBIU", 0, {"kivd", "-D", ""}, {"D=", "end@3"}},
      {"i:p:", -1, {"add", "-p", "25", "-i", "312", "--", "x", "y"}, {"p=25", "i=312", "end@6"}},
      {"i:p:", -1, {"add", "-p25", "-i"}, {"p=25", ":i", "end@3"}},
      {"i:p:", -1, {"add", "-p", "-i"}, {"p=-i", "end@3"}},
      {"", 0, {"kivd", "-a"}, {"?a", "end@2"}},
  };
  for (auto &c : cases) {
    EXPECT_EQ(c.results, scan(c.words, c.opts, c.reset)) << c.opts << " with " << c.words.back();
    EXPECT_EQ(nullptr, kiv_optarg) << c.opts << " with " << c.words.back();
  }
}

TEST(Getopt, StalePositionInsideAWord) {
  // A reset below one clears the position inside "-SB": the new scan starts at argv[1].
  ASSERT_EQ(std::vector<std::string>{"S"}, scan({"kivd", "-SB"}, "D:SBIU", 0, 1));
  EXPECT_EQ((std::vector<std::string>{"I", "U", "end@2"}), scan({"kivd", "-IU"}, "D:SBIU", -1));
  // A positive index keeps it; the stale position (3) lies past the end of "-", which counts as ended.
  ASSERT_EQ((std::vector<std::string>{"S", "B"}), scan({"kivd", "-SBU"}, "SBU", 0, 2));
  EXPECT_EQ((std::vector<std::string>{"U", "end@3"}), scan({"kivd", "-", "-U"}, "SBU", 1));
}
