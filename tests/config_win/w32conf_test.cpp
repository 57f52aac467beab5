// The registry loader and the info tree over it, against the real registry: each run
// builds its own key under HKEY_CURRENT_USER\Software and removes it afterwards.
#include <windows.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "lib/heap.h"
#include "toolkit/config/info.h"
#include "toolkit/config/w32conf.h"
#include "toolkit/runtime/error.h"
#include "toolkit/runtime/log.h"

namespace {

using list = std::vector<std::string>;
list calls;          // "prefix name=value/letter", in call order
const char *stopat;  // the add function fails with 42 on the call for this name
std::string lastline;

int record(const char *name, const char *value, const char *prefix, int letter) {
  calls.push_back(std::string(prefix) + " " + name + "=" + (value ? value : "(null)") + "/" +
                  (letter ? char(letter) : '0'));
  return stopat && strcmp(stopat, name) == 0 ? 42 : 0;
}
size_t indexof(const std::string &c) {
  return std::find(calls.begin(), calls.end(), c) - calls.begin();
}

std::string subkey = "Software\\kivd-test-" + std::to_string(GetCurrentProcessId()) + "-" +
                     std::to_string(GetTickCount()),
            regpath = "HKEY_CURRENT_USER\\" + subkey;

// The value, its key made as needed.
void set(const std::string &path, const char *name, DWORD type, const void *data, DWORD size) {
  EXPECT_EQ(ERROR_SUCCESS,
            RegSetKeyValueA(HKEY_CURRENT_USER, (subkey + path).c_str(), name, type, data, size))
      << path << " " << name;
}
void setsz(const std::string &path, const char *name, const char *text) {
  set(path, name, REG_SZ, text, DWORD(strlen(text) + 1));
}

struct W32conf : ::testing::Test {
  static void SetUpTestSuite() {
    DWORD minus1 = 4294967295u;
    setsz("", "str", "0123456789");
    setsz("", "a.b", "dotted");
    set("", "dneg", REG_DWORD, &minus1, 4);
    set("", "bin", REG_BINARY, "\x01\x00\x02", 3);
    set("", "multi", REG_MULTI_SZ, "one\0two\0", 9);
    setsz("", "", "default");
    setsz("\\nest\\inner", "deep", "z");
    setsz("\\onlydefault", "", "d");
  }
  static void TearDownTestSuite() {
    EXPECT_EQ(ERROR_SUCCESS, RegDeleteTreeA(HKEY_CURRENT_USER, subkey.c_str()));
  }
};

// The loader copies values and subkeys in order, stops at the add function's failure and
// refuses a key it cannot open or a root not written as the registry names it.
TEST_F(W32conf, Loader) {
  ASSERT_EQ(0, kivconf_readreg(".t", regpath.c_str(), record));
  list expected = {
      ".t str=0123456789/s",    ".t a_b=dotted/s",        ".t dneg=-1/d",
      ".t =default/s",          ".t nest=(null)/0",       ".t.nest inner=(null)/0",
      ".t.nest.inner deep=z/s", ".t onlydefault=(null)/0"};  // a default value alone is not copied
  list got = calls;
  std::sort(expected.begin(), expected.end());
  std::sort(got.begin(), got.end());
  EXPECT_EQ(expected, got);
  // Values of a key before its subkeys; each subkey's subtree right after its node.
  EXPECT_LT(indexof(".t =default/s"), indexof(".t nest=(null)/0"));
  EXPECT_LT(indexof(".t dneg=-1/d"), indexof(".t onlydefault=(null)/0"));
  EXPECT_EQ(indexof(".t nest=(null)/0") + 1, indexof(".t.nest inner=(null)/0"));
  EXPECT_EQ(indexof(".t nest=(null)/0") + 2, indexof(".t.nest.inner deep=z/s"));

  for (const char *name : {"dneg", "inner"}) {
    calls.clear();
    stopat = name;
    EXPECT_EQ(42, kivconf_readreg(".t", regpath.c_str(), record)) << name;
    ASSERT_FALSE(calls.empty());
    EXPECT_NE(std::string::npos, calls.back().find(std::string(" ") + name + "=")) << calls.back();
  }
  calls.clear();
  stopat = nullptr;
  kiv_logsink = [](const char *line) { lastline = line; };
  kiv_loglevel = 2;
  std::string missing = regpath + "\\missing";
  EXPECT_EQ(KIV_EACCES, kivconf_readreg(".t", missing.c_str(), record));
  EXPECT_NE(std::string::npos, lastline.find("Cannot open key " + missing)) << lastline;
  EXPECT_EQ(KIV_EINVAL, kivconf_readreg(".t", ("hkey_current_user\\" + subkey).c_str(), record));
  EXPECT_TRUE(calls.empty());
  kiv_logsink = kiv_logtofile;
  kiv_loglevel = 0;
}

int visit(const char *path, const char *text, void *arg) {
  static_cast<list *>(arg)->push_back(std::string(path) + "=" + text);
  return 0;
}

// When a source is read and read again is the tree's own rule, the same for every kind of
// source (info_test.cpp); here the registry key is the one read and the source's node.
TEST_F(W32conf, InfoTreeReadsTheKeyAndWalksIt) {
  ASSERT_NE(KIV_ENOMEM, kivinfo_init(0));
  ASSERT_EQ(kivinfo_set(".reg", (regpath + "\\nest").c_str(), KIVINFO_REGISTRY), 0);
  char *deep = nullptr;
  ASSERT_EQ(kivinfo_get(nullptr, ".REG.Inner.deep", &deep), 0);
  EXPECT_STREQ(deep, "z");
  xfree(deep);
  list seen;
  EXPECT_EQ(kivinfo_walk(".reg", visit, &seen), 0);
  std::sort(seen.begin(), seen.end());
  EXPECT_EQ(seen, (list{".reg.inner.deep=z", ".reg.inner=", ".reg=" + regpath + "\\nest"}));
  kivinfo_set(".reg", "gone", KIVINFO_RESERVED);
}

}  // namespace
