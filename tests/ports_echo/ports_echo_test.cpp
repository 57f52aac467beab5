// The echo agent behind the port manager: clients on loopback reach it only through the
// manager's listening sockets, hand-over and commands, driven as the main loop drives them.
#include "ports/ssock.h"
#include "tests/agent/launcher.h"
#include "tests/ports/fixture.h"

namespace porttest {
namespace {

std::string echo_program() { return "\"" + beside_me(ECHO_AGENT) + "\""; }

bool readable(SOCKET c) {
  fd_set set;
  FD_ZERO(&set);
  FD_SET(c, &set);
  timeval none = {0, 0};
  return select(0, &set, nullptr, nullptr, &none) == 1;
}

// Runs the manager until size bytes have arrived on c (a connection on an idle port needs
// the manager to start the agent first); returns them, or less on silence or close.
std::string answer(SOCKET c, size_t size) {
  std::string back;
  if (!pump_until([&] { return readable(c); }))
    return back;
  char buffer[256];
  while (back.size() < size) {
    int n = recv(c, buffer, sizeof buffer, 0);
    if (n <= 0)
      break;
    back.append(buffer, size_t(n));
  }
  return back;
}

std::string echo_of(SOCKET c, const std::string &text) {
  send_text(c, text);
  return answer(c, text.size());
}

// The one agent in the wait list; 0 when there is not exactly one.
DWORD the_agent() {
  waitlist w = wait_list();
  return w.pids.size() == 1 ? w.pids[0] : 0;
}

std::string to(DWORD pid, const std::string &line) { return "To " + std::to_string(pid) + ": \"" + line + "\""; }

using PortsEcho = Ports;

// Configures two auto ports of the service "echo" (lifespan: the default) and starts its
// agent by a first client on the lower one, left open in *client. The agent's pid, or 0.
DWORD echo_on_two_ports(const std::vector<unsigned> &p, SOCKET *client) {
  set_service("echo", echo_program());
  set_port(p[0], "auto", "echo");
  set_port(p[1], "auto", "echo");
  EXPECT_EQ(0, ssock_reconfig());
  *client = connect_to(p[0]);
  EXPECT_EQ("first", echo_of(*client, "first"));
  return the_agent();
}

// Two auto ports of one service: the first connection starts one agent that holds both,
// and it serves clients on both ports at the same time.
TEST_F(PortsEcho, OneAgentServesEveryAutoPortOfItsServiceAndClientsAtOnce) {
  auto p = free_ports(2);
  SOCKET a;
  DWORD pid = echo_on_two_ports(p, &a);
  ASSERT_NE(0u, pid) << wait_list().pids.size();
  EXPECT_EQ(1, logged("Port " + std::to_string(p[1]) + " added to " + std::to_string(pid)));

  // The second port came with the same launch: no new agent for its client.
  SOCKET b = connect_to(p[1]);
  SOCKET c = connect_to(p[0]);
  // Three connections open together, each answered while the others wait.
  for (SOCKET s : {c, b, a})
    send_text(s, "one");
  EXPECT_EQ("one", answer(a, 3));
  EXPECT_EQ("one", answer(b, 3));
  EXPECT_EQ("one", answer(c, 3));
  EXPECT_EQ("two", echo_of(c, "two"));
  EXPECT_EQ("two", echo_of(a, "two"));
  EXPECT_EQ(pid, the_agent());
  EXPECT_EQ(1, logged(" started for port "));
  std::string agent = " Agent=" + std::to_string(pid);
  EXPECT_EQ(lines({line_of(p[0], "echo", "Auto") + agent, line_of(p[1], "echo", "Auto") + agent}), listing());
  for (SOCKET s : {a, b, c})
    closesocket(s);
}

// A reconfiguration that changes nothing only says "reconfig" to the agent; disabling one
// of its two ports makes the agent drop that port and keep serving the other.
TEST_F(PortsEcho, ReconfigAndRemoveReachTheRunningAgent) {
  auto p = free_ports(2);
  SOCKET a;
  DWORD pid = echo_on_two_ports(p, &a);
  ASSERT_NE(0u, pid) << wait_list().pids.size();

  ASSERT_EQ(0, ssock_reconfig());
  EXPECT_EQ(1, logged(to(pid, "reconfig")));
  EXPECT_EQ("after", echo_of(a, "after"));
  SOCKET b = connect_to(p[1]);
  EXPECT_EQ("other", echo_of(b, "other"));
  closesocket(b);
  EXPECT_EQ(pid, the_agent());

  ASSERT_EQ(0, ssock_disable(int(p[1])));
  EXPECT_EQ(1, logged(to(pid, "remove tcp::" + std::to_string(p[1]))));
  // The manager closed its copy at once; the agent closes its own when it reads the line.
  EXPECT_TRUE(pump_until([&] {
    SOCKET s = connect_loopback(p[1]);
    if (s == INVALID_SOCKET)
      return true;
    closesocket(s);
    return false;
  })) << "port " << p[1] << " still accepts";
  EXPECT_EQ("still", echo_of(a, "still"));
  SOCKET c = connect_to(p[0]);
  EXPECT_EQ("new", echo_of(c, "new"));
  EXPECT_EQ(pid, the_agent());
  EXPECT_EQ(1, logged(" started for port "));
  EXPECT_EQ(lines({line_of(p[0], "echo", "Auto") + " Agent=" + std::to_string(pid),
                   line_of(p[1], "echo", "Auto") + disable_of(0x7FFFFFFF)}),
            listing());
  closesocket(a);
  closesocket(c);
}

// Shutdown says "exit" and the agent ends with code 0 before the manager would terminate
// it, whether it holds a handed-over socket or listens on an "on" port by itself.
TEST_F(PortsEcho, ShutdownEndsTheAgentWithCodeZero) {
  for (const char *mode : {"auto", "on"}) {
    SCOPED_TRACE(mode);
    bool on = mode[0] == 'o';
    unsigned port = free_ports(1)[0];
    set_service("echo", echo_program());
    set_port(port, mode, "echo");
    ASSERT_EQ(0, ssock_reconfig());
    SOCKET c = INVALID_SOCKET;
    if (on) {
      // The pass started the agent; the manager holds no socket, the agent listens once it
      // has read its start-up.
      EXPECT_EQ(0u, wait_list().events);
      EXPECT_TRUE(pump_until([&] { return (c = connect_loopback(port)) != INVALID_SOCKET; }));
    } else {
      c = connect_to(port);
    }
    EXPECT_EQ("hello", echo_of(c, "hello"));
    DWORD pid = the_agent();
    ASSERT_NE(0u, pid);
    EXPECT_EQ(lines({line_of(port, "echo", on ? "On" : "Auto") + " Agent=" + std::to_string(pid)}), listing());
    HANDLE process = open_process(pid);
    ssock_cleanup();
    cleaned_up = true;
    EXPECT_EQ(0u, exit_code(process));
    EXPECT_EQ(0, logged("timeout"));
    closesocket(c);
    restart_manager();
  }
}

// After its lifespan without a client the agent ends with code 0; the manager listens
// again on the same socket and the next client starts a new agent.
TEST_F(PortsEcho, LifespanEndsTheAgentAndThePortListensAgain) {
  unsigned port = free_ports(1)[0];
  std::string number = std::to_string(port);
  set_service("echo", echo_program(), "1");
  set_port(port, "auto", "echo");
  ASSERT_EQ(0, ssock_reconfig());
  SOCKET c = connect_to(port);
  EXPECT_EQ("once", echo_of(c, "once"));
  closesocket(c);
  DWORD first = the_agent();
  ASSERT_NE(0u, first);

  ASSERT_TRUE(pump_until([&] { return wait_list().pids.empty(); }));
  EXPECT_EQ(1, logged("Child " + std::to_string(first) + " died with code 0"));
  EXPECT_EQ(1, logged("Listening on port " + number + " again"));
  EXPECT_EQ(1, logged("Listening on port " + number + " for echo")) << "a new socket was opened";
  EXPECT_EQ(1u, wait_list().events);

  c = connect_to(port);
  EXPECT_EQ("twice", echo_of(c, "twice"));
  DWORD second = the_agent();
  EXPECT_NE(0u, second);
  EXPECT_NE(first, second);
  closesocket(c);
}

}  // namespace
}  // namespace porttest
