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
  auto p = free_ports(5);
  std::string a = record_path("a"), b = record_path("b");
  set_service("a", agent_program(a));
  set_service("b", agent_program(b));
  set_service("c", agent_program(record_path("c")));
  for (unsigned port : {p[0], p[1], p[3]}) set_port(port, "auto", "a");
  set_port(p[2], "auto", "b");
  ASSERT_EQ(0, ssock_reconfig());
  EXPECT_EQ(0, logged("sending reconfig"));  // the first run has nothing to tell
  DWORD agent_a = start_agent_on(p[0], a), agent_b = start_agent_on(p[2], b);
  struct {
    const char *change;
    unsigned removed;  // a port of agent a that holds another one too
    unsigned added;    // a new idle port of another service
    int told;          // "reconfig" logs by then
  } steps[] = {
      {"unchanged", 0, 0, 2},
      {"one removed, one added", p[1], p[4], 4},
      {"one removed", p[3], 0, 4},
  };
  for (auto &s : steps) {
    SCOPED_TRACE(s.change);
    if (s.removed) remove_key("tcp\\s" + std::to_string(s.removed));
    if (s.added) set_port(s.added, "auto", "c");
    ASSERT_EQ(0, ssock_reconfig());
    EXPECT_EQ(s.told, logged("No port removed/added sending reconfig"));
  }
  ASSERT_TRUE(pump_until([&] {
    return has_text(a, "remove tcp::" + std::to_string(p[3]), agent_a) &&
           count_of(pipe_lines(b, agent_b), "reconfig") == 2;
  }));
  EXPECT_EQ(lines({handover_of(p[0]), handover_of(p[1]), handover_of(p[3]), "--", "lifespan 86400",
                   "reconfig", "remove tcp::" + std::to_string(p[1]), "reconfig",
                   "remove tcp::" + std::to_string(p[3])}),
            pipe_lines(a, agent_a));
  EXPECT_EQ(lines({handover_of(p[2]), "--", "lifespan 86400", "reconfig", "reconfig"}),
            pipe_lines(b, agent_b));
  EXPECT_EQ(3u, listing().size());
}

// A port moves to another service while the old agent holds it with another port: the
// old agent drops it, the new record takes over the listening socket and really listens.
// Then keys removed: an idle port goes at once, a held one once its agent has ended.
TEST_F(Reconfig, ChangedAndRemovedKeys) {
  auto p = free_ports(3);
  std::string a = record_path("a"), b = record_path("b");
  set_service("a", agent_program(a));
  set_service("b", agent_program(b));
  set_service("idle", agent_program(record_path("idle")));
  set_port(p[0], "auto", "a");
  set_port(p[1], "auto", "a");
  set_port(p[2], "auto", "idle");
  ASSERT_EQ(0, ssock_reconfig());
  DWORD agent_a = start_agent_on(p[0], a);
  std::string held_by_a = " Agent=" + std::to_string(agent_a);
  set_port(p[0], "auto", "b");
  ASSERT_EQ(0, ssock_reconfig());
  EXPECT_EQ(1, logged("Old port " + std::to_string(p[0]) + " [a] marked for removal"));
  EXPECT_EQ(0, logged("Listening on port " + std::to_string(p[0]) + " for b"));  // no new socket
  EXPECT_EQ(lines({line_of(p[0], "b", "Auto"), line_of(p[1], "a", "Auto") + held_by_a,
                   line_of(p[2], "idle", "Auto")}),
            listing());
  EXPECT_EQ(waits(2, {agent_a}), waits());
  ASSERT_TRUE(pump_until([&] { return has_text(a, "#closed " + std::to_string(p[0]), agent_a); }));
  DWORD agent_b = start_agent_on(p[0], b);
  EXPECT_EQ(3u, pipe_lines(b, agent_b).size());  // b's port alone

  remove_key("tcp\\s" + std::to_string(p[1]));
  remove_key("tcp\\s" + std::to_string(p[2]));
  ASSERT_EQ(0, ssock_reconfig());
  for (unsigned port : {p[1], p[2]})
    EXPECT_EQ(1, logged("Port " + std::to_string(port) + " no longer used"));
  EXPECT_EQ(1, logged("Service idle no longer used"));
  // The held port waits, told, for its agent; the pipe closed after "remove".
  std::string held_by_b = " Agent=" + std::to_string(agent_b);
  EXPECT_EQ(lines({line_of(p[0], "b", "Auto") + held_by_b, line_of(p[1], "a", "Auto") + held_by_a}),
            listing());
  EXPECT_EQ(KIV_ENOTFOUND, ssock_disable(int(p[1])));
  ASSERT_TRUE(pump_until([&] { return listing().size() == 1; }));
  EXPECT_EQ(lines({handover_of(p[0]), handover_of(p[1]), "--", "lifespan 86400",
                   "remove tcp::" + std::to_string(p[0]), "reconfig",
                   "remove tcp::" + std::to_string(p[1])}),
            pipe_lines(a, agent_a));
  EXPECT_TRUE(has_text(a, "#eof", agent_a));
  EXPECT_EQ(1, logged("Service a no longer used"));
  EXPECT_EQ(waits(0, {agent_b}), waits());
}

// A changed address while the port's agent still holds the old socket, whose binding
// the new one would collide with: the new record waits for that agent and listens at
// once when it has let the port go. An agent that keeps other ports never ends: the new
// record gets the start-mode change's short rest, never the failed listen's long one.
TEST_F(Reconfig, MovedPortListensOnceItsAgentLetsGo) {
  struct {
    const char *from, *to;  // null: no address, every IPv4 address
    bool other_port;        // the agent serves a second port, which stays
  } rows[] = {
      {nullptr, "127.0.0.1", false},
      {"127.0.0.1", "::", false},
      {"::", nullptr, false},
      {nullptr, "127.0.0.1", true},
  };
  for (auto &r : rows) {
    SCOPED_TRACE(std::string(r.from ? r.from : "(none)") + " -> " + (r.to ? r.to : "(none)") +
                 (r.other_port ? ", agent with another port" : ""));
    restart_manager();
    auto p = free_ports(2);
    std::string a = record_path("a");
    set_service("a", agent_program(a));
    bool configured = false;
    auto configure = [&](const char *address) {
      if (configured) remove_key("tcp\\s" + std::to_string(p[0]));
      configured = true;
      set_port(p[0], "auto", "a");
      if (address) kt::set_value("tcp\\s" + std::to_string(p[0]), "address", address);
    };
    configure(r.from);
    if (r.other_port) set_port(p[1], "auto", "a");
    ASSERT_EQ(0, ssock_reconfig());
    DWORD agent = start_agent_on(p[0], a);
    std::string listening = "Listening on port " + std::to_string(p[0]) + " for a";
    ASSERT_EQ(1, logged(listening));
    configure(r.to);
    ASSERT_EQ(0, ssock_reconfig());
    if (r.other_port) {
      ASSERT_TRUE(
          pump_until([&] { return has_text(a, "#closed " + std::to_string(p[0]), agent); }));
      EXPECT_EQ(line_of(p[0], "a", "Auto") + disable_of(now + 10) +
                    (r.to ? std::string(" Address=") + r.to : ""),
                listing().at(0));
      advance(10);
    } else {  // the agent's end, once it has read "remove", is what the manager waits for
      EXPECT_EQ(1, logged(listening)) << "no bind while the agent may hold the port";
      EXPECT_TRUE(pump_until([&] { return logged(listening) == 2; }));
      EXPECT_TRUE(has_text(a, "#eof", agent));
    }
    EXPECT_EQ(0, logged("Failed to listen"));
    if (logged(listening) != 2) continue;  // the port rests: nothing to connect to
    DWORD successor = start_agent_on(p[0], a);
    EXPECT_NE(agent, successor);
  }
}

// A disable by command outlives the record: its replacement, for another service and
// then another start mode, stays disabled until the enable command.
TEST_F(Reconfig, DisableByCommandCarriesOverToTheReplacement) {
  unsigned port = free_ports(1)[0];
  set_service("a", agent_program(record_path("a")));
  set_service("b", agent_program(record_path("b")));
  set_port(port, "auto", "a");
  ASSERT_EQ(0, ssock_reconfig());
  ASSERT_EQ(0, ssock_disable(int(port)));
  const char *const modes[][2] = {{"auto", "Auto"}, {"on", "On"}};  // configured, listed
  for (auto mode : modes) {
    set_port(port, mode[0], "b");
    ASSERT_EQ(0, ssock_reconfig());
    EXPECT_EQ(lines({line_of(port, "b", mode[1]) + disable_of(0x7FFFFFFF)}), listing());
  }
}

}  // namespace
}  // namespace porttest
