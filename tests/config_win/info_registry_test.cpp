// The info tree with a registry source, the way the port manager attaches ".tcp": a key
// of its own under HKEY_CURRENT_USER\Software per run, read on first need, read again
// only after the next kivinfo_set, removed afterwards.
#include <windows.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "lib/heap.h"
#include "toolkit/config/info.h"
#include "toolkit/runtime/error.h"

namespace {

class InfoRegistry : public ::testing::Test {
 protected:
  std::string subkey, regpath;

  HKEY create(const std::string &path) {
    HKEY key = nullptr;
    EXPECT_EQ(RegCreateKeyExA(HKEY_CURRENT_USER, path.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS,
                              nullptr, &key, nullptr),
              ERROR_SUCCESS)
        << path;
    return key;
  }
  void setsz(const std::string &path, const char *name, const char *text) {
    HKEY key = create(path);
    EXPECT_EQ(RegSetValueExA(key, name, 0, REG_SZ, reinterpret_cast<const BYTE *>(text),
                             DWORD(strlen(text) + 1)),
              ERROR_SUCCESS)
        << name;
    RegCloseKey(key);
  }
  void setdword(const std::string &path, const char *name, DWORD value) {
    HKEY key = create(path);
    EXPECT_EQ(RegSetValueExA(key, name, 0, REG_DWORD, reinterpret_cast<const BYTE *>(&value), 4),
              ERROR_SUCCESS);
    RegCloseKey(key);
  }

  void SetUp() override {
    int rc = kivinfo_init(0);
    ASSERT_TRUE(rc == 0 || rc == KIV_EBUSY) << rc;
    subkey = "Software\\kivd-test-" + std::to_string(GetCurrentProcessId()) + "-" +
             std::to_string(GetTickCount()) + "\\tcp";
    regpath = "HKEY_CURRENT_USER\\" + subkey;
    setsz(subkey + "\\s25", "service", "smtp");
    setdword(subkey + "\\s25", "backlog", 4294967295u);
    setsz(subkey + "\\s80", "service", "http");
    setsz(subkey + "\\s80", "v.1", "dotted");
  }
  void TearDown() override {
    kivinfo_set(".tcp", "gone", KIVINFO_RESERVED);  // removes what the test attached
    std::string top = subkey.substr(0, subkey.rfind('\\'));
    EXPECT_EQ(RegDeleteTreeA(HKEY_CURRENT_USER, top.c_str()), ERROR_SUCCESS) << top;
  }
};

std::string get(const char *name) {
  char *out = nullptr;
  int rc = kivinfo_get(nullptr, name, &out);
  if (rc != 0) return "#" + std::to_string(rc);
  std::string s = out;
  xfree(out);
  return s;
}

int record(const char *path, const char *text, void *arg) {
  static_cast<std::vector<std::string> *>(arg)->push_back(std::string(path) + "=" + text);
  return 0;
}
std::vector<std::string> walk(const char *path, int *rc) {
  std::vector<std::string> seen;
  *rc = kivinfo_walk(path, record, &seen);
  std::sort(seen.begin(), seen.end());
  return seen;
}

TEST_F(InfoRegistry, KeyIsReadOnceUntilAttachedAgain) {
  ASSERT_EQ(kivinfo_set(".tcp", regpath.c_str(), KIVINFO_REGISTRY), 0);
  EXPECT_EQ(get(".tcp"), "#" + std::to_string(KIV_ENODE));  // not read by that
  EXPECT_EQ(get(".tcp.s25.service"), "smtp");
  EXPECT_EQ(get(".TCP.S25.Backlog"), "-1");

  // Changed in the registry, the value stays as read until the next attachment.
  setsz(subkey + "\\s25", "service", "changed");
  setsz(subkey + "\\s443", "service", "https");
  EXPECT_EQ(get(".tcp.s25.service"), "smtp");
  EXPECT_EQ(get(".tcp.s443.service"), "#" + std::to_string(KIV_ENOTFOUND));
  int rc = -1;
  std::vector<std::string> expect = {".tcp=" + regpath, ".tcp.s25=", ".tcp.s25.backlog=-1",
                                     ".tcp.s25.service=smtp", ".tcp.s80=",
                                     ".tcp.s80.service=http", ".tcp.s80.v_1=dotted"};
  std::sort(expect.begin(), expect.end());
  EXPECT_EQ(walk(".tcp", &rc), expect);
  EXPECT_EQ(rc, 0);

  ASSERT_EQ(kivinfo_set(".tcp", regpath.c_str(), KIVINFO_REGISTRY), 0);
  EXPECT_EQ(get(".tcp.s25.service"), "changed");
  EXPECT_EQ(get(".tcp.s443.service"), "https");
}

TEST_F(InfoRegistry, MissingKeyFailsAndIsTriedAgain) {
  std::string missing = regpath + "\\nothere";
  ASSERT_EQ(kivinfo_set(".tcp", missing.c_str(), KIVINFO_REGISTRY), 0);
  int rc = 0;
  EXPECT_TRUE(walk(".tcp", &rc).empty());  // no callback when the read fails
  EXPECT_EQ(rc, KIV_EACCES);
  EXPECT_EQ(get(".tcp.s1.service"), "#" + std::to_string(KIV_EINTERNAL));
  setsz(subkey + "\\nothere\\s1", "service", "late");
  EXPECT_EQ(get(".tcp.s1.service"), "late");
}

}  // namespace
