// The port manager's internals: what is easiest to pin from inside the module. The
// end-to-end behaviour (agents, the fixed registry root) is tested in tests/ports.
#include <winsock2.h>
// winsock2.h first: windows.h would otherwise bring the old winsock.h.
#include <windows.h>
#include <ws2tcpip.h>

#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "ports/internal.h"
#include "ports/util.h"
#include "toolkit/config/info.h"
#include "toolkit/runtime/clock.h"
#include "toolkit/runtime/error.h"
#include "toolkit/runtime/init.h"
#include "toolkit/runtime/locks.h"
#include "toolkit/runtime/memory.h"

namespace {

std::vector<std::string> logged;
void capture(const char *line) { logged.push_back(line); }
bool logged_with(const std::string &text) {
  for (const auto &line : logged)
    if (line.find(text) != std::string::npos) return true;
  return false;
}

time_t now;
time_t testclock() { return now; }
uint32_t ticks, tickstep;
uint32_t testticks() { return ticks += tickstep; }

// A private key under HKEY_CURRENT_USER holding a small configuration.
const std::string subkey = "Software\\kivd-ports-unit-" + std::to_string(GetCurrentProcessId());
void setvalue(const std::string &key, const char *name, const char *text) {
  HKEY h = nullptr;
  ASSERT_EQ(ERROR_SUCCESS, RegCreateKeyExA(HKEY_CURRENT_USER, (subkey + "\\" + key).c_str(), 0,
                                           nullptr, 0, KEY_ALL_ACCESS, nullptr, &h, nullptr));
  RegSetValueExA(h, name, 0, REG_SZ, reinterpret_cast<const BYTE *>(text), DWORD(strlen(text) + 1));
  RegCloseKey(h);
}

std::vector<std::string> listing;
int collect(int context, const char *text, int length) {
  EXPECT_EQ(7, context);
  listing.emplace_back(text, length);
  return 0;
}

// The port records in list order.
std::vector<port_record *> port_order() {
  std::vector<port_record *> order;
  for (port_record *p = ssock_ports; p; p = p->next) order.push_back(p);
  return order;
}

struct Ports : ::testing::Test {
  static void SetUpTestSuite() {
    kiv_locks_init();
    kivinfo_init(0);
    ASSERT_EQ(0, kiv_net_init());
    setvalue("tcp\\s25", "service", "echo");
    setvalue("tcp\\s26", "service", "noprog");
    setvalue("tcp\\s65534", "service", "echo");
    setvalue("tcp\\s28", "service", std::string(300, 'L').c_str());  // its paths cannot be built
    setvalue("services\\echo", "program", "echo.exe");
    setvalue("services\\noprog", "description", "no program");
  }
  static void TearDownTestSuite() { RegDeleteTreeA(HKEY_CURRENT_USER, subkey.c_str()); }
  void SetUp() override {
    ssock_reset();
    logged.clear();
    listing.clear();
    kiv_logsink = capture;
    kiv_loglevel = 3;
    now = 1000000;
    kiv_setclock(testclock, nullptr);
    std::string root = "HKEY_CURRENT_USER\\" + subkey;
    kivinfo_set(".tcp", (root + "\\tcp").c_str(), KIVINFO_REGISTRY);
    kivinfo_set(".services", (root + "\\services").c_str(), KIVINFO_REGISTRY);
  }
  void TearDown() override {
    ssock_reset();
    kiv_setclock(nullptr, nullptr);
    kiv_logreset();
  }
};

// The agent start throttle and the program start throttle: 1 + limit starts within a
// period, then a refusal, after which the counting starts afresh.
TEST_F(Ports, ThrottleArithmetic) {
  struct row {
    int limit;
    std::vector<int> at;   // seconds after the first start
    std::string expected;  // one letter per start: a(llowed) or r(efused)
  } rows[] = {
      {AGENT_STARTS, std::vector<int>(14, 59), "aaaaaaaaaaaaar"},
      {AGENT_STARTS, {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 60}, "aaaaaaaaaaaaaa"},
      {PROG_STARTS, std::vector<int>(8, 0), "aaaaaaar"},
      {PROG_STARTS, {0, 0, 0, 0, 0, 0, 0, 10, 10}, "aaaaaaara"},
      // A period counts starts, not time: past 60 s the count goes on until it is full.
      {PROG_STARTS, {0, 100, 100, 100, 100, 100, 100, 100}, "aaaaaaaa"},
      {PROG_STARTS,
       {0, 100, 100, 100, 100, 100, 100, 100, 100, 100, 100, 100, 100, 100, 100},
       "aaaaaaaaaaaaaar"},
  };
  for (const row &r : rows) {
    int starts = 0;
    time_t period_start = 0;
    std::string seen;
    for (int t : r.at) {
      now = 5000 + t;
      seen += start_allowed(&starts, &period_start, r.limit) ? 'a' : 'r';
    }
    EXPECT_EQ(r.expected, seen) << "limit " << r.limit;
  }
}

TEST_F(Ports, ListingLine) {
  _putenv("TZ=UTC0");
  _tzset();
  service_record *echo = addservice("echo");
  service_record *longer = addservice("twelve-chars");
  std::string huge(255 - 10 - 12, 'n');  // the longest name a service can have
  service_record *big = addservice(huge.c_str());
  ASSERT_TRUE(echo && longer && big);
  auto *agent = static_cast<child_record *>(kiv_zalloc(sizeof(child_record), "test"));
  agent->pid = 4321;
  port_record *p3 = addport(110, longer, START_ON);
  port_record *p4 = addport(65535, echo, START_HOOK);
  port_record *p5 = addport(8, big, START_HOOK);
  p3->flags = PORT_DISABLED;
  p3->until = UNTIL_ENABLED;
  p4->parent = OpenProcess(SYNCHRONIZE, FALSE, GetCurrentProcessId());
  p4->parent_pid = 99;
  p5->agent = agent;
  p5->parent_pid = 4294967295u;
  p5->parent = OpenProcess(SYNCHRONIZE, FALSE, GetCurrentProcessId());
  p5->flags = PORT_DISABLED;
  p5->until = UNTIL_ENABLED;
  agent->links = 1;
  ASSERT_EQ(0, ssock_info(7, collect));
  std::string cut(LISTING_SIZE - 1 - 83 - 62, 'n');  // room for the account and limits
  std::vector<std::string> expected = {
      "    8  " + cut + "   Hook Disable=2038-01-19_03:14 Parent=-1 Agent=4321",
      "  110  twelve-chars   On Disable=2038-01-19_03:14",
      "65535  echo          Hook Parent=99",
  };
  ASSERT_EQ(expected, listing);  // the first line as long as a line can be
  // East of UTC the largest time still gives a line, in local time.
  listing.clear();
  _putenv("TZ=XXX-14");
  _tzset();
  ssock_info(7, collect);
  EXPECT_EQ("  110  twelve-chars   On Disable=2038-01-19_17:14", listing[1]);
  _putenv("TZ=");
  _tzset();
}

// The fallback for a time localtime cannot represent, against known calendar dates.
TEST_F(Ports, UtcBreakdown) {
  struct row {
    long long t;
    const char *expected;
  } rows[] = {
      {0, "1970-01-01_00:00"},          {86399, "1970-01-01_23:59"},
      {951782400, "2000-02-29_00:00"},  {0x7FFFFFFF, "2038-01-19_03:14"},
      {4107542400, "2100-03-01_00:00"}, {253402300799, "9999-12-31_23:59"},
      {-1, "1969-12-31_23:59"},
  };
  for (const row &r : rows) {
    tm when;
    utc_breakdown(static_cast<time_t>(r.t), &when);
    char text[64];
    snprintf(text, sizeof text, "%d-%02d-%02d_%02d:%02d", when.tm_year + 1900, when.tm_mon + 1,
             when.tm_mday, when.tm_hour, when.tm_min);
    EXPECT_STREQ(r.expected, text) << r.t;
  }
}

// New records go in ascending order, the newest of one number last; the one they
// replace is marked, and told to exit when the start mode changed.
TEST_F(Ports, AddportOrderAndReplacement) {
  service_record *echo = addservice("echo");
  port_record *p30 = addport(30, echo, START_AUTO);
  port_record *p10 = addport(10, echo, START_AUTO);
  port_record *p20 = addport(20, echo, START_AUTO);
  port_record *p20b = addport(20, echo, START_AUTO);
  port_record *p20c = addport(20, echo, START_ON);
  EXPECT_EQ((std::vector<port_record *>{p10, p20, p20b, p20c, p30}), port_order());
  EXPECT_EQ(PORT_REMOVE, p20->flags);
  EXPECT_EQ(PORT_REMOVE | PORT_EXIT, p20b->flags);
  EXPECT_EQ(PORT_DISABLED, p20c->flags);
  EXPECT_EQ(now + 10, p20c->until);
  EXPECT_EQ(p20c, find_port(20));
  EXPECT_EQ(nullptr, find_port(20 + 65536));
  EXPECT_EQ(5, echo->nports);
  EXPECT_TRUE(logged_with("Old port 20 [echo] marked for removal"));
}

// The pass frees removed records nothing holds, whatever disable they carry (timed or by
// command): a removed record is never live again. A live port disabled by command stays.
TEST_F(Ports, PassRemovals) {
  service_record *echo = addservice("echo");
  port_record *hooked = addport(5, echo, START_HOOK);
  hooked->flags = PORT_REMOVE | PORT_EXIT | PORT_DISABLED;
  hooked->until = now + 3;
  port_record *disabled = addport(6, echo, START_AUTO);
  disabled->flags = PORT_DISABLED;
  disabled->until = UNTIL_ENABLED;
  port_record *gone = addport(7, echo, START_AUTO);
  gone->flags = PORT_REMOVE;
  port_record *resting = addport(8, echo, START_AUTO);
  resting->flags = PORT_DISABLED;
  resting->until = now + 900;
  for (unsigned removed_rest : {PORT_DISABLED, 0u}) {  // timed, then by command
    port_record *stale = addport(9, echo, START_ON);
    stale->flags = PORT_REMOVE | PORT_DISABLED;
    stale->until = removed_rest ? now + 3 : UNTIL_ENABLED;
  }
  ASSERT_EQ(0, ssock_update());
  ASSERT_EQ((std::vector<port_record *>{disabled, resting}), port_order());
  EXPECT_EQ(PORT_DISABLED, disabled->flags);
  EXPECT_EQ(2, echo->nports);
  HANDLE *handles = nullptr;
  time_t due = 0;
  EXPECT_EQ(0u, ssock_waitset(&handles, &due));
  EXPECT_EQ(now + 900, due);
  EXPECT_TRUE(logged_with("Port 5/Hook unlinked"));
  EXPECT_TRUE(logged_with("Next port is 8"));
  // With nothing left the service goes too, and the next due time is a day ahead.
  disabled->flags = resting->flags = PORT_REMOVE;
  ssock_update();
  EXPECT_EQ(nullptr, ssock_ports);
  EXPECT_EQ(nullptr, ssock_services);
  EXPECT_EQ(0u, ssock_waitset(&handles, &due));
  EXPECT_EQ(now + 86400, due);
}

// A process that ended with an access violation's exit code.
HANDLE crashed_process() {
  char self[MAX_PATH];
  GetModuleFileNameA(nullptr, self, sizeof self);
  std::string line = std::string("\"") + self + "\" --gtest_list_tests";
  STARTUPINFOA startup = {};
  startup.cb = sizeof startup;
  PROCESS_INFORMATION info = {};
  EXPECT_TRUE(CreateProcessA(nullptr, &line[0], nullptr, nullptr, FALSE, CREATE_SUSPENDED, nullptr,
                             nullptr, &startup, &info));
  TerminateProcess(info.hProcess, 0xC0000005);
  WaitForSingleObject(info.hProcess, 10000);
  CloseHandle(info.hThread);
  return info.hProcess;
}

// An agent that ends by an exception rests its ports for 3 seconds, but a removed port
// stays removed: a reconfiguration's removal is carried out, a disable by command keeps
// lasting until the enable command.
TEST_F(Ports, ExceptionExitOfRemovedPorts) {
  service_record *echo = addservice("echo");
  auto *c = static_cast<child_record *>(kiv_zalloc(sizeof(child_record), "test"));
  c->process = crashed_process();
  c->links = 3;
  port_record *live = addport(1, echo, START_ON);
  port_record *gone = addport(2, echo, START_AUTO);
  port_record *off = addport(3, echo, START_AUTO);
  gone->flags = PORT_REMOVE | PORT_TOLD;
  off->flags = PORT_TOLD | PORT_DISABLED;  // disabled by command, its agent told
  off->until = UNTIL_ENABLED;
  live->agent = gone->agent = off->agent = c;
  ssock_update();
  HANDLE *handles = nullptr;
  time_t due = 0;
  ASSERT_EQ(1u, ssock_waitset(&handles, &due));
  EXPECT_EQ(0, ssock_callback(0));
  EXPECT_TRUE(logged_with("caused exeption 0xc0000005"));
  EXPECT_FALSE(logged_with("Link count"));
  ASSERT_EQ((std::vector<port_record *>{live, off}), port_order());
  EXPECT_EQ(PORT_DISABLED | PORT_REST, live->flags);  // a rest, not a pause
  EXPECT_EQ(now + 3, live->until);
  EXPECT_EQ(PORT_DISABLED, off->flags);
  EXPECT_EQ(UNTIL_ENABLED, off->until);
  EXPECT_EQ(0u, ssock_waitset(&handles, &due));
  EXPECT_EQ(now + 3, due);
}

// tcpnode_cb over a private configuration: which entries make which port records.
TEST_F(Ports, TcpEntries) {
  struct row {
    const char *path, *value;
    int port, start;  // the record expected, port 0 for none
  } rows[] = {
      {".tcp.s25.start", "auto", 25, START_AUTO},
      {".TCP.S25.START", "on", 25, START_ON},
      {".tcp.s65534.start", "auto", 65534, START_AUTO},
      {".tcp.s25.start", "Auto", 0, 0},
      {".tcp.s25.start", "hook", 0, 0},
      {".tcp.s25.service", "echo", 0, 0},
      {".tcp.s25x.start", "auto", 0, 0},
      {".tcp.s0.start", "auto", 0, 0},
      {".tcp.s65535.start", "auto", 0, 0},
      {".tcp.s27.start", "auto", 0, 0},  // no service key
      {".tcp.s26.start", "auto", 0, 0},  // a service without a program
      {".tcp.s28.start", "auto", 0, 0},  // a service name too long
  };
  for (const row &r : rows) {
    ssock_reset();
    EXPECT_EQ(0, tcpnode_cb(r.path, r.value, nullptr));
    port_record *p = ssock_ports;
    EXPECT_EQ(r.port, p ? p->port : 0) << r.path << " " << r.value;
    if (p) {
      EXPECT_EQ(r.start, p->start) << r.path;
      EXPECT_EQ(1, p->refs) << r.path;
    }
  }
  EXPECT_TRUE(logged_with("No program for service noprog. 26 not added"));
  EXPECT_TRUE(logged_with("Service name too long: LLLL"));
}

TEST_F(Ports, GlobalStartEntries) {
  std::string huge = ".global.start." + std::string(300, 'x') + ".start";
  struct row {
    const char *path, *value, *name;  // name null: no prog record
  } rows[] = {
      {".global.start.backup.start", "on", "backup"},
      {".Global.Start.Backup.START", "ON", "Backup"},
      {".global.start.backup.start", "off", nullptr},
      {".global.start.backup.program", "on", nullptr},
      {".global.start.start", "on", nullptr},
      {huge.c_str(), "on", nullptr},
  };
  for (const row &r : rows) {
    ssock_reset();
    EXPECT_EQ(0, startnode_cb(r.path, r.value, nullptr));
    EXPECT_STREQ(r.name, ssock_progs ? ssock_progs->name : nullptr) << r.path;
  }
}

// Names whose configuration paths would not fit in 256 characters are refused.
TEST_F(Ports, ServicePathsBounded) {
  std::string fits(255 - 10 - 12, 'a'), over = fits + "a";
  EXPECT_NE(nullptr, addservice(fits.c_str()));
  EXPECT_EQ(nullptr, addservice(over.c_str()));
  char path[PATH_SIZE];
  EXPECT_EQ(0, kivschema_path(path, schema_values[SCHEMA_SERVICE_PROGRAM], "a.b.c"));
  EXPECT_STREQ(".services.a_b_c.program", path);
  EXPECT_EQ(KIV_EOVERFLOW,
            kivschema_path(path, schema_values[SCHEMA_SERVICE_DESCRIPTION], over.c_str()));
}

// An agent command is one line with CR LF; a closed pipe gets nothing and logs nothing.
TEST_F(Ports, Sendcmd) {
  HANDLE read = nullptr, write = nullptr;
  ASSERT_TRUE(CreatePipe(&read, &write, nullptr, 0));
  child_record c = {};
  c.pid = 77;
  c.pipe = write;
  std::string b64(496, 'A');
  sendcmd(&c, "-Ptcp::%u@%s", 65535u, b64.c_str());
  sendcmd(&c, "--");
  std::string expected = "-Ptcp::65535@" + b64 + "\r\n--\r\n";
  std::string got(expected.size(), '\0');
  DWORD n = 0;
  ASSERT_TRUE(ReadFile(read, &got[0], DWORD(got.size()), &n, nullptr));
  EXPECT_EQ(expected, got.substr(0, n));
  EXPECT_TRUE(logged_with("To 77: \"-Ptcp::65535@AAAAAAA ...\""));
  EXPECT_TRUE(logged_with("To 77: \"--\""));
  CloseHandle(write);
  c.pipe = nullptr;
  logged.clear();
  sendcmd(&c, "exit");
  EXPECT_TRUE(logged.empty());
  CloseHandle(read);
}

// Shutdown waits for more agents than one wait can take, group by group within one
// 5-second limit in all. Agents here are events: set means ended.
TEST_F(Ports, CleanupWaitsInGroups) {
  constexpr int AGENTS = MAXIMUM_WAIT_OBJECTS + 6;
  struct row {
    int running;  // index of the agent that does not end in time, -1 for none
    bool timeout;
  } rows[] = {{-1, false}, {AGENTS - 1, true}, {0, true}};
  for (const row &r : rows) {
    ssock_reset();
    logged.clear();
    service_record *echo = addservice("echo");
    HANDLE late = nullptr;
    for (int i = 0; i < AGENTS; i++) {
      auto *c = static_cast<child_record *>(kiv_zalloc(sizeof(child_record), "test"));
      c->process = CreateEventA(nullptr, TRUE, i != r.running, nullptr);
      if (i == r.running)
        DuplicateHandle(GetCurrentProcess(), c->process, GetCurrentProcess(), &late, 0, FALSE,
                        DUPLICATE_SAME_ACCESS);
      c->links = 1;
      addport(1000 + i, echo, START_AUTO)->agent = c;
    }
    // It ends a second into shutdown, after the limit is spent: a group that waited a
    // limit of its own would see it end.
    std::thread ender([late] {
      Sleep(1000);
      if (late) SetEvent(late);
    });
    // Each reading of the tick moves it by six seconds: a later group finds the limit
    // spent and waits no more.
    ticks = 0;
    tickstep = 6000;
    kiv_setclock(testclock, testticks);
    ASSERT_EQ(0, ssock_cleanup());
    EXPECT_TRUE(logged_with("Waiting for " + std::to_string(AGENTS) + " children"));
    EXPECT_EQ(r.timeout, logged_with("ssock_cleanup: timeout")) << r.running;
    int held = 0;
    for (port_record *p = ssock_ports; p; p = p->next) held += p->agent != nullptr;
    EXPECT_EQ(r.timeout ? 0 : AGENTS, held) << r.running;
    ender.join();
    if (late) CloseHandle(late);
  }
}

TEST_F(Ports, ListeningSockets) {
  SOCKET s = INVALID_SOCKET;
  ASSERT_EQ(0, listen_on(0, &s));
  DWORD flags = 0;
  ASSERT_TRUE(GetHandleInformation(reinterpret_cast<HANDLE>(s), &flags));
  EXPECT_EQ(0u, flags & HANDLE_FLAG_INHERIT);
  closesocket(s);
  // Where the socket an agent gets is bound: no address is every IPv4 one, not loopback.
  struct row {
    const char *address, *bound;
    bool dual;  // takes IPv4 clients too
  } rows[] = {{nullptr, "0.0.0.0", false},
              {"127.0.0.1", "127.0.0.1", false},
              {"::1", "::1", false},
              {"::", "::", true}};
  for (const row &r : rows) {
    SCOPED_TRACE(r.address ? r.address : "(none)");
    s = INVALID_SOCKET;
    ASSERT_EQ(0, listen_on(0, &s, r.address));
    sockaddr_storage local = {};
    int length = sizeof local;
    ASSERT_EQ(0, getsockname(s, reinterpret_cast<sockaddr *>(&local), &length));
    char host[NI_MAXHOST] = "";
    getnameinfo(reinterpret_cast<sockaddr *>(&local), length, host, sizeof host, nullptr, 0,
                NI_NUMERICHOST);
    EXPECT_STREQ(r.bound, host);
    DWORD v6only = 1;
    int size = sizeof v6only;
    if (r.dual) {
      EXPECT_EQ(
          0, getsockopt(s, IPPROTO_IPV6, IPV6_V6ONLY, reinterpret_cast<char *>(&v6only), &size) == 0
                 ? v6only
                 : 1);
    }
    closesocket(s);
  }
  EXPECT_EQ(INVALID_SOCKET, non_lsp_socket(AF_INET, SOCK_STREAM, IPPROTO_UDP));
  EXPECT_EQ(WSAEPROTONOSUPPORT, WSAGetLastError());
}

}  // namespace
