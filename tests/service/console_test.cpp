// kivd.exe in console mode, driven over the real control pipe.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "tests/support/support.h"

namespace {

using replies = std::vector<std::string>;

// One kivd with an auto port and a hook port of one service whose program does not
// exist (nothing here connects to them): the protocol's reply texts, then "quit".
TEST(Console, EveryCommandAndReply) {
  kt::registry reg;
  std::vector<int> ports = kt::free_ports(2);
  int autoport = ports[0], hookport = ports[1];
  reg.auto_ports("svc", kt::NO_PROGRAM, {autoport});
  reg.port(hookport, "hook", "svc");
  kt::kivd daemon("-D3");
  std::string a = std::to_string(autoport), h = std::to_string(hookport);
  std::string listing = kt::port_line(autoport, "svc", "Auto");
  struct {
    std::string line;
    replies want;
  } cases[] = {
      {"Info me", {"!", "My UserName: " + kt::user_name(), "."}},
      {"ls", {"!", listing, "."}},
      {"reconfig", {"+"}},
      // Blank lines get no reply: the next reply on the pipe belongs to the next command.
      {"", {}},
      {" ", {}},
      {"\t \t", {}},
      {"\"\"", {}},
      {"update", {"+"}},
      {"quit\n", {"-Unknown command"}},
      {"lsx", {"-Unknown command"}},  // no prefix of a command is taken for it
      {"l", {"-Unknown command"}},
      {"\t  Ls extra words", {"!", listing, "."}},
      {"remove", {"-Usage: remove port"}},
      {"remove 0", {"-Usage: remove port"}},
      {"disable", {"-Usage: disable port"}},
      {"enable x", {"-Usage: enable port"}},
      {"remove " + a, {"-Failed with code -24"}},
      {"remove 7", {"-Failed with code -4"}},
      {"disable 7", {"-Failed with code -4"}},
      {"enable 7", {"-Failed with code -4"}},
      {"add", {"-Usage: add -p port [-i pid] -- extra_args"}},
      {"add -p 7", {"-Failed with code -24"}},
      {"add -p " + h + " -i 999999", {"-Failed with code -12"}},
      {"DISABLE " + a, {"+"}},
      {"Enable\t" + a, {"+"}},
      {"ADD -p " + h + " -- prog \"two words\" -v", {"+"}},
      // The listing is in port order.
      {"ls", hookport < autoport
                 ? replies{"!", kt::port_line(hookport, "svc", "Hook"), listing, "."}
                 : replies{"!", listing, kt::port_line(hookport, "svc", "Hook"), "."}},
      {"disable " + h, {"-Failed with code -24"}},
      {"remove " + h, {"+"}},
      {"w1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 20 21", {"-Too many words"}},
      {"ls 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 20", {"!", listing, "."}},
      {"ls" + std::string(510, ' '), {"!", listing, "."}},
      {"ls" + std::string(511, ' '), {"-Message too long"}},
  };
  {
    kt::client c;
    for (auto &k : cases) {
      if (k.want.empty())
        ASSERT_TRUE(c.send(k.line));
      else
        EXPECT_EQ(c.command(k.line), k.want) << "sent: [" << k.line.substr(0, 60) << "]";
    }
  }
  EXPECT_TRUE(daemon.log_has("cmd: \"lsx\""));
  // "quit" hangs up; only a capital -Q stops kivd.
  for (const char *quit : {"quit", "QUIT -q"}) {
    kt::client c;
    ASSERT_TRUE(c.send(quit));
    EXPECT_TRUE(c.hung_up()) << quit;
  }
  kt::client c;
  EXPECT_EQ(c.command("update"), replies{"+"});
  EXPECT_FALSE(daemon.wait(0));
}

TEST(ConsoleEnd, NoOptionsAndOnlyBRunInTheForeground) {
  kt::registry reg;
  for (const char *options : {"", "-B", "-X -B"}) {
    kt::kivd d(options);
    kt::client c;
    EXPECT_EQ(c.command("update"), replies{"+"}) << options;
    d.quit();
    EXPECT_EQ(d.exit_code(), 0u);
    EXPECT_EQ(d.err(), "") << options;  // no debug spec, no log lines
  }
}

// A lone port whose agent cannot start is off for 3 seconds. A client that keeps the loop
// busy with commands faster than its wait can time out must not keep the port off, and
// the timer's "update" sends nothing to that client.
TEST(ConsoleEnd, ABusyClientDoesNotKeepALonePortOff) {
  kt::registry reg;
  int port = kt::free_port();
  reg.auto_ports("lone", kt::NO_PROGRAM, {port});
  kt::kivd d("-D3");
  std::string listening = kt::listening(port);
  ASSERT_TRUE(d.log_has(listening));
  kt::client busy;
  SOCKET s = kt::connect_to(port);
  ASSERT_NE(s, INVALID_SOCKET);
  EXPECT_TRUE(d.log_has("Port " + std::to_string(port) + " disabled for 3 seconds"));
  EXPECT_TRUE(d.log_has("Waiting ... ("));
  EXPECT_TRUE(kt::poll(
      [&] {
        busy.command("info");
        return d.log_count(listening) >= 2;
      },
      30000))
      << d.err();
  closesocket(s);
  EXPECT_EQ(busy.command("info").front(), "!");
  SOCKET again = kt::connect_to(port);
  EXPECT_NE(again, INVALID_SOCKET);
  closesocket(again);
}

// A port at rest after a failed launch leaves n handles of the port manager, and `die`
// sits at index n. At n = 258 that index is also the platform's time-out code: the rest's
// end must run the timer, not stop kivd; at n = 0 the loop waits on nothing but `die` and
// the pipe and must still wake when the rest is up. One kivd, the count set by disabling
// ports.
TEST(ConsoleEnd, TheTimerIsNeverTakenForStopAtAnyHandleCount) {
  constexpr int IDLE = 260;
  kt::registry reg;
  std::vector<int> ports = kt::free_ports(IDLE + 1);
  int lone = ports[IDLE];
  reg.auto_ports("idle", kt::NO_PROGRAM, {ports.begin(), ports.begin() + IDLE});
  reg.auto_ports("lone", kt::NO_PROGRAM, {lone});
  kt::kivd d("-D3");
  std::string listening = kt::listening(lone);
  ASSERT_TRUE(kt::poll([&] { return d.log_count("Listening on port ") >= IDLE + 1; }, 60000));
  kt::client c;
  int disabled = 0;
  for (int handles : {260, 259, 258, 257, 0}) {
    SCOPED_TRACE(std::to_string(handles) + " port-manager handles while the port rests");
    while (IDLE - disabled > handles)
      ASSERT_EQ(c.command("disable " + std::to_string(ports[disabled++])), replies{"+"});
    int before = d.log_count(listening);
    SOCKET s = kt::connect_to(lone);
    ASSERT_NE(s, INVALID_SOCKET);
    EXPECT_TRUE(kt::poll([&] { return d.log_count(listening) > before; }, 30000)) << d.err();
    closesocket(s);
    ASSERT_EQ(WaitForSingleObject(d.h, 0), static_cast<DWORD>(WAIT_TIMEOUT)) << d.err();
  }
  EXPECT_EQ(d.log_count("RIP!"), 0);
  d.quit();
  EXPECT_EQ(d.log_count("RIP!"), 1);
}

// A client that reads a long listing slowly, each message well within the loop's wait,
// must not hold the timer off: the resting port comes back while it still reads.
TEST(ConsoleEnd, ASlowReaderDoesNotHoldTheTimerOff) {
  kt::registry reg;
  std::vector<int> ports = kt::free_ports(31);
  std::string name(150, 'n');  // long lines fill the pipe's buffer, so writes wait
  reg.auto_ports(name.c_str(), kt::NO_PROGRAM, {ports.begin(), ports.begin() + 30});
  reg.auto_ports("lone", kt::NO_PROGRAM, {ports[30]});
  kt::kivd d("-D3");
  std::string listening = kt::listening(ports[30]);
  ASSERT_TRUE(d.log_has(listening));
  SOCKET s = kt::connect_to(ports[30]);
  ASSERT_NE(s, INVALID_SOCKET);
  ASSERT_TRUE(d.log_has("Port " + std::to_string(ports[30]) + " disabled for 3 seconds"));
  kt::client slow;
  ASSERT_TRUE(slow.send("ls"));
  // Back after its 3 s and the wait's extra second; a listing of 32 lines of ~170 bytes
  // keeps writes waiting on the reader for its first 25 or so messages.
  bool back = false;
  for (int read = 0; read < 12 && !back; read++) {
    Sleep(700);
    EXPECT_NE(slow.receive().substr(0, 6), "<error");
    back = d.log_count(listening) >= 2;
  }
  EXPECT_TRUE(back) << "the port stayed at rest while the client read";
  closesocket(s);
}

// A client that sends "ls" again and again without reading is hung up on once its
// queue is full; kivd serves another client throughout.
TEST(ConsoleEnd, AClientThatNeverReadsIsHungUpOn) {
  kt::registry reg;
  std::vector<int> ports = kt::free_ports(100);
  reg.auto_ports("idle", kt::NO_PROGRAM, ports);
  kt::kivd d("-D3");
  ASSERT_TRUE(kt::poll([&] { return d.log_count("Listening on port ") >= 100; }, 60000));
  kt::client flood;
  std::atomic<int> sent{0};
  std::atomic<bool> stopped{false};
  std::thread sender([&] {
    while (sent < 20000 && flood.send("ls")) sent++;
    stopped = true;
  });
  EXPECT_TRUE(kt::poll([&] { return sent >= 10 || stopped; }));  // the flood is under way
  kt::client other;
  double begin = kt::now_ms();
  replies ls = other.command("ls");
  printf("[ measured ] another client's ls of 100 ports during the flood: %.1f ms\n",
         kt::now_ms() - begin);
  EXPECT_EQ(ls.size(), 102u);
  EXPECT_TRUE(flood.hung_up(60000)) << d.err();
  EXPECT_TRUE(d.log_has("does not read its replies"));
  EXPECT_EQ(other.command("ls").size(), 102u);
  d.quit();  // also unblocks the sender if the hang-up never came
  sender.join();
}

}  // namespace
