// Agents and global programs under each account and each set of job limits: the test
// agent, started by the launcher, reports its token and its job from inside itself and
// serves the port handed over to it; closing its job ends it.
#include <winsock2.h>
// winsock2.h first: windows.h would otherwise bring the old winsock.h.
#include <windows.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "lib/heap.h"
#include "ports/internal.h"
#include "ports/util.h"
#include "tests/support/support.h"
#include "tests/testagent/report.h"
#include "toolkit/config/info.h"
#include "toolkit/runtime/error.h"
#include "toolkit/runtime/init.h"
#include "toolkit/runtime/locks.h"

namespace {

// The report lines a client of the agent (or of the test, for a program) reads up to ".".
std::vector<std::string> read_report(SOCKET s) {
  std::vector<std::string> lines;
  for (std::string line = kt::read_line(s); !line.empty() && line != "."; line = kt::read_line(s))
    lines.push_back(line);
  return lines;
}

struct Accounts : ::testing::Test {
  static void SetUpTestSuite() {
    kiv_locks_init();
    kivinfo_init(0);
    ASSERT_EQ(0, kiv_net_init());
  }
  void TearDown() override { ssock_reset(); }
};

TEST_F(Accounts, Report) {
  service_record *svc = addservice("acct");
  std::string program = "\"" + kt::testagent_exe() + "\" -R";
  svc->program = xstrdup(program.c_str(), nullptr);
  job_limits sets[] = {{64,10,0},{64, 0, 0},{0,10,0},{64,10,0}};
  for (int account = 0; account < ACCOUNT_KINDS; account++) {
    svc->account = account;
    svc->limits = sets[account];
    port_record *p = addport(kt::free_port(), svc, START_AUTO);
    ASSERT_EQ(0, listen_on(p->port, &p->sock));
    p->event = WSACreateEvent();
    if (start_agent(p)) continue;
    SOCKET c = kt::connect_to(p->port);
    std::string hello = kt::read_line(c);
    std::vector<std::string> report = read_report(c);
    closesocket(c);
    printf("%s: %s\n", ACCOUNT_NAMES[account], hello.c_str());
    for (auto &l : report) printf("  %s\n", l.c_str());
    CloseHandle(p->agent->job);
    p->agent->job = nullptr;
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(p->agent->process, 5000));
  }
  for (auto &l : self_report()) printf("own  %s\n", l.c_str());
}

}  // namespace
