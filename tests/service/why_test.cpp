// `why` in the port manager with the replaced clock: each cause leaves its event in the
// record's ring, with the next step kivctl reads from it; the event log outlet's repeat
// limit holds a flapping port's events back while the ring keeps them all.
#include "ports/ssock.h"
#include "service/evlog.h"
#include "tests/support/ports.h"
#include "toolkit/runtime/error.h"
#include "tools/kivctl/why.h"

namespace porttest {
namespace {

using Why = Ports;

void keep(void *, const kivev_event *ev) { ssock_keep(ev, kivev_name(ev->id)); }

std::vector<why_event> why(const std::string &what) {
  static std::vector<std::string> lines;
  lines.clear();
  EXPECT_EQ(0, ssock_why(what.c_str(), 0, [](int, const char *text, int length) {
              lines.emplace_back(text, static_cast<size_t>(length));
              return 0;
            }));
  std::vector<why_event> events;
  for (const std::string &line : lines) {
    events.emplace_back();
    EXPECT_TRUE(parse_why_line(line, &events.back())) << line;
  }
  return events;
}

std::string at(time_t t) {
  char text[16];
  strftime(text, sizeof text, "%H:%M:%S", localtime(&t));
  return text;
}

TEST_F(Why, EachCauseShowsItsEventAndWhatComesNext) {
  std::string rec = record_path("why");
  SOCKET taken = INVALID_SOCKET;
  struct {
    const char *cause, *service;
    std::function<unsigned()> make;  // sets the cause up; the port to ask about
    int number;
    std::function<std::string()> next;
  } cases[] = {
      {"a port already bound by another socket", "svc",
       [&] {
         unsigned port = 0;
         taken = kt::listen_on(&port);
         set_port(port, "auto", "svc");
         set_service("svc", agent_program(rec));
         ssock_reconfig();
         return port;
       },
       KIVEV_PORT_LISTEN_FAILED, [] { return "resting until " + at(now + 900); }},
      {"an agent that crashes until throttled", "svc",
       [&] {
         unsigned port = svc_ports(1, "auto", agent_program(rec, "-V"))[0];
         ssock_reconfig();
         for (int crash = 1; crash <= 13; crash++) {
           closesocket(connect_to(port));
           EXPECT_TRUE(pump_until([&] { return logged("caused exeption") == crash; })) << crash;
           advance(3);
         }
         closesocket(connect_to(port));
         EXPECT_TRUE(pump_until([] { return logged("Too many agents started") == 1; }));
         EXPECT_EQ(why(std::to_string(port)).front().number, KIVEV_PORT_EXCEPTION);
         return port;
       },
       KIVEV_PORT_THROTTLED, [] { return "resting until " + at(now + 900); }},
      {"a disable by command", "svc",
       [&] {
         unsigned port = svc_ports(1, "auto", agent_program(rec))[0];
         ssock_reconfig();
         ssock_disable(static_cast<int>(port));
         return port;
       },
       KIVEV_PORT_DISABLED, [] { return "disabled until enabled"; }},
      {"an enable after it", "svc",
       [&] {
         unsigned port = svc_ports(1, "auto", agent_program(rec))[0];
         ssock_reconfig();
         ssock_disable(static_cast<int>(port));
         ssock_enable(static_cast<int>(port));
         return port;
       },
       KIVEV_PORT_ENABLED, [] { return "serving again"; }},
  };
  for (auto &c : cases) {
    SCOPED_TRACE(c.cause);
    kivev_reset();
    ASSERT_EQ(0, kivev_addoutlet(keep, nullptr, 0));
    unsigned port = c.make();
    std::vector<why_event> events = why(std::to_string(port));
    ASSERT_FALSE(events.empty());
    EXPECT_EQ(events.back().number, c.number);
    EXPECT_EQ(why_next(events.back()), c.next());
    // The service's ring has it too, and a record unknown is refused.
    EXPECT_EQ(why(c.service).back().number, c.number);
    EXPECT_EQ(KIV_ENOTFOUND, ssock_why("nothing", 0, nullptr));
    restart_manager();
    if (taken != INVALID_SOCKET) closesocket(taken);
    taken = INVALID_SOCKET;
  }
  kivev_reset();
  // The ring goes with its record.
  EXPECT_EQ(KIV_ENOTFOUND, ssock_why("svc", 0, nullptr));
}

std::vector<std::string> written;  // "number|note" of each event the event log got
BOOL record(HANDLE, WORD, DWORD id, WORD count, const char **inserts) {
  written.push_back(std::to_string(id & 0xFFFF) + "|" + inserts[count - 1]);
  return TRUE;
}

// A port disabled and enabled five times in a minute: the event log gets the first of each
// and, a minute on, the next one with the count held back; the ring keeps the last eight.
TEST_F(Why, TheRepeatLimitHoldsAFlappingPortsEventsBack) {
  unsigned port = svc_ports(1, "auto", agent_program(record_path("flap")))[0];
  ssock_reconfig();
  kivev_reset();
  written.clear();
  ASSERT_EQ(0, evlog_start(record));
  ASSERT_EQ(0, kivev_addoutlet(keep, nullptr, 0));
  for (int flap = 0; flap < 5; flap++) {
    ssock_disable(static_cast<int>(port));
    advance(5);
    ssock_enable(static_cast<int>(port));
  }
  advance(60);
  ssock_disable(static_cast<int>(port));
  evlog_stop(0);
  kivev_reset();
  EXPECT_EQ(written, (std::vector<std::string>{
                         "107|", "108|",
                         "107| 4 identical events before this one were held back.", "2|"}));
  std::vector<why_event> events = why(std::to_string(port));
  ASSERT_EQ(events.size(), static_cast<size_t>(KIVEV_RING));
  EXPECT_EQ(events.back().number, KIVEV_PORT_DISABLED);
  EXPECT_EQ(events.back().time, now);
}

}  // namespace
}  // namespace porttest
