// kivd.exe as a service through the real service manager, its installation and removal,
// and the control pipe's access list.
#include <gtest/gtest.h>

#include "tests/support/support.h"
#include "service/sserv.h"
#include "lib/heap.h"
#include "toolkit/runtime/error.h"

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

TEST(Install, CommandLineOutputsAndExitCodes) {
  clean_service clean;
  manager m;
  DWORD code = 0;
  std::string exe = kt::kivd_exe();
  std::vector<char> buf;

  EXPECT_EQ(run("-U", &code), "Service not installed\n");
  EXPECT_EQ(code, 0u);
  EXPECT_EQ(run("-I -U", &code), "Service not installed\n");  // the last action wins
  EXPECT_FALSE(m.installed());

  EXPECT_EQ(run("-U -S -I", &code), "Service \"Varnel Agent Port Manager\" installed\n");
  EXPECT_EQ(code, 0u);
  QUERY_SERVICE_CONFIGA *c = m.config(buf);
  ASSERT_NE(c, nullptr);
  EXPECT_STREQ(c->lpBinaryPathName, (exe + " -S").c_str());
  EXPECT_STREQ(c->lpDisplayName, "Varnel Agent Port Manager");
  EXPECT_EQ(c->dwStartType, static_cast<DWORD>(SERVICE_AUTO_START));
  EXPECT_EQ(c->dwServiceType & 0xFF, static_cast<DWORD>(SERVICE_WIN32_OWN_PROCESS));
  EXPECT_EQ(m.status().dwCurrentState, static_cast<DWORD>(SERVICE_STOPPED));  // -S ignored
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
}

// The whole command line's fit is checked end to end above; here what the buffer holds,
// and the quotes a path with a blank gets (how -I uses this line: the test above).
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

// The service installed with an empty configuration, then in turn: a failed initialize,
// a stop during start-up, a start and a stop, "quit -Q", and -U while it runs.
TEST(Service, StatesAndExitCodesThroughTheServiceManager) {
  clean_service clean;
  kt::registry reg;
  manager m;
  DWORD code = 0;
  // A service the case before removed may still be marked for deletion a moment, and its
  // name not yet free.
  ASSERT_TRUE(kt::poll([&] { return run("-I", &code), m.installed(); }));
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
  {
    // 60 "on" ports of their own services take a while to start: the reported state never
    // goes back from stop pending to running, and no agent is started once the stop is seen.
    SCOPED_TRACE("a stop during start-up starts nothing more and never reports running");
    ASSERT_NE(kt::testagent_exe(), "");
    char dir[MAX_PATH];
    GetTempPathA(sizeof dir, dir);
    std::string record =
        std::string(dir) + "kivd_early_stop_" + std::to_string(GetCurrentProcessId()) + ".txt";
    DeleteFileA(record.c_str());
    constexpr int N = 60;
    std::vector<int> ports = kt::free_ports(N);
    for (int i = 0; i < N; i++) {
      std::string svc = "s" + std::to_string(i);
      reg.service(svc.c_str(), "\"" + kt::testagent_exe() + "\" -F" + record);
      reg.port(ports[i], "on", svc.c_str());
    }
    ASSERT_TRUE(m.start());
    // The stop goes out while the service still reports start pending.
    ASSERT_TRUE(kt::poll(
        [&] {
          return m.control(SERVICE_CONTROL_STOP) ||
                 m.status().dwCurrentState != SERVICE_START_PENDING;
        },
        10000));
    std::vector<DWORD> states;
    kt::poll(
        [&] {
          DWORD state = m.status().dwCurrentState;
          if (states.empty() || states.back() != state) states.push_back(state);
          return state == SERVICE_STOPPED;
        },
        60000);
    ASSERT_EQ(states.back(), static_cast<DWORD>(SERVICE_STOPPED)) << testing::PrintToString(states);
    bool pending = false;
    for (DWORD state : states) {
      pending |= state == SERVICE_STOP_PENDING;
      EXPECT_FALSE(pending && state == SERVICE_RUNNING) << testing::PrintToString(states);
    }
    ASSERT_TRUE(no_kivd_process());
    int started = 0;
    if (FILE *f = fopen(record.c_str(), "rb")) {
      char line[4096];
      while (fgets(line, sizeof line, f)) started += strstr(line, " #cmd ") != nullptr;
      fclose(f);
    }
    EXPECT_LT(started, N) << "every agent was started after the stop";
    DeleteFileA(record.c_str());
    kt::remove_root();
  }

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
  EXPECT_EQ(dacl->AceCount, 2);
  ACCESS_ALLOWED_ACE *ace = nullptr;
  for (int i = 0; i < 2; i++) {
    ASSERT_TRUE(GetAce(dacl, i, reinterpret_cast<void **>(&ace)));
    EXPECT_EQ(ace->Mask, 0xC0000000u);
  }
  xfree(sd);
}

}  // namespace
