// kivexec against its floor. Connect -> first byte back: through kivexec, holding its port
// and starting upcase.exe per connection, against a minimal launcher that accepts and
// hands the socket to the same program itself (both start one process per connection, so
// the process start is the floor). Bytes per second through one connection: kivexec's
// program against a direct echo in this process.
#include <winsock2.h>
#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "bench/windows/bench.h"

namespace {

const std::string KIVEXEC = kt::build_dir() + "\\agent\\kivexec.exe";
const std::string UPCASE = kt::build_dir() + "\\tests\\kivexec\\upcase.exe";
constexpr int ROUNDS = 25;
constexpr int BULK = 16 << 20;

// The least a launcher does: accept, start the program on the socket, close its copy.
DWORD WINAPI minimal_launcher(void *arg) {
  SOCKET l = reinterpret_cast<SOCKET>(arg);
  for (;;) {
    SOCKET c = accept(l, nullptr, nullptr);
    if (c == INVALID_SOCKET) return 0;
    HANDLE h = reinterpret_cast<HANDLE>(c);
    SetHandleInformation(h, HANDLE_FLAG_INHERIT, HANDLE_FLAG_INHERIT);
    STARTUPINFOA si = {};
    si.cb = sizeof si;
    si.dwFlags = STARTF_USESTDHANDLES;
    si.hStdInput = si.hStdOutput = h;
    si.hStdError = GetStdHandle(STD_ERROR_HANDLE);
    std::string line = "\"" + UPCASE + "\"";
    PROCESS_INFORMATION pi;
    if (CreateProcessA(nullptr, &line[0], nullptr, nullptr, TRUE, 0, nullptr, nullptr, &si, &pi)) {
      CloseHandle(pi.hThread);
      CloseHandle(pi.hProcess);
    }
    closesocket(c);
  }
}

DWORD WINAPI direct_echo(void *arg) {
  SOCKET c = accept(reinterpret_cast<SOCKET>(arg), nullptr, nullptr);
  char buf[65536];
  for (int n; (n = recv(c, buf, sizeof buf, 0)) > 0;)
    for (int sent = 0, m; sent < n; sent += m)
      if ((m = send(c, buf + sent, n - sent, 0)) <= 0) return 0;
  shutdown(c, SD_SEND);
  closesocket(c);
  return 0;
}

SOCKET listening(int *port) {
  SOCKET l = WSASocketA(AF_INET, SOCK_STREAM, IPPROTO_TCP, nullptr, 0, 0);
  SetHandleInformation(reinterpret_cast<HANDLE>(l), HANDLE_FLAG_INHERIT, 0);
  *port = kt::free_port();
  sockaddr_in a = {};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  a.sin_port = htons(static_cast<u_short>(*port));
  bind(l, reinterpret_cast<sockaddr *>(&a), sizeof a);
  listen(l, 64);
  return l;
}

// Milliseconds from connect to the first byte back; the rest of the answer is read to the end.
double first_byte_ms(int port) {
  double begin = kt::now_ms();
  SOCKET s = kt::connect_to(port);
  if (s == INVALID_SOCKET) return -1;
  send(s, "x", 1, 0);
  shutdown(s, SD_SEND);
  char buf[256];
  int n = recv(s, buf, 1, 0);
  double ms = kt::now_ms() - begin;
  while (recv(s, buf, sizeof buf, 0) > 0) {}
  closesocket(s);
  return n == 1 ? ms : -1;
}

double median_first_byte(int port) {
  std::vector<double> t;
  for (int i = 0; i < ROUNDS; i++) t.push_back(first_byte_ms(port));
  std::sort(t.begin(), t.end());
  return t[t.size() / 2];
}

// MB/s of BULK bytes sent and read back through one connection.
double throughput(int port) {
  SOCKET s = kt::connect_to(port);
  if (s == INVALID_SOCKET) return 0;
  double begin = kt::now_ms();
  std::thread sender([s] {
    std::vector<char> chunk(65536, 'a');
    for (int sent = 0; sent < BULK; sent += static_cast<int>(chunk.size()))
      if (send(s, chunk.data(), static_cast<int>(chunk.size()), 0) <= 0) break;
    shutdown(s, SD_SEND);
  });
  long long got = 0;
  char buf[65536];
  for (int n; (n = recv(s, buf, sizeof buf, 0)) > 0;) got += n;
  double ms = kt::now_ms() - begin;
  sender.join();
  closesocket(s);
  return got / 1048576.0 / (ms / 1000);
}

}  // namespace

int main() {
  kt::registry reg;
  int port = kt::free_port();
  reg.service("exec", "\"" + KIVEXEC + "\" -- \"" + UPCASE + "\"");
  reg.port(port, "auto", "exec");
  kt::kivd d("");
  if (!kt::poll([&] { return first_byte_ms(port) > 0; })) {
    fprintf(stderr, "kivexec never answered on port %d\n", port);
    return 1;
  }
  int base_port;
  SOCKET l = listening(&base_port);
  CloseHandle(CreateThread(nullptr, 0, minimal_launcher, reinterpret_cast<void *>(l), 0, nullptr));
  first_byte_ms(base_port);  // warm-up
  double base = median_first_byte(base_port), through = median_first_byte(port);
  printf(
      "connect -> first byte, median of %d: minimal launcher %.1f ms, kivexec %.1f ms, ratio %.3f "
      "(goal <= 1.10)\n",
      ROUNDS, base, through, through / base);
  closesocket(l);

  int echo_port;
  SOCKET e = listening(&echo_port);
  CloseHandle(CreateThread(nullptr, 0, direct_echo, reinterpret_cast<void *>(e), 0, nullptr));
  double direct = throughput(echo_port), program = throughput(port);
  printf(
      "bytes through one connection, %d MB: direct echo %.1f MB/s, kivexec's program %.1f MB/s, "
      "ratio %.3f\n",
      BULK >> 20, direct, program, program / direct);
  closesocket(e);
  d.quit();
  return 0;
}
