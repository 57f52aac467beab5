// Handing every record to another process and building them back there: round trips
// inside one process, whose duplicates made for itself stand for the receiver's.
#include <functional>
#include <set>
#include <tuple>

#include "lib/b64.h"
#include "lib/dstr.h"
#include "ports/internal.h"
#include "toolkit/runtime/counters.h"
#include "ports/ssock.h"
#include "tests/support/ports.h"
#include "toolkit/runtime/error.h"

namespace porttest {
namespace {

// The block written for this very process.
std::string write_block(ssock_handed *counts = nullptr) {
  dstr out;
  dstr_init(&out);
  DWORD error = 0;
  ssock_handed n{};
  EXPECT_EQ(0, ssock_handover_write(GetCurrentProcess(), GetCurrentProcessId(), &out, &n, &error));
  std::string block(out.buffer, size_t(out.length));
  dstr_free(&out, 0);
  if (counts) *counts = n;
  return block;
}

int read_block(const std::string &block, bool serve, ssock_handed *counts = nullptr) {
  return ssock_handover_read(block.data(), block.size(), serve, counts);
}

std::string counted(const ssock_handed &n) {
  return std::to_string(n.ports) + " ports, " + std::to_string(n.agents) + " agents, " +
         std::to_string(n.programs) + " programs";
}

// The handle values open in this process; the probe reaches far past those a test makes.
std::set<uintptr_t> open_handles() {
  std::set<uintptr_t> out;
  for (uintptr_t v = 4; v < 0x8000; v += 4) {
    DWORD flags;
    if (GetHandleInformation(reinterpret_cast<HANDLE>(v), &flags)) out.insert(v);
  }
  return out;
}

bool running(DWORD pid) {
  HANDLE h = open_process(pid);
  bool alive = h && WaitForSingleObject(h, 0) == WAIT_TIMEOUT;
  if (h) CloseHandle(h);
  return alive;
}

// The value of `key` on the first line of `kind`, and the block with it replaced.
size_t value_at(const std::string &block, const std::string &kind, const std::string &key,
                size_t *length) {
  size_t line = block.find("\n" + kind + " ");
  size_t at = block.find(" " + key + "=", line);
  if (line == std::string::npos || at == std::string::npos || at > block.find('\n', line + 1))
    throw std::runtime_error("no " + kind + " " + key);
  at += key.size() + 2;
  *length = block.find_first_of(" \n", at) - at;
  return at;
}
std::string value_of(const std::string &block, const std::string &kind, const std::string &key) {
  size_t length, at = value_at(block, kind, key, &length);
  return block.substr(at, length);
}
std::string with(std::string block, const std::string &kind, const std::string &key,
                 const std::string &value) {
  size_t length, at = value_at(block, kind, key, &length);
  return block.replace(at, length, value);
}
// The block with text put before its "end" line.
std::string before_end(std::string block, const std::string &text) {
  return block.insert(block.rfind("end\n"), text);
}

// The manager's records and wait list put aside, so that a block is read into an empty
// manager while the giver's records live on.
struct aside {
  using state =
      std::tuple<port_record *, service_record *, prog_record *, unsigned, HANDLE *, uint16_t *>;
  static auto manager() {
    return std::tie(ssock_ports, ssock_services, ssock_progs, ssock_waitcount, ssock_waithandles,
                    ssock_waitports);
  }
  bool on;
  state saved{};
  explicit aside(bool now = true) : on(now) { exchange(); }
  ~aside() { exchange(); }
  void exchange() {
    if (!on) return;
    state current = manager();
    manager() = saved;
    saved = current;
  }
};

// Each service on an "auto" port of its own (ascending in the order given), running the
// test agent with the record file of the same name; the ports, not yet configured.
std::vector<unsigned> port_each(const std::vector<std::string> &services) {
  auto p = free_ports(unsigned(services.size()));
  for (size_t i = 0; i < services.size(); i++) {
    set_service(services[i], agent_program(record_path(services[i])));
    set_port(p[i], "auto", services[i].c_str());
  }
  return p;
}

using Handover = Ports;

// The lines of a record's ring for `why`, oldest first.
lines ring_of(const kivev_ring *ring) {
  lines out;
  for (int i = 0; const char *line = kivev_kept(ring, i); i++) out.push_back(line);
  return out;
}

// The giver lets go of its own handles only: its agent, its program and every socket live
// on in the receiver, which serves as the giver did, and the agent hears nothing of it.
TEST_F(Handover, RoundTripKeepsAgentsSocketsAndDecisionsAndTellsNobody) {
  auto p = free_ports(4);
  std::string a = record_path("a"), idle = record_path("idle"), hook = record_path("hook"),
              job = record_path("job");
  set_service("two words", agent_program(a));  // a blank in a name
  set_service("idle", agent_program(idle));
  set_service("hook", agent_program(hook));
  set_port(p[0], "auto", "two words");
  set_port(p[1], "auto", "idle");
  set_port(p[2], "auto", "idle");  // disabled by command
  set_port(p[3], "hook", "hook");
  set_global("job", "on", agent_program(job));
  ASSERT_EQ(0, ssock_reconfig());
  kt::process parent(agent_program(record_path("parent")));
  ASSERT_EQ(0, ssock_add(int(p[3]), std::to_string(parent.pid).c_str(), "x y"));
  ASSERT_EQ(0, ssock_disable(int(p[2])));
  DWORD agent = start_agent_on(p[0], a);
  ASSERT_TRUE(pump_until([&] { return !agents(job).empty(); }));
  DWORD program = agents(job)[0];
  lines listed = listing();
  std::string waiting = waits();
  ASSERT_EQ(4u, listed.size());
  // What `why` lists of a port, a service and a program goes with them.
  kivev_keep_line(&find_port(int(p[2]))->ring, "107\t1800000000\tinfo\tdisabled\tport=1");
  kivev_keep_line(&find_port(int(p[2]))->ring, "108\t1800000001\tinfo\tenabled");
  kivev_keep_line(&find_service("two words")->ring, "201\t1800000002\twarning\tended");
  kivev_keep_line(&find_prog("job")->ring, "202\t1800000003\twarning\tended");
  lines port_ring = ring_of(find_port(int(p[2]))->ring);
  ASSERT_EQ(2u, port_ring.size());

  ssock_handed n{};
  std::string block = write_block(&n);
  EXPECT_EQ("4 ports, 1 agents, 1 programs", counted(n));
  ssock_reset();
  // Its job closes when the last handle to it does: the receiver's keeps the agent alive.
  EXPECT_TRUE(running(agent));
  EXPECT_TRUE(running(program));
  logs.clear();
  ASSERT_EQ(0, read_block(block, true, &n));
  EXPECT_EQ("4 ports, 1 agents, 1 programs", counted(n));
  ASSERT_EQ(0, ssock_reconfig());
  EXPECT_EQ(listed, listing());
  EXPECT_EQ(waiting, waits());
  EXPECT_EQ(port_ring, ring_of(find_port(int(p[2]))->ring));
  EXPECT_EQ(lines{"201\t1800000002\twarning\tended"}, ring_of(find_service("two words")->ring));
  EXPECT_EQ(lines{"202\t1800000003\twarning\tended"}, ring_of(find_prog("job")->ring));
  EXPECT_EQ(lines{}, ring_of(find_port(int(p[1]))->ring));
  for (const char *never : {"Listening on port", "Started pid", "started for port", "marked"})
    EXPECT_EQ(0, logged(never)) << never;

  // The agent still serves its port on its own copy of the socket.
  SOCKET client = connect_to(p[0]);
  EXPECT_EQ("agent " + std::to_string(agent) + " port " + std::to_string(p[0]), read_line(client));
  DWORD served = start_agent_on(p[1], idle);
  EXPECT_NE(0u, served);
  DWORD hooked = start_agent_on(p[3], hook);
  EXPECT_EQ(agent_program(hook) + " -D3 x y", launch_line(hook, hooked));
  // Its end comes through the adopted process handle; the adopted socket listens again.
  send_text(client, "exit 0");
  closesocket(client);
  std::string again = "Listening on port " + std::to_string(p[0]) + " again";
  ASSERT_TRUE(pump_until([&] { return logged(again) == 1; }));
  EXPECT_NE(agent, start_agent_on(p[0], a));
  EXPECT_EQ(lines({handover_of(p[0]), "--", "lifespan 86400"}), pipe_lines(a, agent));
  EXPECT_TRUE(running(program));
}

// What the new configuration says when the receiver reconfigures: a port gone (its agent
// told "remove"), one moved to another address, one new.
TEST_F(Handover, ConfigurationChangedBetweenTheTwoProcesses) {
  auto p = port_each({"a", "b"});
  std::string a = record_path("a"), b = record_path("b"), job = record_path("job");
  set_global("job", "on", agent_program(job));
  ASSERT_EQ(0, ssock_reconfig());
  p.push_back(free_ports(1)[0]);  // the first two listen: not free
  DWORD agent = start_agent_on(p[0], a);
  ASSERT_TRUE(pump_until([&] { return !agents(job).empty(); }));
  DWORD program = agents(job)[0];
  std::string line = agent_program(job, "-Q");
  std::string block = write_block();
  ssock_reset();
  remove_key("tcp\\s" + std::to_string(p[0]));
  kt::set_value("tcp\\s" + std::to_string(p[1]), "address", "127.0.0.1");
  set_port(p[2], "auto", "b");
  set_global("job", "on", line);
  ASSERT_EQ(0, read_block(block, true));
  ASSERT_EQ(0, ssock_reconfig());
  ASSERT_TRUE(pump_until([&] { return has_text(a, "#eof", agent) && listing().size() == 2; }));
  EXPECT_EQ(
      lines({handover_of(p[0]), "--", "lifespan 86400", "remove tcp::" + std::to_string(p[0])}),
      pipe_lines(a, agent));
  lines expected = {line_of(p[1], "b", "Auto") + " Address=127.0.0.1", line_of(p[2], "b", "Auto")};
  if (p[2] < p[1]) std::swap(expected[0], expected[1]);  // the listing ascends
  EXPECT_EQ(expected, listing());
  // A program whose line changed runs on as it is; the new line is for its next start.
  EXPECT_TRUE(running(program));
  EXPECT_EQ(line, find_prog("job")->program);
  // One agent takes both idle ports of its service, the moved one at its new address.
  DWORD served = start_agent_on(p[1], b);
  SOCKET client = connect_to(p[2]);
  EXPECT_EQ("agent " + std::to_string(served) + " port " + std::to_string(p[2]), read_line(client));
  closesocket(client);
}

// A holder selects nothing: a connection to an idle port waits in its backlog until the
// successor, handed everything in turn, serves it.
TEST_F(Handover, HolderLeavesConnectionsInTheBacklogForTheSuccessor) {
  unsigned port = free_ports(1)[0];
  std::string idle = record_path("idle");
  set_service("idle", agent_program(idle));
  set_port(port, "auto", "idle");
  ASSERT_EQ(0, ssock_reconfig());
  std::string block = write_block();
  ssock_reset();
  ASSERT_EQ(0, read_block(block, false));
  SOCKET client = connect_to(port);
  port_record *held = find_port(int(port));
  ASSERT_TRUE(held && held->sock != INVALID_SOCKET);
  fd_set pending;
  FD_ZERO(&pending);
  FD_SET(held->sock, &pending);
  timeval bound = {20, 0};
  ASSERT_EQ(1, select(0, &pending, nullptr, nullptr, &bound)) << "the connection is queued";
  EXPECT_EQ(WAIT_TIMEOUT, WaitForSingleObject(held->event, 0)) << "no FD_ACCEPT selected";
  EXPECT_EQ(0u, wait_list().count);

  block = write_block();
  ssock_reset();
  ASSERT_EQ(0, read_block(block, true));
  ASSERT_EQ(0, ssock_reconfig());
  ASSERT_TRUE(pump_until([&] { return ready(idle); }));
  EXPECT_EQ("agent " + std::to_string(agents(idle)[0]) + " port " + std::to_string(port),
            read_line(client));
  closesocket(client);
}

// A holder nobody claims stops as a stop does, on records no pass has run on: agents told,
// the program killed, nothing listened on or started.
TEST_F(Handover, UnclaimedHolderStopsAsAStopDoes) {
  auto p = free_ports(2);
  std::string a = record_path("a"), job = record_path("job");
  set_service("a", agent_program(a));
  for (unsigned port : p) set_port(port, "auto", "a");
  set_global("job", "on", agent_program(job));
  ASSERT_EQ(0, ssock_reconfig());
  DWORD agent = start_agent_on(p[0], a);
  ASSERT_TRUE(pump_until([&] { return !agents(job).empty(); }));
  HANDLE agent_process = open_process(agent), program = open_process(agents(job)[0]);
  std::string block = write_block();
  ssock_reset();
  ASSERT_EQ(0, read_block(block, false));
  struct holder {  // its stopping hook always answers true
    holder() {
      ssock_setstopping([] { return true; });
    }
    ~holder() { ssock_setstopping(nullptr); }
  } stopping;
  logs.clear();
  cleaned_up = true;
  EXPECT_EQ(0, ssock_cleanup());
  for (const char *never : {"timeout", "Listening", "started", "Started"})
    EXPECT_EQ(0, logged(never)) << never;
  EXPECT_EQ(lines({handover_of(p[0]), handover_of(p[1]), "--", "lifespan 86400",
                   "remove tcp::" + std::to_string(p[0]), "exit"}),
            pipe_lines(a, agent));
  EXPECT_EQ(0u, exit_code(agent_process));
  EXPECT_EQ(1u, exit_code(program));  // terminated
}

// A rest outlives the receiver's first reconfiguration, for a port and for a program,
// and a service's start throttle counts on where it was.
TEST_F(Handover, RestsAndThrottleStateOutliveTheFirstReconfiguration) {
  auto p = free_ports(2);
  std::string a = record_path("a"), crash = record_path("crash");
  set_service("a", agent_program(a));
  for (unsigned port : p) set_port(port, "auto", "a");
  set_global("crash", "on", agent_program(crash, "-V"));
  SOCKET blocker = kt::listen_on(&p[0]);
  ASSERT_EQ(0, ssock_reconfig());  // p[0] cannot be bound: it rests
  closesocket(blocker);
  ASSERT_TRUE(pump_until([] { return logged("Prog crash disabled for 1 minute") == 1; }));
  service_record *s = find_service("a");
  s->starts = 5;  // five starts after the one that opened a period 30 seconds ago
  s->period_start = now - 30;
  lines listed = listing();
  ASSERT_EQ(line_of(p[0], "a", "Auto") + disable_of(now + 900), listed.at(0));
  std::string block = write_block();
  ssock_reset();
  logs.clear();
  ASSERT_EQ(0, read_block(block, true));
  ASSERT_EQ(0, ssock_reconfig());
  EXPECT_EQ(listed, listing());
  EXPECT_EQ(0, logged("Started pid"));
  EXPECT_EQ(now + 60, wait_list().due);
  start_agent_on(p[1], a);
  s = find_service("a");
  EXPECT_EQ(6, s->starts);
  EXPECT_EQ(now - 30, s->period_start);
  advance(61);
  EXPECT_EQ(1, logged("Started pid"));
}

// A removed record whose agent has not ended yet travels with its successor, which waits
// for that agent's end (through the adopted process handle) and then listens.
TEST_F(Handover, RemovedRecordHeldByItsAgentTravelsWithItsSuccessor) {
  auto p = port_each({"a"});
  std::string a = record_path("a");
  set_service("a", agent_program(a, "-I"));  // ignores "exit" and its pipe's end
  ASSERT_EQ(0, ssock_reconfig());
  DWORD agent = start_agent_on(p[0], a);
  std::string key = "tcp\\s" + std::to_string(p[0]);
  remove_key(key);
  ASSERT_EQ(0, ssock_reconfig());
  set_port(p[0], "auto", "a");
  ASSERT_EQ(0, ssock_reconfig());
  lines listed = listing();
  ASSERT_EQ(2u, listed.size());
  std::string block = write_block();
  ssock_reset();
  ASSERT_EQ(0, read_block(block, true));
  ASSERT_EQ(0, ssock_reconfig());
  EXPECT_EQ(listed, listing());
  EXPECT_EQ(waits(0, {agent}), waits());
  HANDLE process = OpenProcess(PROCESS_TERMINATE | SYNCHRONIZE | PROCESS_QUERY_LIMITED_INFORMATION,
                               FALSE, agent);
  ASSERT_TRUE(TerminateProcess(process, 5));
  EXPECT_EQ(5u, exit_code(process));
  std::string listening = "Listening on port " + std::to_string(p[0]) + " for a";
  ASSERT_TRUE(pump_until([&] { return logged(listening) == 2; }));
  set_service("a", agent_program(a));  // a successor that stops when told
  ASSERT_EQ(0, ssock_reconfig());
  EXPECT_NE(agent, start_agent_on(p[0], a));
  EXPECT_EQ(
      lines({handover_of(p[0]), "--", "lifespan 86400", "remove tcp::" + std::to_string(p[0])}),
      pipe_lines(a, agent));
}

// Every block cut short is refused, whatever line or field the cut falls in, and nothing is
// adopted from it.
TEST_F(Handover, EveryTruncationIsRefused) {
  auto p = port_each({"a", "idle"});
  set_global("job", "on", agent_program(record_path("job")));
  ASSERT_EQ(0, ssock_reconfig());
  start_agent_on(p[0], record_path("a"));
  std::string block = write_block();
  aside held;
  for (size_t length = 0; length < block.size(); length++) {
    ASSERT_EQ(KIV_EINVAL, ssock_handover_read(block.data(), length, false, nullptr)) << length;
    ASSERT_TRUE(!ssock_ports && !ssock_services && !ssock_progs) << length;
  }
}

// A block it cannot read whole adopts nothing and closes every handle it took over; one
// refused before anything was taken leaves all for a block read whole.
TEST_F(Handover, DamagedBlockAdoptsNothingAndLeaksNothing) {
  auto p = port_each({"a", "idle"});
  std::string a = record_path("a"), idle = record_path("idle");
  set_global("job", "on", agent_program(record_path("job")));
  ASSERT_EQ(0, ssock_reconfig());
  DWORD agent = start_agent_on(p[0], a);
  lines listed = listing();
  {  // a first whole read, so that what the system opens once is open before the table
    std::string block = write_block();
    aside held;
    ASSERT_EQ(0, read_block(block, false));
    ssock_reset();
  }
  // An event of the test's own, which a block names as a job: not taken, so not closed.
  HANDLE event = CreateEventA(nullptr, TRUE, FALSE, nullptr);
  char event_value[24];
  snprintf(event_value, sizeof event_value, "0x%llx",
           static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(event)));
  using change = std::function<std::string(const std::string &)>;
  struct {
    const char *damage;
    change make;
    std::vector<const char *> untaken;  // prog fields the read never reached
    bool intact_reads;                  // refused before it took anything
    bool holding = false;               // read into the giver's own manager
  } rows[] = {
      {"another version",
       [](const std::string &b) { return "kivd-handover 1" + b.substr(15); },
       {},
       true},
      {"no end", [](const std::string &b) { return b.substr(0, b.size() - 4); }, {}, false},
      {"a line after the end", [](const std::string &b) { return b + "end\n"; }, {}, false},
      {"an unknown kind", [](const std::string &b) { return before_end(b, "hello\n"); }, {}, false},
      {"a service after the programs",
       [](const std::string &b) {
         std::string zeros = "0";
         for (int i = 1; i < KIV_SERVICE_COUNTS; i++) zeros += ",0";
         return before_end(
             b, "service name=YQ== ring=- counts=" + zeros + " starts=0 period_start=0\n");
       },
       {},
       false},
      {"two blanks",
       [](const std::string &b) {
         return std::string(b).replace(b.find("\nprog "), 6, "\nprog  ");
       },
       {"process", "job"},
       false},
      {"flags out of range",
       [](const std::string &b) { return with(b, "prog", "flags", "16"); },
       {},
       false},
      {"a negative count",
       [](const std::string &b) { return with(b, "prog", "starts", "-1"); },
       {},
       false},
      {"a leading zero",
       [](const std::string &b) {
         return with(b, "prog", "period_start", "0" + value_of(b, "prog", "period_start"));
       },
       {},
       false},
      {"a number past 64 bits",
       [](const std::string &b) { return with(b, "prog", "until", "18446744073709551616"); },
       {},
       false},
      {"a field missing",
       [](const std::string &b) {
         size_t length, at = value_at(b, "prog", "period_start", &length);
         return std::string(b).erase(at - sizeof " period_start=" + 1, length + 14);
       },
       {},
       false},
      {"a field too many",
       [](const std::string &b) {
         return with(b, "prog", "period_start", value_of(b, "prog", "period_start") + " x=1");
       },
       {},
       false},
      {"a handle not ours",
       [](const std::string &b) { return with(b, "prog", "job", "0xfffc"); },
       {"job"},
       false},
      {"a handle named twice",
       [](const std::string &b) { return with(b, "prog", "job", value_of(b, "agent", "job")); },
       {"job"},
       false},
      {"a handle of another kind",
       [&](const std::string &b) { return with(b, "prog", "job", event_value); },
       {"job"},
       false},
      {"a process of another id",
       [](const std::string &b) { return with(b, "prog", "pid", value_of(b, "agent", "pid")); },
       {"process", "job"},
       false},
      {"a text not in base64",
       [](const std::string &b) { return with(b, "prog", "program", "a!b="); },
       {"process", "job"},
       false},
      {"a count missing",
       [](const std::string &b) {
         std::string counts = value_of(b, "prog", "counts");
         return with(b, "prog", "counts", counts.substr(0, counts.rfind(',')));
       },
       {},
       false},
      {"a count too many",
       [](const std::string &b) {
         return with(b, "prog", "counts", value_of(b, "prog", "counts") + ",0");
       },
       {},
       false},
      {"an empty count",
       [](const std::string &b) {
         return with(b, "prog", "counts", "," + value_of(b, "prog", "counts").substr(1));
       },
       {},
       false},
      {"kivd's own line missing",
       [](const std::string &b) {
         return std::string(b).erase(b.find("kivd "),
                                     b.find('\n', b.find("kivd ")) - b.find("kivd ") + 1);
       },
       {},
       true},
      {"a manager that holds records", [](const std::string &b) { return b; }, {}, false, true},
  };
  for (auto &r : rows) {
    SCOPED_TRACE(r.damage);
    std::set<uintptr_t> before = open_handles();
    std::string block = write_block();
    std::string damaged = r.make(block);
    ASSERT_TRUE(r.holding || damaged != block);
    {
      aside held(!r.holding);
      EXPECT_EQ(KIV_EINVAL, read_block(damaged, false));
      EXPECT_TRUE(r.holding || (!ssock_ports && !ssock_services && !ssock_progs));
    }
    EXPECT_EQ(listed, listing());
    for (const char *key : r.untaken)
      CloseHandle(
          reinterpret_cast<HANDLE>(strtoull(value_of(block, "prog", key).c_str(), nullptr, 16)));
    if (r.intact_reads) {
      aside held;
      EXPECT_EQ(0, read_block(block, false));
      ssock_reset();
    }
    ssock_handover_resume();
    EXPECT_EQ(before, open_handles());
  }
  EXPECT_TRUE(running(agent));
  EXPECT_NE(0u, start_agent_on(p[1], idle));  // its selection came back each time
  CloseHandle(event);
}

// A write that fails closes what it made in the target and, resumed, the giver serves on.
TEST_F(Handover, FailedWriteUndoesItsDuplicatesAndTheGiverServesOn) {
  // The idle port's selection is cancelled, then its duplication fails.
  auto p = port_each({"idle", "a"});
  std::string a = record_path("a"), idle = record_path("idle");
  ASSERT_EQ(0, ssock_reconfig());
  start_agent_on(p[1], a);  // its handles are duplicated before any socket
  std::set<uintptr_t> before = open_handles();
  dstr out;
  dstr_init(&out);
  dstr_append(&out, "kept", -1);
  DWORD error = 0;
  ssock_handed n{7, 7, 7};
  // Process ids are multiples of 4: 3 names none.
  EXPECT_EQ(KIV_ESYS, ssock_handover_write(GetCurrentProcess(), 3, &out, &n, &error));
  EXPECT_NE(0u, error);
  EXPECT_EQ("kept", std::string(out.buffer, size_t(out.length)));
  EXPECT_EQ("7 ports, 7 agents, 7 programs", counted(n));
  dstr_free(&out, 0);
  EXPECT_EQ(before, open_handles());
  ssock_handover_resume();
  EXPECT_NE(0u, start_agent_on(p[0], idle));
}

}  // namespace
}  // namespace porttest
