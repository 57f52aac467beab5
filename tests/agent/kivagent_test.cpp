// kivagent in this process: the lines come from a pipe the test writes, the sockets are
// duplicated for this process's own id, exactly as the manager would for a child.
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "agent/kivagent.h"
#include "lib/b64.h"
#include "tests/support/support.h"
#include "toolkit/runtime/error.h"

// Agents see the same result numbers as the port manager's own log lines.
static_assert(KIVAGENT_ENOMEM == KIV_ENOMEM && KIVAGENT_EOF == KIV_EOF &&
                  KIVAGENT_EINVAL == KIV_EINVAL && KIVAGENT_EOVERFLOW == KIV_EOVERFLOW &&
                  KIVAGENT_ESYS == KIV_ESYS,
              "kivagent's codes are the toolkit's");

using namespace kt;

namespace {

constexpr DWORD DEADLINE_MS = 20000;

// A start-up fed from a pipe whose buffer holds every line a test writes, so the lines are
// all written before the start-up reads them. The write end stays open unless close_after.
struct feed {
  HANDLE wr = nullptr;
  std::vector<std::string> args;  // the agent's argv, which outlives the start-up
  std::vector<char *> argv;
  ~feed() { close(); }
  void close() {
    if (wr) CloseHandle(wr);
    wr = nullptr;
  }
};

int start(kivagent *a, feed *f, const std::vector<std::string> &lines, unsigned flags,
          const std::vector<std::string> &args = {}, bool close_after = false) {
  HANDLE rd = nullptr;
  if (!CreatePipe(&rd, &f->wr, nullptr, 1 << 16)) return -100;
  SetHandleInformation(rd, HANDLE_FLAG_INHERIT, HANDLE_FLAG_INHERIT);  // as an agent inherits it
  char pipearg[32];
  snprintf(pipearg, sizeof pipearg, "-C%#x",
           static_cast<unsigned>(reinterpret_cast<uintptr_t>(rd)));
  f->args = args;
  f->args.insert(f->args.begin(), "agent.exe");
  f->args.push_back(pipearg);
  for (auto &s : f->args) f->argv.push_back(&s[0]);
  f->argv.push_back(nullptr);
  for (const auto &l : lines) send_line(f->wr, l);
  if (close_after) f->close();
  return kivagent_start(a, static_cast<int>(f->args.size()), f->argv.data(), flags);
}

// The next event, waiting up to the deadline for one to come.
kivagent_event next_event(kivagent *a) {
  kivagent_event ev;
  ULONGLONG end = GetTickCount64() + DEADLINE_MS;
  while (!kivagent_next(a, &ev) && GetTickCount64() < end)
    WaitForSingleObject(a->event, DEADLINE_MS);
  return ev;
}

std::string handed(SOCKET *orig, unsigned *port) {
  *port = 0;
  *orig = listen_on(port);
  return handover_line(*orig, *port, GetCurrentProcessId());
}

std::string b64_of(size_t count, unsigned char fill) {
  std::vector<unsigned char> bytes(count, fill);
  std::vector<char> text(count * 2 + 4);
  b64_encode(bytes.data(), static_cast<int>(count), text.data());
  return text.data();
}

}  // namespace

// An "on" port configured with an address names it, an IPv6 one in brackets; a line of
// that kind without its parts is an error event, and the other ports are still taken.
TEST(KivAgent, OnPortsWithAnAddress) {
  kivagent a;
  feed f;
  ASSERT_EQ(0, start(&a, &f,
                     {"-Ptcp:127.0.0.1:7001", "-Ptcp:[::1]:7002", "-Ptcp:[::1:7003",
                      "-Ptcp:[::1]7004", "-Ptcp::7005:1", "-Ptcp:7006", "--", "lifespan 1"},
                     KIVAGENT_BLOCKING, {}));
  ASSERT_EQ(2u, a.nports);
  EXPECT_EQ(7001u, a.ports[0].port);
  EXPECT_STREQ("127.0.0.1", a.ports[0].address);
  EXPECT_EQ(7002u, a.ports[1].port);
  EXPECT_STREQ("::1", a.ports[1].address);
  EXPECT_EQ(INVALID_SOCKET, a.ports[1].sock);
  for (const char *garbled : {"-Ptcp:[::1:7003", "-Ptcp:[::1]7004", "-Ptcp::7005:1", "-Ptcp:7006"}) {
    kivagent_event ev = next_event(&a);
    EXPECT_EQ(KIVAGENT_ERROR, ev.kind) << garbled;
    EXPECT_STREQ(garbled, ev.line);
  }
  SOCKET s = INVALID_SOCKET;
  EXPECT_EQ(KIVAGENT_EINVAL, kivagent_listen_on(free_port(), "localhost", 0, &s));
  kivagent_end(&a);
}

// The start-up rebuilds the handed-over sockets in their order and in the mode asked; then
// each command arrives as an event without blocking, and many pending at once are kept in
// order as the queue grows.
TEST(KivAgent, StartUpThenCommandsAsEvents) {
  SOCKET orig1, orig2;
  unsigned p1, p2, on = free_port();
  std::string l1 = handed(&orig1, &p1), l2 = handed(&orig2, &p2);
  ASSERT_FALSE(l1.empty() || l2.empty());
  kivagent a;
  feed f;
  ASSERT_EQ(0, start(&a, &f, {l2, "-Ptcp::" + std::to_string(on), l1, "--", "lifespan 7"},
                     KIVAGENT_BLOCKING, {"-x", "-D3;ssock;>c:/kivd.txt", "extra"}));
  ASSERT_EQ(3u, a.nports);
  EXPECT_EQ(p2, a.ports[0].port);
  EXPECT_EQ(on, a.ports[1].port);
  EXPECT_EQ(p1, a.ports[2].port);
  EXPECT_NE(INVALID_SOCKET, a.ports[0].sock);
  EXPECT_EQ(INVALID_SOCKET, a.ports[1].sock);
  EXPECT_EQ(7ul, a.lifespan);
  EXPECT_STREQ("3;ssock;>c:/kivd.txt", a.debug);
  EXPECT_EQ(WAIT_TIMEOUT, WaitForSingleObject(a.event, 0)) << "no event after a clean start-up";
  kivagent_event ev;
  EXPECT_EQ(0, kivagent_next(&a, &ev)) << "nothing is pending, and asking does not wait";
  EXPECT_EQ(KIVAGENT_NONE, ev.kind);
  // Nothing of the library's own passes to the agent's children: its pipe, its event, the
  // handed-over sockets.
  HANDLE pipe = reinterpret_cast<HANDLE>(strtoull(f.args.back().c_str() + 2, nullptr, 16));
  for (HANDLE h : {pipe, a.event, reinterpret_cast<HANDLE>(a.ports[0].sock),
                   reinterpret_cast<HANDLE>(a.ports[2].sock)}) {
    DWORD inherit = 1;
    EXPECT_TRUE(GetHandleInformation(h, &inherit)) << h;
    EXPECT_EQ(0u, inherit & HANDLE_FLAG_INHERIT) << h << " (pipe " << pipe << ")";
  }
  // The copy accepts once the manager's are closed, and blocks as asked: still waiting for
  // a client after a while. (A slow machine can only make this pass wrongly.)
  closesocket(orig1);
  closesocket(orig2);
  SOCKET got = INVALID_SOCKET;
  int err = 0;
  std::thread t([&] {
    got = accept(a.ports[0].sock, nullptr, nullptr);
    err = WSAGetLastError();
  });
  Sleep(300);
  SOCKET client = connect_to(p2);
  t.join();
  EXPECT_NE(INVALID_SOCKET, got) << "accept on the blocking copy failed with " << err;
  closesocket(got);
  closesocket(client);
  // An "on" port takes the socket the agent opens; drop closes it.
  ASSERT_EQ(0, kivagent_listen(on, KIVAGENT_NONBLOCKING, &a.ports[1].sock));
  client = connect_to(on);
  EXPECT_NE(INVALID_SOCKET, client) << "listens on all addresses, loopback included";
  closesocket(client);
  sockaddr_in bound = {};
  int length = sizeof bound;
  ASSERT_EQ(0, getsockname(a.ports[1].sock, reinterpret_cast<sockaddr *>(&bound), &length));
  EXPECT_EQ(AF_INET, bound.sin_family);
  EXPECT_EQ(htonl(INADDR_ANY), bound.sin_addr.s_addr) << "not on loopback alone";
  SOCKET again;
  EXPECT_EQ(KIVAGENT_ESYS, kivagent_listen(on, 0, &again)) << "the port is taken";
  EXPECT_EQ(INVALID_SOCKET, again);
  EXPECT_EQ(KIVAGENT_EINVAL, kivagent_listen(0, 0, &again));
  EXPECT_EQ(KIVAGENT_EINVAL, kivagent_listen(65536, 0, &again));
  EXPECT_EQ(KIVAGENT_EINVAL, kivagent_drop(&a, 1));
  EXPECT_EQ(0, kivagent_drop(&a, on));
  EXPECT_EQ(INVALID_SOCKET, a.ports[1].sock);
  EXPECT_EQ(INVALID_SOCKET, connect_to(on)) << "dropped, so refused";
  EXPECT_EQ(0, kivagent_drop(&a, on)) << "dropping twice is harmless";

  struct {
    std::string line;
    kivagent_kind kind;
    unsigned port;
  } cases[] = {
      {"reconfig", KIVAGENT_RECONFIG, 0},
      {"remove tcp::65535", KIVAGENT_REMOVE, 65535},  // a port the agent does not hold
      {"exit", KIVAGENT_EXIT, 0},
  };
  for (const auto &c : cases) {
    ASSERT_TRUE(send_line(f.wr, c.line));
    ASSERT_EQ(WAIT_OBJECT_0, WaitForSingleObject(a.event, DEADLINE_MS)) << c.line;
    ASSERT_EQ(1, kivagent_next(&a, &ev)) << c.line;
    EXPECT_EQ(c.kind, ev.kind) << c.line;
    EXPECT_EQ(c.port, ev.port) << c.line;
    EXPECT_EQ(0, kivagent_next(&a, &ev)) << c.line;
    EXPECT_EQ(WAIT_TIMEOUT, WaitForSingleObject(a.event, 0)) << "event left set after " << c.line;
  }
  // A reconfiguration that removes twenty ports at once, once the queue's head has moved:
  // every one kept, in order, as the queue grows. The filler behind them is more than the
  // pipe holds, so the write returns only after the reader queued the twenty.
  std::string text;
  for (unsigned port = 1; port <= 20; port++) text += "remove tcp::" + std::to_string(port) + "\r\n";
  for (int i = 0; i < 7000; i++) text += "reconfig\r\n";
  DWORD put;
  ASSERT_TRUE(WriteFile(f.wr, text.data(), DWORD(text.size()), &put, nullptr));
  for (unsigned port = 1; port <= 20; port++) {
    ev = next_event(&a);
    ASSERT_EQ(KIVAGENT_REMOVE, ev.kind) << port;
    EXPECT_EQ(port, ev.port);
  }
  for (int i = 0; i < 7000; i++) ASSERT_EQ(KIVAGENT_RECONFIG, next_event(&a).kind) << i;
  EXPECT_EQ(0, kivagent_next(&a, &ev));
  // An empty write, a line without CR, several lines in one write, the end of the pipe.
  ASSERT_TRUE(WriteFile(f.wr, "", 0, &put, nullptr));
  ASSERT_TRUE(WriteFile(f.wr, "reconfig\nexit\r\n", 15, &put, nullptr));
  f.close();
  EXPECT_EQ(KIVAGENT_RECONFIG, next_event(&a).kind);
  EXPECT_EQ(KIVAGENT_EXIT, next_event(&a).kind);
  EXPECT_EQ(KIVAGENT_CLOSED, next_event(&a).kind);
  EXPECT_EQ(0, kivagent_next(&a, &ev));
  kivagent_end(&a);
  EXPECT_EQ(nullptr, a.ports);
  kivagent_end(&a);  // a cleared record
}

TEST(KivAgent, GarbledLinesBecomeErrorEvents) {
  const std::string over(2000, 'x');
  struct {
    bool startup;  // written before "lifespan", else after it
    std::string line;
    int code;
    unsigned port;  // the port the event names
  } cases[] = {
      {true, "-Ptcp::0", KIVAGENT_EINVAL, 0},
      {true, "-Ptcp::65536", KIVAGENT_EINVAL, 0},
      {true, "-Ptcp::+80", KIVAGENT_EINVAL, 0},
      {true, "-Ptcp::80 ", KIVAGENT_EINVAL, 0},
      {true, "-Ptcp::4000", KIVAGENT_EINVAL, 4000},  // the port already given
      {true, "-Ptcp::4001@" + std::string(496, '!'), KIVAGENT_EINVAL, 4001},
      {true, "-Ptcp::4001@" + b64_of(371, 7), KIVAGENT_EINVAL, 4001},
      {true, "-Ptcp::4001@" + b64_of(373, 7), KIVAGENT_EINVAL, 4001},
      {true, "-Ptcp::4001@" + b64_of(372, 0), KIVAGENT_ESYS,
       4001},  // well formed, describes no socket
      {true, "-Ptcp::4001@", KIVAGENT_EINVAL, 4001},
      {true, "-ptcp::4001", KIVAGENT_EINVAL, 0},
      {true, "hello", KIVAGENT_EINVAL, 0},
      {true, "", KIVAGENT_EINVAL, 0},
      {true, "lifespan soon", KIVAGENT_EINVAL, 0},
      {true, "lifespan 99999999", KIVAGENT_EINVAL, 0},
      {true, "lifespan -1", KIVAGENT_EINVAL, 0},
      {true, "lifespan ", KIVAGENT_EINVAL, 0},
      {true, over, KIVAGENT_EOVERFLOW, 0},
      {false, "exit ", KIVAGENT_EINVAL, 0},
      {false, "EXIT", KIVAGENT_EINVAL, 0},
      {false, "remove tcp::65536", KIVAGENT_EINVAL, 0},
      {false, "remove udp::80", KIVAGENT_EINVAL, 0},
      {false, "-Ptcp::4001", KIVAGENT_EINVAL, 0},  // port lines belong to the start-up
      {false, "--", KIVAGENT_EINVAL, 0},
      {false, "lifespan 5", KIVAGENT_EINVAL, 0},
      {false, std::string("exit\0now", 8), KIVAGENT_EINVAL, 0},  // not "exit"
      {true, std::string("-Ptcp::4001\0", 12), KIVAGENT_EINVAL, 0},
      {false, over + over, KIVAGENT_EOVERFLOW, 0},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.line.substr(0, 60));
    bool lifespan_line = c.line.compare(0, 8, "lifespan") == 0 && c.startup;
    std::vector<std::string> lines = {"-Ptcp::4000"};
    if (c.startup && !lifespan_line) lines.push_back(c.line);
    lines.push_back("--");
    lines.push_back(lifespan_line ? c.line : "lifespan 5");
    if (!c.startup) lines.push_back(c.line);
    lines.push_back("reconfig");
    kivagent a;
    feed f;
    ASSERT_EQ(0, start(&a, &f, lines, KIVAGENT_BLOCKING, {}, true));
    ASSERT_EQ(1u, a.nports) << "the good port stays, the bad line adds none";
    EXPECT_EQ(4000u, a.ports[0].port);
    EXPECT_EQ(lifespan_line ? KIVAGENT_DEFAULT_LIFESPAN : 5ul, a.lifespan);
    kivagent_event ev = next_event(&a);
    EXPECT_EQ(KIVAGENT_ERROR, ev.kind);
    EXPECT_EQ(c.code, ev.code);
    EXPECT_EQ(c.port, ev.port);
    EXPECT_EQ(c.line.substr(0, std::min<size_t>(strlen(c.line.c_str()), sizeof ev.line - 1)),
              ev.line);
    // Later lines are still read.
    EXPECT_EQ(KIVAGENT_RECONFIG, next_event(&a).kind);
    EXPECT_EQ(KIVAGENT_CLOSED, next_event(&a).kind);
    kivagent_end(&a);
  }
}

TEST(KivAgent, CommandLineAndEarlyEnd) {
  // No pipe: a -C value that is no number, empty or too long, a handle that is not a pipe,
  // no -C at all.
  HANDLE ev = CreateEventA(nullptr, TRUE, FALSE, nullptr);
  char notpipe[32];
  snprintf(notpipe, sizeof notpipe, "-C%#x",
           static_cast<unsigned>(reinterpret_cast<uintptr_t>(ev)));
  kivagent a;
  char prog[] = "agent.exe", bad1[] = "-Cxyz", bad2[] = "-C0x", bad3[] = "-C0x12345678901234567";
  for (char *arg : {bad1, bad2, bad3, notpipe, static_cast<char *>(nullptr)}) {
    char *argv[] = {prog, arg, nullptr};
    EXPECT_EQ(KIVAGENT_EINVAL, kivagent_start(&a, arg ? 2 : 1, argv, 0)) << (arg ? arg : "none");
    kivagent_end(&a);
  }
  CloseHandle(ev);

  // The pipe closes during the start-up: what came is kept, the end is an event.
  SOCKET orig;
  unsigned port;
  std::string line = handed(&orig, &port);
  for (bool with_port : {true, false}) {
    feed f;
    std::vector<std::string> lines;
    if (with_port) lines.push_back(line);
    EXPECT_EQ(KIVAGENT_EOF, start(&a, &f, lines, KIVAGENT_NONBLOCKING, {}, true));
    ASSERT_EQ(with_port ? 1u : 0u, a.nports);
    if (with_port) {  // in the mode asked: with no client waiting, accept fails at once
      EXPECT_EQ(INVALID_SOCKET, accept(a.ports[0].sock, nullptr, nullptr));
      EXPECT_EQ(WSAEWOULDBLOCK, WSAGetLastError());
    }
    EXPECT_EQ(KIVAGENT_CLOSED, next_event(&a).kind);
    kivagent_end(&a);
  }
  closesocket(orig);
}
