#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "toolkit/runtime/clock.h"
#include "toolkit/runtime/counters.h"
#include "toolkit/runtime/error.h"
#include "toolkit/runtime/events.h"

namespace {

time_t now;
time_t testtime() { return now; }

// What an outlet received: "ID port service held".
std::vector<std::string> limited, unlimited;
void record(void *context, const kivev_event *ev) {
  static_cast<std::vector<std::string> *>(context)->push_back(
      std::to_string(ev->id) + " " + std::to_string(ev->port) + " " +
      (ev->service ? ev->service : "-") + " " + std::to_string(ev->held));
}

struct Events : ::testing::Test {
  void SetUp() override {
    kivev_reset();
    limited.clear();
    unlimited.clear();
    kiv_setclock(testtime, nullptr);
  }
  void TearDown() override {
    kivev_reset();
    kiv_setclock(nullptr, nullptr);
  }
};

void emit(int id, int port, const char *service = "svc") {
  kivev_event ev{};
  ev.id = id;
  ev.port = port;
  ev.service = service;
  kivev_emit(&ev);
}

// Identical events (number, port, service, program) reach the limited outlet once a
// minute, the next one carrying the count held back; the other outlet gets every one.
TEST_F(Events, RepeatLimit) {
  ASSERT_EQ(0, kivev_addoutlet(record, &limited, KIVEV_LIMITED));
  ASSERT_EQ(0, kivev_addoutlet(record, &unlimited, 0));
  struct {
    time_t t;
    int id, port;
    const char *service;
    const char *written;  // what the limited outlet gets, or null
  } steps[] = {
      {1000, KIVEV_PORT_START_FAILED, 1, "svc", "103 1 svc 0"},
      {1010, KIVEV_PORT_START_FAILED, 1, "svc", nullptr},
      {1059, KIVEV_PORT_START_FAILED, 1, "svc", nullptr},
      {1030, KIVEV_PORT_START_FAILED, 2, "svc", "103 2 svc 0"},      // another port
      {1030, KIVEV_PORT_THROTTLED, 1, "svc", "102 1 svc 0"},         // another event
      {1030, KIVEV_PORT_START_FAILED, 1, "other", "103 1 other 0"},  // another service
      {1060, KIVEV_PORT_START_FAILED, 1, "svc", "103 1 svc 2"},      // a minute after the first
      {1061, KIVEV_PORT_START_FAILED, 1, "svc", nullptr},
      {1500, KIVEV_PORT_START_FAILED, 1, "svc", "103 1 svc 1"},
      {1400, KIVEV_PORT_START_FAILED, 1, "svc", "103 1 svc 0"},  // the clock set back
  };
  std::vector<std::string> expected;
  kiv_counters_begin();
  for (auto &s : steps) {
    now = s.t;
    emit(s.id, s.port, s.service);
    if (s.written) expected.push_back(s.written);
  }
  EXPECT_EQ(expected, limited);
  EXPECT_EQ(sizeof steps / sizeof steps[0], unlimited.size());
  // kivd's counts: each event written or held back, never both.
  EXPECT_EQ(expected.size(), kiv_counter(WIRE_STAT_KIVD_EVENTS));
  EXPECT_EQ(unlimited.size() - expected.size(), kiv_counter(WIRE_STAT_KIVD_EVENTS_HELD));
  for (auto &line : unlimited) EXPECT_EQ('0', line.back()) << line;  // held is not theirs
}

// A refused value is limited by the record it belongs to and by its path: every refused
// value of a reconfiguration reaches the event log, each only once a minute.
TEST_F(Events, RefusedValuesAreLimitedByTheirRecordAndPath) {
  ASSERT_EQ(0, kivev_addoutlet(record, &limited, KIVEV_LIMITED));
  struct {
    int port;
    const char *service, *program, *path, *value;
    bool written;
  } steps[] = {
      {8080, nullptr, nullptr, ".tcp.s8080.address", "bogus", true},
      {8081, nullptr, nullptr, ".tcp.s8081.address", "bogus", true},  // another port
      {0, "echo", nullptr, ".services.echo.account", "admin", true},
      {0, "echo", nullptr, ".services.echo.memory", "0", true},  // another value of it
      {0, "other", nullptr, ".services.other.account", "admin", true},
      {0, nullptr, "echo", ".global.start.echo.account", "admin", true},  // a program
      {0, "echo", nullptr, ".services.echo.account", "root", true},       // another value
      {8080, nullptr, nullptr, ".tcp.s8080.address", "bogus", false},     // the same again
      {0, "echo", nullptr, ".services.echo.memory", "0", false},
  };
  now = 7000;
  std::vector<std::string> expected;
  for (auto &s : steps) {
    kivev_event ev{};
    ev.id = KIVEV_CONFIG_REFUSED;
    ev.port = s.port;
    ev.service = s.service;
    ev.program = s.program;
    ev.text = s.path;
    ev.value = s.value;
    kivev_emit(&ev);
    if (s.written)
      expected.push_back("106 " + std::to_string(s.port) + " " + (s.service ? s.service : "-") +
                         " 0");
  }
  EXPECT_EQ(expected, limited);
}

// A line names the record its event belongs to, also where the event's message does not:
// `why` finds a refused value's line by its port, service or program.
TEST_F(Events, ALineNamesItsRecord) {
  kivev_event ev{};
  ev.id = KIVEV_CONFIG_REFUSED;
  ev.time = 1700000000;
  ev.text = ".tcp.s8080.address";
  ev.value = "bogus";
  char line[KIVEV_LINE_SIZE];
  struct {
    int port;
    const char *service, *program, *tail;
  } rows[] = {
      {8080, nullptr, nullptr, "\tport=8080"},
      {0, "echo", nullptr, "\tservice=echo"},
      {0, nullptr, "sweeper", "\tprogram=sweeper"},
      {0, nullptr, nullptr, ""},
  };
  for (const auto &r : rows) {
    ev.port = r.port;
    ev.service = r.service;
    ev.program = r.program;
    kivev_line(&ev, "refused", line, sizeof line);
    EXPECT_EQ(
        std::string("106\t1700000000\twarning\trefused\ttext=.tcp.s8080.address\tvalue=bogus") +
            r.tail,
        line);
  }
  // Fields the message has already are not said twice.
  ev = kivev_event{};
  ev.id = KIVEV_PORT_ENABLED;
  ev.port = 8080;
  ev.service = "echo";
  kivev_line(&ev, "enabled", line, sizeof line);
  EXPECT_EQ(std::string("108\t0\tinfo\tenabled\tport=8080\tservice=echo"), line);
}

// The limit's table is bounded: past it, events pass unlimited rather than be lost, and
// the ones it holds are still limited.
TEST_F(Events, RepeatLimitTableIsBounded) {
  ASSERT_EQ(0, kivev_addoutlet(record, &limited, KIVEV_LIMITED));
  now = 5000;
  for (int port = 1; port <= 300; port++) emit(KIVEV_PORT_LISTEN_FAILED, port);
  EXPECT_EQ(300u, limited.size());
  limited.clear();
  for (int port = 1; port <= 300; port++) emit(KIVEV_PORT_LISTEN_FAILED, port);
  EXPECT_EQ(300u - 256u, limited.size());
  // A minute on, the entries are reused: each port is limited again.
  now += KIVEV_REPEAT_SECONDS;
  limited.clear();
  for (int port = 1; port <= 2; port++) emit(KIVEV_PORT_LISTEN_FAILED, 1000 + port);
  emit(KIVEV_PORT_LISTEN_FAILED, 1001);
  EXPECT_EQ((std::vector<std::string>{"101 1001 svc 0", "101 1002 svc 0"}), limited);
}

void reemit(void *, const kivev_event *ev) {
  unlimited.push_back(std::to_string(ev->id));
  kivev_event again{};
  again.id = KIVEV_OUT_OF_MEMORY;
  kivev_emit(&again);
}

TEST_F(Events, OutletsAreBoundedAndAnEmitInsideOneIsDropped) {
  ASSERT_EQ(0, kivev_addoutlet(reemit, nullptr, 0));
  for (int i = 1; i < KIVEV_MAXOUTLETS; i++) ASSERT_EQ(0, kivev_addoutlet(record, &limited, 0));
  EXPECT_EQ(KIV_EOVERFLOW, kivev_addoutlet(record, &limited, 0));
  emit(KIVEV_SERVICE_STARTED, 0);
  EXPECT_EQ(std::vector<std::string>{"1"}, unlimited);
  EXPECT_EQ(static_cast<size_t>(KIVEV_MAXOUTLETS - 1), limited.size());
}

// Inserts come in the message's order, cut to the buffer, every one terminated.
TEST_F(Events, InsertsAreCutToTheBuffer) {
  kivev_event ev{};
  ev.id = KIVEV_PORT_EXCEPTION;
  ev.port = 8080;
  ev.service = "echo";
  ev.pid = 4242;
  ev.exitcode = 0xC0000005;
  ev.until = 0;
  char buffer[64];
  const char *inserts[KIVEV_MAXINSERTS];
  ASSERT_EQ(5, kivev_inserts(&ev, buffer, sizeof buffer, inserts));
  EXPECT_STREQ("8080", inserts[0]);
  EXPECT_STREQ("echo", inserts[1]);
  EXPECT_STREQ("4242", inserts[2]);
  EXPECT_STREQ("0xC0000005", inserts[3]);
  ASSERT_EQ(8, kivev_inserts(&ev, buffer, 8, inserts) + 3);  // room for "8080", "ec"
  EXPECT_STREQ("8080", inserts[0]);
  EXPECT_STREQ("ec", inserts[1]);
  EXPECT_STREQ("", inserts[2]);
  EXPECT_STREQ("", inserts[4]);
  ev.id = 9999;
  EXPECT_EQ(KIV_EINVAL, kivev_inserts(&ev, buffer, sizeof buffer, inserts));
  EXPECT_EQ(-1, kivev_severity(9999));
}

}  // namespace
