// The port manager's test fixture: the configuration written into the real registry
// under the fixed root, log capture, the replaced clock, the main loop's wait-and-dispatch
// and the record files of the test agent.
#pragma once
#include <winsock2.h>
#include <windows.h>

#include <ctime>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/support.h"

namespace porttest {

using lines = std::vector<std::string>;

// The replaced clock: every time the manager reads is `now`.
extern time_t now;
constexpr time_t START_TIME = 1800000000;

// Registry under HKEY_LOCAL_MACHINE\SOFTWARE\Orvane\Agents. A null value is left out.
void set_port(unsigned port, const char *start, const char *service);
void set_service(const std::string &name, const std::string &program,
                 const char *lifespan = nullptr);
void set_global(const std::string &name, const char *start, const std::string &program);
void remove_key(const std::string &subkey);  // e.g. "tcp\\s1234"

// The test agent's program text for a service: its path, -F<record file> and options.
std::string agent_program(const std::string &record, const std::string &options = "");
// A fresh record file path (under the temporary folder; removed by the fixture).
std::string record_path(const std::string &name);
// The texts recorded by pid (0: by every agent), in order.
lines texts(const std::string &path, DWORD pid = 0);
// The pids in the order of their first line.
std::vector<DWORD> agents(const std::string &path);
bool has_text(const std::string &path, const std::string &text, DWORD pid = 0);
// At least `count` agents have read their start-up lines and serve (recorded "#ready").
bool ready(const std::string &record, size_t count = 1);
// The command line the agent recorded, without the " -C0x<hex>" piece that must end it.
std::string launch_line(const std::string &record, DWORD pid = 0);
// Only the agent lines, without the agent's own "#" lines; a handed-over socket's base64
// text is given by its length ("-Ptcp::80@<496>").
lines pipe_lines(const std::string &path, DWORD pid);
// A handed-over port's line as pipe_lines gives it.
std::string handover_of(unsigned port);

// Captured log lines (level 3 and reports), each without its terminator.
extern lines logs;
// Number of captured lines that contain `needle`.
int logged(const std::string &needle);

// Main loop, as the service host drives it: waits on the wait list (in groups of 64),
// hands the signalled index to ssock_callback, until done() holds or timeout_ms of real
// time have passed. Returns done().
bool pump_until(const std::function<bool()> &done, DWORD timeout_ms = 15000);
// Moves the replaced clock and runs the pass, as the loop's time-out does.
void advance(time_t seconds);

struct waitlist {
  unsigned count = 0;
  unsigned events = 0;      // entries that are not process handles
  std::vector<DWORD> pids;  // process ids of the process handles, in list order
  time_t due = 0;
};
waitlist wait_list();
// What the wait list holds, "<events> events, agents [pids]": the list now, and as expected.
std::string waits();
std::string waits(unsigned events, const std::vector<DWORD> &pids = {});
lines listing();
// The listing line's fixed part: "%5d  %-11s  " and " <mode>".
std::string line_of(unsigned port, const std::string &service, const char *mode);
// " Disable=YYYY-MM-DD_HH:MM" for the local time of t.
std::string disable_of(time_t t);

// Service "svc" running `program`, configured on `count` free ports in start mode `mode`;
// the caller runs the reconfiguration. Returns the ports, ascending.
std::vector<unsigned> svc_ports(unsigned count, const char *mode, const std::string &program);
// The ports of `service` rest until `until`: listed in `mode` with that disable, nothing
// but the timer in the wait list.
void expect_rest(const std::vector<unsigned> &ports, const std::string &service, const char *mode,
                 time_t until);

// Service "svc" on one auto port whose agents crash at once: thirteen connections, three
// seconds apart, each crash it, and the fourteenth finds it throttled. Returns the port.
unsigned crash_until_throttled(const std::string &record);

// Ports free on loopback right now, ascending.
std::vector<unsigned> free_ports(unsigned count);
using kt::connect_to;
using kt::read_line;
using kt::send_text;
// Connects to port and pumps until a new agent of `record` has started and greeted the
// client; returns its pid (0 on failure). The client is closed, or handed to `keep`.
DWORD start_agent_on(unsigned port, const std::string &record, SOCKET *keep = nullptr);
// A handle to wait for the process and read its exit code.
HANDLE open_process(DWORD pid);
// Waits up to 5 s for the process to end, closes the handle, returns its exit code
// (STILL_ACTIVE if it did not end, 0xFFFFFFFF for a null handle).
DWORD exit_code(HANDLE process);

struct Ports : ::testing::Test {
  void SetUp() override;
  void TearDown() override;
  // Shuts the manager down, empties it and removes the configuration: a fresh start for
  // the next case of a table.
  void restart_manager();
  bool cleaned_up = false;  // the test ran ssock_cleanup itself
};

}  // namespace porttest
