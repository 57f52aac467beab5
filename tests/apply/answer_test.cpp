// What kivctl expects of kivd for a line: it must agree with the server's own rules.
#include <gtest/gtest.h>

#include <string>

#include "tools/kivctl/answer.h"

namespace {

TEST(Answer, LinesAsTheServerTakesThem) {
  std::string many = "ls";
  for (int i = 0; i < 20; i++) many += " w";  // 21 words
  struct {
    std::string line;
    answer expected;
  } cases[] = {
      {"ls", answer::reply},         {"", answer::none},
      {" \t ", answer::none},        {"\"\"", answer::none},
      {"\"\" ls", answer::none},     {"\\", answer::none},
      {"quit", answer::hangup},      {"QuIt -Q", answer::hangup},
      {"\"quit\" -Q", answer::hangup}, {"q\\uit", answer::hangup},
      {"quitx", answer::reply},      {many, answer::reply},
      {"\"\" " + many, answer::none}, {"quit " + std::string(507, 'x'), answer::hangup},
      {"quit " + std::string(508, 'x'), answer::reply},  // 513 bytes: too long
  };
  for (auto &c : cases)
    EXPECT_EQ(static_cast<int>(server_answer(c.line.data(), static_cast<int>(c.line.size()))),
              static_cast<int>(c.expected))
        << '"' << c.line << '"';
}

}  // namespace
