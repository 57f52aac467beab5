// kivctl.exe against a running kivd: its output and exit codes.
#include <gtest/gtest.h>

#include "kiv_version.h"
#include "tests/support/support.h"
#include "tests/apply/json.h"

namespace {

using result = kt::ran;

// Runs kivctl with the argument text (and standard input) to its end.
result kivctl(const std::string &args, const std::string &input = "") {
  return kt::run("\"" + kt::kivctl_exe() + "\" " + args, input);
}

TEST(Kivctl, RepliesAndExitCodes) {
  kt::registry reg;
  int port = kt::free_port();
  reg.service("svc", "C:\\no\\such\\agent.exe");
  reg.port(port, "auto", "svc");
  kt::kivd d("-D3");
  std::string listing = "!\n" + kt::port_line(port, "svc", "Auto") + "\n.\n";
  char number[8];
  snprintf(number, sizeof number, "%5d", port);
  struct {
    std::string args;
    std::string out, err;
    DWORD code;
  } cases[] = {
      // The protocol's elements as they come.
      {"--raw update", "+\n", "", 0},
      {"--raw ls", listing, "", 0},
      {"--raw info", "!\nMy UserName: " + kt::user_name() + "\n.\n", "", 0},
      {"--raw remove 7", "-Failed with code -4\n", "", 1},
      {"--raw add -p 7 -- \"two words\" x", "-Failed with code -24\n", "", 1},
      {"--raw \"\"", "", "", 0},  // an empty command gets no reply: nothing is sent
      {"--raw quit", "", "", 0},
      // For people: no framing, a table, errors on standard error.
      {"update", "", "", 0},
      {"ls", "PORT   SERVICE  MODE  STATE\n" + std::string(number) + "  svc      auto  idle\n", "", 0},
      {"info", "My UserName: " + kt::user_name() + "\n", "", 0},
      {"remove 7", "", "kivctl: Failed with code -4\n", 1},
      {"--bogus ls", "", "kivctl: unknown option --bogus (--raw, --json, --version)\n", 1},
      {"status --json", "", "kivctl: status takes no words (options go first: kivctl --json status)\n", 1},
  };
  for (auto &c : cases) {
    result r = kivctl(c.args);
    EXPECT_EQ(r.out, c.out) << "kivctl " << c.args;
    EXPECT_EQ(r.err, c.err) << "kivctl " << c.args;
    EXPECT_EQ(r.code, c.code) << "kivctl " << c.args;
  }
  EXPECT_EQ(kivctl("--version").out, std::string("kivctl ") + KIV_VERSION + "\n");
  // Every executable carries the version, read back from its resource.
  for (const std::string &exe : {kt::kivd_exe(), kt::kivctl_exe(), kt::build_dir() + "\\agent\\echo-agent.exe"}) {
    DWORD ignored = 0, size = GetFileVersionInfoSizeA(exe.c_str(), &ignored);
    ASSERT_GT(size, 0u) << exe;
    std::vector<char> info(size);
    ASSERT_TRUE(GetFileVersionInfoA(exe.c_str(), 0, size, info.data())) << exe;
    for (auto [name, want] : {std::pair<const char *, std::string>{"FileVersion", KIV_VERSION},
                              {"ProductVersion", KIV_VERSION}, {"CompanyName", "Orvane"},
                              {"ProductName", "kivd"}}) {
      char *value = nullptr;
      UINT length = 0;
      std::string key = std::string("\\StringFileInfo\\040904B0\\") + name;
      ASSERT_TRUE(VerQueryValueA(info.data(), key.c_str(), reinterpret_cast<void **>(&value), &length)) << exe << " " << name;
      EXPECT_EQ(std::string(value), want) << exe << " " << name;
    }
  }
  // Status at a glance, for people and for scripts.
  EXPECT_EQ(kivctl("status").out, "service:  not installed\nkivd:     running, pid " + std::to_string(d.pid) +
                                      "\nports:    1 (idle 1, serving 0, disabled 0, hooked 0)\n");
  {
    kj::reader r(kivctl("--json status").out);
    kj::value st = r.parse();
    ASSERT_TRUE(r.ok());
    EXPECT_FALSE(st["installed"].boolean);
    EXPECT_TRUE(st["running"].boolean);
    EXPECT_EQ(st["pid"].number, d.pid);
    EXPECT_EQ(st["ports"]["total"].number, 1);
    EXPECT_EQ(st["ports"]["idle"].number, 1);
  }
  // For scripts: JSON, read back.
  result j = kivctl("--json ls");
  kj::reader listed(j.out);
  kj::value v = listed.parse();
  ASSERT_TRUE(listed.ok()) << j.out;
  ASSERT_EQ(v.items.size(), 1u) << j.out;
  EXPECT_EQ(v.items[0]["port"].number, port);
  EXPECT_EQ(v.items[0]["service"].text, "svc");
  EXPECT_EQ(v.items[0]["state"].text, "idle");
  EXPECT_EQ(v.items[0]["agent"].kind, kj::value::NUL);
  for (auto [args, ok, code] : {std::tuple{"--json update", true, 0u}, {"--json remove 7", false, 1u}}) {
    j = kivctl(args);
    kj::reader r(j.out);
    kj::value o = r.parse();
    ASSERT_TRUE(r.ok()) << j.out;
    EXPECT_EQ(o["ok"].boolean, ok) << args;
    EXPECT_EQ(j.code, code) << args;
  }
  // Each argument stays one word, whatever it holds.
  kivctl("\"l s\" \"a\\\"b\" c\\d");
  EXPECT_TRUE(d.log_has("cmd: \"l\\ s a\\\"b c\\\\d\"")) << d.err();

  // Standard input: one command per line, blank lines skipped, CR LF taken as a line end.
  result r = kivctl("--raw", "update\n\n  \t\nremove 7\r\nls\n");
  EXPECT_EQ(r.out, "+\n-Failed with code -4\n" + listing);
  EXPECT_EQ(r.code, 0u);
  r = kivctl("--raw", "update\nquit\nupdate\n");
  EXPECT_EQ(r.out, "+\n");
  EXPECT_EQ(r.code, 0u);
  r = kivctl("--raw", "update\n" + std::string(5000, 'x') + "\nupdate\n");
  EXPECT_EQ(r.out, "+\n-Message too long\n+\n");

  // kivctl splits a line as the server does: no wait for a reply that cannot come, a
  // hang-up where quit is meant, the "-" reply where the server refuses the line.
  std::string words20 = "quit";
  for (int i = 0; i < 19; i++) words20 += " w";
  std::string words21 = words20 + " w";
  struct {
    std::string input, out;
    DWORD code;
  } lines[] = {
      {"\"\"\nupdate\n", "+\n", 0},
      {"\"quit\"\nupdate\n", "", 0},
      {"QUIT\nupdate\n", "", 0},
      {"Quit -x\nupdate\n", "", 0},
      {words20 + "\nupdate\n", "", 0},
      {words21 + "\n", "-Too many words\n", 1},
      {"quit " + std::string(600, 'x') + "\n", "-Message too long\n", 1},
  };
  for (auto &c : lines) {
    result l = kivctl("--raw", c.input);
    EXPECT_EQ(l.out, c.out) << c.input;
    EXPECT_EQ(l.code, c.code) << c.input << l.err;
  }

  // A busy pipe is waited for.
  {
    kt::client a, b;
    kt::process p("\"" + kt::kivctl_exe() + "\" update");
    EXPECT_FALSE(p.wait(300));
    a.close();
    ASSERT_TRUE(p.wait(20000));
    EXPECT_EQ(p.exit_code(), 0u);
  }
  r = kivctl("QUIT -Q");
  EXPECT_EQ(r.code, 0u);
  ASSERT_TRUE(d.wait(20000));
  // No kivd, no pipe; status still answers.
  r = kivctl("status");
  EXPECT_EQ(r.out, "service:  not installed\nkivd:     not running\n");
  EXPECT_EQ(r.code, 0u);
  r = kivctl("ls");
  EXPECT_EQ(r.code, 2u);
  EXPECT_EQ(r.out, "");
  EXPECT_NE(r.err.find("cannot open \\\\.\\pipe\\vesk_kivd"), std::string::npos) << r.err;
}

}  // namespace
