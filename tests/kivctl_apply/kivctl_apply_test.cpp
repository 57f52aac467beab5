// kivctl apply and export: the real kivctl.exe on the Wine registry, and a running
// kivd.exe that reconfigures from what apply wrote, also after an apply that crashed
// half-way.
#include <gtest/gtest.h>

#include <set>
#include <sstream>

#include "tests/lib/testing.h"
#include "tests/support/support.h"

namespace {

const char PARENT[] = "SOFTWARE\\Orvane";

using result = kt::ran;

result kivctl(const std::string &args) { return kt::run("\"" + kt::kivctl_exe() + "\" " + args); }
// kivctl apply (with options before the file) of a configuration file.
result kivctl_apply(const std::string &file, const std::string &options = "") {
  return kivctl("apply " + options + "\"" + file + "\"");
}

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

std::string ports_file(const std::vector<int> &ports, const char *program) {
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

TEST(KivctlApply, DryRunApplyExportNoOpAndRefusal) {
  clean_registry reg;
  const std::string first =
      tempfile("first.cfg",
               "# two ports of one agent\n"
               "services.echo:\n\tprogram = C:\\agents\\echo.exe -v\n\tdescription = \" padded \"\n"
               "tcp.s7101:\n\tstart = auto\n\tservice = echo\n"
               "tcp.S7102:\n\tstart = on\n\tservice = Echo\n"
               "global.start.tick:\n\tstart = ON\n\tprogram = tick.exe\n"
               "global:\n\tmetrics = C:\\monitoring\\kivd.prom\n");
  const std::string adds =
      "add global.metrics = C:\\monitoring\\kivd.prom\n"
      "add global.start.tick.program = tick.exe\n"
      "add global.start.tick.start = ON\n"
      "add services.echo.description =  padded \n"
      "add services.echo.program = C:\\agents\\echo.exe -v\n"
      "add tcp.s7101.service = echo\n"
      "add tcp.s7101.start = auto\n"
      "add tcp.S7102.service = Echo\n"
      "add tcp.S7102.start = on\n";
  result r = kivctl_apply(first, "--dry-run ");
  EXPECT_EQ(r.out, adds);
  EXPECT_EQ(r.code, 3u) << r.err;      // would change
  EXPECT_FALSE(key_exists("Agents"));  // a dry run writes nothing

  r = kivctl_apply(first);  // no kivd running: not an error
  EXPECT_EQ(r.out, adds);
  EXPECT_EQ(r.code, 3u) << r.err;  // changed
  EXPECT_FALSE(key_exists("Agents.new"));
  EXPECT_FALSE(key_exists("Agents.old"));
  // The registry now reads as the file (the diff's texts: applycfg_test.cpp).
  EXPECT_EQ(kivctl_apply(first, "--dry-run ").code, 0u);

  // export then apply changes nothing: export says what the registry holds.
  const std::string exported = kivctl("export").out;
  EXPECT_NE(exported.find("tcp.S7102:\n\tservice = Echo\n\tstart = on\n"), std::string::npos)
      << exported;
  EXPECT_EQ(exported.find("global:\n\tmetrics = C:\\monitoring\\kivd.prom\n"), 0u) << exported;
  r = kivctl_apply(tempfile("again.cfg", exported));
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.code, 0u) << r.err;  // already so

  // What the file no longer names goes, also what was written by hand; export names
  // what it leaves out.
  reg.set("tcp\\s7101", "note", "by hand");
  r = kivctl("export");
  EXPECT_EQ(r.out, exported);
  EXPECT_EQ(r.err, "kivctl: not exported: tcp.s7101.note\n");
  const std::string second = tempfile("second.cfg",
                                      "services.echo:\n\tprogram = C:\\agents\\echo2.exe\n"
                                      "tcp.s7101:\n\tstart = auto\n\tservice = echo\n");
  r = kivctl_apply(second);
  EXPECT_NE(
      r.out.find(
          "change services.echo.program = C:\\agents\\echo2.exe (was C:\\agents\\echo.exe -v)\n"
          "remove tcp.s7101.note\n"),
      std::string::npos)
      << r.out;
  EXPECT_EQ(r.code, 3u) << r.err;
  const std::string before = kivctl("export").out;
  EXPECT_EQ(kivctl_apply(second, "--dry-run ").code, 0u);

  // A refusal (the file check's table: applycfg_test.cpp): its line and message after the
  // file's name, exit code 1, nothing written.
  const std::string bad =
      tempfile("bad.cfg", "services.svc:\n\tprogram = x\n\n# a comment\ntcp.s7201\n");
  r = kivctl_apply(bad);
  EXPECT_EQ(r.code, 1u);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "kivctl: " + bad + ": 5: \":\" expected\n");
  r = kivctl("export");
  EXPECT_EQ(r.out, before);
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(kivctl("apply").code, 1u);
  EXPECT_EQ(kivctl_apply("C:\\no\\such\\file.cfg").code, 1u);
  EXPECT_EQ(kivctl("apply a.cfg b.cfg").code, 1u);
}

// A running kivd reads each apply that changes something. A crash after each step of the
// write, then what kivd's reconfiguration reads: the old configuration until the new tree
// is complete and swapped in, none at all between the two renames, the new one after; the
// next apply puts the registry right.
TEST(KivctlApply, RunningKivdReconfiguredAlsoAfterACrashHalfWay) {
  clean_registry reg;
  std::vector<int> p = kt::free_ports(3);
  const std::string oldfile = tempfile("old.cfg", ports_file({p[0], p[1]}, "C:\\no\\old.exe"));
  const std::string newfile = tempfile("new.cfg", ports_file({p[1], p[2]}, "C:\\no\\new.exe"));
  ASSERT_EQ(kivctl_apply(newfile).code, 3u);
  const std::string newtext = kivctl("export").out;
  ASSERT_EQ(kivctl_apply(oldfile).code, 3u);
  const std::string oldtext = kivctl("export").out;
  kt::kivd d("-D3");
  const std::set<int> oldports{p[0], p[1]}, newports{p[1], p[2]}, none;
  EXPECT_EQ(listed(), oldports);
  result r = kivctl_apply(newfile);
  EXPECT_EQ(r.code, 3u) << r.err;
  EXPECT_EQ(listed(), newports) << d.err();
  // A no-change apply does not disturb kivd.
  int reconfigs = d.log_count("reconfig");
  EXPECT_GT(reconfigs, 0) << d.err();
  EXPECT_EQ(kivctl_apply(newfile).code, 0u);
  EXPECT_EQ(kivctl("update").code, 0u);  // a round trip, so a reconfig would have been read
  EXPECT_EQ(d.log_count("reconfig"), reconfigs) << d.err();
  ASSERT_EQ(kivctl_apply(oldfile).code, 3u);

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
    SCOPED_TRACE("step " + std::to_string(c.step));
    // The test-only build of kivctl that ends itself after the chosen step of the write.
    SetEnvironmentVariableA("KIVCTL_APPLY_CRASH_AFTER", std::to_string(c.step).c_str());
    r = kt::run("\"" + kt::build_dir() + "\\tests\\kivctl_apply\\kivctl_crash.exe\" apply \"" +
                newfile + "\"");
    SetEnvironmentVariableA("KIVCTL_APPLY_CRASH_AFTER", nullptr);
    EXPECT_EQ(r.code, 99u) << r.err;
    EXPECT_EQ(kivctl("reconfig").code, 0u);
    EXPECT_EQ(listed(), c.reads);
    // The next apply first puts right what the crash left (after step 3 it finishes the
    // interrupted swap) and tells kivd.
    r = kivctl_apply(newfile);
    EXPECT_EQ(r.code, c.next) << r.err;
    EXPECT_EQ(kivctl("export").out, newtext);
    EXPECT_FALSE(key_exists("Agents.new"));
    EXPECT_FALSE(key_exists("Agents.old"));
    EXPECT_EQ(listed(), newports);
    ASSERT_EQ(kivctl_apply(oldfile).code, 3u);
    EXPECT_EQ(kivctl("export").out, oldtext);
    EXPECT_EQ(listed(), oldports);
  }
  // The shipped kivctl has no such seam: it writes the whole change.
  SetEnvironmentVariableA("KIVCTL_APPLY_CRASH_AFTER", "1");
  r = kivctl_apply(newfile);
  SetEnvironmentVariableA("KIVCTL_APPLY_CRASH_AFTER", nullptr);
  EXPECT_EQ(r.code, 3u) << r.err;
  EXPECT_EQ(kivctl("export").out, newtext);
}

}  // namespace
