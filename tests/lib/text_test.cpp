// Base64, escapes and letter case: texts in, texts out.
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "lib/b64.h"
#include "lib/strcase.h"
#include "lib/unescape.h"

TEST(Base64, TableBothWays) {
  // text <-> bytes: every accepted text is also what the encoder writes for its bytes;
  // result -1 is a refused text.
  struct {
    const char *in;
    int room;
    std::string out;
    int result;
  } cases[] = {
      {"", 8, "", 0},
      {"Zg==", 8, "f", 1},
      {"Zm8=", 8, "fo", 2},
      {"Zm9v", 8, "foo", 3},
      {"Zm9vYmFy", 8, "foobar", 6},
      {"////", 8, "\xff\xff\xff", 3},
      {"APvv", 8, std::string("\0\xfb\xef", 3), 3},
      {"+/+/", 8, "\xfb\xff\xbf", 3},
      {"Zm9vYmFy", 6, "foobar", 6},  // exactly the room
      {"Zm9vYmFy", 5, "", -1},       // one byte too many
      {"Zg==", 0, "", -1},
      {"Zm9", 8, "", -1},  // not a multiple of 4
      {"Zm9vY", 8, "", -1},
      {"Zm9v\n", 8, "", -1},
      {"Zm 9", 8, "", -1},  // blank inside
      {"Zm-v", 8, "", -1},  // URL alphabet is not ours
      {"Zm_v", 8, "", -1},
      {"Z===", 8, "", -1},  // three pads
      {"====", 8, "", -1},
      {"Zg=a", 8, "", -1},      // pad before data
      {"Zg==Zm9v", 8, "", -1},  // pad in a group that is not the last
      {"Zh==", 8, "", -1},      // bits under the padding
      {"Zm9=", 8, "", -1},
      {"\xc3\xa9"
       "ab",
       8, "", -1},  // bytes above 127
  };
  for (const auto &c : cases) {
    unsigned char out[16];
    memset(out, 0xAA, sizeof out);
    int n = b64_decode(c.in, static_cast<int>(strlen(c.in)), out, c.room);
    EXPECT_EQ(c.result, n) << "\"" << c.in << "\" room " << c.room;
    if (n >= 0) {
      EXPECT_EQ(c.out, std::string(reinterpret_cast<char *>(out), static_cast<size_t>(n))) << c.in;
    }
    if (c.room < 16) {
      EXPECT_EQ(0xAA, out[c.room]) << "written past room for " << c.in;
    }
    if (c.result < 0) continue;
    char text[32];
    memset(text, 'X', sizeof text);
    int t = b64_encode(c.out.data(), static_cast<int>(c.out.size()), text);
    ASSERT_TRUE(t >= 0 && t < 30) << t;
    EXPECT_EQ(std::string(c.in) + '\0' + 'X',
              std::string(text, static_cast<size_t>(t) + 2));  // nothing past the zero
  }
}

// Lengths and round trips beyond the table: the fuzz target, and the protocol
// information's 372 bytes in every hand-over of the agent and port tests.
TEST(Base64, RefusedArguments) {
  unsigned char back[8];
  char text[8];
  EXPECT_EQ(0, b64_encode("abc", -3, text));
  EXPECT_STREQ("", text);
  EXPECT_EQ(-1, b64_encode(nullptr, 3, text));
  EXPECT_EQ(-1, b64_decode(nullptr, 4, back, 8));
  EXPECT_EQ(-1, b64_decode("Zm9v", 4, nullptr, 8));
  EXPECT_EQ(-1, b64_decode("Zm9v", -4, back, 8));
}

// Escapes: the fuzz target's reference decoder, over seeds of every kind of escape.
TEST(Unescape, RefusesNoText) { EXPECT_EQ(-1, unescape(nullptr)); }

TEST(Strcase, FoldsOnlyAsciiLettersAndAnswersTheFoldedDifference) {
  struct {
    const char *a, *b;
    size_t count;
    int result;
  } cases[] = {
      {"Port", "pORT", 4, 0},
      {"abc", "abd", 2, 0},
      {"abc", "abd", 3, -1},
      {"a", "B", 1, -1},
      {"[", "a", 1, 91 - 97},
      {"A", "[", 1, 97 - 91},
      {"@", "`", 1, 64 - 96},
      {"Z", "z", 1, 0},
      {"[", "{", 1, 91 - 123},
      {"\xC4", "\xE4", 1, 0xC4 - 0xE4},
      {"\xC4", "a", 1, 0xC4 - 97},
      {"x", "y", 0, 0},
      {"", "", 5, 0},
      {"ab", "abc", 5, -'c'},
      {"abc", "AB", 5, 'c'},
      {"ab\0x", "AB\0y", 4, 0},
  };
  for (const auto &c : cases)
    EXPECT_EQ(c.result, xstrncasecmp(c.a, c.b, c.count))
        << '"' << c.a << "\" \"" << c.b << "\" " << c.count;
}
