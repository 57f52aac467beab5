// Ports hooked at run time (with and without a parent process) and the bounded texts
// of an agent's command line.
#include "ports/ssock.h"
#include "tests/support/ports.h"
#include "toolkit/runtime/error.h"
#include "toolkit/runtime/log.h"

namespace porttest {
namespace {

// A hooked port's parent: the test agent without a pipe, living until it is killed
// (by the destructor at the latest).
struct Parent : kt::process {
  explicit Parent(const char *name = "parent") : kt::process(agent_program(record_path(name))) {}
  std::string id() const { return std::to_string(pid); }
  void end() { TerminateProcess(h, 0); }
};

using Hook = Ports;

TEST_F(Hook, HookedPortWithoutParentServesOnlyItselfAndGoesOnRemove) {
  auto p = free_ports(2);
  unsigned hooked = p[0], other = p[1];
  std::string rec = record_path("hook");
  std::string program = agent_program(rec);
  set_service("svc", program);
  set_port(hooked, "hook", "svc");
  set_port(other, "auto", "svc");
  ASSERT_EQ(0, ssock_reconfig());
  EXPECT_EQ(lines({line_of(other, "svc", "Auto")}), listing());  // reconfiguration never hooks

  EXPECT_EQ(KIV_ECONFIG, ssock_add(other, nullptr, nullptr));  // configured "auto"
  for (int number : {0, 65535, 70000})                         // never configured
    EXPECT_EQ(KIV_ECONFIG, ssock_add(number, nullptr, nullptr)) << number;
  EXPECT_EQ(KIV_ECONFIG, ssock_remove(other));
  for (auto op : {ssock_remove, ssock_disable, ssock_enable})  // not hooked yet: no record
    EXPECT_EQ(KIV_ENOTFOUND, op(int(hooked)));
  ASSERT_EQ(0, ssock_add(int(hooked), nullptr, "x y"));
  ASSERT_EQ(0, ssock_reconfig());  // a hooked port outlives a reconfiguration
  EXPECT_EQ(KIV_ECONFIG, ssock_disable(int(hooked)));
  EXPECT_EQ(KIV_ECONFIG, ssock_enable(int(hooked)));
  EXPECT_EQ(lines({line_of(hooked, "svc", "Hook"), line_of(other, "svc", "Auto")}), listing());
  EXPECT_EQ(2u, wait_list().events);

  DWORD pid = start_agent_on(hooked, rec);
  EXPECT_EQ(lines({handover_of(hooked), "--", "lifespan 86400"}), pipe_lines(rec, pid));
  EXPECT_EQ(program + " -D3 x y", launch_line(rec));
  // Held by its agent across a reconfiguration: the agent only hears "reconfig".
  ASSERT_EQ(0, ssock_reconfig());
  ASSERT_TRUE(pump_until([&] { return pipe_lines(rec, pid).size() == 4; }));
  EXPECT_EQ("reconfig", pipe_lines(rec, pid).back());
  EXPECT_EQ(waits(1, {pid}), waits());

  // Its only port removed: the agent is told "exit" and the record goes with the agent.
  ASSERT_EQ(0, ssock_remove(int(hooked)));
  EXPECT_EQ(KIV_ENOTFOUND, ssock_remove(int(hooked)));  // marked: no longer found
  ASSERT_TRUE(pump_until([&] { return listing().size() == 1; }));
  EXPECT_EQ("exit", pipe_lines(rec, pid).back());
  EXPECT_EQ(lines({line_of(other, "svc", "Auto")}), listing());
  EXPECT_EQ(waits(1), waits());
}

TEST_F(Hook, HookedPortLivesAsLongAsItsParent) {
  std::string rec = record_path("parent-hook");
  std::string program = agent_program(rec);
  auto p = svc_ports(2, "hook", program);
  ASSERT_EQ(0, ssock_reconfig());
  Parent parent, stranger("stranger");
  std::string pid = parent.id();

  EXPECT_EQ(KIV_ESYS, ssock_add(int(p[1]), "0", nullptr));  // no such process
  // Hooking again without a pid drops the parent.
  ASSERT_EQ(0, ssock_add(int(p[1]), pid.c_str(), nullptr));
  ASSERT_EQ(0, ssock_add(int(p[1]), nullptr, nullptr));
  EXPECT_EQ(lines({line_of(p[1], "svc", "Hook")}), listing());
  EXPECT_EQ(waits(1), waits());
  ASSERT_EQ(0, ssock_remove(int(p[1])));
  ASSERT_EQ(0, ssock_add(int(p[0]), pid.c_str(), nullptr));
  ASSERT_EQ(0, ssock_reconfig());
  EXPECT_EQ(KIV_EBUSY, ssock_add(int(p[0]), stranger.id().c_str(), nullptr));
  EXPECT_EQ(lines({line_of(p[0], "svc", "Hook") + " Parent=" + pid}), listing());
  EXPECT_EQ(waits(1, {parent.pid}), waits());

  // The same parent hooks again: the new record takes over the handle and the socket.
  ASSERT_EQ(0, ssock_add(int(p[0]), pid.c_str(), "one"));
  EXPECT_EQ(lines({line_of(p[0], "svc", "Hook") + " Parent=" + pid}), listing());
  EXPECT_EQ(waits(1, {parent.pid}), waits());
  DWORD first = start_agent_on(p[0], rec);
  EXPECT_EQ(
      lines({line_of(p[0], "svc", "Hook") + " Parent=" + pid + " Agent=" + std::to_string(first)}),
      listing());
  EXPECT_EQ(waits(0, {first, parent.pid}), waits());

  // And again while an agent holds the port: the old agent drops it (its pipe closed, so
  // it ends), the new record takes over the socket and listens on it.
  ASSERT_EQ(0, ssock_add(int(p[0]), pid.c_str(), "two"));
  ASSERT_TRUE(pump_until([&] { return has_text(rec, "#eof", first); }));
  EXPECT_EQ("remove tcp::" + std::to_string(p[0]), pipe_lines(rec, first).back());
  ASSERT_TRUE(pump_until([&] { return wait_list().pids.size() == 1; }));
  EXPECT_EQ(lines({line_of(p[0], "svc", "Hook") + " Parent=" + pid}), listing());
  EXPECT_EQ(waits(1, {parent.pid}), waits());
  DWORD second = start_agent_on(p[0], rec);
  EXPECT_NE(first, second);
  EXPECT_EQ(program + " -D3 two", launch_line(rec, second));

  // The parent dies: the agent is told "exit", the port goes once the agent has ended.
  parent.end();
  ASSERT_TRUE(pump_until([&] { return listing().empty(); }));
  EXPECT_EQ(1, logged("Parent for port " + std::to_string(p[0]) + " died"));
  EXPECT_EQ("exit", pipe_lines(rec, second).back());
  EXPECT_EQ(waits(0), waits());
}

// A hooked port resting after a failed bind goes for good when it is removed or its
// parent ends: it never comes back without its parent.
TEST_F(Hook, RestingHookedPortIsFreedOnRemoveAndOnParentDeath) {
  for (bool by_parent : {false, true}) {
    SCOPED_TRACE(by_parent ? "parent ends" : "remove");
    unsigned port = svc_ports(1, "hook", agent_program(record_path("resting")))[0];
    SOCKET blocker = kt::listen_on(&port);
    ASSERT_NE(INVALID_SOCKET, blocker);
    ASSERT_EQ(0, ssock_reconfig());
    Parent parent;
    ASSERT_EQ(0, ssock_add(int(port), parent.id().c_str(), nullptr));
    EXPECT_EQ(
        lines({line_of(port, "svc", "Hook") + disable_of(now + 900) + " Parent=" + parent.id()}),
        listing());
    closesocket(blocker);
    if (by_parent) {
      parent.end();
      ASSERT_TRUE(pump_until([&] { return listing().empty(); }));
    } else {
      ASSERT_EQ(0, ssock_remove(int(port)));
      EXPECT_EQ(lines(), listing());
    }
    EXPECT_EQ(waits(0), waits());
    advance(900);
    EXPECT_EQ(lines(), listing());
    EXPECT_EQ(waits(0), waits());
    restart_manager();
  }
}

// Texts at their limits and one past them. A refused launch accepts the waiting
// connection and closes it; the port keeps listening. A debug spec has no limit of its
// own: however long, the agent gets it whole.
TEST_F(Hook, CommandLinePiecesAtAndPastTheirLimits) {
  std::string long_spec = "3;!" + std::string(700, 'x');
  struct {
    const char *what;
    int program_length;   // 0: the plain agent program
    int extra_length;     // extra arguments of a hooked port, 0: an "auto" port
    const char *spec;     // the manager's debug spec
    const char *refusal;  // null: launched
  } cases[] = {
      {"program of 256", 256, 0, "3", nullptr},
      {"program of 257", 257, 0, "3", "No program configured for service svc"},
      {"extra args of 226", 0, 226, "3", nullptr},
      {"extra args of 227", 0, 227, "3", "Too big extra_args (len=227)"},
      {"program of 256, debug spec of 703", 256, 0, long_spec.c_str(), nullptr},
  };
  for (auto &c : cases) {
    SCOPED_TRACE(c.what);
    unsigned port = free_ports(1)[0];
    std::string rec = record_path("limits");
    std::string program = agent_program(rec);
    if (c.program_length)
      program += " -Z" + std::string(size_t(c.program_length) - program.size() - 3, 'z');
    std::string extra = c.extra_length ? std::string(size_t(c.extra_length), 'e') : "";
    kiv_logconfig(c.spec);
    set_service("svc", program);
    set_port(port, c.extra_length ? "hook" : "auto", "svc");
    ASSERT_EQ(0, ssock_reconfig());
    if (c.extra_length) {
      ASSERT_EQ(0, ssock_add(int(port), nullptr, extra.c_str()));
    }
    SOCKET client = connect_to(port);
    if (!c.refusal) {
      ASSERT_TRUE(pump_until([&] { return ready(rec); }));
      EXPECT_EQ(program + " -D" + c.spec + (extra.empty() ? "" : " " + extra), launch_line(rec));
    } else {
      ASSERT_TRUE(pump_until([&] {
        return logged("Peer 127.0.0.1 on port " + std::to_string(port) + " killed") == 1;
      }));
      EXPECT_EQ(1, logged(c.refusal));
      EXPECT_EQ("", read_line(client));  // accepted and closed
      EXPECT_EQ(1u, wait_list().events);
      EXPECT_TRUE(agents(rec).empty());
    }
    closesocket(client);
    restart_manager();
  }
}

}  // namespace
}  // namespace porttest
