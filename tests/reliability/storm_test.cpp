// Control storm: three clients at once (two pipe instances: one of them always waits its
// turn) send random and adversarial lines. Whatever a line holds, kivd answers it with
// nothing (a blank line), a hang-up ("quit") or one reply framed as the protocol frames
// it; it stays up, answers the next well-formed command, and holds no more than it held
// after warm-up. What each reply says is the console table's business.
#include <gtest/gtest.h>

#include <cstring>
#include <mutex>
#include <random>
#include <thread>

#include "lib/cmdsplit.h"
#include "tools/kivctl/answer.h"
#include "tests/reliability/reliability.h"
#include "tests/support/support.h"

namespace {

constexpr int CLIENTS = 3;
constexpr int SESSION = 100;  // lines per connection; then the client makes room for the third
const char *const COMMANDS[] = {"quit",   "info",    "reconfig", "update", "add",
                                "remove", "disable", "enable",   "ls"};

std::string oversized(std::mt19937 &rng) {
  return std::string(CMD_LINE + 1 + rng() % 2000, char('a' + rng() % 26));
}
std::string binary(std::mt19937 &rng) {
  std::string s(1 + rng() % 300, '\0');
  for (auto &ch : s) ch = char(rng());
  return s;
}
std::string quotes_and_escapes(std::mt19937 &rng) {
  static const char *const pieces[] = {"\"",     "\\", "\\\\", "\\\"", "ls",  "info",
                                       "update", " ",  "\t",   "x",    "\"\""};
  std::string s;
  for (int i = 0, n = 1 + rng() % 30; i < n; i++) s += pieces[rng() % 11];
  return s;
}
std::string word_soup(std::mt19937 &rng) {
  std::string s = COMMANDS[rng() % 9];
  for (int i = 0, n = rng() % 6; i < n; i++) {
    switch (rng() % 4) {
      case 0:
        s += " " + std::to_string(int(rng() % 70000) - 1000);
        break;
      case 1:
        s += " -" + std::string(1, char('a' + rng() % 26));
        break;
      case 2:
        s += " --";
        break;
      default:
        s += "\t\"q " + std::to_string(rng() % 100) + "\"";
        break;
    }
  }
  return s;
}
std::string shown(const std::string &s) {
  std::string out;
  for (unsigned char ch : s.substr(0, 80)) {
    if (ch >= 0x20 && ch < 0x7f)
      out += char(ch);
    else {
      char hex[8];
      snprintf(hex, sizeof hex, "\\x%02x", ch);
      out += hex;
    }
  }
  return "\"" + out + (s.size() > 80 ? "...\"" : "\"");
}

struct storm : rel::faults {
  int lines = 0, hang_ups = 0;

  // Reads what the line is owed (kivctl's own rule) and checks its framing; false when the connection is no
  // longer usable.
  bool check(kt::client *c, const std::string &line, answer want) {
    if (want == answer::hangup) {
      if (!c->hung_up(10000)) fault("no hang-up after " + shown(line));
      return false;
    }
    if (want == answer::none) return true;
    std::vector<std::string> got{c->receive()};
    if (got[0] == "!")
      while (got.size() < 1000 && got.back() != "." && got.back()[0] != '<')
        got.push_back(c->receive());
    bool ok = got[0] == "+" || (got[0].size() > 1 && got[0][0] == '-') ||
              (got[0] == "!" && got.back() == ".");
    for (auto &m : got)
      ok = ok && m.find('\0') == std::string::npos && m.find('\n') == std::string::npos;
    if (!ok)
      fault("line " + shown(line) + ": reply" + [&] {
        std::string seen;
        for (auto &m : got) seen += " " + shown(m);
        return seen;
      }());
    return got.back()[0] != '<';
  }

  // One client: `count` lines in sessions of SESSION lines, each on a new connection; each
  // session still answers "update" at its end.
  void client(unsigned seed, int count) {
    std::mt19937 rng(seed);
    int sent = 0, hung = 0;
    while (sent < count) {
      kt::client c;
      if (c.h == INVALID_HANDLE_VALUE) {
        fault("no connection: error " + std::to_string(c.error));
        return;
      }
      bool open = true;
      for (int i = 0; i < SESSION && sent < count && open; i++, sent++) {
        std::string (*make[])(std::mt19937 &) = {oversized, binary, quotes_and_escapes, word_soup,
                                                 binary};
        std::string line = make[rng() % 5](rng);
        answer want = server_answer(line.data(), int(line.size()));
        if (!c.send(line)) {
          fault("send failed after " + std::to_string(sent) + " lines");
          return;
        }
        open = check(&c, line, want);
        hung += want == answer::hangup;
      }
      if (open && c.command("update") != std::vector<std::string>{"+"})
        fault("no answer to update");
    }
    std::lock_guard<std::mutex> g(lock);
    lines += sent;
    hang_ups += hung;
  }

  void run(int per_client, unsigned seed) {
    std::vector<std::thread> threads;
    for (int i = 0; i < CLIENTS; i++)
      threads.emplace_back(&storm::client, this, seed + i, per_client);
    for (auto &t : threads) t.join();
  }
};

TEST(Storm, ThreeClientsOfBadLines) {
  const int n = rel::run_size("KIVD_STORM_N", 300);
  kt::registry reg;
  storm s;
  int port = kt::free_port();
  reg.service("storm", "\"" + kt::testagent_exe() + "\"");
  reg.port(port, "auto", "storm");
  kt::kivd d("-D1");
  unsigned seed = GetTickCount();
  DWORD t0 = GetTickCount();
  s.run(SESSION, seed);  // warm-up: one session of each client
  kt::usage warm;
  ASSERT_TRUE(kt::usage_of(d.pid, &warm));
  s.run((n + CLIENTS - 1) / CLIENTS, seed + 1000);
  double seconds = (GetTickCount() - t0) / 1000.0;
  for (auto &f : s.seen) ADD_FAILURE() << f << " (seed " << seed << ")";
  {
    kt::client c;
    auto ls = c.command("ls");
    ASSERT_EQ(ls.size(), 3u);
    EXPECT_EQ(atoi(ls[1].c_str()), port) << ls[1];
  }
  char figures[256];
  snprintf(figures, sizeof figures, "%d lines from %d clients, %d hang-ups, %.1f s", s.lines,
           CLIENTS, s.hang_ups, seconds);
  rel::finish(d, warm, "control storm", figures);
}

}  // namespace
