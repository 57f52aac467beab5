// What kivctl expects of kivd for a line: it must agree with the server's own rules (its
// splitting of the line into words: the cmdparse tables).
#include <gtest/gtest.h>

#include <string>

#include "tools/kivctl/answer.h"

namespace {

TEST(Answer, LinesAsTheServerTakesThem) {
  std::string twenty = "quit", many;  // "quit" and 19 words; with one more, too many
  for (int i = 0; i < 19; i++) twenty += " w";
  many = twenty + " w";
  struct {
    std::string line;
    answer expected;
  } cases[] = {
      {"ls", answer::reply},
      {"", answer::none},
      {"\"\" ls", answer::none},
      {"quit", answer::hangup},
      {"QuIt -Q", answer::hangup},
      {"quitx", answer::reply},
      {twenty, answer::hangup},
      {many, answer::reply},
      {"\"\" " + many, answer::none},
      {"quit " + std::string(507, 'x'), answer::hangup},
      {"quit " + std::string(508, 'x'), answer::reply},  // 513 bytes: too long
  };
  for (auto &c : cases)
    EXPECT_EQ(static_cast<int>(server_answer(c.line.data(), static_cast<int>(c.line.size()))),
              static_cast<int>(c.expected))
        << '"' << c.line << '"';
}

}  // namespace
