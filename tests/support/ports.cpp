#include "tests/support/ports.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <regex>

#include "ports/ssock.h"
#include "toolkit/config/info.h"
#include "toolkit/runtime/clock.h"
#include "toolkit/runtime/log.h"
#include "toolkit/runtime/mwait.h"

namespace porttest {

time_t now = START_TIME;
lines logs;

namespace {

const char ROOT[] = "SOFTWARE\\Orvane\\Agents";
std::string record_dir;
std::vector<std::string> record_files;
lines listed;

time_t fake_time() { return now; }
void capture(const char *line) { logs.push_back(line); }
int collect(int, const char *text, int length) {
  listed.emplace_back(text, size_t(length));
  return length;
}

struct recline {
  DWORD pid;
  std::string text;
};

std::vector<recline> read_record(const std::string &path) {
  std::vector<recline> out;
  std::ifstream in(path, std::ios::binary);
  // A line is complete only with its newline: the agent may be writing the rest now.
  for (std::string line; std::getline(in, line) && !in.eof();) {
    size_t blank = line.find(' ');
    if (blank != std::string::npos)
      out.push_back({DWORD(strtoul(line.c_str(), nullptr, 10)), line.substr(blank + 1)});
  }
  return out;
}

void set_values(const std::string &subkey,
                std::initializer_list<std::pair<const char *, const char *>> values) {
  for (auto &v : values) {
    if (v.second && !kt::set_value(subkey, v.first, v.second))
      ADD_FAILURE() << subkey << " " << v.first;
  }
}

// Socket, pipe and process set-up shared by every test of the executable.
struct Environment : ::testing::Environment {
  void SetUp() override {
    ASSERT_EQ(0, kivinfo_init(0));
    char temp[MAX_PATH];
    GetTempPathA(sizeof temp, temp);
    record_dir = std::string(temp) + "kivports" + std::to_string(GetCurrentProcessId()) + "\\";
    CreateDirectoryA(record_dir.c_str(), nullptr);
  }
  void TearDown() override { RemoveDirectoryA(record_dir.c_str()); }
};
::testing::Environment *const environment = ::testing::AddGlobalTestEnvironment(new Environment);

}  // namespace

void set_port(unsigned port, const char *start, const char *service) {
  set_values("tcp\\s" + std::to_string(port), {{"start", start}, {"service", service}});
}
void set_service(const std::string &name, const std::string &program, const char *lifespan) {
  set_values("services\\" + name, {{"program", program.c_str()}, {"lifespan", lifespan}});
}
void set_global(const std::string &name, const char *start, const std::string &program) {
  set_values("global\\start\\" + name, {{"start", start}, {"program", program.c_str()}});
}
void remove_key(const std::string &subkey) {
  EXPECT_EQ(ERROR_SUCCESS,
            RegDeleteTreeA(HKEY_LOCAL_MACHINE, (std::string(ROOT) + "\\" + subkey).c_str()))
      << subkey;
}

std::string agent_program(const std::string &record, const std::string &options) {
  static const std::string exe = kt::testagent_exe();
  return "\"" + exe + "\" -F" + record + (options.empty() ? "" : " " + options);
}

std::string record_path(const std::string &name) {
  std::string path = record_dir + name + ".rec";
  DeleteFileA(path.c_str());
  record_files.push_back(path);
  return path;
}

lines texts(const std::string &path, DWORD pid) {
  lines out;
  for (auto &r : read_record(path))
    if (!pid || r.pid == pid) out.push_back(r.text);
  return out;
}

std::vector<DWORD> agents(const std::string &path) {
  std::vector<DWORD> out;
  for (auto &r : read_record(path))
    if (std::find(out.begin(), out.end(), r.pid) == out.end()) out.push_back(r.pid);
  return out;
}

bool has_text(const std::string &path, const std::string &text, DWORD pid) {
  lines all = texts(path, pid);
  return std::find(all.begin(), all.end(), text) != all.end();
}

bool ready(const std::string &record, size_t count) {
  lines all = texts(record);
  return size_t(std::count(all.begin(), all.end(), "#ready")) >= count;
}

lines pipe_lines(const std::string &path, DWORD pid) {
  static const std::regex port_line("(-Ptcp::\\d+@)([A-Za-z0-9+/=]*)");
  lines out;
  std::smatch m;
  for (auto &t : texts(path, pid))
    if (t.empty() || t[0] != '#')
      out.push_back(std::regex_match(t, m, port_line)
                        ? m[1].str() + "<" + std::to_string(m[2].length()) + ">"
                        : t);
  return out;
}

std::string handover_of(unsigned port) { return "-Ptcp::" + std::to_string(port) + "@<496>"; }

int logged(const std::string &needle) {
  return int(std::count_if(logs.begin(), logs.end(), [&](const std::string &l) {
    return l.find(needle) != std::string::npos;
  }));
}

bool pump_until(const std::function<bool()> &done, DWORD timeout_ms) {
  DWORD start = GetTickCount();
  while (!done()) {
    if (GetTickCount() - start > timeout_ms) return false;
    HANDLE *handles = nullptr;
    time_t due;
    unsigned n = ssock_waitset(&handles, &due);
    if (n == 0) {
      Sleep(20);
      continue;
    }
    // The loop's own wait, at any count: one signalled entry is served at a time.
    DWORD r = mwait_any(n, handles, FALSE, 20, FALSE);
    if (r < n) ssock_callback(r);
  }
  return true;
}

void advance(time_t seconds) {
  now += seconds;
  ssock_update();
}

waitlist wait_list() {
  waitlist w;
  HANDLE *handles = nullptr;
  w.count = ssock_waitset(&handles, &w.due);
  for (unsigned i = 0; i < w.count; i++) {
    // A hooking process's handle has SYNCHRONIZE access only: ask a duplicate for its id.
    HANDLE query = nullptr;
    DWORD pid = 0;
    if (DuplicateHandle(GetCurrentProcess(), handles[i], GetCurrentProcess(), &query,
                        PROCESS_QUERY_LIMITED_INFORMATION, FALSE, 0)) {
      pid = GetProcessId(query);
      CloseHandle(query);
    }
    if (pid)
      w.pids.push_back(pid);
    else
      w.events++;
  }
  return w;
}

std::string waits(unsigned events, const std::vector<DWORD> &pids) {
  return std::to_string(events) + " events, agents " + testing::PrintToString(pids);
}
std::string waits() {
  waitlist w = wait_list();
  return waits(w.events, w.pids);
}

lines listing() {
  listed.clear();
  EXPECT_EQ(0, ssock_info(7, collect));
  return listed;
}

std::string line_of(unsigned port, const std::string &service, const char *mode) {
  char text[512];
  snprintf(text, sizeof text, "%5u  %-11s   %s", port, service.c_str(), mode);
  return text;
}

std::string launch_line(const std::string &record, DWORD pid) {
  std::string cmd;
  for (auto &t : texts(record, pid))
    if (t.compare(0, 5, "#cmd ") == 0 && cmd.empty()) cmd = t.substr(5);
  size_t c = cmd.rfind(" -C0x");
  if (c == std::string::npos ||
      cmd.find_first_not_of("0123456789abcdef", c + 5) != std::string::npos)
    return "(no -C piece) " + cmd;
  return cmd.substr(0, c);
}

std::vector<unsigned> svc_ports(unsigned count, const char *mode, const std::string &program) {
  std::vector<unsigned> ports = free_ports(count);
  set_service("svc", program);
  for (unsigned port : ports) set_port(port, mode, "svc");
  return ports;
}

void expect_rest(const std::vector<unsigned> &ports, const std::string &service, const char *mode,
                 time_t until) {
  lines expected;
  for (unsigned port : ports) expected.push_back(line_of(port, service, mode) + disable_of(until));
  EXPECT_EQ(expected, listing());
  waitlist w = wait_list();
  EXPECT_EQ(0u, w.count);
  EXPECT_EQ(until, w.due);
}

std::string disable_of(time_t t) {
  struct tm *local = localtime(&t);
  char text[64] = " Disable=?";
  if (local)
    snprintf(text, sizeof text, " Disable=%d-%02d-%02d_%02d:%02d", local->tm_year + 1900,
             local->tm_mon + 1, local->tm_mday, local->tm_hour, local->tm_min);
  return text;
}

std::vector<unsigned> free_ports(unsigned count) {
  std::vector<int> ports = kt::free_ports(int(count));
  return std::vector<unsigned>(ports.begin(), ports.end());
}

unsigned crash_until_throttled(const std::string &record) {
  unsigned port = svc_ports(1, "auto", agent_program(record, "-V"))[0];
  ssock_reconfig();
  for (int crash = 1; crash <= 13; crash++) {
    closesocket(connect_to(port));
    EXPECT_TRUE(pump_until([&] { return logged("caused exeption") == crash; })) << crash;
    advance(3);
  }
  closesocket(connect_to(port));
  EXPECT_TRUE(pump_until([] { return logged("Too many agents started") == 1; }));
  return port;
}

DWORD start_agent_on(unsigned port, const std::string &record, SOCKET *keep) {
  size_t before = agents(record).size();
  SOCKET client = connect_to(port);
  bool ok = pump_until([&] { return ready(record, before + 1); });
  std::string hello = ok ? read_line(client) : "";
  if (keep)
    *keep = client;
  else
    closesocket(client);
  EXPECT_TRUE(ok) << port;
  DWORD pid = ok ? agents(record).back() : 0;
  EXPECT_EQ("agent " + std::to_string(pid) + " port " + std::to_string(port), hello);
  return pid;
}

HANDLE open_process(DWORD pid) {
  return OpenProcess(SYNCHRONIZE | PROCESS_QUERY_LIMITED_INFORMATION, FALSE, pid);
}

DWORD exit_code(HANDLE process) {
  if (!process) return 0xFFFFFFFF;
  DWORD code = STILL_ACTIVE;
  if (WaitForSingleObject(process, 5000) == WAIT_OBJECT_0) GetExitCodeProcess(process, &code);
  CloseHandle(process);
  return code;
}

void Ports::SetUp() {
  kt::remove_root();
  now = START_TIME;
  kiv_setclock(fake_time, nullptr);
  logs.clear();
  kiv_logconfig("3");
  kiv_logsink = capture;
}

void Ports::restart_manager() {
  if (!cleaned_up) ssock_cleanup();
  ssock_reset();
  cleaned_up = false;
  logs.clear();
  kt::remove_root();
}

void Ports::TearDown() {
  restart_manager();
  kiv_logreset();
  kiv_setclock(nullptr, nullptr);
  for (auto &f : record_files) DeleteFileA(f.c_str());
  record_files.clear();
}

}  // namespace porttest
