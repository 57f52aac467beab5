// echo-agent as a real child process, started and fed by the launcher the way the port
// manager starts agents, served by real clients on loopback.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/support.h"

using namespace kt;

namespace {

// Bounds for what should happen at once; reaching one is a failure, not a measurement.
constexpr DWORD DEADLINE_MS = 20000;

struct echo_run {
  launched l{};
  std::vector<SOCKET> held;  // the launcher's copies, as the manager keeps its own
  ~echo_run() {
    if (l.process && wait_exit(l, 0) < 0) TerminateProcess(l.process, 99);
    end_launch(&l);
    for (SOCKET s : held) closesocket(s);
  }
};

// Starts the echo agent with the sockets handed over, then the "on" ports, "--" and
// "lifespan".
bool start_echo(echo_run *run, const std::vector<unsigned> &handed, const std::vector<unsigned> &on,
                const std::string &lifespan) {
  if (!launch(echo_agent_exe(), &run->l)) return false;
  for (size_t i = 0; i < handed.size(); i++) {
    std::string line = handover_line(run->held[i], handed[i], run->l.pid);
    if (line.empty() || !send_line(run->l.pipe, line)) return false;
  }
  for (unsigned port : on)
    if (!send_line(run->l.pipe, "-Ptcp::" + std::to_string(port))) return false;
  return send_line(run->l.pipe, "--") && send_line(run->l.pipe, "lifespan " + lifespan);
}

// n listening sockets kept in run->held; their ports.
std::vector<unsigned> listen_n(echo_run *run, int n) {
  std::vector<unsigned> ports;
  for (int i = 0; i < n; i++) {
    unsigned port = 0;
    run->held.push_back(listen_on(&port));
    ports.push_back(port);
  }
  return ports;
}

bool serves(unsigned port, const std::string &text) {
  SOCKET c = connect_to(port);
  bool ok = c != INVALID_SOCKET && echoes(c, text);
  if (c != INVALID_SOCKET) closesocket(c);
  return ok;
}

}  // namespace

// Garbled lines and "reconfig" disturb nothing; a removed port is no longer served, the others are, and its
// client to its end; "exit", or the end of the pipe, ends the agent with 0 while clients
// are connected.
TEST(EchoAgent, ServesHandedAndOnPortsUntilRemovedOrEnded) {
  for (bool by_exit : {true, false}) {
    SCOPED_TRACE(by_exit ? "ended by exit" : "ended by the end of the pipe");
    echo_run run;
    std::vector<unsigned> ports = listen_n(&run, 2);
    unsigned on = free_port();
    // The connection that makes the manager start an agent is waiting before the launch.
    SOCKET first = connect_to(ports[0]);
    ASSERT_NE(INVALID_SOCKET, first);
    ASSERT_TRUE(start_echo(&run, ports, {on}, "600"));

    SOCKET second = connect_to(ports[0]);
    ASSERT_NE(INVALID_SOCKET, second);
    // The second client is served while the first is connected and silent, then both.
    EXPECT_TRUE(echoes(second, "second"));
    EXPECT_TRUE(echoes(first, std::string(30000, 'f'))) << "a long text, echoed in pieces";
    EXPECT_TRUE(echoes(second, "second again"));
    EXPECT_TRUE(serves(ports[1], "other handed-over port"));
    EXPECT_TRUE(poll([&] { return serves(on, "on port"); }, DEADLINE_MS))
        << "the agent listens on its \"on\" port " << on;
    for (const char *line : {"-Ptcp::5@QUJD", "hello"}) ASSERT_TRUE(send_line(run.l.pipe, line));
    ASSERT_TRUE(send_line(run.l.pipe, "reconfig"));
    EXPECT_TRUE(echoes(first, "after"));
    EXPECT_TRUE(echoes(second, "after the second"));

    ASSERT_TRUE(send_line(run.l.pipe, "remove tcp::" + std::to_string(ports[0])));
    // The manager closes its copy of a removed port too; then nobody listens.
    closesocket(run.held[0]);
    run.held[0] = INVALID_SOCKET;
    EXPECT_TRUE(poll([&] { return !serves(ports[0], "x"); }, DEADLINE_MS))
        << "the agent still listens on removed port " << ports[0];
    EXPECT_TRUE(echoes(first, "a client of the removed port is served to its end"));
    EXPECT_TRUE(serves(ports[1], "the other port"));
    EXPECT_EQ(-1, wait_exit(run.l, 0));
    if (by_exit) {
      ASSERT_TRUE(send_line(run.l.pipe, "exit"));
    } else {
      CloseHandle(run.l.pipe);
      run.l.pipe = nullptr;
    }
    EXPECT_EQ(0, wait_exit(run.l, DEADLINE_MS));
    closesocket(first);
    closesocket(second);
  }
}

// A client held past the lifespan keeps the agent; once the client leaves, the count
// begins and the agent ends by itself, a whole lifespan later (a slow machine can only
// make that later).
TEST(EchoAgent, LifespanCountsOnlyTimeWithoutClients) {
  echo_run run;
  std::vector<unsigned> ports = listen_n(&run, 1);
  SOCKET client = connect_to(ports[0]);
  ASSERT_TRUE(start_echo(&run, ports, {}, "1"));
  ASSERT_TRUE(echoes(client, "first"));
  Sleep(2500);  // well past the lifespan of 1 s, with the client still connected
  EXPECT_EQ(-1, wait_exit(run.l, 0)) << "ended with a client connected";
  EXPECT_TRUE(echoes(client, "still served"));
  ULONGLONG left = GetTickCount64();
  closesocket(client);
  EXPECT_EQ(0, wait_exit(run.l, DEADLINE_MS));
  EXPECT_GE(GetTickCount64() - left, 1000u) << "the lifespan counted from the agent's start";
}

// A lifespan of 0 serves the connections waiting when the agent starts, then ends with 0.
TEST(EchoAgent, LifespanZeroServesWhatWaits) {
  echo_run run;
  std::vector<unsigned> ports = listen_n(&run, 1);
  SOCKET first = connect_to(ports[0]), second = connect_to(ports[0]);
  ASSERT_TRUE(start_echo(&run, ports, {}, "0"));
  EXPECT_TRUE(echoes(first, "first"));
  EXPECT_TRUE(echoes(second, "second"));
  closesocket(first);
  EXPECT_EQ(-1, wait_exit(run.l, 0)) << "ended with a client connected";
  closesocket(second);
  EXPECT_EQ(0, wait_exit(run.l, DEADLINE_MS));
}

// An agent that can serve none of its ports (its "on" port taken by another program) ends
// with 1 at once, so that kivd opens new sockets, rather than idle for its lifespan.
TEST(EchoAgent, NoPortToServeEndsWithOne) {
  echo_run run;
  unsigned taken = 0;
  run.held.push_back(listen_on(&taken));
  ASSERT_NE(INVALID_SOCKET, run.held.back());
  ASSERT_TRUE(start_echo(&run, {}, {taken}, "600"));
  EXPECT_EQ(1, wait_exit(run.l, DEADLINE_MS));
}
