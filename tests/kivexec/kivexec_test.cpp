// kivexec through kivd.exe: each connection gets a program of its own (upcase.exe), with
// the connection as its standard input and output.
#include "tests/support/support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <thread>

namespace {

const std::string KIVEXEC = kt::build_dir() + "\\agent\\kivexec.exe";
// What upcase.exe reports when it inherited nothing but its connection.
const std::string HANDLES = "#handles listening=0 sockets=0 pipes=0 other=0 own=0\n";
const std::string UPCASE = "\"" + kt::build_dir() + "\\tests\\kivexec\\upcase.exe\"";

// Port `port` served by kivexec with `options` (service `name`), running `program`.
void configure(kt::registry &reg, const char *name, int port, const std::string &options,
               const std::string &program) {
  reg.service(name, "\"" + KIVEXEC + "\" " + options + " -- " + program);
  reg.port(port, "auto", name);
}

// Everything the server sends until it closes (or ms pass).
std::string read_all(SOCKET s, int ms = 20000) {
  DWORD timeout = static_cast<DWORD>(ms);
  setsockopt(s, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char *>(&timeout), sizeof timeout);
  std::string got;
  char buf[1024];
  for (int n; (n = recv(s, buf, sizeof buf, 0)) > 0;) got.append(buf, n);
  return got;
}

// The first n bytes the server sends (fewer when it closes or 20 s pass).
std::string read_some(SOCKET s, size_t n) {
  DWORD timeout = 20000;
  setsockopt(s, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char *>(&timeout), sizeof timeout);
  std::string got;
  char buf[256];
  for (int r; got.size() < n &&
              (r = recv(s, buf, static_cast<int>(std::min(n - got.size(), sizeof buf)), 0)) > 0;)
    got.append(buf, r);
  return got;
}

// A connection to port once kivd listens on it; INVALID_SOCKET when it never does.
SOCKET connect_when_up(int port) {
  SOCKET s = INVALID_SOCKET;
  kt::poll([&] { return (s = kt::connect_to(port)) != INVALID_SOCKET; });
  return s;
}

// A client that sends `line`, half-closes and reads the answer to the end.
std::string ask(int port, const std::string &line, int ms = 20000) {
  SOCKET s = connect_when_up(port);
  if (s == INVALID_SOCKET) return "<refused>";
  send(s, line.data(), static_cast<int>(line.size()), 0);
  shutdown(s, SD_SEND);
  std::string answer = read_all(s, ms);
  closesocket(s);
  return answer;
}

// One kivd serves every case. The program reads the connection to its end (the client's
// half-close), knows who is on the line, and inherits the connection and nothing else;
// --max holds a connection in the backlog until a program ends, --per-ip closes the excess
// at once, --timeout ends a program that never ends; "remove" and "exit" from kivd end
// kivexec after its grace, and with it every program, and so does a lifespan with nothing
// to do; a program that cannot be started closes its connection, and the next one is tried
// again.
TEST(Kivexec, ServesLimitsAndEnds) {
  kt::registry reg;
  int port = kt::free_port(), other = kt::free_port(), err = kt::free_port(),
      quiet = kt::free_port();
  configure(reg, "exec", port, "--timeout 0", UPCASE + " env");
  configure(reg, "hold", other, "", UPCASE + " handles");
  configure(reg, "err", err, "--stderr", UPCASE + " stderr");
  configure(reg, "quiet", quiet, "", UPCASE + " stderr");
  int on = kt::free_port();  // an "on" port: kivexec listens on it itself
  configure(reg, "on", on, "", UPCASE);
  reg.port(on, "on", "on");
  int max_port = kt::free_port(), ip_port = kt::free_port(), time_port = kt::free_port();
  configure(reg, "max", max_port, "--max 2", UPCASE);
  configure(reg, "perip", ip_port, "--per-ip 1", UPCASE);
  configure(reg, "slow", time_port, "--timeout 1", UPCASE + " hang");
  int hang = kt::free_port(), solo = kt::free_port(), missing = kt::free_port(),
      brief = kt::free_port();
  configure(reg, "brief", brief, "", UPCASE);
  reg.set("services\\brief", "lifespan", "1");
  int zero = kt::free_port();
  configure(reg, "zero", zero, "", UPCASE);
  reg.set("services\\zero", "lifespan", "0");
  configure(reg, "hang", hang, "--grace 10", UPCASE);
  configure(reg, "solo", solo, "--grace 1", UPCASE + " hang solo");
  configure(reg, "none", missing, "", "C:\\no\\such\\program.exe");
  {
    kt::kivd d("-D3");
    EXPECT_EQ(ask(on, "on"), "ONEND\n");
    // Standard error goes to the connection with --stderr, else to kivexec's (kivd's log).
    EXPECT_EQ(ask(err, "e"), "to stderr\nEEND\n");
    EXPECT_EQ(ask(quiet, "q"), "QEND\n");
    EXPECT_TRUE(d.log_has("to stderr"));
    SOCKET s = connect_when_up(port);
    ASSERT_NE(s, INVALID_SOCKET);
    send(s, "hello\nworld\n", 12, 0);
    shutdown(s, SD_SEND);
    sockaddr_in me = {};
    int size = sizeof me;
    getsockname(s, reinterpret_cast<sockaddr *>(&me), &size);
    std::string want =
        "TCPREMOTEIP=127.0.0.1\nTCPREMOTEPORT=" + std::to_string(ntohs(me.sin_port)) +
        "\nTCPLOCALIP=127.0.0.1\nTCPLOCALPORT=" + std::to_string(port) +
        "\nPROTO=TCP\nHELLO\nWORLD\nEND\n";
    EXPECT_EQ(read_all(s), want);
    closesocket(s);

    // A second connection is held open while another program starts: neither program holds
    // the other's connection, nor a listening socket, nor kivexec's pipe.
    SOCKET held = kt::connect_to(port);
    ASSERT_NE(held, INVALID_SOCKET);
    EXPECT_EQ(ask(other, "x"), HANDLES + "XEND\n");
    EXPECT_EQ(ask(other, ""), HANDLES + "END\n");
    closesocket(held);

    // 20 clients at once, each its own answer. kivexec starts their programs one after
    // another, so the last waits for 19 process starts: a minute, on a loaded machine.
    std::vector<std::string> answers(20);
    std::vector<std::thread> clients;
    for (int i = 0; i < 20; i++)
      clients.emplace_back(
          [&, i] { answers[i] = ask(other, "client " + std::to_string(i), 60000); });
    for (auto &t : clients) t.join();
    for (int i = 0; i < 20; i++)
      EXPECT_EQ(answers[i], HANDLES + "CLIENT " + std::to_string(i) + "END\n") << i;

    SOCKET first = connect_when_up(max_port);
    ASSERT_NE(first, INVALID_SOCKET);
    SOCKET second = kt::connect_to(max_port), third = kt::connect_to(max_port);
    ASSERT_NE(third, INVALID_SOCKET);
    send(third, "three", 5, 0);
    shutdown(third, SD_SEND);
    EXPECT_EQ(read_all(third, 1500), "") << "a third program ran beside two";
    send(first, "one", 3, 0);
    shutdown(first, SD_SEND);
    EXPECT_EQ(read_all(first), "ONEEND\n");
    EXPECT_EQ(read_all(third), "THREEEND\n");
    for (SOCKET s : {first, second, third}) closesocket(s);

    // The kept connection's own program echoes before the second client comes: kivexec
    // has counted it then (a program of an earlier step may still be ending).
    SOCKET kept = connect_when_up(ip_port);
    ASSERT_NE(kept, INVALID_SOCKET);
    send(kept, "a", 1, 0);
    ASSERT_EQ(read_some(kept, 1), "A");
    EXPECT_EQ(ask(ip_port, "b"), "");
    EXPECT_TRUE(d.log_has("has 1 connections already (--per-ip 1): closed"));
    shutdown(kept, SD_SEND);
    EXPECT_EQ(read_all(kept), "END\n");
    closesocket(kept);
    EXPECT_TRUE(kt::poll([&] { return ask(ip_port, "c") == "CEND\n"; })) << "place not given back";

    ULONGLONG begin = GetTickCount64();
    EXPECT_EQ(ask(time_port, "late"), "");
    EXPECT_LT(GetTickCount64() - begin, 15000u);
    EXPECT_TRUE(d.log_has("ran longer than 1 s: ended"));

    std::vector<SOCKET> open;
    for (int p : {hang, solo}) {
      open.push_back(connect_when_up(p));
      ASSERT_NE(open.back(), INVALID_SOCKET);
    }
    // Both programs run: one echoes, the other names itself before it hangs.
    send(open[0], "h", 1, 0);
    ASSERT_EQ(read_some(open[0], 1), "H");
    ASSERT_EQ(read_some(open[1], 5), "solo\n");
    kt::client c;
    auto idle = [&](int port, const char *service) {
      for (auto &line : c.command("ls"))
        if (line == kt::port_line(port, service, "Auto")) return true;
      return false;
    };
    auto brief_idle = [&] { return idle(brief, "brief"); };
    EXPECT_EQ(ask(brief, "a"), "AEND\n");
    EXPECT_FALSE(brief_idle()) << "kivexec ended at once";
    EXPECT_TRUE(kt::poll(brief_idle));
    EXPECT_EQ(ask(brief, "b"), "BEND\n");
    // A lifespan of 0: the connection that started kivexec is served, then kivexec ends.
    EXPECT_EQ(ask(zero, "z"), "ZEND\n");
    EXPECT_TRUE(kt::poll([&] { return idle(zero, "zero"); }));
    EXPECT_EQ(ask(zero, "y"), "YEND\n");
    EXPECT_EQ(c.command("disable " + std::to_string(hang)), std::vector<std::string>{"+"});
    // Once kivexec listens no more, its program still has the grace to finish.
    EXPECT_TRUE(kt::poll([&] {
      SOCKET s = kt::connect_to(hang);
      closesocket(s);
      return s == INVALID_SOCKET;
    }));
    shutdown(open[0], SD_SEND);
    EXPECT_EQ(read_all(open[0]), "END\n");
    EXPECT_TRUE(kt::poll([] { return kt::processes_named("upcase.exe") == 1; }));

    for (int i = 0; i < 2; i++) EXPECT_EQ(ask(missing, "x"), "") << i;
    EXPECT_TRUE(kt::poll([&] {
      return d.log_count("kivexec: cannot start C:\\no\\such\\program.exe: error 2") == 2;
    })) << d.err();
    c.close();
    d.quit();
    for (SOCKET s : open) closesocket(s);
  }
  EXPECT_EQ(kt::processes_named("upcase.exe"), 0);
  EXPECT_EQ(kt::processes_named("kivexec.exe"), 0);
}

// Bad command lines are refused with a reason, before anything is served.
TEST(Kivexec, RefusesBadCommandLines) {
  struct row {
    const char *args, *err;
  } rows[] = {
      {"", "kivexec: no \"--\" before the program (kivexec [options] -- PROGRAM [ARGS...])\n"},
      {"--max 3 --", "kivexec: no program after \"--\"\n"},
      {"--max -- x", "kivexec: --max needs a value\n"},
      {"--max 0 -- x", "kivexec: --max 0: not a number in range\n"},
      {"--timeout 1x -- x", "kivexec: --timeout 1x: not a number in range\n"},
      {"--bogus -- x",
       "kivexec: unknown option --bogus (--max, --per-ip, --timeout, --grace, --stderr)\n"},
  };
  for (auto &r : rows) {
    kt::ran got = kt::run("\"" + KIVEXEC + "\" " + r.args);
    EXPECT_EQ(got.err, r.err) << r.args;
    EXPECT_EQ(got.code, 2u) << r.args;
  }
}

}  // namespace
