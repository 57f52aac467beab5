#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "toolkit/runtime/getopt.h"

namespace {

// Mutable copies of the words, as a process's argument vector would be.
struct argvec {
  std::vector<std::string> words;
  std::vector<char *> argv;
  explicit argvec(std::vector<std::string> w) : words(std::move(w)) {
    for (auto &s : words) argv.push_back(&s[0]);
    argv.push_back(nullptr);
  }
  int argc() const { return static_cast<int>(words.size()); }
};

// One result as text: the letter with "=" and its argument; "?" or ":" followed by
// kiv_optopt (nothing when it is 0); "end@" and kiv_optind for -1.
std::string show(int r) {
  if (r == -1) return "end@" + std::to_string(kiv_optind);
  std::string s(1, static_cast<char>(r));
  if (r == '?' || r == ':') {
    if (kiv_optopt) s += static_cast<char>(kiv_optopt);
  } else if (kiv_optarg) {
    s += "=" + std::string(kiv_optarg);
  }
  return s;
}

std::vector<std::string> scan(argvec &a, const char *optstring, int reset) {
  std::vector<std::string> out;
  kiv_optind = reset;
  kiv_optopt = 0;
  for (int i = 0; i < 20; i++) {
    int r = kiv_getopt(a.argc(), a.argv.data(), optstring);
    out.push_back(show(r));
    if (r == -1) break;
  }
  return out;
}

}  // namespace

TEST(Getopt, Table) {
  struct {
    const char *optstring;
    int reset;
    std::vector<std::string> words;  // word 0 is the program name
    std::vector<std::string> results;
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
      {"D:SBIU", 0, {"kivd", "-D", ""}, {"D=", "end@3"}},
      {"D:SBIU", 0, {"kivd", "-:"}, {"?:", "end@2"}},
      {"i:p:", -1, {"add", "-p", "25", "-i", "312", "--", "x", "y"}, {"p=25", "i=312", "end@6"}},
      {"i:p:", -1, {"add", "-p25", "-i"}, {"p=25", ":i", "end@3"}},
      {"i:p:", -1, {"add", "-p", "-i"}, {"p=-i", "end@3"}},
      {"", 0, {"kivd", "-a"}, {"?a", "end@2"}},
  };
  for (auto &c : cases) {
    argvec a(c.words);
    std::string where = std::string(c.optstring) + " with " + c.words.back();
    EXPECT_EQ(c.results, scan(a, c.optstring, c.reset)) << where;
    EXPECT_EQ(nullptr, kiv_optarg) << where;
  }
}

TEST(Getopt, ResetBelowOneRestartsMidWord) {
  argvec first({"kivd", "-SB"});
  kiv_optind = 0;
  ASSERT_EQ('S', kiv_getopt(first.argc(), first.argv.data(), "D:SBIU"));

  // The position inside "-SB" is cleared by the reset: the new scan starts at argv[1].
  argvec second({"kivd", "-IU"});
  kiv_optind = -1;
  EXPECT_EQ('I', kiv_getopt(second.argc(), second.argv.data(), "D:SBIU"));
  EXPECT_EQ('U', kiv_getopt(second.argc(), second.argv.data(), "D:SBIU"));
  EXPECT_EQ(-1, kiv_getopt(second.argc(), second.argv.data(), "D:SBIU"));
}

TEST(Getopt, PositiveIndexKeepsAPositionBeyondAShorterWord) {
  argvec first({"kivd", "-SBU"});
  kiv_optind = 0;
  ASSERT_EQ('S', kiv_getopt(first.argc(), first.argv.data(), "SBU"));
  ASSERT_EQ('B', kiv_getopt(first.argc(), first.argv.data(), "SBU"));

  // The stale position (3) lies past the end of "-": the word counts as ended.
  argvec second({"kivd", "-", "-U"});
  kiv_optind = 1;
  EXPECT_EQ('U', kiv_getopt(second.argc(), second.argv.data(), "SBU"));
  EXPECT_EQ(-1, kiv_getopt(second.argc(), second.argv.data(), "SBU"));
  EXPECT_EQ(3, kiv_optind);
}

TEST(Getopt, AccessorsReachTheState) {
  *kiv_optindp() = 5;
  EXPECT_EQ(5, kiv_optind);
  argvec a({"kivd", "-Dx"});
  kiv_optind = 0;
  ASSERT_EQ('D', kiv_getopt(a.argc(), a.argv.data(), "D:"));
  EXPECT_EQ(a.argv[1] + 2, *kiv_optargp());
}
