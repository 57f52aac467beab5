// The restart rules that take a port or a program out of service for a time: the agent
// start throttle, the program start throttle, a port that cannot be bound.
#include "ports/ssock.h"
#include "tests/support/ports.h"

namespace porttest {
namespace {

using Throttle = Ports;

// Thirteen agents (the one that opens the period and twelve more) each serve one client
// and exit with 0; the fourteenth connection within the minute is refused.
TEST_F(Throttle, FourteenthAgentWithinAMinuteDisablesTheServicesIdlePorts) {
  std::string rec = record_path("throttle");
  auto p = svc_ports(2, "auto", agent_program(rec));
  ASSERT_EQ(0, ssock_reconfig());
  for (int launch = 1; launch <= 13; launch++) {
    SOCKET client = connect_to(p[0]);
    ASSERT_TRUE(pump_until([&] { return logged("[svc, Auto]") == launch; })) << launch;
    ASSERT_EQ("agent " + std::to_string(agents(rec).back()) + " port " + std::to_string(p[0]),
              read_line(client));
    send_text(client, "exit 0");
    closesocket(client);
    ASSERT_TRUE(pump_until([&] { return logged("died with code 0") == launch; })) << launch;
  }
  SOCKET client = connect_to(p[0]);
  ASSERT_TRUE(pump_until([] { return logged("Too many agents started for service svc") == 1; }));
  EXPECT_EQ("", read_line(client));  // the waiting connection went with the socket
  closesocket(client);
  EXPECT_EQ(13, logged("[svc, Auto]"));
  for (unsigned port : p)
    EXPECT_EQ(1, logged("Port " + std::to_string(port) + " disabled for 900 seconds"));
  expect_rest(p, "svc", "Auto", now + 900);

  advance(899);
  EXPECT_EQ(waits(0), waits());
  advance(1);
  EXPECT_EQ(waits(2), waits());
}

// A global program that ends at once is started again by the pass that handles its end.
TEST_F(Throttle, EighthProgramStartWithinAMinuteRestsItForTenMinutes) {
  std::string rec = record_path("prog");
  set_global("job", "on", agent_program(rec, "-Q"));
  ASSERT_EQ(0, ssock_reconfig());
  ASSERT_TRUE(pump_until([] { return logged("Too many prog started for job") == 1; }));
  EXPECT_EQ(7, logged("Started pid"));
  EXPECT_EQ(1, logged("Prog job disabled for 600 sec."));
  EXPECT_EQ(waits(0), waits());
  EXPECT_EQ(now + 600, wait_list().due);
  // Global programs get their command line only: no pipe, nothing inherited.
  for (DWORD pid : agents(rec))
    EXPECT_TRUE(has_text(rec, "#handles listening=0 sockets=0 pipes=0 other=0 own=0", pid)) << pid;

  advance(600);  // rests until a pass after its time
  EXPECT_EQ(7, logged("Started pid"));
  advance(1);
  EXPECT_EQ(8, logged("Started pid"));
}

TEST_F(Throttle, ProgramEndedByAnExceptionRestsForAMinute) {
  std::string rec = record_path("progcrash");
  set_global("job", "ON", agent_program(rec, "-V"));  // "on" in any letter case
  ASSERT_EQ(0, ssock_reconfig());
  ASSERT_TRUE(pump_until([] { return logged("Prog job disabled for 1 minute") == 1; }));
  EXPECT_EQ(1, logged("died with code 0xc0000005"));
  EXPECT_EQ(now + 60, wait_list().due);
  advance(60);
  EXPECT_EQ(1, logged("Started pid"));
  advance(1);
  EXPECT_EQ(2, logged("Started pid"));
  // A reconfiguration makes a resting program eligible again at once.
  ASSERT_TRUE(pump_until([] { return logged("Prog job disabled for 1 minute") == 2; }));
  ASSERT_EQ(0, ssock_reconfig());
  EXPECT_EQ(3, logged("Started pid"));
}

TEST_F(Throttle, ProgramNoLongerConfiguredIsKilledAndForgotten) {
  std::string rec = record_path("gone");
  set_global("job", "on", agent_program(rec));  // lives until killed
  ASSERT_EQ(0, ssock_reconfig());
  ASSERT_TRUE(pump_until([&] { return !agents(rec).empty(); }));
  DWORD pid = agents(rec)[0];
  HANDLE process = open_process(pid);
  EXPECT_EQ(std::vector<DWORD>{pid}, wait_list().pids);
  remove_key("global\\start\\job");
  ASSERT_EQ(0, ssock_reconfig());
  EXPECT_EQ(1, logged("Prog job no longer used"));
  EXPECT_EQ(1, logged("Prog job/" + std::to_string(pid) + " killed"));
  ASSERT_TRUE(pump_until([] { return wait_list().count == 0; }));
  EXPECT_EQ(1u, exit_code(process));    // terminated
  EXPECT_EQ(1, logged("Started pid"));  // not started again
}

// A port that cannot be bound rests 15 minutes; one whose agent cannot be started rests
// three seconds.
TEST_F(Throttle, PortThatCannotBeBoundOrServedRests) {
  auto p = free_ports(2);
  set_service("svc", agent_program(record_path("bind")));
  set_service("none", "C:\\kivd-no-such-folder\\agent.exe");
  set_port(p[0], "auto", "svc");
  set_port(p[1], "auto", "none");
  SOCKET blocker = kt::listen_on(&p[0]);
  ASSERT_NE(INVALID_SOCKET, blocker);
  ASSERT_EQ(0, ssock_reconfig());
  EXPECT_EQ(1, logged("bind() -> "));
  EXPECT_EQ(1, logged("Failed to listen to port " + std::to_string(p[0])));
  closesocket(blocker);
  SOCKET client = connect_to(p[1]);
  ASSERT_TRUE(
      pump_until([] { return logged("Failed to start agent for service none. Code = -12") == 1; }));
  closesocket(client);
  EXPECT_EQ(lines({line_of(p[0], "svc", "Auto") + disable_of(now + 900),
                   line_of(p[1], "none", "Auto") + disable_of(now + 3)}),
            listing());
  EXPECT_EQ(0u, wait_list().count);
  EXPECT_EQ(now + 3, wait_list().due);
  advance(3);
  EXPECT_EQ(waits(1), waits());
  EXPECT_EQ(now + 897, wait_list().due);
  advance(896);
  EXPECT_EQ(1u, wait_list().count);
  // A reconfiguration lifts a timed disable at once.
  ASSERT_EQ(0, ssock_reconfig());
  EXPECT_EQ(1, logged("Reenable port " + std::to_string(p[0])));
  EXPECT_EQ(waits(2), waits());
  EXPECT_EQ(lines({line_of(p[0], "svc", "Auto"), line_of(p[1], "none", "Auto")}), listing());
}

}  // namespace
}  // namespace porttest
