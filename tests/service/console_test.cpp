// kivd.exe in console mode, driven over the real control pipe and through kivctl.exe.
#include <gtest/gtest.h>
#include <aclapi.h>
#include <sddl.h>

#include <atomic>
#include <sstream>
#include <thread>

#include "kiv_version.h"
#include "tests/support/support.h"

namespace {

using replies = std::vector<std::string>;

// Runs kivctl with the argument text (and standard input) to its end.
kt::ran kivctl(const std::string &args, const std::string &input = "") {
  return kt::run("\"" + kt::kivctl_exe() + "\" " + args, input);
}

// One kivd with an auto port and a hook port of one service whose program does not
// exist (nothing here connects to them): the pipe's access list, the protocol's reply
// texts, "quit", then kivctl's output and exit codes, and kivctl's "quit -Q" ends kivd.
TEST(Console, RepliesOverThePipeAndThroughKivctl) {
  kt::registry reg;
  std::vector<int> ports = kt::free_ports(2);
  int autoport = ports[0], hookport = ports[1];
  reg.auto_ports("svc", kt::NO_PROGRAM, {autoport});
  reg.port(hookport, "hook", "svc");
  kt::kivd daemon("-D3");
  std::string a = std::to_string(autoport), h = std::to_string(hookport);
  std::string listing = kt::port_line(autoport, "svc", "Auto");
  {
    SCOPED_TRACE("the pipe: SYSTEM and the administrators, generic read and write");
    kt::client c;
    PACL dacl = nullptr;
    PSECURITY_DESCRIPTOR sd = nullptr;
    ASSERT_EQ(GetSecurityInfo(c.h, SE_KERNEL_OBJECT, DACL_SECURITY_INFORMATION, nullptr, nullptr,
                              &dacl, nullptr, &sd),
              static_cast<DWORD>(ERROR_SUCCESS));
    std::vector<std::string> sids;
    for (DWORD i = 0; i < dacl->AceCount; i++) {
      ACCESS_ALLOWED_ACE *ace = nullptr;
      ASSERT_TRUE(GetAce(dacl, i, reinterpret_cast<void **>(&ace)));
      EXPECT_EQ(ace->Header.AceType, ACCESS_ALLOWED_ACE_TYPE);
      char *text = nullptr;
      ConvertSidToStringSidA(&ace->SidStart, &text);
      sids.push_back(text ? text : "?");
      LocalFree(text);
      // Generic read and write, or what they map to for a pipe.
      EXPECT_TRUE(ace->Mask == 0xC0000000u ||
                  (ace->Mask & (FILE_GENERIC_READ | FILE_GENERIC_WRITE)) ==
                      (FILE_GENERIC_READ | FILE_GENERIC_WRITE))
          << std::hex << ace->Mask;
    }
    EXPECT_EQ(sids, (std::vector<std::string>{"S-1-5-18", "S-1-5-32-544"}));
    LocalFree(sd);
  }
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
  EXPECT_EQ(kt::client().command("update"), replies{"+"});
  EXPECT_FALSE(daemon.wait(0));

  // kivctl, the hook port removed again: one auto port, idle.
  char number[8];
  snprintf(number, sizeof number, "%5d", autoport);
  listing = "!\n" + listing + "\n.\n";
  std::string status =
      "{\"installed\":false,\"state\":null,\"running\":true,\"pid\":" + std::to_string(daemon.pid) +
      ",\"ports\":{\"total\":1,\"idle\":1,\"serving\":0,\"disabled\":0,\"hooked\":0}}\n";
  struct {
    std::string args, out, err;
    DWORD code;
    std::string input = "";
  } runs[] = {
      // The protocol's elements as they come.
      {"--raw update", "+\n", "", 0},
      {"--raw ls", listing, "", 0},
      {"--raw info", "!\nMy UserName: " + kt::user_name() + "\n.\n", "", 0},
      {"--raw remove 7", "-Failed with code -4\n", "", 1},
      {"--raw add -p 7 -- \"two words\" x", "-Failed with code -24\n", "", 1},
      {"--raw \"\"", "", "", 0},  // an empty command gets no reply: nothing is sent
      {"--raw quit", "", "", 0},
      // For people: no framing, a table (ls in any case), errors on standard error.
      {"update", "", "", 0},
      {"LS", "PORT   SERVICE  MODE  STATE\n" + std::string(number) + "  svc      auto  idle\n", "",
       0},
      {"info", "My UserName: " + kt::user_name() + "\n", "", 0},
      {"remove 7", "", "kivctl: Failed with code -4\n", 1},
      {"--bogus ls", "", "kivctl: unknown option --bogus (--raw, --json, --version, --help)\n", 1},
      // kivctl's own options count wherever they stand before a "--", never after it.
      {"status --json", status, "", 0},
      {"status now", "", "kivctl: status takes no words\n", 1},
      {"update --raw", "+\n", "", 0},
      {"remove --json 7", "{\"ok\":false,\"error\":\"Failed with code -4\"}\n", "", 1},
      {"add -p 7 -- --json", "", "kivctl: Failed with code -24\n", 1},
      {"-- --raw update", "", "kivctl: Unknown command\n", 1},
      {"--version", std::string("kivctl ") + KIV_VERSION + "\n", "", 0},
      // Status at a glance, for people and for scripts (installed and running: dist_test.cpp).
      {"status",
       "service:  not installed\nkivd:     running, pid " + std::to_string(daemon.pid) +
           "\nports:    1 (idle 1, serving 0, disabled 0, hooked 0)\n",
       "", 0},
      {"--json status", status, "", 0},
      // For scripts: JSON (the listing's fields: listing_test.cpp).
      {"--json Ls",
       "[{\"port\":" + a +
           ",\"service\":\"svc\",\"mode\":\"auto\",\"state\":\"idle\",\"agent\":null,"
           "\"parent\":null,\"disabled_until\":null,\"until_enabled\":false,\"address\":null,"
           "\"account\":null,\"memory\":null,\"processes\":null,\"cpu\":null}]\n",
       "", 0},
      {"--json update", "{\"ok\":true}\n", "", 0},
      {"--json remove 7", "{\"ok\":false,\"error\":\"Failed with code -4\"}\n", "", 1},
      // Standard input: one command per line, blank lines skipped, CR LF taken as a line end.
      {"--raw", "+\n-Failed with code -4\n" + listing, "", 0, "update\n\n  \t\nremove 7\r\nls\n"},
      {"--raw", "+\n", "", 0, "update\n\"QUIT\" -x\nupdate\n"},  // kivd hangs up: kivctl ends
      // What kivd answers a line is the client's own rule (answer_test.cpp); the exit code
      // is the last command's.
      {"--raw", "+\n-Message too long\n+\n-Message too long\n", "", 1,
       "update\n" + std::string(5000, 'x') + "\nupdate\nquit " + std::string(600, 'x') + "\n"},
  };
  for (auto &c : runs) {
    kt::ran r = kivctl(c.args, c.input);
    std::string what = "kivctl " + c.args + (c.input.empty() ? "" : " < " + c.input.substr(0, 30));
    EXPECT_EQ(r.out, c.out) << what;
    EXPECT_EQ(r.err, c.err) << what;
    EXPECT_EQ(r.code, c.code) << what;
  }
  // The usage however a Windows user asks for it, whole, exit code 0: every command with its
  // words, kivctl's options, the exit codes. After a command word, -h is the command's.
  const std::string usage = kivctl("--help").out;
  for (const char *item :
       {"\n  ls ", "\n  why [PORT|NAME]", "\n  disable PORT", "\n  enable PORT",
        "\n  add -p PORT [-i PID]", "\n  remove PORT", "\n  reconfig ", "\n  update ", "\n  info ",
        "\n  quit [-Q]", "\n  status ", "\n  apply [--dry-run] FILE", "\n  export ", "\n  --raw ",
        "\n  --json ", "\n  --version ", "\nExit codes: 0", "\napply: 0"})
    EXPECT_NE(usage.find(item), std::string::npos) << item << " in:\n" << usage;
  for (const char *args : {"-h", "/?", "-?", "--raw --help", "ls --help", "--help -- update"}) {
    kt::ran r = kivctl(args);
    EXPECT_EQ(r.out, usage) << args;
    EXPECT_EQ(r.err, "") << args;
    EXPECT_EQ(r.code, 0u) << args;
  }
  EXPECT_EQ(kivctl("--raw ls -h").out, listing);
  // The disable command's mark is read as such whatever time zone kivctl runs in.
  ASSERT_EQ(kt::client().command("disable " + a), replies{"+"});
  SetEnvironmentVariableA("TZ", "XXX-14");
  kt::ran east = kivctl("ls");
  SetEnvironmentVariableA("TZ", nullptr);
  EXPECT_EQ(east.out, "PORT   SERVICE  MODE  STATE\n" + std::string(number) +
                          "  svc      auto  disabled until enabled\n");
  // Each argument stays one word, whatever it holds.
  kivctl("\"l s\" \"a\\\"b\" c\\d");
  EXPECT_TRUE(daemon.log_has("cmd: \"l\\ s a\\\"b c\\\\d\"")) << daemon.err();

  // A busy pipe is waited for.
  {
    kt::client a, b;
    kt::process p("\"" + kt::kivctl_exe() + "\" update");
    EXPECT_FALSE(p.wait(300));
    a.close();
    ASSERT_TRUE(p.wait(20000));
    EXPECT_EQ(p.exit_code(), 0u);
  }
  kt::ran r = kivctl("QUIT -Q");
  EXPECT_EQ(r.code, 0u);
  ASSERT_TRUE(daemon.wait(20000));
  // No kivd, no pipe; status still answers.
  r = kivctl("status");
  EXPECT_EQ(r.out, "service:  not installed\nkivd:     not running\n");
  EXPECT_EQ(r.code, 0u);
  r = kivctl("ls");
  EXPECT_EQ(r.code, 2u);
  EXPECT_EQ(r.out, "");
  EXPECT_NE(r.err.find("cannot open \\\\.\\pipe\\vesk_kivd"), std::string::npos) << r.err;
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

// A lone port whose agent cannot start rests 3 seconds; 260 idle ports of a long service
// name beside it make a long listing. The rest must end whatever the clients do and
// however many handles the port manager waits on: a client busy with commands faster than
// the loop's wait times out, a client reading a listing slowly, none at all with n handles
// (the rest leaves n of them and `die` sits at index n: at 258 that index is also the
// platform's time-out code, at 0 the loop waits on `die` and the pipe alone). Last, a
// client that never reads is hung up on while kivd serves another.
TEST(ConsoleEnd, ARestingPortComesBackWhateverTheClientsDo) {
  constexpr int IDLE = 260;
  kt::registry reg;
  std::vector<int> ports = kt::free_ports(IDLE + 1);
  int lone = ports[IDLE];
  std::string name(150, 'n');  // long lines fill the pipe's buffer, so writes wait
  reg.auto_ports(name.c_str(), kt::NO_PROGRAM, {ports.begin(), ports.begin() + IDLE});
  reg.auto_ports("lone", kt::NO_PROGRAM, {lone});
  kt::kivd d("-D3");
  std::string listening = kt::listening(lone);
  std::string resting = "Port " + std::to_string(lone) + " disabled for 3 seconds";
  ASSERT_TRUE(kt::poll([&] { return d.log_count("Listening on port ") >= IDLE + 1; }, 60000));
  kt::client c;
  int before = d.log_count(listening), rests = d.log_count(resting);
  // Connects to the lone port and waits until it rests.
  auto rest = [&] {
    before = d.log_count(listening);
    rests = d.log_count(resting);
    SOCKET s = kt::connect_to(lone);
    EXPECT_NE(s, INVALID_SOCKET);
    EXPECT_TRUE(kt::poll([&] { return d.log_count(resting) > rests; }));
    return s;
  };
  {
    SCOPED_TRACE("a busy client; the timer's update sends it nothing");
    SOCKET s = rest();
    EXPECT_TRUE(d.log_has("Waiting ... ("));
    EXPECT_TRUE(kt::poll(
        [&] {
          c.command("info");
          return d.log_count(listening) > before;
        },
        30000))
        << d.err();
    closesocket(s);
    EXPECT_EQ(c.command("info").front(), "!");
  }
  {
    SCOPED_TRACE("a slow reader");
    SOCKET s = rest();
    kt::client slow;
    ASSERT_TRUE(slow.send("ls"));
    // Back after its 3 s and the wait's extra second, long before the listing is read.
    bool back = false;
    for (int read = 0; read < 12 && !back; read++) {
      Sleep(700);
      EXPECT_NE(slow.receive().substr(0, 6), "<error");
      back = d.log_count(listening) > before;
    }
    EXPECT_TRUE(back) << "the port stayed at rest while the client read";
    closesocket(s);
  }
  int disabled = 0;
  for (int handles : {260, 259, 258, 257, 0}) {
    SCOPED_TRACE(std::to_string(handles) + " port-manager handles while the port rests");
    while (IDLE - disabled > handles)
      ASSERT_EQ(c.command("disable " + std::to_string(ports[disabled++])), replies{"+"});
    SOCKET s = rest();
    EXPECT_TRUE(kt::poll([&] { return d.log_count(listening) > before; }, 30000)) << d.err();
    closesocket(s);
    ASSERT_EQ(WaitForSingleObject(d.h, 0), static_cast<DWORD>(WAIT_TIMEOUT)) << d.err();
  }
  {
    SCOPED_TRACE("a client that never reads");
    kt::client flood;
    std::atomic<int> sent{0};
    std::atomic<bool> stopped{false};
    std::thread sender([&] {
      while (sent < 20000 && flood.send("ls")) sent++;
      stopped = true;
    });
    EXPECT_TRUE(kt::poll([&] { return sent >= 10 || stopped; }));  // the flood is under way
    EXPECT_EQ(c.command("ls").size(), IDLE + 3u);
    EXPECT_TRUE(flood.hung_up(60000)) << d.err();
    EXPECT_TRUE(d.log_has("does not read its replies"));
    replies own = c.command("why");  // kivd's own events
    EXPECT_EQ(own.size() > 2 ? own[own.size() - 2].substr(0, 4) : "", "301\t");
    EXPECT_EQ(c.command("ls").size(), IDLE + 3u);
    c.close();
    EXPECT_EQ(d.log_count("RIP!"), 0);
    d.quit();  // also unblocks the sender if the hang-up never came
    sender.join();
  }
  EXPECT_EQ(d.log_count("RIP!"), 1);
}

// Each cause, through kivd.exe and kivctl: the event's sentence and the next step.
TEST(Console, WhyTellsWhatHappenedAndWhatComesNext) {
  kt::registry reg;
  std::vector<int> p = kt::free_ports(5);
  unsigned bound = static_cast<unsigned>(p[0]);
  SOCKET blocker = kt::listen_on(&bound);
  ASSERT_NE(blocker, INVALID_SOCKET);
  reg.auto_ports("taken", kt::NO_PROGRAM, {p[0]});
  reg.auto_ports("gone", kt::NO_PROGRAM, {p[1]});
  reg.port(p[2], "auto", "bare");
  reg.auto_ports("crash", "\"" + kt::testagent_exe() + "\" -V", {p[3]});
  reg.auto_ports("calm", kt::NO_PROGRAM, {p[4]});
  kt::kivd daemon("-D3");
  ASSERT_TRUE(daemon.log_has(kt::listening(p[4])));
  for (int port : {p[1], p[2], p[3]}) closesocket(kt::connect_to(port));
  EXPECT_EQ(kivctl("disable " + std::to_string(p[4])).code, 0u);
  std::string a = std::to_string(p[0]);
  struct {
    int port;
    std::string said, next;
  } cases[] = {
      {p[0], "Port " + a + " of service taken could not be listened on: ", "Next: resting until "},
      {p[1], "The agent of service gone could not be started for port " + std::to_string(p[1]),
       "Next: resting until "},
      {p[2], "Service bare has no program configured: ",
       "Next: not serving the port until a program is configured"},
      {p[3], "ended by exception 0xC0000005. The port rests until ", "Next: resting until "},
      {p[4], "Port " + std::to_string(p[4]) + " of service calm was disabled",
       "Next: disabled until enabled"},
  };
  for (auto &c : cases) {
    std::string port = std::to_string(c.port);
    // "!", the event, the port's state now, ".".
    ASSERT_TRUE(kt::poll([&] { return kt::client().command("why " + port).size() > 3; }))
        << port << daemon.err();
    kt::ran r = kivctl("why " + port);
    std::vector<std::string> lines;
    std::istringstream out(r.out);
    for (std::string line; std::getline(out, line);) lines.push_back(line);
    ASSERT_GE(lines.size(), 2u) << r.out;
    const std::string &last = lines[lines.size() - 2];
    EXPECT_NE(last.find(c.said), std::string::npos) << r.out;
    EXPECT_NE(last.find(c.next), std::string::npos) << r.out;
    EXPECT_NE(lines.back().find("  now      Port " + port + " "), std::string::npos) << r.out;
  }
  kt::ran j = kivctl("why --json " + a);
  EXPECT_EQ(j.out.substr(0, 25), "[{\"number\":101,\"time\":\"20") << j.out;
  EXPECT_NE(j.out.find("\"severity\":\"error\""), std::string::npos) << j.out;
  EXPECT_NE(j.out.find("\"fields\":{\"port\":" + a + ",\"service\":\"taken\",\"syserror\":"),
            std::string::npos)
      << j.out;
  kt::ran st = kivctl("status");
  EXPECT_NE(st.out.find("port " + a + ":  disabled until "), std::string::npos) << st.out;
  EXPECT_EQ(kivctl("why 7").err, "kivctl: Failed with code -4\n");
  closesocket(blocker);
}

}  // namespace
