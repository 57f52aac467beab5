// What ships is stripped; its debug information stays in the build beside it, named by the
// executable's debug link with the checksum a debugger verifies.
#include <gtest/gtest.h>

#include "tests/dist/pe_sections.h"
#include "tests/support/support.h"

namespace {

// The CRC-32 a debug link carries (the reflected 0xEDB88320 polynomial).
uint32_t crc32(const std::string &data) {
  uint32_t crc = 0xFFFFFFFFu;
  for (unsigned char c : data) {
    crc ^= c;
    for (int k = 0; k < 8; k++) crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1)));
  }
  return ~crc;
}

TEST(Shipped, ExecutablesAreStrippedAndLinkTheirDebugFiles) {
  const std::string build = kt::build_dir();
  for (const char *exe : {"service\\kivd.exe", "tools\\kivctl\\kivctl.exe", "agent\\echo-agent.exe",
                          "agent\\kivexec.exe"}) {
    std::string path = build + "\\" + exe;
    std::vector<kt::pe_section> sections = kt::pe_sections(path);
    ASSERT_FALSE(sections.empty()) << path;
    EXPECT_EQ(kt::pe_named(sections, ".debug_"), std::vector<std::string>()) << exe;
    ASSERT_EQ(kt::pe_named(sections, ".gnu_debuglink").size(), 1u) << exe;
    std::string link;
    for (const kt::pe_section &s : sections)
      if (s.name == ".gnu_debuglink") link = s.data;
    // The debug file's name, its zero and padding to four bytes, then the file's CRC-32.
    std::string name = path.substr(path.find_last_of('\\') + 1) + ".debug";
    ASSERT_GE(link.size(), name.size() + 5) << exe;
    EXPECT_EQ(std::string(link.c_str()), name) << exe;
    std::ifstream in(path + ".debug", std::ios::binary);
    std::string debug((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    size_t at = (name.size() + 4) & ~size_t(3);
    uint32_t want = 0;
    memcpy(&want, link.data() + at, 4);
    EXPECT_EQ(crc32(debug), want) << exe;
    EXPECT_EQ(kt::pe_named(kt::pe_sections(path + ".debug"), ".debug_info").size(), 1u) << exe;
  }
}

}  // namespace
