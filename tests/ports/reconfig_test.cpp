// Reconfiguration against running agents: what each change of the registry does.
#include <algorithm>

#include "ports/ssock.h"
#include "tests/support/ports.h"
#include "toolkit/runtime/error.h"

namespace porttest {
namespace {

size_t count_of(const lines &all, const std::string &text) {
  return size_t(std::count(all.begin(), all.end(), text));
}

using Reconfig = Ports;

// Agents hear "reconfig" once each when the number of ports stayed the same.
TEST_F(Reconfig, SamePortCountSendsOneReconfigToEachAgent) {
  struct {
    const char *change;
    bool remove_one;  // a port of agent a that holds another one too
    bool add_one;     // a new idle port of another service
    int told;         // agents told "reconfig"
  } cases[] = {
      {"unchanged", false, false, 2},
      {"one removed, one added", true, true, 2},
      {"one removed", true, false, 0},
  };
  for (auto &c : cases) {
    SCOPED_TRACE(c.change);
    auto p = free_ports(4);
    std::string a = record_path("a"), b = record_path("b");
    set_service("a", agent_program(a));
    set_service("b", agent_program(b));
    set_service("c", agent_program(record_path("c")));
    set_port(p[0], "auto", "a");
    set_port(p[1], "auto", "a");
    set_port(p[2], "auto", "b");
    ASSERT_EQ(0, ssock_reconfig());
    EXPECT_EQ(0, logged("sending reconfig"));  // the first run has nothing to tell
    DWORD agent_a = start_agent_on(p[0], a), agent_b = start_agent_on(p[2], b);
    if (c.remove_one) remove_key("tcp\\s" + std::to_string(p[1]));
    if (c.add_one) set_port(p[3], "auto", "c");
    ASSERT_EQ(0, ssock_reconfig());
    EXPECT_EQ(c.told, logged("No port removed/added sending reconfig"));
    if (c.told) {
      ASSERT_TRUE(pump_until(
          [&] { return has_text(a, "reconfig", agent_a) && has_text(b, "reconfig", agent_b); }));
      EXPECT_EQ(1u, count_of(pipe_lines(a, agent_a), "reconfig"));
      EXPECT_EQ(1u, count_of(pipe_lines(b, agent_b), "reconfig"));
    }
    if (c.remove_one) {
      ASSERT_TRUE(
          pump_until([&] { return has_text(a, "remove tcp::" + std::to_string(p[1]), agent_a); }));
    }
    EXPECT_EQ(size_t(3 + c.add_one - c.remove_one), listing().size());
    restart_manager();
  }
}

// The port moves to another service while the old agent holds it with another port: the
// old agent drops it, the new record takes over the listening socket and really listens.
TEST_F(Reconfig, ServiceChangedHandsTheSocketToTheNewRecord) {
  auto p = free_ports(2);
  std::string a = record_path("a"), b = record_path("b");
  set_service("a", agent_program(a));
  set_service("b", agent_program(b));
  set_port(p[0], "auto", "a");
  set_port(p[1], "auto", "a");
  ASSERT_EQ(0, ssock_reconfig());
  DWORD agent_a = start_agent_on(p[0], a);
  set_port(p[0], "auto", "b");
  ASSERT_EQ(0, ssock_reconfig());
  EXPECT_EQ(1, logged("Old port " + std::to_string(p[0]) + " [a] marked for removal"));
  EXPECT_EQ(0, logged("Listening on port " + std::to_string(p[0]) + " for b"));  // no new socket
  EXPECT_EQ(lines({line_of(p[0], "b", "Auto"),
                   line_of(p[1], "a", "Auto") + " Agent=" + std::to_string(agent_a)}),
            listing());
  EXPECT_EQ(waits(1, {agent_a}), waits());
  std::string number = std::to_string(p[0]);
  ASSERT_TRUE(pump_until([&] { return has_text(a, "#closed " + number, agent_a); }));
  EXPECT_EQ(1u, count_of(pipe_lines(a, agent_a), "remove tcp::" + number));

  DWORD agent_b = start_agent_on(p[0], b);
  EXPECT_EQ(3u, pipe_lines(b, agent_b).size());  // b's port alone
}

TEST_F(Reconfig, RemovedKeysMarkPortsForRemoval) {
  auto p = free_ports(2);
  std::string rec = record_path("gone");
  set_service("idle", agent_program(record_path("idle")));
  set_service("held", agent_program(rec));
  set_port(p[0], "auto", "idle");
  set_port(p[1], "auto", "held");
  ASSERT_EQ(0, ssock_reconfig());
  DWORD agent = start_agent_on(p[1], rec);
  remove_key("tcp\\s" + std::to_string(p[0]));
  remove_key("tcp\\s" + std::to_string(p[1]));
  ASSERT_EQ(0, ssock_reconfig());
  for (unsigned port : p) EXPECT_EQ(1, logged("Port " + std::to_string(port) + " no longer used"));
  EXPECT_EQ(1, logged("Service idle no longer used"));
  // The held port waits, told, for its agent; the pipe closed after "remove".
  EXPECT_EQ(lines({line_of(p[1], "held", "Auto") + " Agent=" + std::to_string(agent)}), listing());
  EXPECT_EQ(KIV_ENOTFOUND, ssock_disable(int(p[1])));
  ASSERT_TRUE(pump_until([&] { return listing().empty(); }));
  std::string number = std::to_string(p[1]);
  EXPECT_EQ(lines({"-Ptcp::" + number + "@<496>", "--", "lifespan 86400", "remove tcp::" + number}),
            pipe_lines(rec, agent));
  EXPECT_TRUE(has_text(rec, "#eof", agent));
  EXPECT_EQ(1, logged("Service held no longer used"));
  EXPECT_EQ(waits(0), waits());
}

}  // namespace
}  // namespace porttest
