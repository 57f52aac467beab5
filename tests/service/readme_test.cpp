// What the README tells an operator to type names what kivd really registers: a wrong
// event source finds no events at all.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "service/sserv.h"
#include "tests/support/support.h"

namespace {

// Each word that follows `marker` in text, up to a blank, a backquote or a line end.
std::vector<std::string> words_after(const std::string &text, const std::string &marker) {
  std::vector<std::string> found;
  for (size_t at = text.find(marker); at != std::string::npos; at = text.find(marker, at + 1)) {
    size_t start = at + marker.size();
    found.push_back(text.substr(start, text.find_first_of(" `)\r\n", start) - start));
  }
  return found;
}

TEST(Readme, NamesTheEventSourceKivdRegisters) {
  std::ifstream in(kt::build_dir() + "\\tests\\service\\README.md", std::ios::binary);
  ASSERT_TRUE(in.good());
  std::stringstream text;
  text << in.rdbuf();
  int named = 0;
  for (const char *marker : {"-ProviderName ", "source `"}) {
    for (const std::string &name : words_after(text.str(), marker)) {
      EXPECT_EQ(name, SSERV_NAME) << "after " << marker;
      named++;
    }
  }
  EXPECT_GE(named, 2);
}

}  // namespace
