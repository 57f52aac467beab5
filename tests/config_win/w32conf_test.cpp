// The registry loader against the real registry: each run builds its own key under
// HKEY_CURRENT_USER\Software and removes it afterwards.
#include <windows.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "toolkit/config/w32conf.h"
#include "toolkit/runtime/error.h"
#include "toolkit/runtime/log.h"

namespace {

struct call {
  std::string name, value, prefix;
  int letter;
  bool operator<(const call &o) const {
    return std::tie(prefix, name, value, letter) < std::tie(o.prefix, o.name, o.value, o.letter);
  }
  bool operator==(const call &o) const {
    return name == o.name && value == o.value && prefix == o.prefix && letter == o.letter;
  }
};
std::ostream &operator<<(std::ostream &os, const call &c) {
  return os << "{" << c.name << "|" << c.value << "|" << c.prefix << "|"
            << (c.letter ? char(c.letter) : '0') << "}";
}

std::vector<call> calls;
const char *stopat;  // the add function fails with 42 on the call for this name, if any
std::vector<std::string> loglines;

int record(const char *name, const char *value, const char *prefix, int letter) {
  calls.push_back({name, value ? value : "(null)", prefix, letter});
  return stopat && strcmp(stopat, name) == 0 ? 42 : 0;
}

void capture(const char *line) { loglines.push_back(line); }

class W32conf : public ::testing::Test {
 protected:
  static std::string subkey, regpath;

  static HKEY create(const std::string &path) {
    HKEY key = nullptr;
    EXPECT_EQ(ERROR_SUCCESS, RegCreateKeyExA(HKEY_CURRENT_USER, path.c_str(), 0, nullptr, 0,
                                             KEY_ALL_ACCESS, nullptr, &key, nullptr))
        << path;
    return key;
  }
  static void set(HKEY key, const char *name, DWORD type, const void *data, DWORD size) {
    EXPECT_EQ(ERROR_SUCCESS,
              RegSetValueExA(key, name, 0, type, static_cast<const BYTE *>(data), size))
        << name;
  }
  static void setsz(HKEY key, const char *name, const char *text) {
    set(key, name, REG_SZ, text, DWORD(strlen(text) + 1));
  }
  static void setdword(HKEY key, const char *name, DWORD value) {
    set(key, name, REG_DWORD, &value, 4);
  }

  static void SetUpTestSuite() {
    subkey = "Software\\kivd-test-" + std::to_string(GetCurrentProcessId()) + "-" +
             std::to_string(GetTickCount());
    regpath = "HKEY_CURRENT_USER\\" + subkey;
    HKEY top = create(subkey);
    setsz(top, "aaa_long", "0123456789");
    set(top, "raw", REG_SZ, "abc", 3);  // no terminator stored
    setsz(top, "a.b", "dotted");
    setdword(top, "d25", 25);
    setdword(top, "dneg", 4294967295u);
    set(top, "dshort", REG_DWORD, "\x01\x02", 2);
    set(top, "bin", REG_BINARY, "\x01\x00\x02", 3);
    set(top, "multi", REG_MULTI_SZ, "one\0two\0", 9);
    set(top, "exp", REG_EXPAND_SZ, "%TEMP%\\x", 9);
    setsz(top, "", "default");
    RegCloseKey(top);
    HKEY k = create(subkey + "\\x.y");
    setsz(k, "v", "1");
    RegCloseKey(k);
    k = create(subkey + "\\nest\\inner");
    setsz(k, "deep", "z");
    RegCloseKey(k);
    k = create(subkey + "\\onlydefault");
    setsz(k, "", "d");
    RegCloseKey(k);
    RegCloseKey(create(subkey + "\\empty"));
  }
  static void TearDownTestSuite() {
    EXPECT_EQ(ERROR_SUCCESS, RegDeleteTreeA(HKEY_CURRENT_USER, subkey.c_str()));
  }
  void SetUp() override {
    calls.clear();
    stopat = nullptr;
    loglines.clear();
  }
  void TearDown() override {
    kiv_logsink = kiv_logtofile;
    kiv_loglevel = 0;
  }
};
std::string W32conf::subkey, W32conf::regpath;

TEST_F(W32conf, CopiesValuesAndSubkeys) {
  ASSERT_EQ(0, kivconf_readreg(".t", regpath.c_str(), record));
  std::vector<call> expected = {
      {"aaa_long", "0123456789", ".t", 's'}, {"raw", "abc", ".t", 's'},
      {"a_b", "dotted", ".t", 's'},          {"d25", "25", ".t", 'd'},
      {"dneg", "-1", ".t", 'd'},             {"exp", "%TEMP%\\x", ".t", 's'},
      {"", "default", ".t", 's'},            {"x_y", "(null)", ".t", 0},
      {"v", "1", ".t.x_y", 's'},             {"nest", "(null)", ".t", 0},
      {"inner", "(null)", ".t.nest", 0},     {"deep", "z", ".t.nest.inner", 's'},
      {"onlydefault", "(null)", ".t", 0},    {"empty", "(null)", ".t", 0},
  };
  std::vector<call> got = calls;
  std::sort(expected.begin(), expected.end());
  std::sort(got.begin(), got.end());
  EXPECT_EQ(expected, got);

  // Values of a key before its subkeys; a subkey's whole subtree right after its node.
  for (size_t i = 0; i < calls.size(); i++) {
    if (calls[i].letter) continue;
    const std::string &p = calls[i].prefix;
    for (size_t j = i + 1; j < calls.size(); j++)
      EXPECT_FALSE(calls[j].prefix == p && calls[j].letter) << calls[j] << " after " << calls[i];
    std::string below = p + "." + calls[i].name;
    size_t count = std::count_if(calls.begin(), calls.end(), [&](const call &c) {
      return c.prefix == below || c.prefix.rfind(below + ".", 0) == 0;
    });
    for (size_t j = i + 1; j <= i + count && j < calls.size(); j++)
      EXPECT_TRUE(calls[j].prefix.rfind(below, 0) == 0) << calls[j] << " inside " << below;
  }
}

TEST_F(W32conf, AddFailureStopsTheLoader) {
  for (const char *name : {"d25", "nest", "deep"}) {
    calls.clear();
    stopat = name;
    EXPECT_EQ(42, kivconf_readreg(".t", regpath.c_str(), record)) << name;
    ASSERT_FALSE(calls.empty());
    EXPECT_EQ(name, calls.back().name);
    EXPECT_EQ(1, std::count_if(calls.begin(), calls.end(),
                               [&](const call &c) { return c.name == name; }));
  }
}

TEST_F(W32conf, RefusedPaths) {
  kiv_logsink = capture;
  kiv_loglevel = 2;
  std::string missing = regpath + "\\missing";
  EXPECT_EQ(KIV_EACCES, kivconf_readreg(".t", missing.c_str(), record));
  ASSERT_EQ(1u, loglines.size());
  EXPECT_NE(std::string::npos, loglines[0].find("Cannot open key " + missing)) << loglines[0];

  struct {
    std::string path;
    int rc;
  } cases[] = {
      {"hkey_current_user\\" + subkey, KIV_EINVAL},
      {std::string(100, 'H') + "\\Software", KIV_EINVAL},
      {"HKEY_CURRENT_USER", KIV_EINVAL},  // a bare root name is refused
      {"HKEY_CURRENT_USER\\", KIV_EINVAL},
      {"HKEY_CLASSES_ROOT\\x", KIV_EINVAL},
  };
  kiv_loglevel = 1;
  for (const auto &c : cases) EXPECT_EQ(c.rc, kivconf_readreg(".t", c.path.c_str(), record)) << c.path;
  EXPECT_EQ(1u, loglines.size());  // level 1 does not log the refusals
  EXPECT_TRUE(calls.empty());
  EXPECT_EQ(KIV_EINVAL, kivconf_readreg(".t", nullptr, record));
}

// String data stored without a terminator ends at its length, whatever the buffer held;
// a key opened for writing too is opened under its registry name.
TEST_F(W32conf, EnumValueEndsStringsAtTheirLength) {
  kivconf_key *key = reinterpret_cast<kivconf_key *>(1);
  EXPECT_EQ(KIV_EINVAL, kivconf_openkey(nullptr, "r", &key));
  EXPECT_EQ(nullptr, key);
  ASSERT_EQ(0, kivconf_openkey(regpath.c_str(), "rw", &key));
  EXPECT_EQ(subkey, key->subkey);
  bool seen = false;
  for (unsigned long i = 0; !seen; i++) {
    char name[32];
    unsigned char data[32];
    unsigned long type, length;
    memset(data, 'X', sizeof data);
    ASSERT_EQ(0, kivconf_enumvalue(key, i, name, sizeof name, data, sizeof data, &type, &length));
    if (strcmp(name, "raw") != 0) continue;
    seen = true;
    EXPECT_LE(3ul, length);  // Wine's conversion to ANSI adds and counts a terminator
    EXPECT_STREQ("abc", reinterpret_cast<char *>(data));
  }
  kivconf_closekey(key);
}

}  // namespace
