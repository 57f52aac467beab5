// The one library of test helpers for the Windows tests and benchmarks: the executables
// of the build, the configuration root in the registry, loopback sockets, processes, the
// control pipe client, the hand-over an agent gets from the manager, and polling with a
// deadline. Every socket it makes is non-inheritable: agents start with inheritance on,
// and a test's socket that reached one would outlive the test's own close.
#pragma once
#include <winsock2.h>
#include <windows.h>

#include <functional>
#include <string>
#include <vector>

namespace kt {

std::string build_dir();  // the build tree's root (Windows path)
std::string kivd_exe();
std::string kivctl_exe();
std::string testagent_exe();
std::string echo_agent_exe();

// Polls `done` until it is true or `ms` passed; returns its last value.
bool poll(const std::function<bool()> &done, int ms = 20000);

// HKLM\SOFTWARE\Orvane\Agents\<key>: sets one string value; false on failure.
bool set_value(const std::string &key, const std::string &value, const std::string &text);
// Removes the whole configuration root.
void remove_root();
// The configuration, removed on construction and destruction.
struct registry {
  registry() { remove_root(); }
  ~registry() { remove_root(); }
  void set(const std::string &key, const std::string &value, const std::string &text) {
    set_value(key, value, text);
  }
  void port(int port, const char *start, const char *service);
  void service(const char *name, const std::string &program);
  // Service `name` with `program`, and each of ports "auto" for it.
  void auto_ports(const char *name, const std::string &program, const std::vector<int> &ports);
};
// kivd's event source in the Application log: "<EventMessageFile>|<TypesSupported>", or
// "" when it is not registered.
std::string event_source();
// A program that does not exist: kivd listens on its ports, and a connection only makes
// the launch fail (the port then rests 3 seconds).
extern const char NO_PROGRAM[];
// kivd's log line when it listens on port for a service.
std::string listening(int port);

// A loopback port that nothing listens on at the moment of the call, between 10000 and
// 19999: below the range the system hands out for outgoing connections, so that no
// client socket takes it before the server listens.
int free_port();
// n distinct such ports, ascending.
std::vector<int> free_ports(int n);
// A client connected to 127.0.0.1:port with a receive time-out of 10 s; INVALID_SOCKET
// when refused.
SOCKET connect_to(int port);
// A listening socket on 127.0.0.1:port (a free port when 0, written back), left as the
// manager leaves its sockets: non-blocking after its event selection ended.
// INVALID_SOCKET on failure.
SOCKET listen_on(unsigned *port);
// One line from the peer without CR LF; "" on close, reset or ms of silence.
std::string read_line(SOCKET s, int ms = 10000);
void send_text(SOCKET s, const std::string &text);
// Sends text and reads back as many bytes; true when they are the same.
bool echoes(SOCKET c, const std::string &text);
// Sends a line to port and reads it back: an echo agent serves the port.
bool echoes(int port);

// The names in folder dir (without "." and ".."), sorted; empty when it does not exist.
std::vector<std::string> names(const std::string &dir);
// Deletes folder dir with everything in it that can be deleted.
void remove_tree(const std::string &dir);
bool exists(const std::string &path);

// A process started with its standard output and error in files.
struct process {
  HANDLE h = nullptr;
  DWORD pid = 0;
  std::string out_file, err_file;
  explicit process(const std::string &cmdline, const std::string &input = "");
  ~process();
  process(const process &) = delete;
  process &operator=(const process &) = delete;
  bool wait(int ms);  // true when it ended within ms
  DWORD exit_code();
  std::string out() const;
  std::string err() const;
};

// What a command line printed and how it ended, CR LF read as LF.
struct ran {
  std::string out, err;
  DWORD code;
};
// Runs the command line with the standard input to its end (at most a minute).
ran run(const std::string &cmdline, const std::string &input = "");

// kivd.exe in console mode with the given options; its log is err().
struct kivd : process {
  explicit kivd(const std::string &options = "-D3");
  ~kivd();
  bool log_has(const std::string &text, int ms = 20000);
  int log_count(const std::string &text);
  void quit();  // "quit -Q" and wait for the end
};

// A control pipe client in message mode. `greet` reads the greeting.
struct client {
  HANDLE h = INVALID_HANDLE_VALUE;
  DWORD error = 0;  // of the open
  explicit client(bool greet = true, int ms = 20000);
  ~client();
  void close();
  bool send(const std::string &message);
  std::string receive();  // one message; "<error N>" when the pipe broke
  // True once the server has hung up (within ms). Watches without a pending read.
  bool hung_up(int ms = 20000);
  // Sends one command and collects the reply elements ("!" .. "." for a listing).
  std::vector<std::string> command(const std::string &line);
};

std::string user_name();
// A port's line in the "ls" listing: port, service and mode (with whatever follows it).
std::string port_line(int port, const char *service, const char *mode);
// The port lines of a listing reply ("!", lines, "."); empty when it is not a listing.
std::vector<std::string> listed_ports(const std::vector<std::string> &reply);

// How many processes run the executable named exe ("kivd.exe").
int processes_named(const char *exe);

// The kivd service as the service manager knows it; each question opens the service anew.
struct service_manager {
  SC_HANDLE scm = OpenSCManagerA(nullptr, nullptr, SC_MANAGER_ALL_ACCESS);
  ~service_manager() {
    if (scm) CloseServiceHandle(scm);
  }
  // Runs f on the service opened for access; false when it cannot be opened or f fails.
  template <class F>
  bool with(DWORD access, F f) {
    SC_HANDLE s = OpenServiceA(scm, "vesk_kivd", access);
    bool ok = s && f(s);
    if (s) CloseServiceHandle(s);
    return ok;
  }
  // The service's state and process, or state 0 when it is not installed.
  SERVICE_STATUS_PROCESS status();
  bool installed() { return status().dwCurrentState != 0; }
  // QueryServiceConfigA into buf; null when the service cannot be asked.
  QUERY_SERVICE_CONFIGA *config(std::vector<char> &buf);
  // QueryServiceConfig2A(level) into buf: 0, or the manager's error.
  DWORD config2(DWORD level, std::vector<char> &buf);
  bool start();
  bool control(DWORD code);
  bool state_is(DWORD state, int ms = 30000);
};

// What a running process holds, read from outside.
struct usage {
  DWORD handles = 0;
  SIZE_T private_bytes = 0;
};
// The handle count and private bytes of process pid; false when either cannot be read.
bool usage_of(DWORD pid, usage *out);
// "handles A -> B, private KB A -> B", for assert messages and tables.
std::string describe(const usage &before, const usage &after);

// An agent started as the manager starts one: "cmdline -C%#x" with inheritance on and
// the read end of a new pipe.
struct launched {
  HANDLE process = nullptr;
  DWORD pid = 0;
  HANDLE pipe = nullptr;  // the write end; the child inherited the read end
};
bool launch(const std::string &cmdline, launched *out);
// One agent command: the line and CR LF in one WriteFile.
bool send_line(HANDLE pipe, const std::string &line);
// "-Ptcp::<port>@<base64>" for sock duplicated for pid; empty on failure.
std::string handover_line(SOCKET sock, unsigned port, DWORD pid);
// Closes the pipe (if still open) and the process handle.
void end_launch(launched *l);
// Waits up to ms for the process to end; its exit code, or -1 while it still runs.
long wait_exit(const launched &l, DWORD ms);

}  // namespace kt
