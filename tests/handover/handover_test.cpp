// kivd.exe through `kivctl restart` and a hand-over nobody claims: what a client sees (no
// refusal, no cut), what the agents see (nothing, or "remove" for a port the new
// configuration drops), and that the holder's channel gives to kivd's successor alone.
// In a console the holder starts the successor itself with kivd's command line, in the
// same console: its log goes on in the first kivd's files.
#include <winsock2.h>
#include <windows.h>
#include <shlobj.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "lib/wire.h"
#include "tests/support/load.h"
#include "tests/support/ports.h"
#include "tests/support/support.h"

namespace {

using porttest::has_text;
using porttest::record_path;

kt::ran kivctl(const std::string &words) {
  return kt::run("\"" + kt::kivctl_exe() + "\" " + words);
}

// The pid of the agent that serves port, from the listing; 0 for none.
DWORD agent_of(int port) {
  kt::client c;
  for (const std::string &line : kt::listed_ports(c.command("ls"))) {
    if (atoi(line.c_str()) != port) continue;
    size_t at = line.find(" " WIRE_ITEM_AGENT "=");
    return at == std::string::npos ? 0 : strtoul(line.c_str() + at + 7, nullptr, 10);
  }
  return 0;
}

// An item of the stats line that starts with `line` ("Port=7000", "Kivd="); -1 for none.
long long stat(const std::string &line, const char *item) {
  kt::client c;
  for (const std::string &l : c.command("stats")) {
    if (l.rfind(line + " ", 0) != 0 && !(line.back() == '=' && l.rfind(line, 0) == 0)) continue;
    size_t at = l.find(std::string(" ") + item + "=");
    return at == std::string::npos ? -1 : atoll(l.c_str() + at + strlen(item) + 2);
  }
  return -1;
}

// The echo agent on two ports: `fresh`, whose agents serve what waits and end, so each
// connection needs kivd, and `live`, whose agent runs throughout.
void configure_fresh_and_live(kt::registry &reg, int *fresh, int *live) {
  std::vector<int> ports = kt::free_ports(2);
  *fresh = ports[0];
  *live = ports[1];
  std::string echo = "\"" + kt::echo_agent_exe() + "\"";
  reg.service("fresh", echo);
  reg.set("services\\fresh", "lifespan", "0");
  reg.port(*fresh, "auto", "fresh");
  reg.auto_ports("live", echo, {*live});
}

// The restart tests' load: new connections to `fresh`, the live one to `live`.
kt::load_options load_on(int fresh, int live) {
  kt::load_options options;
  options.port = fresh;
  options.live_port = live;
  return options;
}

// Stops whichever kivd serves now (the successor of the one the test started) and waits
// until no kivd.exe runs, holders included.
void stop_all() {
  {
    kt::client c;
    c.send("quit -Q");
  }
  EXPECT_TRUE(kt::poll([] { return kt::processes_named("kivd.exe") == 0; }, 30000));
}

std::string holders_root() {
  char base[MAX_PATH];
  if (FAILED(SHGetFolderPathA(nullptr, CSIDL_COMMON_APPDATA, nullptr, 0, base))) return "";
  return std::string(base) + "\\Orvane\\kivd";
}

bool exists(const std::string &path) {
  return GetFileAttributesA(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

// "+Handed over to holder H: ports=N agents=N programs=N kivd=P": H and P.
bool handed(const std::string &reply, unsigned long *holder, unsigned long *kivd) {
  int ports, agents, programs;
  return sscanf(reply.c_str(),
                "+Handed over to holder %lu: ports=%d agents=%d programs=%d kivd=%lu", holder,
                &ports, &agents, &programs, kivd) == 5;
}

// Three restarts in a row under a client load: a new connection every 50 ms to an idle
// port (its agents end after each connection), and a live one to a port whose agent runs
// throughout. Nothing refused, nothing cut, the live agent the same process all along.
TEST(Restart, ThreeRestartsUnderLoadRefuseNothingAndCutNothing) {
  kt::registry reg;
  int fresh = 0, live = 0;
  configure_fresh_and_live(reg, &fresh, &live);
  kt::kivd d;
  ASSERT_TRUE(d.log_has(kt::listening(fresh)) && d.log_has(kt::listening(live))) << d.err();
  kt::client_load load(load_on(fresh, live));
  load.start();
  ASSERT_TRUE(kt::poll([&] { return load.counts().live_echoed >= 2; }))
      << kt::describe(load.counts());
  DWORD agent = agent_of(live);
  ASSERT_NE(agent, 0u);
  std::string fresh_line = "Port=" + std::to_string(fresh),
              live_line = "Port=" + std::to_string(live);
  long long connections = stat(fresh_line, "Connections");
  ASSERT_GT(connections, 0);
  ASSERT_EQ(stat(live_line, "Starts"), 1);
  for (int i = 0; i < 3; i++) {
    int before = load.counts().made;
    kt::ran r = kivctl("restart 30");
    ASSERT_EQ(r.code, 0u) << r.out << r.err << d.err();
    // The live agent, and the fresh port's when a connection was being served.
    int nports = 0, agents = 0, programs = 0;
    long gap = -1;
    ASSERT_EQ(
        sscanf(r.out.c_str(), "Restarted: %d ports, %d agents, %d programs taken over; %ld ms",
               &nports, &agents, &programs, &gap),
        4)
        << r.out;
    EXPECT_EQ(nports, 2);
    EXPECT_GE(agents, 1);
    EXPECT_LE(agents, 2);
    EXPECT_EQ(programs, 0);
    EXPECT_GE(gap, 0);
    EXPECT_LT(gap, 60000) << "the gap is measured from the predecessor's end";
    EXPECT_EQ(agent_of(live), agent) << "restart " << i;
    // Connections went on being served after each restart.
    EXPECT_TRUE(kt::poll([&] { return load.counts().made >= before + 5; }))
        << kt::describe(load.counts());
  }
  kt::load_counts c = load.stop();
  EXPECT_TRUE(c.clean()) << kt::describe(c) << "\n" << d.err();
  EXPECT_GT(c.live_echoed, 0);
  EXPECT_EQ(c.live_echoed, c.live_sent);
  EXPECT_EQ(agent_of(live), agent);
  // The counters came through the three hand-overs: the live port's one start, the fresh
  // port's connections counted on, kivd's own hand-overs.
  EXPECT_EQ(stat(live_line, "Starts"), 1);
  EXPECT_GT(stat(fresh_line, "Connections"), connections);
  EXPECT_EQ(stat("Kivd=", "Handovers"), 3);
  stop_all();
}

// Through the service manager: the holder starts the service once the old process has
// ended, and gives only to the process the service manager names. Two restarts under load,
// the service's process new each time, the live agent the same.
TEST(Restart, TheServiceRestartsThroughTheServiceManager) {
  kt::registry reg;
  int fresh = 0, live = 0;
  configure_fresh_and_live(reg, &fresh, &live);
  kt::service_manager m;
  auto remove = [&] {
    kt::run("\"" + kt::kivd_exe() + "\" -U");
    kt::poll([&] { return !m.installed() && kt::processes_named("kivd.exe") == 0; }, 30000);
  };
  remove();
  ASSERT_EQ(kt::run("\"" + kt::kivd_exe() + "\" -I").code, 0u);
  ASSERT_TRUE(m.start());
  ASSERT_TRUE(m.state_is(SERVICE_RUNNING));
  ASSERT_TRUE(kt::poll([&] { return kt::echoes(live); }));
  kt::client_load load(load_on(fresh, live));
  load.start();
  ASSERT_TRUE(kt::poll([&] { return load.counts().live_echoed >= 2; }))
      << kt::describe(load.counts());
  DWORD agent = agent_of(live);
  for (int i = 0; i < 2; i++) {
    DWORD before = m.status().dwProcessId;
    kt::ran r = kivctl("restart 30");
    ASSERT_EQ(r.code, 0u) << r.out << r.err;
    EXPECT_EQ(r.out.rfind("Restarted: 2 ports, ", 0), 0u) << r.out;
    SERVICE_STATUS_PROCESS st = m.status();
    EXPECT_EQ(st.dwCurrentState, static_cast<DWORD>(SERVICE_RUNNING));
    EXPECT_NE(st.dwProcessId, before);
    EXPECT_EQ(agent_of(live), agent);
  }
  kt::load_counts c = load.stop();
  EXPECT_TRUE(c.clean()) << kt::describe(c);
  EXPECT_EQ(c.live_echoed, c.live_sent);
  remove();
  EXPECT_FALSE(m.installed());
}

// The configuration changed between the two processes: the port kept keeps its agent,
// which hears nothing; the removed port's agent is told to drop it; the new port listens.
TEST(Restart, TheSuccessorMakesTheHandedOverRecordsAgreeWithTheConfiguration) {
  kt::registry reg;
  std::vector<int> ports = kt::free_ports(3);
  int kept = ports[0], removed = ports[1], added = ports[2];
  std::string a = record_path("kept"), b = record_path("removed"), c = record_path("added");
  reg.service("kept", porttest::agent_program(a));
  reg.service("removed", porttest::agent_program(b));
  reg.service("added", porttest::agent_program(c));
  reg.port(kept, "auto", "kept");
  reg.port(removed, "auto", "removed");
  kt::kivd d;
  ASSERT_TRUE(d.log_has(kt::listening(kept)) && d.log_has(kt::listening(removed))) << d.err();
  SOCKET s1 = kt::connect_to(kept), s2 = kt::connect_to(removed);
  ASSERT_NE(kt::read_line(s1), "");
  ASSERT_NE(kt::read_line(s2), "");
  DWORD kept_agent = agent_of(kept), removed_agent = agent_of(removed);
  ASSERT_TRUE(porttest::ready(a) && porttest::ready(b));
  size_t kept_lines = porttest::texts(a, kept_agent).size();
  kt::remove_root();
  reg.service("kept", porttest::agent_program(a));
  reg.service("added", porttest::agent_program(c));
  reg.port(kept, "auto", "kept");
  reg.port(added, "auto", "added");
  kt::ran r = kivctl("restart 30");
  ASSERT_EQ(r.code, 0u) << r.out << r.err << d.err();
  EXPECT_TRUE(kt::poll([&] {
    return has_text(b, WIRE_REMOVE + std::to_string(removed), removed_agent);
  })) << d.err();
  EXPECT_EQ(agent_of(kept), kept_agent);
  EXPECT_EQ(agent_of(removed), 0u);
  SOCKET s3 = kt::connect_to(added);
  EXPECT_NE(s3, INVALID_SOCKET);
  EXPECT_NE(kt::read_line(s3), "") << d.err();
  // The kept agent read nothing after its start-up: not even a reconfiguration's notice.
  EXPECT_EQ(porttest::texts(a, kept_agent).size(), kept_lines);
  for (SOCKET s : {s1, s2, s3}) closesocket(s);
  stop_all();
}

// A hand-over nobody claims: a process that is not kivd's successor is refused, and once
// the bound has passed the holder does what a stop does (the agent told "exit", the port
// closed), then ends, its copy and folder gone.
TEST(Holder, UnclaimedItRefusesStrangersAndStopsWhatItHeld) {
  kt::registry reg;
  int port = kt::free_port();
  std::string record = record_path("held");
  reg.service("held", porttest::agent_program(record));
  reg.port(port, "auto", "held");
  kt::kivd d;
  ASSERT_TRUE(d.log_has(kt::listening(port))) << d.err();
  SOCKET s = kt::connect_to(port);
  ASSERT_NE(kt::read_line(s), "");
  DWORD agent = agent_of(port);
  unsigned long holder = 0, kivd = 0;
  {
    kt::client c;
    std::vector<std::string> reply = c.command("handover 4");
    ASSERT_FALSE(reply.empty());
    ASSERT_TRUE(handed(reply.front(), &holder, &kivd)) << reply.front();
  }
  EXPECT_EQ(kivd, d.pid);
  EXPECT_TRUE(d.wait(20000));
  HANDLE h = OpenProcess(SYNCHRONIZE, FALSE, static_cast<DWORD>(holder));
  ASSERT_NE(h, nullptr);
  // A claim by this test, which is not the successor: connected, then given nothing.
  HANDLE pipe = INVALID_HANDLE_VALUE;
  ASSERT_TRUE(kt::poll([&] {
    pipe = CreateFileA(WIRE_HANDOVER_PIPE, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                       0, nullptr);
    return pipe != INVALID_HANDLE_VALUE;
  }));
  char buffer[256];
  DWORD n = 0;
  EXPECT_FALSE(ReadFile(pipe, buffer, sizeof buffer, &n, nullptr) && n > 0);
  CloseHandle(pipe);
  EXPECT_FALSE(has_text(record, "exit", agent));  // the agent still runs, held
  EXPECT_EQ(WaitForSingleObject(h, 60000), WAIT_OBJECT_0);
  CloseHandle(h);
  EXPECT_TRUE(has_text(record, "exit", agent));
  EXPECT_EQ(kt::read_line(s), "");  // its agent ended, the connection with it
  closesocket(s);
  EXPECT_EQ(kt::connect_to(port), INVALID_SOCKET);
  // Its copy is removed by kivd.exe of the install folder once the holder has ended.
  std::string folder = holders_root() + "\\holder-" + std::to_string(kivd);
  EXPECT_TRUE(kt::poll([] { return kt::processes_named("kivd.exe") == 0; }, 30000));
  EXPECT_TRUE(kt::poll([&] { return !exists(folder); }, 10000)) << folder;
}

}  // namespace
