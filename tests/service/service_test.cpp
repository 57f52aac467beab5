// kivd.exe as a service through the real service manager, its installation and removal;
// kivd.exe with agents: a connection reaches the agent through the handed-over socket,
// and one kivd serves far more ports and agents than one platform wait takes; the service
// wrapper's own parts: the pipe's descriptor, the loop's wait and an early stop.
#include <gtest/gtest.h>

#include <cstdio>
#include <sstream>
#include <thread>

#include "tests/support/support.h"
#include "service/sserv.h"
#include "lib/heap.h"
#include "toolkit/runtime/error.h"
#include "toolkit/runtime/mwait.h"

namespace {

using replies = std::vector<std::string>;

using manager = kt::service_manager;

// Runs kivd.exe with options to its end; returns its standard output and exit code.
std::string run(const std::string &options, DWORD *code) {
  kt::ran r = kt::run("\"" + kt::kivd_exe() + "\" " + options);
  *code = r.code;
  return r.out;
}

// True once no kivd.exe process is left: a stopped service's process lingers a moment
// after its last status report, and a start in that moment would reach the old process.
bool no_kivd_process() {
  return kt::poll([] { return kt::processes_named("kivd.exe") == 0; });
}

// A file of this test process in the temporary folder.
std::string temp_file(const char *name) {
  char dir[MAX_PATH];
  GetTempPathA(sizeof dir, dir);
  return std::string(dir) + name + std::to_string(GetCurrentProcessId()) + ".txt";
}

// How often text occurs in the file at path (0 when it cannot be read).
std::string file_text(const std::string &path) {
  std::string all;
  if (FILE *f = fopen(path.c_str(), "rb")) {
    char buf[4096];
    for (size_t got; (got = fread(buf, 1, sizeof buf, f)) > 0;) all.append(buf, got);
    fclose(f);
  }
  return all;
}

// The lines of a log that hold any of needles: what a failed step shows of kivd's side.
std::string lines_with(const std::string &path, std::initializer_list<std::string> needles) {
  std::istringstream in(file_text(path));
  std::string out;
  for (std::string line; std::getline(in, line);)
    for (const std::string &n : needles)
      if (line.find(n) != std::string::npos) {
        out += line + "\n";
        break;
      }
  return out;
}

int occurrences(const std::string &path, const std::string &text) {
  std::string all = file_text(path);
  int n = 0;
  for (size_t at = all.find(text); at != std::string::npos; at = all.find(text, at + 1)) n++;
  return n;
}

// How many lines of the listing hold `text` and have an agent.
int with_agent(kt::client &c, const std::string &text) {
  int n = 0;
  for (auto &line : c.command("ls"))
    n += line.find(text) != std::string::npos && line.find(" Agent=") != std::string::npos;
  return n;
}

// The listing lines of port, between "!" and ".".
std::vector<std::string> lines_of(kt::client &c, int port) {
  std::vector<std::string> out;
  std::string key = kt::port_line(port, "", "").substr(0, 7);
  for (auto &line : c.command("ls"))
    if (line.compare(0, 7, key) == 0) out.push_back(line);
  return out;
}

// A port is served by an agent (the test agent greets with its port) within ms.
bool served(int port, int ms = 10000) {
  SOCKET s = INVALID_SOCKET;
  bool ok = kt::poll([&] { return (s = kt::connect_to(port)) != INVALID_SOCKET; }, ms) &&
            kt::read_line(s, ms).find(" port " + std::to_string(port)) != std::string::npos;
  if (s != INVALID_SOCKET) closesocket(s);
  return ok;
}

// Leaves no service behind, whatever a test did.
struct clean_service {
  clean_service() { remove(); }
  ~clean_service() { remove(); }
  void remove() {
    manager m;
    if (!m.installed()) return;
    m.control(SERVICE_CONTROL_STOP);
    m.state_is(SERVICE_STOPPED, 15000);
    no_kivd_process();
    m.with(DELETE, [](SC_HANDLE s) { return DeleteService(s); });
  }
};

// The whole command line's fit is checked end to end (the service test); here what the
// buffer holds, and the quotes a path with a blank gets.
TEST(Install, CommandLineBufferIsEmptiedWhenItDoesNotFit) {
  char buf[SSERV_CMDLINE];
  std::string exe(SSERV_CMDLINE - 3, 'p');  // with " -S" one character too many
  EXPECT_EQ(install_cmdline(buf, sizeof buf, exe.c_str(), nullptr), KIV_EOVERFLOW);
  EXPECT_STREQ(buf, "");
  // A path with a blank counts its two quotes.
  std::string blank = "C:\\a b\\" + std::string(SSERV_CMDLINE - 1 - 3 - 2 - 7, 'p');
  EXPECT_EQ(install_cmdline(buf, sizeof buf, blank.c_str(), nullptr), 0);
  EXPECT_EQ(std::string(buf), "\"" + blank + "\" -S");
  blank += "p";
  EXPECT_EQ(install_cmdline(buf, sizeof buf, blank.c_str(), nullptr), KIV_EOVERFLOW);
}

// -I and -U: their outputs, exit codes and the service they register. Then the service
// installed again, and in turn: a stop during its first start-up, a failed initialize, a
// start and a stop, "quit -Q", and -U while it runs.
TEST(Service, InstallStatesAndExitCodesThroughTheServiceManager) {
  clean_service clean;
  kt::registry reg;
  manager m;
  DWORD code = 0;
  std::string exe = kt::kivd_exe();
  std::vector<char> buf;

  EXPECT_EQ(run("-U", &code), "Service not installed\n");
  EXPECT_EQ(code, 0u);
  EXPECT_EQ(run("-I -U", &code), "Service not installed\n");  // the last action wins
  EXPECT_FALSE(m.installed());
  EXPECT_EQ(kt::event_source(), "");

  EXPECT_EQ(run("-U -S -I", &code), "Service \"Varnel Agent Port Manager\" installed\n");
  EXPECT_EQ(code, 0u);
  QUERY_SERVICE_CONFIGA *c = m.config(buf);
  ASSERT_NE(c, nullptr);
  EXPECT_STREQ(c->lpBinaryPathName, (exe + " -S").c_str());
  EXPECT_STREQ(c->lpDisplayName, "Varnel Agent Port Manager");
  EXPECT_EQ(c->dwStartType, static_cast<DWORD>(SERVICE_AUTO_START));
  EXPECT_EQ(c->dwServiceType & 0xFF, static_cast<DWORD>(SERVICE_WIN32_OWN_PROCESS));
  EXPECT_EQ(m.status().dwCurrentState, static_cast<DWORD>(SERVICE_STOPPED));  // -S ignored
  EXPECT_EQ(kt::event_source(), exe + "|7");
  ASSERT_EQ(m.config2(SERVICE_CONFIG_DESCRIPTION, buf), 0u);
  EXPECT_STREQ(reinterpret_cast<SERVICE_DESCRIPTIONA *>(buf.data())->lpDescription,
               SSERV_DESCRIPTION);
  // Wine's service manager stores the recovery but cannot report it; where it can, it is
  // read back.
  if (m.config2(SERVICE_CONFIG_FAILURE_ACTIONS, buf) == 0) {
    auto *f = reinterpret_cast<SERVICE_FAILURE_ACTIONSA *>(buf.data());
    EXPECT_EQ(f->dwResetPeriod, SSERV_RESET_SECONDS);
    ASSERT_EQ(f->cActions, 3u);
    for (int i = 0; i < 3; i++) {
      EXPECT_EQ(f->lpsaActions[i].Type, SC_ACTION_RESTART) << i;
      EXPECT_EQ(f->lpsaActions[i].Delay, SSERV_RESTART_MS[i]) << i;
    }
  }

  EXPECT_EQ(run("-I -D5", &code), "");  // installed already: nothing, 0
  EXPECT_EQ(code, 0u);
  EXPECT_STREQ(m.config(buf)->lpBinaryPathName, (exe + " -S").c_str());

  EXPECT_EQ(run("-U", &code), "Service deleted\n");
  EXPECT_EQ(code, 0u);
  EXPECT_EQ(kt::event_source(), "");
  EXPECT_EQ(run("-D7 -I -D3", &code), "Service \"Varnel Agent Port Manager\" installed\n");
  c = m.config(buf);
  ASSERT_NE(c, nullptr);
  EXPECT_STREQ(c->lpBinaryPathName, (exe + " -S -D3;>c:/kivd.txt").c_str());
  EXPECT_EQ(run("-U", &code), "Service deleted\n");

  // A command line that would not fit its 388 bytes is refused, nothing installed.
  std::string room(SSERV_CMDLINE - 1 - exe.size() - strlen(" -S -D;>c:/kivd.txt"), '3');
  EXPECT_EQ(run("-I -D" + room + "x", &code),
            "Service command line too long (more than 387 characters)\n");
  EXPECT_EQ(code, 1u);
  EXPECT_FALSE(m.installed());
  EXPECT_EQ(run("-I -D" + room, &code), "Service \"Varnel Agent Port Manager\" installed\n");
  EXPECT_EQ(code, 0u);
  EXPECT_EQ(strlen(m.config(buf)->lpBinaryPathName), static_cast<size_t>(SSERV_CMDLINE - 1));
  EXPECT_EQ(run("-U", &code), "Service deleted\n");
  // A deleted service may still be marked for deletion a moment, its name not yet free.
  ASSERT_TRUE(kt::poll([&] { return run("-I", &code), m.installed(); }));
  {
    // kivd's log goes to a pipe of the test's, and each line waits until the test reads
    // it: the stop goes out while kivd is held inside start-up, its handler registered,
    // and its state is read while it is held again at the end of its loop.
    SCOPED_TRACE("a stop during start-up starts nothing and is never followed by running");
    std::string logpipe = "\\\\.\\pipe\\kivd_early_stop_" + std::to_string(GetCurrentProcessId());
    HANDLE log =
        CreateNamedPipeA(logpipe.c_str(), PIPE_ACCESS_INBOUND, PIPE_TYPE_BYTE, 1, 0, 1, 0, nullptr);
    auto set_cmdline = [&](const std::string &line) {
      return m.with(SERVICE_CHANGE_CONFIG, [&](SC_HANDLE s) {
        return ChangeServiceConfigA(s, SERVICE_NO_CHANGE, SERVICE_NO_CHANGE, SERVICE_NO_CHANGE,
                                    line.c_str(), nullptr, nullptr, nullptr, nullptr, nullptr,
                                    nullptr);
      });
    };
    ASSERT_TRUE(set_cmdline(exe + " -S -D3;>" + logpipe));
    reg.service("on", "\"" + kt::testagent_exe() + "\"");
    reg.port(kt::free_port(), "on", "on");
    std::string text;
    auto read_until = [&](const char *seen) {  // null: to the end of kivd's log
      char b[512];
      DWORD got = 0;
      while ((!seen || text.find(seen) == std::string::npos) &&
             ReadFile(log, b, sizeof b, &got, nullptr))
        text.append(b, got);
    };
    bool started = false;
    std::thread starter([&] { started = m.start(); });  // the service waits for its reader
    ConnectNamedPipe(log, nullptr);
    read_until("ACL size: ");
    bool stopped = m.control(SERVICE_CONTROL_STOP);
    EXPECT_TRUE(stopped) << GetLastError();
    if (stopped) read_until("RIP!");
    EXPECT_EQ(m.status().dwCurrentState, static_cast<DWORD>(SERVICE_STOP_PENDING));
    if (stopped) read_until(nullptr);
    CloseHandle(log);
    starter.join();
    EXPECT_TRUE(started);
    EXPECT_NE(text.find("Service stopped with code 0"), std::string::npos) << text;
    EXPECT_EQ(text.find(" started for port "), std::string::npos) << text;
    ASSERT_TRUE(m.state_is(SERVICE_STOPPED));
    ASSERT_TRUE(set_cmdline(exe + " -S"));
    ASSERT_TRUE(no_kivd_process());
    kt::remove_root();
  }
  {
    SCOPED_TRACE("a failed initialize stops with 1066 and its code");
    // A console kivd holds both instances of the pipe: the service cannot create its own.
    kt::kivd console("-D3");
    ASSERT_TRUE(m.start());
    ASSERT_TRUE(m.state_is(SERVICE_STOPPED)) << m.status().dwCurrentState;
    SERVICE_STATUS_PROCESS st = m.status();
    EXPECT_EQ(st.dwWin32ExitCode, static_cast<DWORD>(ERROR_SERVICE_SPECIFIC_ERROR));
    EXPECT_EQ(static_cast<int>(st.dwServiceSpecificExitCode), KIV_ESYS);
  }
  ASSERT_TRUE(no_kivd_process());

  ASSERT_TRUE(m.start());
  ASSERT_TRUE(m.state_is(SERVICE_RUNNING)) << m.status().dwCurrentState;
  SERVICE_STATUS_PROCESS st = m.status();
  EXPECT_EQ(st.dwControlsAccepted, static_cast<DWORD>(SERVICE_ACCEPT_STOP));
  {
    kt::client c;
    EXPECT_EQ(c.command("update"), replies{"+"});
    EXPECT_EQ(c.command("info")[0], "!");
  }
  std::string status = kt::run("\"" + kt::kivctl_exe() + "\" status").out;
  EXPECT_EQ(status.rfind("service:  installed, running\nkivd:     running", 0), 0u) << status;
  EXPECT_TRUE(m.control(SERVICE_CONTROL_INTERROGATE));
  ASSERT_TRUE(m.control(SERVICE_CONTROL_STOP));
  ASSERT_TRUE(m.state_is(SERVICE_STOPPED));
  st = m.status();
  EXPECT_EQ(st.dwWin32ExitCode, 0u);
  EXPECT_EQ(st.dwServiceSpecificExitCode, 0u);
  ASSERT_TRUE(no_kivd_process());
  // The pipe went with the service.
  EXPECT_TRUE(kt::poll([] {
    return !WaitNamedPipeA("\\\\.\\pipe\\vesk_kivd", NMPWAIT_NOWAIT) &&
           GetLastError() == ERROR_FILE_NOT_FOUND;
  }));

  // "quit -Q" ends a running service as well.
  ASSERT_TRUE(m.start());
  ASSERT_TRUE(m.state_is(SERVICE_RUNNING));
  kt::client().send("quit -Q");
  ASSERT_TRUE(m.state_is(SERVICE_STOPPED));
  EXPECT_EQ(m.status().dwWin32ExitCode, 0u);
  ASSERT_TRUE(no_kivd_process());

  // -U stops a running service before it removes it.
  ASSERT_TRUE(m.start());
  ASSERT_TRUE(m.state_is(SERVICE_RUNNING));
  std::string out = run("-U", &code);
  EXPECT_EQ(out.rfind("Stopping service ..", 0), 0u) << out;
  EXPECT_NE(out.find(" OK\nService deleted\n"), std::string::npos) << out;
  EXPECT_EQ(code, 0u);
  EXPECT_TRUE(kt::poll([&] { return !m.installed(); }));
  EXPECT_TRUE(no_kivd_process());
  EXPECT_EQ(kt::event_source(), "");
}

TEST(PipeSecurity, TheDescriptorBlock) {
  auto *sd = static_cast<SECURITY_DESCRIPTOR *>(MakePipeSecurity());
  ASSERT_NE(sd, nullptr);
  BOOL present = FALSE, defaulted = TRUE;
  PACL dacl = nullptr;
  ASSERT_TRUE(GetSecurityDescriptorDacl(sd, &present, &dacl, &defaulted));
  EXPECT_TRUE(present);
  EXPECT_FALSE(defaulted);
  // The access list lives in the same block, right behind the descriptor.
  EXPECT_EQ(reinterpret_cast<char *>(dacl), reinterpret_cast<char *>(sd + 1));
  // So does the label's list, behind the access list: one xfree releases all of it.
  PACL sacl = nullptr;
  ASSERT_TRUE(GetSecurityDescriptorSacl(sd, &present, &sacl, &defaulted));
  EXPECT_TRUE(present);
  EXPECT_EQ(reinterpret_cast<char *>(sacl), reinterpret_cast<char *>(dacl) + dacl->AclSize);
  xfree(sd);  // its entries: the console test reads them back from the pipe
}

// One kivd, its log in a file, with 150 ports of 150 services (150 socket events, then
// 150 agent processes in the wait, plus die and the pipe's four events), 100 ports of one
// agent slow to read its pipe, and a few services whose records are replaced. Every agent
// (the test agent, recording to one file) inherits its own pipe's read end and nothing
// else of kivd's: its log file, listening sockets, other agents' pipes.
TEST(Agents, OneKivdOfTwoHundredAgentPorts) {
  ASSERT_NE(kt::testagent_exe(), "");
  constexpr int N = 150, SLOW = 100;
  kt::registry reg;
  std::string record = temp_file("kivd_agents_");
  std::string log = record + ".log", gate = record + ".gate";
  std::string agent = "\"" + kt::testagent_exe() + "\" -F" + record;
  DeleteFileA(gate.c_str());
  std::vector<int> ports = kt::free_ports(N + SLOW + 5);
  std::vector<int> many(ports.begin(), ports.begin() + N);
  std::vector<int> slow(ports.begin() + N, ports.begin() + N + SLOW);
  int first = ports[N + SLOW], second = ports[N + SLOW + 1], resting = ports[N + SLOW + 3],
      held = ports[N + SLOW + 4];
  for (int i = 0; i < N; i++) {
    std::string svc = "svc" + std::to_string(i);
    reg.service(svc.c_str(), agent);
    reg.port(many[i], "auto", svc.c_str());
  }
  reg.service("slow", agent + " -W" + gate);
  for (int port : slow) reg.port(port, "auto", "slow");
  reg.service("first", agent);
  reg.service("second", agent);
  reg.port(first, "auto", "first");
  reg.port(second, "auto", "second");
  reg.port(ports[N + SLOW + 2], "on", "second");  // an agent of its own, and a pipe, first
  reg.service("one", agent);
  reg.service("two", agent);
  reg.service("stays", agent + " -I");  // outlives its closed pipe
  reg.port(resting, "auto", "one");
  reg.port(held, "auto", "stays");
  kt::kivd d("\"-D3;>" + log + "\"");
  auto logged = [&](const std::string &text, int ms = 20000) {
    return kt::poll([&] { return occurrences(log, text) > 0; }, ms);
  };
  ASSERT_TRUE(
      kt::poll([&] { return occurrences(log, "Listening on port ") >= N + SLOW + 4; }, 60000));
  const std::string clean = "#handles listening=0 sockets=0 pipes=0 other=0 own=1";
  {
    SCOPED_TRACE("agents started while kivd holds its log, sockets and another agent's pipe");
    for (int port : {first, second}) {
      SOCKET s = INVALID_SOCKET;
      ASSERT_TRUE(kt::poll([&] { return (s = kt::connect_to(port)) != INVALID_SOCKET; }));
      EXPECT_NE(kt::read_line(s).find(" port " + std::to_string(port)), std::string::npos);
      closesocket(s);
    }
    ASSERT_TRUE(kt::poll([&] { return occurrences(record, "#handles") >= 3; }));
    EXPECT_EQ(occurrences(record, clean), 3);
  }
  kt::client c;
  {
    // It holds the start-up lines of all its ports in the pipe meanwhile: kivd writes them
    // and goes on serving, it does not wait for the agent.
    SCOPED_TRACE("an agent slow to read its pipe does not stall kivd");
    SOCKET s = kt::connect_to(slow[0]);
    ASSERT_NE(s, INVALID_SOCKET);
    ASSERT_TRUE(logged(" started for port " + std::to_string(slow[0])));
    EXPECT_EQ(with_agent(c, " slow "), SLOW);
    CloseHandle(CreateFileA(gate.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr));
    EXPECT_NE(kt::read_line(s, 30000).find(" port " + std::to_string(slow[0])), std::string::npos);
    closesocket(s);
  }
  {
    // Each port is listed once and served. (A removed record that rests is freed by the
    // pass whatever its disable: ports_unit_test.cpp, PassRemovals.)
    SCOPED_TRACE("a record replaced while it rests never comes back beside its successor");
    // The service changed while the port rests after its agent crashed: the new record is
    // listened on at once, the timed rest is not its own.
    SOCKET s = kt::connect_to(resting);
    ASSERT_NE(kt::read_line(s), "")
        << lines_with(log, {"port " + std::to_string(resting), "Port " + std::to_string(resting),
                            "killed", "does not read", "failed"});
    send(s, "crash\n", 6, 0);
    closesocket(s);
    ASSERT_TRUE(logged("Port " + std::to_string(resting) + " disabled for 3 seconds"));
    reg.port(resting, "auto", "two");
    ASSERT_EQ(c.command("reconfig"), std::vector<std::string>{"+"});
    auto now = lines_of(c, resting);
    ASSERT_EQ(now.size(), 1u) << testing::PrintToString(now);
    EXPECT_EQ(now[0].find(" Disable="), std::string::npos) << now[0];
    EXPECT_TRUE(served(resting));
  }
  {
    // The disable holds, and the port is one record once the agent has gone.
    SCOPED_TRACE("disabled while its agent runs, then a reconfiguration before it ends");
    SOCKET s = kt::connect_to(held);
    unsigned pid = 0;
    ASSERT_EQ(sscanf(kt::read_line(s).c_str(), "agent %u", &pid), 1);
    ASSERT_EQ(c.command("disable " + std::to_string(held)), std::vector<std::string>{"+"});
    ASSERT_EQ(c.command("reconfig"), std::vector<std::string>{"+"});
    send(s, "exit 0\n", 7, 0);
    closesocket(s);
    ASSERT_TRUE(logged("Child " + std::to_string(pid) + " died with code 0"));
    auto now = lines_of(c, held);
    ASSERT_EQ(now.size(), 1u) << testing::PrintToString(now);
    EXPECT_NE(now[0].find(" Disable=2038-"), std::string::npos) << now[0];
    EXPECT_EQ(now[0].find(" Agent="), std::string::npos) << now[0];
    ASSERT_EQ(c.command("enable " + std::to_string(held)), std::vector<std::string>{"+"});
    EXPECT_TRUE(served(held));
  }
  {
    SCOPED_TRACE("more than sixty-four handles");
    std::vector<SOCKET> conns;
    for (int port : many) {
      // A launch the system refuses under this load leaves the port off for 3 seconds and
      // drops the connection; the port must serve the next one.
      std::string hello;
      SOCKET s = INVALID_SOCKET;
      for (int attempt = 0; attempt < 3 && hello.empty(); attempt++) {
        if (s != INVALID_SOCKET) closesocket(s);
        kt::poll([&] { return (s = kt::connect_to(port)) != INVALID_SOCKET; }, 10000);
        hello = kt::read_line(s, 30000);
      }
      EXPECT_NE(hello.find(" port " + std::to_string(port)), std::string::npos)
          << port << ": [" << hello << "]";
      conns.push_back(s);
    }
    EXPECT_EQ(with_agent(c, " svc"), N);
    // Every agent ends with 0; kivd must see each end and listen on its port again.
    for (SOCKET s : conns) {
      send(s, "exit 0\n", 7, 0);
      closesocket(s);
    }
    for (int port : many)
      EXPECT_TRUE(logged("Listening on port " + std::to_string(port) + " again", 30000)) << port;
    // And the ports are served again, the last ones of the wait list included.
    for (int i : {0, 1, 63, 64, 127, N - 2, N - 1}) EXPECT_TRUE(served(many[i], 30000)) << many[i];
  }
  c.close();
  d.quit();
  EXPECT_EQ(d.exit_code(), 0u);
  EXPECT_EQ(occurrences(record, clean), occurrences(record, "#handles"));
  EXPECT_TRUE(DeleteFileA(log.c_str())) << "the log is still held open";
  DeleteFileA(gate.c_str());
  DeleteFileA(record.c_str());
}

TEST(WaitTime, Rules) {
  const time_t now = 1700000000;
  struct {
    time_t due;
    int seconds;
  } cases[] = {
      {now + 3, 4},  // due + 1
      {now + 10, 11},
      {now + 1, 2},
      {now, 6},  // overdue: 5 + 1
      {now - 100, 6},
      {now + 86400, 86401},  // the port manager's horizon when nothing is due
      {now + SSERV_WEEK - 1, SSERV_WEEK},
      {now + SSERV_WEEK, SSERV_WEEK},  // never longer than a week
      {now + 400000000, SSERV_WEEK},
  };
  for (auto &c : cases) EXPECT_EQ(wait_seconds(c.due, now), c.seconds) << "due in " << c.due - now;
}

// A set the system cannot wait on (here one handle among 100 lacks the right to be waited
// on) must neither spin nor hide `die`: the loop then waits on `die` alone for a second at
// a time, and tries the whole set again after that second, not after its own wait of a
// week. `die` is a timer that fires 20 s in: a failing set that waited its week ends on it.
TEST(WaitTime, AFailingWaitStillSeesDieAndDoesNotSpin) {
  std::vector<HANDLE> h(100);
  for (HANDLE &e : h) e = CreateEventA(nullptr, TRUE, FALSE, nullptr);
  HANDLE self = GetCurrentProcess();
  DuplicateHandle(self, h[40], self, &h[40], EVENT_MODIFY_STATE, FALSE, DUPLICATE_CLOSE_SOURCE);
  CloseHandle(h[99]);
  h[99] = CreateWaitableTimerA(nullptr, TRUE, nullptr);
  LARGE_INTEGER due;
  due.QuadPart = -200000000;
  ASSERT_TRUE(SetWaitableTimer(h[99], &due, 0, nullptr, nullptr, FALSE));
  FILETIME created, ended, kernel0, user0, kernel1, user1;
  GetThreadTimes(GetCurrentThread(), &created, &ended, &kernel0, &user0);
  DWORD index = 0;
  DWORD begin = GetTickCount();
  EXPECT_EQ(loop_wait(100, h.data(), SSERV_WEEK * 1000u, &index), 0);
  EXPECT_EQ(index, MWAIT_TIMEOUT);
  EXPECT_GE(GetTickCount() - begin, SSERV_RETRY_MS - 50) << "the failing wait was retried at once";
  GetThreadTimes(GetCurrentThread(), &created, &ended, &kernel1, &user1);
  auto ms = [](FILETIME a, FILETIME b) {
    return ((ULONGLONG(b.dwHighDateTime) << 32 | b.dwLowDateTime) -
            (ULONGLONG(a.dwHighDateTime) << 32 | a.dwLowDateTime)) /
           10000;
  };
  EXPECT_LT(ms(user0, user1) + ms(kernel0, kernel1), 200u) << "busy while waiting";
  due.QuadPart = -1;
  SetWaitableTimer(h[99], &due, 0, nullptr, nullptr, FALSE);  // `die` now
  EXPECT_EQ(loop_wait(100, h.data(), 20000, &index), 0);
  EXPECT_EQ(index, 99u);
  for (HANDLE e : h) CloseHandle(e);
}

// A stop that arrives before initialize has created `die` is remembered: the loop then
// ends at its first wait instead of running on (in a child process: the loop holds the
// fixed pipe name while it runs).
TEST(EarlyStopDeathTest, AStopBeforeDieExistsEndsTheLoopAtOnce) {
  EXPECT_EXIT(
      {
        // Without the remembered stop the loop would wait a day: give up long before.
        CreateThread(
            nullptr, 0,
            [](void *) -> DWORD {
              Sleep(20000);
              ExitProcess(4);
            },
            nullptr, 0, nullptr);
        stop_service();
        if (initialize() != 0) exit(2);
        exit(run_service() == 0 ? 7 : 3);
      },
      ::testing::ExitedWithCode(7), "");
}

}  // namespace
