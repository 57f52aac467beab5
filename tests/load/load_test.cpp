// The client load against small servers of the test's own on loopback, one per way a
// server can fail its clients: each fault lands in its own count, and a clean echo in none.
#include "tests/support/load.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cctype>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/support.h"

namespace {

enum class answer {
  echo,       // every byte back
  late,       // every line back, 100 ms after it came
  close,      // closes each connection at once
  upper,      // the bytes back in upper case
  silent,     // reads and never answers
  drop_live,  // echoes, and closes the live connection after its second line
};

struct server {
  answer how;
  SOCKET listener = INVALID_SOCKET;
  int port = 0;
  std::atomic<bool> ending{false};
  std::mutex lock;
  std::vector<std::thread> handlers;
  std::thread accepter;

  explicit server(answer a) : how(a) {
    listener = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    sockaddr_in at = {};
    at.sin_family = AF_INET;
    at.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    int size = sizeof at;
    if (bind(listener, reinterpret_cast<sockaddr *>(&at), sizeof at) != 0 ||
        listen(listener, SOMAXCONN) != 0 ||
        getsockname(listener, reinterpret_cast<sockaddr *>(&at), &size) != 0)
      return;
    port = ntohs(at.sin_port);
    accepter = std::thread([this] { accept_all(); });
  }
  ~server() {
    ending = true;
    if (accepter.joinable()) accepter.join();
    for (std::thread &t : handlers) t.join();  // each ends when its client closes
    closesocket(listener);
  }

  void accept_all() {
    while (!ending) {
      fd_set r;
      FD_ZERO(&r);
      FD_SET(listener, &r);
      timeval tv = {0, 50000};
      if (select(0, &r, nullptr, nullptr, &tv) <= 0) continue;
      SOCKET c = accept(listener, nullptr, nullptr);
      if (c == INVALID_SOCKET) continue;
      std::lock_guard<std::mutex> l(lock);
      handlers.emplace_back([this, c] { serve(c); });
    }
  }

  void serve(SOCKET c) {
    if (how == answer::close) {
      closesocket(c);
      return;
    }
    std::string pending;
    int live_lines = 0;
    char buf[512];
    for (int got; (got = recv(c, buf, sizeof buf, 0)) > 0;) {
      pending.append(buf, static_cast<size_t>(got));
      for (size_t end; (end = pending.find('\n')) != std::string::npos;) {
        std::string line = pending.substr(0, end + 1);
        pending.erase(0, end + 1);
        if (how == answer::silent || live_lines == 2) continue;
        if (how == answer::late) Sleep(100);
        if (how == answer::upper)
          for (char &ch : line) ch = static_cast<char>(toupper(static_cast<unsigned char>(ch)));
        send(c, line.data(), static_cast<int>(line.size()), 0);
        // Its end after the data, not a reset that could discard the two lines on the way.
        if (how == answer::drop_live && line.compare(0, 5, "live ") == 0 && ++live_lines == 2)
          shutdown(c, SD_SEND);
      }
    }
    closesocket(c);
  }
};

// Runs the load against port until `enough` holds of its counts, and stops it.
kt::load_counts run_load(int port, int answer_ms,
                         const std::function<bool(const kt::load_counts &)> &enough) {
  kt::load_options o;
  o.port = port;
  o.answer_ms = answer_ms;
  kt::client_load load(o);
  load.start();
  EXPECT_TRUE(kt::poll([&] { return enough(load.counts()); }, 60000))
      << kt::describe(load.counts());
  return load.stop();
}

TEST(ClientLoad, EachWayOfFailingTheClientsHasItsOwnCount) {
  // made: the new connections' count at the end; the live connection adds one fault.
  struct row {
    answer how;
    const char *name;
    int answer_ms;
    int refused, cut, wrong, lost;  // -1: made + 1 (every connection, the live one too)
    int live_echoed;                // -1: all sent
  } table[] = {
      {answer::echo, "echo", 30000, 0, 0, 0, 0, -1},
      {answer::late, "late", 30000, 0, 0, 0, 0, -1},
      {answer::close, "close", 30000, 0, -1, 0, 0, 0},
      {answer::upper, "upper", 30000, 0, 0, -1, 0, 0},
      {answer::silent, "silent", 500, 0, 0, 0, -1, 0},
      {answer::drop_live, "drop_live", 30000, 0, 1, 0, 0, 2},
  };
  for (const row &r : table) {
    SCOPED_TRACE(r.name);
    server s(r.how);
    ASSERT_NE(s.port, 0);
    kt::load_counts c = run_load(s.port, r.answer_ms, [&](const kt::load_counts &now) {
      // The live connection sent a line, and either got three back or met its fault.
      bool live = r.live_echoed < 0
                      ? now.live_echoed >= 3
                      : now.cut + now.wrong + now.lost >= 1 && now.live_echoed >= r.live_echoed;
      return now.made >= 3 && now.live_sent >= 1 && live;
    });
    auto want = [&](int n) { return n < 0 ? c.made + 1 : n; };
    EXPECT_GE(c.made, 3) << describe(c);
    EXPECT_EQ(c.refused, want(r.refused)) << describe(c);
    EXPECT_EQ(c.cut, want(r.cut)) << describe(c);
    EXPECT_EQ(c.wrong, want(r.wrong)) << describe(c);
    EXPECT_EQ(c.lost, want(r.lost)) << describe(c);
    EXPECT_EQ(c.live_echoed, r.live_echoed < 0 ? c.live_sent : r.live_echoed) << describe(c);
    EXPECT_EQ(c.clean(), r.cut == 0 && r.wrong == 0 && r.lost == 0) << describe(c);
    EXPECT_EQ(c.first_fault.empty(), c.clean()) << describe(c);
    if (r.how == answer::echo || r.how == answer::late) {
      EXPECT_GE(c.live_sent, 3) << describe(c);
      EXPECT_LE(c.median_ms, c.worst_ms) << describe(c);
      EXPECT_GT(c.worst_ms, 0) << describe(c);
    }
    // The server answers 100 ms after each line: no connect comes back sooner.
    if (r.how == answer::late) {
      EXPECT_GE(c.median_ms, 90) << describe(c);
    }
  }
}

TEST(ClientLoad, APortNobodyListensOnRefusesEveryConnection) {
  int port = kt::free_port();
  kt::load_counts c =
      run_load(port, 30000, [](const kt::load_counts &now) { return now.refused >= 4; });
  EXPECT_EQ(c.made, 0) << describe(c);
  EXPECT_GE(c.refused, 4) << describe(c);
  EXPECT_EQ(c.cut + c.wrong + c.lost, 0) << describe(c);
  EXPECT_EQ(c.live_sent, 0) << describe(c);
  EXPECT_FALSE(c.clean());
  EXPECT_EQ(c.first_fault.find("live connection: connect failed"), 0u) << c.first_fault;
}

}  // namespace
