// What a port that cannot serve says and does: the connection it will not serve closed in
// either family, the rest and the event of a launch the system refuses, and the system's
// error those events carry.
#include <ws2tcpip.h>

#include "ports/ssock.h"
#include "tests/support/ports.h"
#include "toolkit/config/schema.h"
#include "toolkit/runtime/error.h"
#include "toolkit/runtime/events.h"
#include "toolkit/runtime/log.h"

namespace porttest {
namespace {

// The fields of an emitted event these tests read.
struct seen {
  int id, port;
  long syserror;
  time_t until;
  std::string owner;  // the service, or the program
};
std::vector<seen> events;
void keep(void *, const kivev_event *ev) {
  events.push_back({ev->id, ev->port, ev->syserror, ev->until,
                    ev->service   ? ev->service
                    : ev->program ? ev->program
                                  : ""});
}

struct Refusal : Ports {
  void SetUp() override {
    Ports::SetUp();
    events.clear();
    ASSERT_EQ(0, kivev_addoutlet(keep, nullptr, 0));
  }
  void TearDown() override {
    Ports::TearDown();
    kivev_reset();
  }
};

std::vector<seen> events_of(const std::string &owner) {
  std::vector<seen> out;
  for (const seen &e : events)
    if (e.owner == owner) out.push_back(e);
  return out;
}

// The number a log line gives after `head` ("CreateProcess(...) failed 3"), or -1.
long logged_number(const std::string &head) {
  for (const std::string &line : logs) {
    size_t at = line.find(head);
    if (at != std::string::npos) return strtol(line.c_str() + at + head.size(), nullptr, 10);
  }
  return -1;
}

SOCKET connect_v6(unsigned port) {
  SOCKET s = socket(AF_INET6, SOCK_STREAM, IPPROTO_TCP);
  SetHandleInformation(reinterpret_cast<HANDLE>(s), HANDLE_FLAG_INHERIT, 0);
  sockaddr_in6 a = {};
  a.sin6_family = AF_INET6;
  a.sin6_addr = in6addr_loopback;
  a.sin6_port = htons(static_cast<u_short>(port));
  if (connect(s, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0) {
    closesocket(s);
    return INVALID_SOCKET;
  }
  DWORD timeout = 10000;
  setsockopt(s, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<char *>(&timeout), sizeof timeout);
  return s;
}

// The peer closed or reset the connection (rather than keeping it silent).
bool closed_by_peer(SOCKET s) {
  char byte;
  int n = recv(s, &byte, 1, 0);
  return n == 0 || (n == SOCKET_ERROR && WSAGetLastError() != WSAETIMEDOUT);
}

// A hooked port whose service has no program takes each connection and closes it, in the
// family the port listens in, and goes on listening: the waiting connection is off the
// queue, so the port's event stays quiet until the next client.
TEST_F(Refusal, ConnectionNotServedIsClosedInEitherFamily) {
  struct row {
    const char *address;  // null: none configured
    bool v6_client;
    const char *peer;  // as logged
  } rows[] = {
      {nullptr, false, "127.0.0.1"},
      {"::1", true, "::1"},
      {"::", false, "::ffff:127.0.0.1"},
      {"::", true, "::1"},
  };
  for (const row &r : rows) {
    SCOPED_TRACE(std::string(r.address ? r.address : "(none)") + (r.v6_client ? " v6" : " v4"));
    unsigned port = free_ports(1)[0];
    set_port(port, "hook", "bare");  // the service has no key: no program
    if (r.address) kt::set_value("tcp\\s" + std::to_string(port), "address", r.address);
    ASSERT_EQ(0, ssock_reconfig());
    ASSERT_EQ(0, ssock_add(int(port), nullptr, nullptr));
    std::string killed = std::string("Peer ") + r.peer + " on port " + std::to_string(port);
    for (int client = 1; client <= 2; client++) {
      SOCKET c = r.v6_client ? connect_v6(port) : connect_to(port);
      ASSERT_NE(INVALID_SOCKET, c);
      ASSERT_TRUE(pump_until([&] { return logged(killed) == client; }))
          << client << testing::PrintToString(logs);
      EXPECT_TRUE(closed_by_peer(c)) << client;
      closesocket(c);
      HANDLE *handles = nullptr;
      time_t due;
      ASSERT_EQ(1u, ssock_waitset(&handles, &due));
      EXPECT_EQ(WAIT_TIMEOUT, WaitForSingleObject(handles[0], 0)) << client;
    }
    EXPECT_EQ(2, logged("No program configured for service bare"));
    restart_manager();
  }
}

// A launch the system refuses rests the port three seconds and says why, whether a
// connection asked for it ("auto") or the pass did ("on"): the listing shows the rest,
// and a resting "on" port is not tried again before it ends.
TEST_F(Refusal, LaunchRefusedBySystemRestsThePort) {
  for (const char *mode : {"Auto", "On"}) {
    SCOPED_TRACE(mode);
    bool on = std::string(mode) == "On";
    unsigned port = free_ports(1)[0];
    set_service("none", kt::NO_PROGRAM);
    set_port(port, on ? "on" : "auto", "none");
    ASSERT_EQ(0, ssock_reconfig());
    SOCKET c = on ? INVALID_SOCKET : connect_to(port);
    ASSERT_TRUE(pump_until([] { return logged("Failed to start agent for service none") == 1; }))
        << testing::PrintToString(logs);
    if (c != INVALID_SOCKET) closesocket(c);
    long error = logged_number(std::string(kt::NO_PROGRAM) + " -D3) failed ");
    ASSERT_GT(error, 0);
    ASSERT_EQ(1u, events.size());
    EXPECT_EQ(KIVEV_PORT_START_FAILED, events[0].id);
    EXPECT_EQ(int(port), events[0].port);
    EXPECT_EQ(error, events[0].syserror);
    EXPECT_EQ(now + 3, events[0].until);
    expect_rest({port}, "none", mode, now + 3);
    advance(2);
    EXPECT_EQ(1, logged("Failed to start agent for service none"));
    restart_manager();
    events.clear();
  }
}

// An "on" port whose service's program cannot be used says so once and rests, as listed,
// instead of saying it again at every pass; a reconfiguration tries it again at once.
TEST_F(Refusal, OnPortWithAnUnusableProgramRests) {
  unsigned port = free_ports(1)[0];
  set_service("long", std::string(SCHEMA_AGENT_PROGRAM_MAX + 1, 'x'));
  set_port(port, "on", "long");
  ASSERT_EQ(0, ssock_reconfig());
  ssock_update();
  ASSERT_EQ(1u, events.size());
  EXPECT_EQ(KIVEV_PORT_NO_PROGRAM, events[0].id);
  expect_rest({port}, "long", "On", now + 900);
  ASSERT_EQ(0, ssock_reconfig());
  EXPECT_EQ(2u, events.size());
}

// Each refused start's event carries its own failure's error, not an earlier one's: a
// service logon refused (Wine refuses every one) after a program that is not found.
TEST_F(Refusal, StartFailureCarriesItsOwnSystemError) {
  auto p = free_ports(2);
  set_service("none", kt::NO_PROGRAM);
  set_service("logon", agent_program(record_path("logon")));
  kt::set_value("services\\logon", "account", "LocalService");
  set_port(p[0], "auto", "none");
  set_port(p[1], "auto", "logon");
  set_global("gone", "on", kt::NO_PROGRAM);
  ASSERT_EQ(0, ssock_reconfig());
  ASSERT_EQ(1u, events_of("gone").size());
  long not_found = logged_number(std::string(kt::NO_PROGRAM) + ") failed ");
  EXPECT_EQ(not_found, events_of("gone")[0].syserror);
  for (unsigned port : p) {
    SOCKET c = connect_to(port);
    ASSERT_TRUE(pump_until([&] {
      return logged("Failed to start agent") + logged(" started for port ") ==
             (port == p[0] ? 1 : 2);
    }));
    closesocket(c);
  }
  ASSERT_EQ(1u, events_of("none").size());
  EXPECT_EQ(not_found, events_of("none")[0].syserror);
  // The same account for a program, started after the refusals above.
  set_global("logon", "on", agent_program(record_path("prog"), "-Q"));
  kt::set_value("global\\start\\logon", "account", "LocalService");
  ASSERT_EQ(0, ssock_reconfig());
  long refused = logged_number("LogonUser(LocalService) failed ");
  if (refused < 0) GTEST_SKIP() << "this system logs LocalService on";
  EXPECT_NE(not_found, refused);
  auto logon = events_of("logon");  // the port's event, then the program's
  ASSERT_EQ(2u, logon.size());
  EXPECT_EQ(KIVEV_PORT_START_FAILED, logon[0].id);
  EXPECT_EQ(refused, logon[0].syserror);
  EXPECT_EQ(KIVEV_PROG_START_FAILED, logon[1].id);
  EXPECT_EQ(refused, logon[1].syserror);
}

// A port that cannot be bound names the bind's own error, whatever the log line written
// meanwhile did to the thread's last error.
TEST_F(Refusal, ListenFailureCarriesTheBindsError) {
  kiv_logsink = [](const char *line) {
    logs.push_back(line);
    SetLastError(ERROR_SUCCESS);
  };
  unsigned port = 0;
  SOCKET blocker = kt::listen_on(&port);
  ASSERT_NE(INVALID_SOCKET, blocker);
  set_service("svc", agent_program(record_path("bind")));
  set_port(port, "auto", "svc");
  ASSERT_EQ(0, ssock_reconfig());
  closesocket(blocker);
  ASSERT_EQ(1u, events.size());
  EXPECT_EQ(KIVEV_PORT_LISTEN_FAILED, events[0].id);
  EXPECT_EQ(WSAEADDRINUSE, events[0].syserror);
  EXPECT_EQ(long(WSAEADDRINUSE), logged_number("bind() -> "));
}

}  // namespace
}  // namespace porttest
