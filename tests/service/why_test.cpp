// `why` in the port manager with the replaced clock: each cause leaves its event in the
// record's ring, with the next step kivctl reads from it; the event log outlet's repeat
// limit holds a flapping port's events back while the ring keeps them all.
#include <algorithm>
#include <cctype>

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

std::string field(const why_event &e, const std::string &name) {
  for (const auto &f : e.fields)
    if (f.first == name) return f.second;
  return "<none>";
}

// `why PORT`: its events, and in *state its last line, the port's state (checked to be one).
std::vector<why_event> port_events(unsigned port, why_event *state = nullptr) {
  std::vector<why_event> events = why(std::to_string(port));
  EXPECT_FALSE(events.empty());
  if (events.empty()) return events;
  EXPECT_EQ(events.back().number, WHY_STATE);
  EXPECT_EQ(field(events.back(), "port"), std::to_string(port));
  if (state) *state = events.back();
  events.pop_back();
  return events;
}

// A port another socket listens on, configured auto for service svc and read: its listen
// fails. *taken is that socket.
unsigned port_taken(const std::string &rec, SOCKET *taken) {
  unsigned port = 0;
  *taken = kt::listen_on(&port);
  set_port(port, "auto", "svc");
  set_service("svc", agent_program(rec));
  ssock_reconfig();
  return port;
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
      {"a port already bound by another socket", "svc", [&] { return port_taken(rec, &taken); },
       KIVEV_PORT_LISTEN_FAILED, [] { return "resting until " + at(now + 900); }},
      {"an agent that crashes until throttled", "svc",
       [&] {
         unsigned port = crash_until_throttled(rec);
         EXPECT_EQ(port_events(port).front().number, KIVEV_PORT_EXCEPTION);
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
    std::vector<why_event> events = port_events(port);
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

// `why PORT` ends with the port's state now, events or none: serving with its agent's pid,
// listened on, resting until its rest ends, disabled, hooked by a process.
TEST_F(Why, APortsLastLineIsItsStateNow) {
  std::string rec = record_path("state");
  SOCKET taken = INVALID_SOCKET, kept = INVALID_SOCKET;
  DWORD pid = 0;
  std::string self = std::to_string(GetCurrentProcessId());
  auto configured = [&](const char *mode) {
    unsigned port = svc_ports(1, mode, agent_program(rec))[0];
    ssock_reconfig();
    return port;
  };
  std::string listened = "is listened on: its agent starts at the next connection.";
  struct {
    const char *state;
    std::function<unsigned()> make;
    std::function<std::string()> said;  // the sentence after "Port N of service svc "
    const char *field;                  // besides port, service and state
    std::function<std::string()> value;
  } cases[] = {
      {"idle", [&] { return configured("auto"); }, [&] { return listened; }, "pid",
       [] { return "<none>"; }},
      {"serving",
       [&] {
         unsigned port = configured("auto");
         pid = start_agent_on(port, rec, &kept);
         return port;
       },
       [&] { return "is served by its agent, process " + std::to_string(pid) + "."; }, "pid",
       [&] { return std::to_string(pid); }},
      {"resting", [&] { return port_taken(rec, &taken); },
       [] {
         char text[32];
         time_t until = now + 900;
         strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", localtime(&until));
         return std::string("rests until ") + text + ".";
       },
       "until", [] { return std::to_string(now + 900); }},
      {"disabled",
       [&] {
         unsigned port = configured("auto");
         ssock_disable(static_cast<int>(port));
         return port;
       },
       [] { return "is disabled until enabled."; }, "until", [] { return "2147483647"; }},
      {"idle",
       [&] {
         unsigned port = configured("hook");
         EXPECT_EQ(0, ssock_add(static_cast<int>(port), self.c_str(), nullptr));
         return port;
       },
       [&] { return listened + " It is hooked by process " + self + "."; }, "parent",
       [&] { return self; }},
  };
  for (auto &c : cases) {
    SCOPED_TRACE(c.state);
    kivev_reset();
    ASSERT_EQ(0, kivev_addoutlet(keep, nullptr, 0));
    unsigned port = c.make();
    why_event state;
    port_events(port, &state);
    EXPECT_EQ(state.text, "Port " + std::to_string(port) + " of service svc " + c.said());
    EXPECT_EQ(field(state, "service"), "svc");
    EXPECT_EQ(field(state, "state"), c.state);
    EXPECT_EQ(field(state, c.field), c.value()) << c.field;
    EXPECT_EQ(state.time, now);
    EXPECT_EQ(why_next(state), "");
    if (kept != INVALID_SOCKET) closesocket(kept);
    kept = INVALID_SOCKET;
    restart_manager();
    if (taken != INVALID_SOCKET) closesocket(taken);
    taken = INVALID_SOCKET;
  }
  kivev_reset();
}

// A port, service or program without a record is answered from kivd's own events that
// name it, and only those: `why 80` never lists port 8080's.
TEST_F(Why, WithoutARecordKivdsOwnEventsThatNameItAnswer) {
  kivev_reset();
  struct {
    int port;
    const char *service, *program;
  } kept[] = {{8080, "bare", nullptr},
              {80, "bare", nullptr},
              {180, "bare", nullptr},
              {0, "bare8", nullptr},
              {0, nullptr, "sweeper"}};
  for (const auto &k : kept) {
    kivev_event ev{};
    ev.id = KIVEV_CONFIG_REFUSED;
    ev.port = k.port;
    ev.service = k.service;
    ev.program = k.program;
    kivev_keep_own(&ev, "refused");
  }
  // Each line listed as "port/service/program" of the event it keeps.
  struct {
    const char *what;
    std::vector<std::string> listed;
  } asked[] = {
      {"80", {"80/bare/"}},
      {"8080", {"8080/bare/"}},
      {"080", {"80/bare/"}},
      {"8", {}},
      {"bare", {"8080/bare/", "80/bare/", "180/bare/"}},
      {"bare8", {"/bare8/"}},
      {"sweeper", {"//sweeper"}},
      {"sweep", {}},
  };
  for (const auto &a : asked) {
    SCOPED_TRACE(a.what);
    static std::vector<std::string> lines;
    lines.clear();
    int rc = ssock_why(a.what, 0, [](int, const char *text, int length) {
      lines.emplace_back(text, static_cast<size_t>(length));
      return 0;
    });
    EXPECT_EQ(rc, a.listed.empty() ? KIV_ENOTFOUND : 0);
    std::vector<std::string> listed;
    bool state = false;
    for (const std::string &line : lines) {
      why_event e;
      ASSERT_TRUE(parse_why_line(line, &e)) << line;
      EXPECT_FALSE(state) << "the state comes last";
      if ((state = e.number == WHY_STATE)) {
        EXPECT_EQ(field(e, "state"), "down");
        continue;
      }
      auto part = [&](const char *name) {
        std::string value = field(e, name);
        return value == "<none>" ? "" : value;
      };
      listed.push_back(part("port") + "/" + part("service") + "/" + part("program"));
    }
    EXPECT_EQ(listed, a.listed);
    // A port's answer ends with its state; a name's has none.
    EXPECT_EQ(state, !a.listed.empty() && isdigit(static_cast<unsigned char>(a.what[0])) != 0);
  }
  kivev_reset();
}

// Each refused value's event names the record it belongs to: a port's address its port, a
// service's account or limit its service, a global program's its program.
TEST_F(Why, ARefusedValueNamesItsRecord) {
  static std::vector<std::string> refusals;
  refusals.clear();
  kivev_reset();
  ASSERT_EQ(0, kivev_addoutlet(
                   [](void *, const kivev_event *ev) {
                     if (ev->id != KIVEV_CONFIG_REFUSED) return;
                     refusals.push_back(
                         std::to_string(ev->port) + "|" + (ev->service ? ev->service : "") + "|" +
                         (ev->program ? ev->program : "") + "|" + ev->text + "=" + ev->value);
                   },
                   nullptr, 0));
  std::string rec = record_path("refused");
  std::vector<unsigned> ports = svc_ports(1, "auto", agent_program(rec));
  kt::set_value("tcp\\s" + std::to_string(ports[0]), "address", "bogus");
  set_service("nobody", agent_program(rec));
  kt::set_value("services\\nobody", "account", "admin");
  set_port(ports[0] + 1, "auto", "nobody");
  set_global("sweeper", "on", agent_program(rec));
  kt::set_value("global\\start\\sweeper", "memory", "0");
  // A misspelt start mode: the port, or the program, is left out and says so.
  set_port(ports[0] + 2, "atuo", "nobody");
  set_global("typo", "no", agent_program(rec));
  ssock_reconfig();
  kivev_reset();
  std::sort(refusals.begin(), refusals.end());
  std::string p = std::to_string(ports[0]), typo = std::to_string(ports[0] + 2);
  std::vector<std::string> want = {
      "0|nobody||.services.nobody.account=admin", "0||sweeper|.global.start.sweeper.memory=0",
      "0||typo|.global.start.typo.start=no",      p + "|||.tcp.s" + p + ".address=bogus",
      typo + "|||.tcp.s" + typo + ".start=atuo",
  };
  std::sort(want.begin(), want.end());
  EXPECT_EQ(refusals, want);
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
  EXPECT_EQ(written,
            (std::vector<std::string>{
                "107|", "108|", "107| 4 identical events before this one were held back.", "2|"}));
  std::vector<why_event> events = port_events(port);
  ASSERT_EQ(events.size(), static_cast<size_t>(KIVEV_RING));
  EXPECT_EQ(events.back().number, KIVEV_PORT_DISABLED);
  EXPECT_EQ(events.back().time, now);
}

}  // namespace
}  // namespace porttest
