// The package's agent files that still run are moved out of the install folder before an
// upgrade, and swept once nothing runs from them: real programs run from copies in a
// folder of the test's own.
#include "tools/kivctl/retire.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "service/retired.h"
#include "tests/support/support.h"
#include "toolkit/runtime/error.h"

namespace {

using kt::exists;
using kt::names;
using kt::remove_tree;
using list = std::vector<std::string>;

// An install folder of the test's own, holding copies of a real program under the
// package's names; removed at the end.
struct install {
  std::string dir;
  install() {
    char tmp[MAX_PATH];
    GetTempPathA(sizeof tmp, tmp);
    static int n;
    dir = std::string(tmp) + "kivd_retire_" + std::to_string(GetCurrentProcessId()) + "_" +
          std::to_string(n++);
    remove_tree(dir);
    CreateDirectoryA(dir.c_str(), nullptr);
  }
  ~install() { remove_tree(dir); }
  std::string path(const std::string &name) const { return dir + "\\" + name; }
  std::string retired() const { return dir + "\\retired"; }
  bool put(const std::string &name) const {
    return CopyFileA(kt::echo_agent_exe().c_str(), path(name).c_str(), FALSE) != 0;
  }
};

// A program running from a file until end() or the end of the scope.
struct running {
  kt::launched l;
  explicit running(const std::string &exe) { kt::launch("\"" + exe + "\"", &l); }
  ~running() { end(); }
  bool alive() const { return l.process && WaitForSingleObject(l.process, 0) == WAIT_TIMEOUT; }
  void end() {
    if (!l.process) return;
    TerminateProcess(l.process, 1);
    WaitForSingleObject(l.process, 30000);
    kt::end_launch(&l);
  }
};

int retire(const std::string &folder, std::string *report) {
  char text[1024];
  int r = retire_package_agents(folder.c_str(), text, sizeof text);
  *report = text;
  return r;
}

TEST(Retire, MovesOnlyThePackagesAgentFilesInUseEachUpgradeIntoAFolderOfItsOwn) {
  install in;
  for (const char *f : {"kivexec.exe", "echo-agent.exe", "kivctl.exe", "kivd.exe"})
    ASSERT_TRUE(in.put(f)) << f;
  running agent(in.path("kivexec.exe"));
  running control(in.path("kivctl.exe"));  // not an agent: in use, and it stays
  ASSERT_TRUE(agent.alive() && control.alive());

  std::string report;
  ASSERT_EQ(retire(in.dir + "\\", &report), 0) << report;
  EXPECT_EQ(names(in.dir), (list{"echo-agent.exe", "kivctl.exe", "kivd.exe", "retired"}));
  list first = names(in.retired());
  ASSERT_EQ(first.size(), 1u);
  EXPECT_EQ(names(in.retired() + "\\" + first[0]), list{"kivexec.exe"});
  EXPECT_EQ(report, "retired kivexec.exe into " + in.retired() + "\\" + first[0]);
  EXPECT_TRUE(agent.alive());
  // The installer's new file goes where the running one was.
  ASSERT_TRUE(in.put("kivexec.exe"));

  // The next upgrade, with both agents' files running: a second folder, the first untouched.
  running next_agent(in.path("kivexec.exe"));
  running echo(in.path("echo-agent.exe"));
  ASSERT_EQ(retire(in.dir, &report), 0) << report;
  list both = names(in.retired());
  ASSERT_EQ(both.size(), 2u);
  std::string second = both[0] == first[0] ? both[1] : both[0];
  EXPECT_EQ(names(in.retired() + "\\" + first[0]), list{"kivexec.exe"});
  EXPECT_EQ(names(in.retired() + "\\" + second), (list{"echo-agent.exe", "kivexec.exe"}));
  EXPECT_EQ(report, "retired kivexec.exe, echo-agent.exe into " + in.retired() + "\\" + second);
  EXPECT_EQ(names(in.dir), (list{"kivctl.exe", "kivd.exe", "retired"}));
}

TEST(Retire, NothingInUseMovesNothing) {
  install in;
  ASSERT_TRUE(in.put("kivexec.exe"));
  ASSERT_TRUE(in.put("echo-agent.exe"));
  struct row {
    const char *name;
    std::string folder;
  } table[] = {
      {"files not running", in.dir},
      {"a trailing backslash", in.dir + "\\"},
      {"no such folder", in.dir + "\\absent"},
  };
  for (const row &r : table) {
    std::string report;
    EXPECT_EQ(retire(r.folder, &report), 0) << r.name << ": " << report;
    EXPECT_EQ(report, "no agent file of the package is in use") << r.name;
    EXPECT_EQ(names(in.dir), (list{"echo-agent.exe", "kivexec.exe"})) << r.name;
  }
}

TEST(Retire, RefusalsLeaveTheFileWhereItIsAndSaySo) {
  char text[64];
  EXPECT_EQ(retire_package_agents(nullptr, text, sizeof text), KIV_EINVAL);
  EXPECT_STREQ(text, "no install folder given");
  EXPECT_EQ(retire_package_agents("", text, sizeof text), KIV_EINVAL);

  // A file where the retired folder goes: the running agent's file cannot move.
  install in;
  ASSERT_TRUE(in.put("kivexec.exe"));
  HANDLE f = CreateFileA(in.retired().c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW,
                         FILE_ATTRIBUTE_NORMAL, nullptr);
  ASSERT_NE(f, INVALID_HANDLE_VALUE);
  CloseHandle(f);
  running agent(in.path("kivexec.exe"));
  std::string report;
  EXPECT_EQ(retire(in.dir, &report), KIV_ESYS);
  EXPECT_EQ(report.rfind("cannot make " + in.retired() + "\\", 0), 0u) << report;
  EXPECT_EQ(names(in.dir), (list{"kivexec.exe", "retired"}));

  // A short report is cut, never overrun.
  char small[12];
  memset(small, 'x', sizeof small);
  EXPECT_EQ(retire_package_agents(in.dir.c_str(), small, 8), KIV_ESYS);
  EXPECT_EQ(std::string(small), "cannot ");
  EXPECT_EQ(small[8], 'x');
}

TEST(Sweep, DeletesWhatNothingRunsFromAndTheFoldersLeftEmpty) {
  install in;
  ASSERT_TRUE(in.put("keep.exe"));  // beside the retired folder: never the sweep's
  std::string r = in.retired();
  for (const std::string &d : {r, r + "\\a", r + "\\b", r + "\\b\\c", r + "\\d"})
    ASSERT_TRUE(CreateDirectoryA(d.c_str(), nullptr)) << d;
  ASSERT_TRUE(in.put("retired\\a\\kivexec.exe"));
  ASSERT_TRUE(in.put("retired\\b\\c\\echo-agent.exe"));
  ASSERT_TRUE(in.put("retired\\d\\kivexec.exe"));
  SetFileAttributesA(in.path("retired\\a\\kivexec.exe").c_str(), FILE_ATTRIBUTE_READONLY);
  running agent(in.path("retired\\d\\kivexec.exe"));
  ASSERT_TRUE(agent.alive());

  sweep_retired(in.dir.c_str());
  EXPECT_EQ(names(r), list{"d"});
  EXPECT_EQ(names(r + "\\d"), list{"kivexec.exe"});
  EXPECT_TRUE(agent.alive());

  // Once the agent ended, nothing is left of the retired folder.
  agent.end();
  EXPECT_TRUE(kt::poll([&] {
    sweep_retired((in.dir + "\\").c_str());
    return !exists(r);
  })) << names(r + "\\d").size();
  EXPECT_EQ(names(in.dir), list{"keep.exe"});

  // Nothing to sweep is no fault.
  sweep_retired(in.dir.c_str());
  sweep_retired(nullptr);
  sweep_retired("");
  EXPECT_EQ(names(in.dir), list{"keep.exe"});
}

}  // namespace
