// The counters of the port manager with the replaced clock: each cause moves exactly its
// counters; a port's state seconds follow the clock; a successor takes a port's counts over.
#include <map>
#include <sstream>

#include "ports/ssock.h"
#include "tests/support/ports.h"
#include "toolkit/runtime/error.h"

namespace porttest {
namespace {

using Counters = Ports;
using items = std::map<std::string, std::string>;
// Each stats line by its first item ("Port=7000", "Service=svc", "Program=job").
using stats_lines = std::map<std::string, items>;

stats_lines stats(const char *what = nullptr, int *rc = nullptr) {
  static lines written;
  written.clear();
  int result = ssock_stats(
      0,
      [](int, const char *text, int length) {
        written.emplace_back(text, static_cast<size_t>(length));
        return 0;
      },
      what);
  if (rc) *rc = result;
  stats_lines out;
  for (const std::string &line : written) {
    std::istringstream words(line);
    std::string key, word;
    words >> key;
    EXPECT_EQ(0u, out.count(key)) << "one line each: " << line;
    items &it = out[key];
    while (words >> word) {
      size_t eq = word.find('=');
      EXPECT_NE(std::string::npos, eq) << line;
      it[word.substr(0, eq)] = word.substr(eq + 1);
    }
  }
  return out;
}

std::string port_key(unsigned port) { return "Port=" + std::to_string(port); }

// The item as a number; -1 when the line or the item is missing.
long long value(const stats_lines &s, const std::string &key, const std::string &item) {
  auto line = s.find(key);
  if (line == s.end()) return -1;
  auto it = line->second.find(item);
  return it == line->second.end() ? -1 : std::stoll(it->second);
}

// The launches a port's histogram holds, every bucket together.
long long launches(const stats_lines &s, const std::string &key) {
  long long n = value(s, key, "LaunchMore");
  for (const char *bucket : {"Launch1ms", "Launch5ms", "Launch20ms", "Launch100ms", "Launch500ms"})
    n += value(s, key, bucket);
  return n;
}

bool is_count(const std::string &item) {
  return item != "Service" && item != "State" && item.rfind("Launch", 0) != 0 &&
         item.find("Seconds") == std::string::npos;
}

// Every count of every line is what `expected` says, or 0 where it says nothing.
void expect_counts(const stats_lines &actual, const std::map<std::string, items> &expected) {
  for (const auto &e : expected) EXPECT_EQ(1u, actual.count(e.first)) << e.first;
  for (const auto &line : actual) {
    auto want = expected.find(line.first);
    for (const auto &item : line.second) {
      if (!is_count(item.first)) continue;
      std::string should = "0";
      if (want != expected.end() && want->second.count(item.first))
        should = want->second.at(item.first);
      EXPECT_EQ(should, item.second) << line.first << " " << item.first;
    }
  }
}

// A client of port served by a new agent of record, which then ends as `exit` says.
void serve(unsigned port, const std::string &rec, int exit) {
  SOCKET client = INVALID_SOCKET;
  DWORD pid = start_agent_on(port, rec, &client);
  send_text(client, "exit " + std::to_string(exit));
  closesocket(client);
  HANDLE process = open_process(pid);
  EXPECT_EQ(static_cast<DWORD>(exit), exit_code(process));
  EXPECT_TRUE(pump_until([&] { return logged("Child " + std::to_string(pid) + " died") == 1; }));
}

TEST_F(Counters, EachCauseMovesItsCountersAndNoOther) {
  std::string rec = record_path("counters");
  const std::string now_text = std::to_string(START_TIME);
  SOCKET taken = INVALID_SOCKET;
  auto ends_with = [&](int code) {
    return [&rec, code] {
      unsigned port = svc_ports(1, "auto", agent_program(rec))[0];
      ssock_reconfig();
      serve(port, rec, code);
      return port;
    };
  };
  struct row {
    const char *cause;
    // Sets the cause up; the port (0: none) whose line must have state and launches.
    std::function<unsigned()> make;
    const char *state;
    long long launched;
    std::function<std::map<std::string, items>(unsigned)> expected;
  } rows[] = {
      {"a served connection",
       [&] {
         unsigned port = svc_ports(1, "auto", agent_program(rec))[0];
         ssock_reconfig();
         start_agent_on(port, rec);
         return port;
       },
       "serving", 1,
       [](unsigned port) {
         return std::map<std::string, items>{
             {port_key(port), {{"Connections", "1"}, {"Starts", "1"}}},
             {"Service=svc", {{"Starts", "1"}}}};
       }},
      {"an agent that ends 0", ends_with(0), "idle", 1,
       [&](unsigned port) {
         return std::map<std::string, items>{
             {port_key(port), {{"Connections", "1"}, {"Starts", "1"}, {"EndsZero", "1"}}},
             {"Service=svc", {{"Starts", "1"}, {"EndsZero", "1"}, {"LastExitTime", now_text}}}};
       }},
      {"an agent that ends 3", ends_with(3), "idle", 1,
       [&](unsigned port) {
         return std::map<std::string, items>{
             {port_key(port), {{"Connections", "1"}, {"Starts", "1"}, {"EndsCode", "1"}}},
             {"Service=svc",
              {{"Starts", "1"}, {"EndsCode", "1"}, {"LastExit", "3"}, {"LastExitTime", now_text}}}};
       }},
      {"an agent that crashes until throttled",
       [&] {
         unsigned port = crash_until_throttled(rec);
         return port;
       },
       "resting", 13,
       [&](unsigned port) {
         return std::map<std::string, items>{{port_key(port),
                                              {{"Connections", "14"},
                                               {"Starts", "13"},
                                               {"EndsException", "13"},
                                               {"RestsException", "13"},
                                               {"RestsThrottled", "1"}}},
                                             {"Service=svc",
                                              {{"Starts", "13"},
                                               {"EndsException", "13"},
                                               {"Throttles", "1"},
                                               {"LastExit", std::to_string(0xC0000005u)},
                                               {"LastExitTime", std::to_string(now - 3)}}}};
       }},
      {"a port bound by another program",
       [&] {
         unsigned port = 0;
         taken = kt::listen_on(&port);
         set_port(port, "auto", "svc");
         set_service("svc", agent_program(rec));
         ssock_reconfig();
         return port;
       },
       "resting", 0,
       [](unsigned port) {
         return std::map<std::string, items>{{port_key(port), {{"RestsListenFailed", "1"}}},
                                             {"Service=svc", {}}};
       }},
      {"a disable by command",
       [&] {
         unsigned port = svc_ports(1, "auto", agent_program(rec))[0];
         ssock_reconfig();
         EXPECT_EQ(0, ssock_disable(static_cast<int>(port)));
         EXPECT_EQ(0, ssock_disable(static_cast<int>(port)));  // already: no second count
         return port;
       },
       "disabled-until-enabled", 0,
       [](unsigned port) {
         return std::map<std::string, items>{{port_key(port), {{"Disables", "1"}}},
                                             {"Service=svc", {}}};
       }},
      {"an agent the system cannot start",
       [&] {
         unsigned port = svc_ports(1, "auto", "C:\\kivd-no-such-folder\\agent.exe")[0];
         ssock_reconfig();
         closesocket(connect_to(port));
         EXPECT_TRUE(
             pump_until([] { return logged("Failed to start agent for service svc") == 1; }));
         return port;
       },
       "resting", 0,
       [](unsigned port) {
         return std::map<std::string, items>{
             {port_key(port), {{"Connections", "1"}, {"RestsStartFailed", "1"}}},
             {"Service=svc", {{"StartFailures", "1"}}}};
       }},
      {"a global program that ends at once until throttled",
       [&] {
         set_global("job", "on", agent_program(rec, "-Q"));
         ssock_reconfig();
         EXPECT_TRUE(pump_until([] { return logged("Too many prog started for job") == 1; }));
         return 0u;
       },
       nullptr, 0,
       [&](unsigned) {
         return std::map<std::string, items>{{"Program=job",
                                              {{"Starts", "7"},
                                               {"EndsZero", "7"},
                                               {"Throttles", "1"},
                                               {"LastExitTime", now_text}}}};
       }},
      {"a global program that crashes",
       [&] {
         set_global("job", "on", agent_program(rec, "-V"));
         ssock_reconfig();
         EXPECT_TRUE(pump_until([] { return logged("Prog job disabled for 1 minute") == 1; }));
         return 0u;
       },
       nullptr, 0,
       [&](unsigned) {
         return std::map<std::string, items>{{"Program=job",
                                              {{"Starts", "1"},
                                               {"EndsException", "1"},
                                               {"LastExit", std::to_string(0xC0000005u)},
                                               {"LastExitTime", now_text}}}};
       }},
  };
  for (auto &r : rows) {
    SCOPED_TRACE(r.cause);
    unsigned port = r.make();
    stats_lines s = stats();
    expect_counts(s, r.expected(port));
    EXPECT_EQ(r.expected(port).size(), s.size());
    if (port) {
      EXPECT_EQ(r.state, s[port_key(port)]["State"]);
      EXPECT_EQ("svc", s[port_key(port)]["Service"]);
      EXPECT_EQ(r.launched, launches(s, port_key(port)));
      // Launches take time; none, none.
      EXPECT_EQ(r.launched > 0, value(s, port_key(port), "LaunchMicroseconds") > 0);
    }
    if (taken != INVALID_SOCKET) closesocket(taken);
    taken = INVALID_SOCKET;
    restart_manager();
    now = START_TIME;
  }
}

// Seconds go to the state the port had since its last change, up to a pass or the listing.
TEST_F(Counters, StateSecondsFollowTheClock) {
  std::string rec = record_path("seconds");
  auto p = svc_ports(1, "auto", agent_program(rec));
  const std::string key = port_key(p[0]);
  ASSERT_EQ(0, ssock_reconfig());
  advance(10);
  EXPECT_EQ(10, value(stats(), key, "IdleSeconds"));
  now += 4;  // no pass: the listing counts up to now
  EXPECT_EQ(14, value(stats(), key, "IdleSeconds"));
  ASSERT_EQ(0, ssock_disable(static_cast<int>(p[0])));
  advance(5);
  ASSERT_EQ(0, ssock_enable(static_cast<int>(p[0])));
  SOCKET client = INVALID_SOCKET;
  DWORD pid = start_agent_on(p[0], rec, &client);
  advance(7);
  stats_lines s = stats();
  EXPECT_EQ(14, value(s, key, "IdleSeconds"));
  EXPECT_EQ(5, value(s, key, "DisabledSeconds"));
  EXPECT_EQ(7, value(s, key, "ServingSeconds"));
  EXPECT_EQ(0, value(s, key, "RestingSeconds"));
  send_text(client, "crash");
  closesocket(client);
  ASSERT_TRUE(pump_until([&] { return logged("Child " + std::to_string(pid) + " died") == 1; }));
  EXPECT_EQ("resting", stats()[key]["State"]);
  advance(3);  // the rest ends with the pass at its end
  s = stats();
  EXPECT_EQ(3, value(s, key, "RestingSeconds"));
  EXPECT_EQ("idle", s[key]["State"]);
  // A clock set back counts nothing, and counting goes on from there.
  now -= 100;
  EXPECT_EQ(14, value(stats(), key, "IdleSeconds"));
  now += 2;
  EXPECT_EQ(16, value(stats(), key, "IdleSeconds"));
}

// A port moved to another service is a new record: it goes on with the counts, and what
// the old record's agent does after the move joins them; the listing has one line.
TEST_F(Counters, SuccessorTakesThePortsCountsOver) {
  std::string rec = record_path("moved");
  auto p = svc_ports(1, "auto", agent_program(rec));
  const std::string key = port_key(p[0]);
  ASSERT_EQ(0, ssock_reconfig());
  serve(p[0], rec, 3);
  SOCKET client = INVALID_SOCKET;
  DWORD pid = start_agent_on(p[0], rec, &client);
  set_service("other", agent_program(rec));
  set_port(p[0], "auto", "other");
  ASSERT_EQ(0, ssock_reconfig());
  stats_lines s = stats();
  EXPECT_EQ("other", s[key]["Service"]);
  EXPECT_EQ(2, value(s, key, "Connections"));
  EXPECT_EQ(2, value(s, key, "Starts"));
  EXPECT_EQ(1, value(s, key, "EndsCode"));
  EXPECT_EQ(0, value(s, key, "EndsZero"));
  EXPECT_EQ(2, launches(s, key));
  send_text(client, "exit 0");
  closesocket(client);
  ASSERT_TRUE(pump_until([&] { return logged("Child " + std::to_string(pid) + " died") == 1; }));
  s = stats();
  EXPECT_EQ(1, value(s, key, "EndsZero"));
  EXPECT_EQ(1, value(s, key, "EndsCode"));
  EXPECT_EQ(-1, value(s, "Service=svc", "Starts"));  // the old service went with its last port
  EXPECT_EQ(0, value(s, "Service=other", "Starts"));
}

TEST_F(Counters, AWordListsOnlyWhatItNames) {
  auto p = svc_ports(2, "auto", agent_program(record_path("word")));
  set_global("svc", "on", agent_program(record_path("word")));
  set_global("job", "on", agent_program(record_path("word")));
  ASSERT_EQ(0, ssock_reconfig());
  struct {
    const char *what;
    std::vector<std::string> keys;  // empty: KIV_ENOTFOUND
  } cases[] = {
      {nullptr, {port_key(p[0]), port_key(p[1]), "Program=job", "Program=svc", "Service=svc"}},
      {"", {}},
      {"svc", {"Program=svc", "Service=svc"}},
      {"job", {"Program=job"}},
      {"nothing", {}},
      {"1", {}},
      {"123456", {}},
  };
  std::string second = std::to_string(p[1]);
  for (auto &c : cases) {
    SCOPED_TRACE(c.what ? c.what : "(none)");
    int rc = 0;
    stats_lines s = stats(c.what, &rc);
    std::vector<std::string> keys;
    for (auto &line : s) keys.push_back(line.first);
    EXPECT_EQ(c.keys, keys);
    EXPECT_EQ(c.keys.empty() ? KIV_ENOTFOUND : 0, rc);
  }
  int rc = 0;
  stats_lines s = stats(second.c_str(), &rc);
  EXPECT_EQ(0, rc);
  ASSERT_EQ(1u, s.size());
  EXPECT_EQ(port_key(p[1]), s.begin()->first);
}

}  // namespace
}  // namespace porttest
