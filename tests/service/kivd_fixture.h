// What the end-to-end tests of kivd need: the executables next to this test, the fixed
// configuration root in the registry, a kivd process with its log in a file, control
// pipe clients, and free loopback ports. Every wait is a poll with a bounded deadline.
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
std::string testagent_exe();  // empty when the test agent is not built

// Polls `done` until it is true or `ms` passed; returns its last value.
bool poll(const std::function<bool()> &done, int ms = 20000);

// The configuration under HKLM\SOFTWARE\Orvane\Agents, removed on construction and
// destruction.
struct registry {
  registry();
  ~registry();
  void set(const std::string &key, const std::string &value, const std::string &text);
  void port(int port, const char *start, const char *service);
  void service(const char *name, const std::string &program);
};

// A loopback port that nothing listens on at the moment of the call.
int free_port();
// n distinct such ports.
std::vector<int> free_ports(int n);
// Connects to 127.0.0.1:port; INVALID_SOCKET when refused.
SOCKET connect_to(int port);
// The first line a server sends on s (up to a newline or the close), "" on a time-out.
std::string read_line(SOCKET s, int ms = 10000);
// Sends a line to port and reads it back: an echo agent serves the port.
bool echoes(int port);

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

// A monotonic clock in milliseconds for the benchmarks' figures.
double now_ms();

}  // namespace kt
