// Control storm: three clients at once (two pipe instances: one of them always waits its
// turn) send random and adversarial lines. Each line's reply is predicted from its words
// alone: kivd must send exactly that, framed as the protocol frames it, stay up, keep
// answering the next well-formed command, and hold no more than it held after warm-up.
#include <gtest/gtest.h>

#include <cstring>
#include <mutex>
#include <random>
#include <thread>

#include "control/cmd.h"
#include "tests/reliability/run_size.h"
#include "tests/reliability/usage.h"
#include "tests/service/kivd_fixture.h"

namespace {

constexpr int CLIENTS = 3;
constexpr int SESSION = 100;  // lines per connection; then the client makes room for the third
constexpr DWORD SLACK_HANDLES = 10;
constexpr SIZE_T SLACK_BYTES = 512 * 1024;
const char *const COMMANDS[] = {"quit", "info", "reconfig", "update", "add", "remove", "disable", "enable", "ls"};

// What a line must get back. `exact` replies are compared element by element; `single`
// stands for any one "+" or "-" message (a port operation on a random number).
struct expected {
  std::vector<std::string> exact;
  bool single = false;
  bool hang_up = false;
};

struct context {
  int port;          // the one configured port
  std::string user;  // for "info"
};

expected listing(const context &c) {
  // The port line itself is checked by its number: the mode and padding are the listing's.
  return {{"!", "<port " + std::to_string(c.port) + ">", "."}};
}

// The reply kivd owes a line. Lines longer than a command may be are refused whole;
// the rest is what the first of the line's words (up to a NUL) asks for.
expected predict(const std::string &message, const context &c) {
  if (message.size() > size_t(CMD_LINE)) return {{"-Message too long"}};
  std::string line = message.substr(0, message.find('\0'));
  std::vector<char> text(line.begin(), line.end());
  text.push_back('\0');
  char *words[CMD_MAXWORDS];
  int count = cmd_split(text.data(), words);
  if (words[0][0] == '\0') return {};
  if (count > CMD_MAXWORDS) return {{"-Too many words"}};
  std::string first = words[0];
  for (auto &ch : first) ch = char(tolower(static_cast<unsigned char>(ch)));
  if (first == "quit") return {{}, false, true};
  if (first == "info") return {{"!", "My UserName: " + c.user, "."}};
  if (first == "reconfig" || first == "update") return {{"+"}};
  if (first == "ls") return listing(c);
  for (const char *name : COMMANDS)
    if (first == name) return {{}, true};
  return {{"-Unknown command"}};
}

// Every command with arguments it cannot take, and what each must answer.
struct wrong {
  const char *line;
  const char *reply;  // null: as predicted ("quit" hangs up whatever follows; "info" lists)
};
const wrong WRONG[] = {
    {"add", "-Usage: add -p port [-i pid] -- extra_args"},
    {"add -p", "-Usage: add -p port [-i pid] -- extra_args"},
    {"add -p 0", "-Usage: add -p port [-i pid] -- extra_args"},
    {"add -p abc", "-Usage: add -p port [-i pid] -- extra_args"},
    {"add -x -p 5", "-Usage: add -p port [-i pid] -- extra_args"},
    {"add -p 7 -q", "-Usage: add -p port [-i pid] -- extra_args"},
    {"add -p 7", "-Failed with code -24"},
    {"ADD -p 7 -i 1 -- \"a b\" c", "-Failed with code -24"},
    {"remove", "-Usage: remove port"},
    {"remove 0", "-Usage: remove port"},
    {"remove abc", "-Usage: remove port"},
    {"remove 7", "-Failed with code -4"},
    {"disable", "-Usage: disable port"},
    {"disable x1", "-Usage: disable port"},
    {"disable 7x", "-Failed with code -4"},
    {"enable", "-Usage: enable port"},
    {"enable \"\"", "-Usage: enable port"},
    {"Enable 65536", "-Failed with code -4"},
    {"info me now", nullptr},
    {"quit -q", nullptr},
    {"QUIT now please", nullptr},
    {"quit \"-Q\"x", nullptr},
};

std::string oversized(std::mt19937 &rng) {
  return std::string(CMD_LINE + 1 + rng() % 2000, char('a' + rng() % 26));
}
std::string many_words(std::mt19937 &rng) {
  std::string s = "ls";
  for (int i = 0, n = CMD_MAXWORDS + int(rng() % 40); i < n; i++) s += " w";
  return s;
}
std::string binary(std::mt19937 &rng) {
  std::string s(1 + rng() % 300, '\0');
  for (auto &ch : s) ch = char(rng());
  return s;
}
std::string quotes_and_escapes(std::mt19937 &rng) {
  static const char *const pieces[] = {"\"", "\\", "\\\\", "\\\"", "ls", "info", "update", " ", "\t", "x", "\"\""};
  std::string s;
  for (int i = 0, n = 1 + rng() % 30; i < n; i++) s += pieces[rng() % 11];
  return s;
}
std::string word_soup(std::mt19937 &rng) {
  std::string s = COMMANDS[1 + rng() % 8];  // no "quit": only the table's cases hang up
  for (int i = 0, n = rng() % 6; i < n; i++) {
    switch (rng() % 4) {
      case 0: s += " " + std::to_string(int(rng() % 70000) - 1000); break;
      case 1: s += " -" + std::string(1, char('a' + rng() % 26)); break;
      case 2: s += " --"; break;
      default: s += "\t\"q " + std::to_string(rng() % 100) + "\""; break;
    }
  }
  return s;
}
// Exactly at the limit: one word of CMD_LINE bytes, and CMD_MAXWORDS words.
std::string at_the_limits(std::mt19937 &rng) {
  if (rng() % 2) return std::string(CMD_LINE, 'z');
  std::string s = "ls";
  for (int i = 1; i < CMD_MAXWORDS; i++) s += " w";
  return s;
}

std::string shown(const std::string &s) {
  std::string out;
  for (unsigned char ch : s.substr(0, 80)) {
    if (ch >= 0x20 && ch < 0x7f) out += char(ch);
    else {
      char hex[8];
      snprintf(hex, sizeof hex, "\\x%02x", ch);
      out += hex;
    }
  }
  return "\"" + out + (s.size() > 80 ? "...\"" : "\"");
}

struct storm {
  context ctx;
  std::mutex lock;
  std::vector<std::string> faults;
  int lines = 0, hang_ups = 0;

  void fault(const std::string &what) {
    std::lock_guard<std::mutex> g(lock);
    if (faults.size() < 20) faults.push_back(what);
  }

  // Reads one reply and compares it; false when the connection is no longer usable.
  bool check(kt::client *c, const std::string &line, const expected &want) {
    if (want.hang_up) {
      if (!c->hung_up(10000)) fault("no hang-up after " + shown(line));
      return false;
    }
    if (want.exact.empty() && !want.single) return true;
    std::vector<std::string> got;
    got.push_back(c->receive());
    if (got[0] == "!")
      while (got.size() < 1000 && got.back() != "." && got.back()[0] != '<') got.push_back(c->receive());
    bool ok;
    if (want.single) {
      ok = got.size() == 1 && (got[0] == "+" || (got[0].size() > 1 && got[0][0] == '-'));
    } else {
      ok = got.size() == want.exact.size();
      for (size_t i = 0; ok && i < got.size(); i++) {
        const std::string &w = want.exact[i];
        ok = w.rfind("<port ", 0) == 0 ? atoi(got[i].c_str()) == atoi(w.c_str() + 6) : got[i] == w;
      }
    }
    for (auto &m : got) ok = ok && m.find('\0') == std::string::npos && m.find('\n') == std::string::npos;
    if (!ok) {
      std::string seen;
      for (auto &m : got) seen += " " + shown(m);
      std::string wanted;
      for (auto &m : want.exact) wanted += " " + shown(m);
      fault("line " + shown(line) + ": expected" + (want.single ? " one +/- message" : wanted) + ", seen" + seen);
    }
    return got.back()[0] != '<';
  }

  // One client: `count` lines in sessions of SESSION lines, each on a new connection.
  void client(unsigned seed, int count) {
    std::mt19937 rng(seed);
    int sent = 0, hung = 0;
    while (sent < count) {
      kt::client c;
      if (c.h == INVALID_HANDLE_VALUE) {
        fault("no connection: error " + std::to_string(c.error));
        return;
      }
      for (int i = 0; i < SESSION && sent < count; i++, sent++) {
        std::string line;
        expected want;
        int kind = rng() % 8;
        if (kind == 0) {
          const wrong &w = WRONG[rng() % (sizeof WRONG / sizeof WRONG[0])];
          line = w.line;
          want = w.reply ? expected{{w.reply}} : predict(line, ctx);
        } else {
          std::string (*make[])(std::mt19937 &) = {oversized, many_words, binary, quotes_and_escapes,
                                                   word_soup, at_the_limits, binary};
          line = make[kind - 1](rng);
          want = predict(line, ctx);  // a random "quit" (say "qu\\it") hangs up like the table's
        }
        if (!c.send(line)) {
          fault("send failed after " + std::to_string(sent) + " lines");
          return;
        }
        if (!check(&c, line, want)) {
          hung += want.hang_up;
          sent++;
          break;
        }
      }
    }
    std::lock_guard<std::mutex> g(lock);
    lines += sent;
    hang_ups += hung;
  }

  void run(int per_client, unsigned seed) {
    std::vector<std::thread> threads;
    for (int i = 0; i < CLIENTS; i++) threads.emplace_back(&storm::client, this, seed + i, per_client);
    for (auto &t : threads) t.join();
  }
};

TEST(Storm, ThreeClientsOfBadLines) {
  const int n = rel::run_size("KIVD_STORM_N", 300);
  kt::registry reg;
  storm s;
  s.ctx = {kt::free_port(), kt::user_name()};
  reg.service("storm", "\"" + kt::testagent_exe() + "\"");
  reg.port(s.ctx.port, "auto", "storm");
  kt::kivd d("-D1");
  unsigned seed = GetTickCount();
  DWORD t0 = GetTickCount();
  s.run(SESSION, seed);  // warm-up: one session of each client
  rel::usage warm, end;
  ASSERT_TRUE(rel::usage_of(d.pid, &warm));
  s.run((n + CLIENTS - 1) / CLIENTS, seed + 1000);
  double seconds = (GetTickCount() - t0) / 1000.0;
  ASSERT_EQ(WaitForSingleObject(d.h, 0), WAIT_TIMEOUT) << "kivd ended during the storm";
  ASSERT_TRUE(rel::usage_of(d.pid, &end));
  for (auto &f : s.faults) ADD_FAILURE() << f << " (seed " << seed << ")";
  {
    kt::client c;
    auto ls = c.command("ls");
    ASSERT_EQ(ls.size(), 3u);
    EXPECT_EQ(atoi(ls[1].c_str()), s.ctx.port) << ls[1];
    EXPECT_EQ(c.command("info"), (std::vector<std::string>{"!", "My UserName: " + s.ctx.user, "."}));
    EXPECT_EQ(c.command("disable " + std::to_string(s.ctx.port)), std::vector<std::string>{"+"});
  }
  EXPECT_LE(end.handles, warm.handles + SLACK_HANDLES) << rel::describe(warm, end);
  EXPECT_LE(end.private_bytes, warm.private_bytes + SLACK_BYTES) << rel::describe(warm, end);
  char figures[256];
  snprintf(figures, sizeof figures, "%d lines from %d clients, %d hang-ups, %.1f s; %s", s.lines, CLIENTS,
           s.hang_ups, seconds, rel::describe(warm, end).c_str());
  rel::summary("control storm", figures);
  d.quit();
  EXPECT_EQ(d.exit_code(), 0u);
}

}  // namespace
