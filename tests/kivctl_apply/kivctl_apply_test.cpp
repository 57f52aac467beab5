// kivctl apply and export: the real kivctl.exe on the Wine registry, and a running
// kivd.exe that reconfigures from what apply wrote, also after an apply that crashed
// half-way.
#include <gtest/gtest.h>

#include <fstream>
#include <set>
#include <sstream>

#include "tests/support/support.h"

namespace {

const char PARENT[] = "SOFTWARE\\Orvane";

using result = kt::ran;

result kivctl(const std::string &args) { return kt::run("\"" + kt::kivctl_exe() + "\" " + args); }
// The test-only build of kivctl that ends itself after a chosen step of apply's write.
result crashing_kivctl(const std::string &args) {
  return kt::run("\"" + kt::build_dir() + "\\tests\\kivctl_apply\\kivctl_crash.exe\" " + args);
}

// A configuration file in the temporary folder, removed with the object.
struct cfgfile {
  std::string path;
  explicit cfgfile(const std::string &text, const char *name = "apply") {
    char dir[MAX_PATH];
    GetTempPathA(sizeof dir, dir);
    path =
        std::string(dir) + "kivctl_" + name + "_" + std::to_string(GetCurrentProcessId()) + ".cfg";
    std::ofstream(path, std::ios::binary) << text;
  }
  ~cfgfile() { DeleteFileA(path.c_str()); }
  std::string arg() const { return "\"" + path + "\""; }
};

// The configuration root and the siblings an interrupted apply may leave, cleared on
// construction and destruction.
struct clean_registry : kt::registry {
  clean_registry() { clear(); }
  ~clean_registry() { clear(); }
  static void clear() {
    for (const char *k : {"Agents", "Agents.new", "Agents.old"})
      RegDeleteTreeA(HKEY_LOCAL_MACHINE, (std::string(PARENT) + "\\" + k).c_str()),
          RegDeleteKeyA(HKEY_LOCAL_MACHINE, (std::string(PARENT) + "\\" + k).c_str());
  }
};

bool key_exists(const char *name) {
  HKEY k;
  if (RegOpenKeyExA(HKEY_LOCAL_MACHINE, (std::string(PARENT) + "\\" + name).c_str(), 0, KEY_READ,
                    &k) != ERROR_SUCCESS)
    return false;
  RegCloseKey(k);
  return true;
}

std::string ports_file(const std::vector<int> &ports, const char *program = kt::NO_PROGRAM) {
  std::string text = "services.svc:\n\tprogram = " + std::string(program) + "\n";
  for (int p : ports) text += "tcp.s" + std::to_string(p) + ":\n\tstart = auto\n\tservice = svc\n";
  return text;
}

// The port numbers of a kivd listing.
std::set<int> listed() {
  std::set<int> ports;
  std::istringstream in(kivctl("--raw ls").out);
  for (std::string line; std::getline(in, line);)
    if (line != "!" && line != ".") ports.insert(atoi(line.c_str()));
  return ports;
}

TEST(KivctlApply, DryRunApplyExportAndNoOp) {
  clean_registry reg;
  cfgfile first(
      "# two ports of one agent\n"
      "services.echo:\n\tprogram = C:\\agents\\echo.exe -v\n\tdescription = \" padded \"\n"
      "tcp.s7101:\n\tstart = auto\n\tservice = echo\n"
      "tcp.S7102:\n\tstart = on\n\tservice = Echo\n"
      "global.start.tick:\n\tstart = ON\n\tprogram = tick.exe\n");
  const std::string adds =
      "add global.start.tick.program = tick.exe\n"
      "add global.start.tick.start = ON\n"
      "add services.echo.description =  padded \n"
      "add services.echo.program = C:\\agents\\echo.exe -v\n"
      "add tcp.s7101.service = echo\n"
      "add tcp.s7101.start = auto\n"
      "add tcp.S7102.service = Echo\n"
      "add tcp.S7102.start = on\n";
  result r = kivctl("apply --dry-run " + first.arg());
  EXPECT_EQ(r.out, adds);
  EXPECT_EQ(r.code, 3u) << r.err;      // would change
  EXPECT_FALSE(key_exists("Agents"));  // a dry run writes nothing

  r = kivctl("apply " + first.arg());  // no kivd running: not an error
  EXPECT_EQ(r.out, adds);
  EXPECT_EQ(r.code, 3u) << r.err;  // changed
  EXPECT_FALSE(key_exists("Agents.new"));
  EXPECT_FALSE(key_exists("Agents.old"));
  // The registry now reads as the file (the diff's texts: applycfg_test.cpp).
  EXPECT_EQ(kivctl("apply --dry-run " + first.arg()).code, 0u);

  // export then apply changes nothing: export says what the registry holds.
  const std::string exported = kivctl("export").out;
  EXPECT_NE(exported.find("tcp.S7102:\n\tservice = Echo\n\tstart = on\n"), std::string::npos)
      << exported;
  cfgfile again(exported, "again");
  r = kivctl("apply " + again.arg());
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.code, 0u) << r.err;  // already so

  // What the file no longer names goes, also what was written by hand; export names
  // what it leaves out.
  reg.set("tcp\\s7101", "note", "by hand");
  r = kivctl("export");
  EXPECT_EQ(r.out, exported);
  EXPECT_EQ(r.err, "kivctl: not exported: tcp.s7101.note\n");
  cfgfile second(
      "services.echo:\n\tprogram = C:\\agents\\echo2.exe\n"
      "tcp.s7101:\n\tstart = auto\n\tservice = echo\n",
      "second");
  r = kivctl("apply " + second.arg());
  EXPECT_NE(
      r.out.find(
          "change services.echo.program = C:\\agents\\echo2.exe (was C:\\agents\\echo.exe -v)\n"
          "remove tcp.s7101.note\n"),
      std::string::npos)
      << r.out;
  EXPECT_EQ(r.code, 3u) << r.err;
  EXPECT_EQ(kivctl("export").err, "");
  EXPECT_EQ(kivctl("apply --dry-run " + second.arg()).code, 0u);
}

TEST(KivctlApply, RefusesABadFileAndChangesNothing) {
  clean_registry reg;
  cfgfile good(ports_file({7201}));
  ASSERT_EQ(kivctl("apply " + good.arg()).code, 3u);
  std::string before = kivctl("export").out;
  // One refusal (the file check's table: applycfg_test.cpp): its line and message after the
  // file's name, exit code 1, nothing written.
  cfgfile bad("services.svc:\n\tprogram = x\n\n# a comment\ntcp.s7201\n", "bad");
  result r = kivctl("apply " + bad.arg());
  EXPECT_EQ(r.code, 1u);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "kivctl: " + bad.path + ": 5: \":\" expected\n");
  EXPECT_EQ(kivctl("export").out, before);
  EXPECT_EQ(kivctl("apply").code, 1u);
  EXPECT_EQ(kivctl("apply \"C:\\no\\such\\file.cfg\"").code, 1u);
  EXPECT_EQ(kivctl("apply a.cfg b.cfg").code, 1u);
}

TEST(KivctlApply, RunningKivdIsReconfigured) {
  clean_registry reg;
  std::vector<int> p = kt::free_ports(3);
  cfgfile first(ports_file({p[0], p[1]}));
  ASSERT_EQ(kivctl("apply " + first.arg()).code, 3u);
  kt::kivd d("-D3");
  EXPECT_EQ(listed(), (std::set<int>{p[0], p[1]}));
  cfgfile second(ports_file({p[1], p[2]}), "second");
  result r = kivctl("apply " + second.arg());
  EXPECT_EQ(r.code, 3u) << r.err;
  EXPECT_EQ(listed(), (std::set<int>{p[1], p[2]})) << d.err();
  // A no-change apply does not disturb kivd.
  int reconfigs = d.log_count("reconfig");
  EXPECT_GT(reconfigs, 0) << d.err();
  EXPECT_EQ(kivctl("apply " + second.arg()).code, 0u);
  EXPECT_EQ(kivctl("update").code, 0u);  // a round trip, so a reconfig would have been read
  EXPECT_EQ(d.log_count("reconfig"), reconfigs) << d.err();
}

// A crash after each step of the write, then what kivd's reconfiguration reads: the old
// configuration until the new tree is complete and swapped in, none at all between the
// two renames, the new one after; the next apply puts the registry right.
TEST(KivctlApply, CrashHalfWayLeavesTheOldOrTheNewConfiguration) {
  clean_registry reg;
  std::vector<int> p = kt::free_ports(4);
  cfgfile oldfile(ports_file({p[0], p[1]}, "C:\\no\\old.exe"), "old");
  cfgfile newfile(ports_file({p[2], p[3]}, "C:\\no\\new.exe"), "new");
  ASSERT_EQ(kivctl("apply " + newfile.arg()).code, 3u);
  const std::string newtext = kivctl("export").out;
  ASSERT_EQ(kivctl("apply " + oldfile.arg()).code, 3u);
  const std::string oldtext = kivctl("export").out;
  kt::kivd d("-D3");
  const std::set<int> oldports{p[0], p[1]}, newports{p[2], p[3]}, none;
  struct {
    int step;
    std::set<int> reads;
    DWORD next;  // the next apply's exit code: 3 changed, 0 the configuration already so
  } cases[] = {
      {1, oldports, 3},  // new tree written, not yet marked complete
      {2, oldports, 3},  // new tree complete and marked, not swapped in
      {3, none, 3},      // old tree renamed away: no configuration until put right
      {4, newports, 0},  // new tree in place, old one left beside it
      {5, newports, 0},
  };
  for (auto &c : cases) {
    SetEnvironmentVariableA("KIVCTL_APPLY_CRASH_AFTER", std::to_string(c.step).c_str());
    result r = crashing_kivctl("apply " + newfile.arg());
    SetEnvironmentVariableA("KIVCTL_APPLY_CRASH_AFTER", nullptr);
    EXPECT_EQ(r.code, 99u) << "step " << c.step << ": " << r.err;
    EXPECT_EQ(kivctl("reconfig").code, 0u);
    EXPECT_EQ(listed(), c.reads) << "step " << c.step;
    // The next apply first puts right what the crash left (after step 3 it finishes the
    // interrupted swap) and tells kivd.
    r = kivctl("apply " + newfile.arg());
    EXPECT_EQ(r.code, c.next) << "step " << c.step << ": " << r.err;
    EXPECT_EQ(kivctl("export").out, newtext) << "step " << c.step;
    EXPECT_FALSE(key_exists("Agents.new")) << "step " << c.step;
    EXPECT_FALSE(key_exists("Agents.old")) << "step " << c.step;
    EXPECT_EQ(listed(), newports) << "step " << c.step;
    ASSERT_EQ(kivctl("apply " + oldfile.arg()).code, 3u);
    EXPECT_EQ(kivctl("export").out, oldtext);
    EXPECT_EQ(listed(), oldports) << "step " << c.step;
  }
  // The shipped kivctl has no such seam: it writes the whole change.
  SetEnvironmentVariableA("KIVCTL_APPLY_CRASH_AFTER", "1");
  result r = kivctl("apply " + newfile.arg());
  SetEnvironmentVariableA("KIVCTL_APPLY_CRASH_AFTER", nullptr);
  EXPECT_EQ(r.code, 3u) << r.err;
  EXPECT_EQ(kivctl("export").out, newtext);
}

}  // namespace
