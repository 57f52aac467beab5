// Agents and global programs under each account and each set of job limits: the test
// agent, started by the port manager's launcher, reports its token, its job and what it
// inherited from inside itself, and serves the port handed over to it; closing its job
// ends it. Wine shows less than Windows: its service logon is a stub (no token, so
// nothing starts), it keeps privileges' integrity as it was, rejects a CPU rate and reads
// every job limit back as 0. Each row says what each system shows.
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
#include "toolkit/runtime/log.h"

namespace {

const bool wine = GetProcAddress(GetModuleHandleA("ntdll.dll"), "wine_get_version") != nullptr;

std::vector<std::string> logged;
void capture(const char *line) { logged.push_back(line); }

// The report lines read up to ".", joined by "\n".
std::string read_report(SOCKET s) {
  std::string text;
  for (std::string line = kt::read_line(s); !line.empty() && line != "."; line = kt::read_line(s))
    text += line + "\n";
  return text;
}

// Inheritable handles of every kind the handle scan tells apart, held while kivd's
// launcher runs: no process it starts may get one (a socket, both ends of a pipe, an event).
struct decoys {
  SOCKET sock = INVALID_SOCKET;
  HANDLE read = nullptr, write = nullptr, event = nullptr;
  decoys() {
    SECURITY_ATTRIBUTES inherit = {sizeof inherit, nullptr, TRUE};
    unsigned port = 0;
    sock = kt::listen_on(&port);
    SetHandleInformation(reinterpret_cast<HANDLE>(sock), HANDLE_FLAG_INHERIT, HANDLE_FLAG_INHERIT);
    CreatePipe(&read, &write, &inherit, 0);
    event = CreateEventA(&inherit, TRUE, FALSE, nullptr);
  }
  ~decoys() {
    closesocket(sock);
    for (HANDLE h : {read, write, event}) CloseHandle(h);
  }
  bool held() const { return sock != INVALID_SOCKET && read && write && event; }
};

struct Accounts : ::testing::Test {
  static void SetUpTestSuite() {
    kiv_locks_init();
    kivinfo_init(0);
    ASSERT_EQ(0, kiv_net_init());
  }
  void SetUp() override {
    logged.clear();
    kiv_logsink = capture;
    ASSERT_TRUE(inheritable.held());
  }
  void TearDown() override {
    ssock_reset();
    kiv_logreset();
  }
  decoys inheritable;
};

TEST_F(Accounts, Names) {
  struct row {
    const char *text;
    int rc, kind;
  } rows[] = {{"system", 0, ACCOUNT_SYSTEM},
              {"SYSTEM", 0, ACCOUNT_SYSTEM},
              {"localservice", 0, ACCOUNT_LOCALSERVICE},
              {"NETWORKSERVICE", 0, ACCOUNT_NETWORKSERVICE},
              {"Restricted", 0, ACCOUNT_RESTRICTED},
              {"LocalServices", KIV_EINVAL, ACCOUNT_SYSTEM},
              {"restricte", KIV_EINVAL, ACCOUNT_SYSTEM},
              {"local service", KIV_EINVAL, ACCOUNT_SYSTEM},
              {"", KIV_EINVAL, ACCOUNT_SYSTEM},
              {nullptr, KIV_EINVAL, ACCOUNT_SYSTEM}};
  for (const row &r : rows) {
    int kind = -1;
    EXPECT_EQ(r.rc, account_parse(r.text, &kind)) << (r.text ? r.text : "(null)");
    EXPECT_EQ(r.kind, kind) << (r.text ? r.text : "(null)");
  }
}

// What the process (the agent, or a program) reports under an account: "own" stands for
// the line kivd's own token gives (this test's process), "" for a line not pinned.
struct expected {
  const char *user, *admins, *privileges, *integrity;
};
const expected OWN = {"own", "own", "own", "own"};
const expected FILTERED = {"own", "admins 0x19", "privileges SeChangeNotifyPrivilege",
                           "integrity S-1-16-4096"};

std::string job_line(const job_limits &l) {
  return expected_job_line(l.memory, l.processes, l.cpu);
}

void expect_report(const std::string &report, const expected &e, const job_limits &limits) {
  std::vector<std::string> own = self_report();
  const char *want[] = {e.user, e.admins, e.privileges, e.integrity};
  size_t at = 0;
  for (int i = 0; i < 4; i++) {
    size_t eol = report.find('\n', at);
    std::string line = report.substr(at, eol - at);
    at = eol + 1;
    if (!*want[i]) continue;
    EXPECT_EQ(strcmp(want[i], "own") == 0 ? own[i] : want[i], line) << report;
  }
  EXPECT_NE(report.find(job_line(limits) + "\n"), std::string::npos) << report;
  // The pipe's read end and nothing else came with it (standard handles aside).
  EXPECT_NE(report.find("#handles listening=0 sockets=0 pipes=0 other=0 own=1\n"),
            std::string::npos)
      << report;
}

TEST_F(Accounts, AgentsReportTheirTokenAndJob) {
  struct row {
    int account;
    job_limits limits;
    expected windows, under_wine;
    const char *wine_refusal;  // what Wine reports instead of starting, or null
  } rows[] = {
      {ACCOUNT_SYSTEM, {0, 0, 0}, OWN, OWN, nullptr},
      {ACCOUNT_SYSTEM, {0, 0, 50}, OWN, OWN, "SetInformationJobObject() failed 87"},
      {ACCOUNT_LOCALSERVICE,
       {64, 10, 0},
       {"user S-1-5-19", "admins absent", "", "integrity S-1-16-16384"},
       OWN,
       "LogonUser(LocalService) failed 6"},
      {ACCOUNT_NETWORKSERVICE,
       {0, 0, 25},
       {"user S-1-5-20", "admins absent", "", "integrity S-1-16-16384"},
       OWN,
       "LogonUser(NetworkService) failed 6"},
      {ACCOUNT_RESTRICTED,
       {128, 5, 0},
       FILTERED,
       {"own", "admins 0x19", FILTERED.privileges, "own"},
       nullptr},
  };
  service_record *svc = addservice("acct");
  svc->program = xstrdup(("\"" + kt::testagent_exe() + "\" -R").c_str(), nullptr);
  for (const row &r : rows) {
    SCOPED_TRACE(std::string(ACCOUNT_NAMES[r.account]) + " cpu " + std::to_string(r.limits.cpu));
    logged.clear();
    svc->account = r.account;
    svc->limits = r.limits;
    port_record *p = addport(kt::free_port(), svc, START_AUTO);
    ASSERT_EQ(0, listen_on(p->port, &p->sock));
    p->event = WSACreateEvent();
    DWORD error = 0;
    int rc = start_agent(p, &error);
    if (wine && r.wine_refusal) {
      // Never started in another account or without its limits; the error is the refusal's.
      EXPECT_EQ(KIV_ESYS, rc);
      std::string refusal = r.wine_refusal;
      EXPECT_EQ(refusal.substr(refusal.rfind(' ') + 1), std::to_string(error));
      EXPECT_EQ(nullptr, p->agent);
      ASSERT_FALSE(logged.empty());
      EXPECT_NE(logged[0].find(r.wine_refusal), std::string::npos) << logged[0];
      continue;
    }
    ASSERT_EQ(0, rc);
    SOCKET c = kt::connect_to(p->port);
    EXPECT_EQ("agent " + std::to_string(p->agent->pid) + " port " + std::to_string(p->port),
              kt::read_line(c));
    expect_report(read_report(c), wine ? r.under_wine : r.windows, r.limits);
    closesocket(c);
    // Its pipe still open, the agent ends with its job.
    CloseHandle(p->agent->job);
    p->agent->job = nullptr;
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(p->agent->process, 5000));
  }
}

// A global program in the restricted account reports to a client connection of its own.
TEST_F(Accounts, ProgramReportsItsTokenAndJob) {
  unsigned port = 0;
  SOCKET listener = kt::listen_on(&port);
  ASSERT_NE(INVALID_SOCKET, listener);
  prog_record *g = addprog("acct");
  g->program =
      xstrdup(("\"" + kt::testagent_exe() + "\" -R" + std::to_string(port)).c_str(), nullptr);
  g->account = ACCOUNT_RESTRICTED;
  g->limits = {32, 3, 0};
  DWORD error = 0;
  ASSERT_EQ(0, start_prog(g, &error));
  SOCKET c = INVALID_SOCKET;
  ASSERT_TRUE(kt::poll([&] { return (c = accept(listener, nullptr, nullptr)) != INVALID_SOCKET; }));
  u_long blocking = 0;
  ioctlsocket(c, FIONBIO, &blocking);
  std::string report = read_report(c);
  closesocket(c);
  closesocket(listener);
  std::vector<std::string> own = self_report();
  EXPECT_EQ(own[0] + "\nadmins 0x19\nprivileges SeChangeNotifyPrivilege\n",
            report.substr(0, report.find("integrity")));
  EXPECT_NE(report.find(job_line(g->limits) + "\n"), std::string::npos) << report;
  EXPECT_NE(report.find("#handles listening=0 sockets=0 pipes=0 other=0 own=0\n"),
            std::string::npos)
      << report;
  // Its job ends what it leaves behind once its end is handled: a crash rests it, so
  // no new start takes a job again.
  ssock_update();
  ASSERT_EQ(1u, ssock_waitcount);
  TerminateProcess(g->process, EXIT_EXCEPTION);
  WaitForSingleObject(g->process, 5000);
  EXPECT_EQ(0, ssock_callback(0));
  EXPECT_EQ(nullptr, g->job);
}

}  // namespace
