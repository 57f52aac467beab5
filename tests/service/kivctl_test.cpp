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
  reg.auto_ports("svc", kt::NO_PROGRAM, {port});
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
      {"ls", "PORT   SERVICE  MODE  STATE\n" + std::string(number) + "  svc      auto  idle\n", "",
       0},
      {"info", "My UserName: " + kt::user_name() + "\n", "", 0},
      {"remove 7", "", "kivctl: Failed with code -4\n", 1},
      {"--bogus ls", "", "kivctl: unknown option --bogus (--raw, --json, --version)\n", 1},
      {"status --json", "",
       "kivctl: status takes no words (options go first: kivctl --json status)\n", 1},
  };
  for (auto &c : cases) {
    result r = kivctl(c.args);
    EXPECT_EQ(r.out, c.out) << "kivctl " << c.args;
    EXPECT_EQ(r.err, c.err) << "kivctl " << c.args;
    EXPECT_EQ(r.code, c.code) << "kivctl " << c.args;
  }
  EXPECT_EQ(kivctl("--version").out, std::string("kivctl ") + KIV_VERSION + "\n");
  // Status at a glance, for people and for scripts.
  EXPECT_EQ(kivctl("status").out, "service:  not installed\nkivd:     running, pid " +
                                      std::to_string(d.pid) +
                                      "\nports:    1 (idle 1, serving 0, disabled 0, hooked 0)\n");
  {
    kj::reader r(kivctl("--json status").out);
    kj::value st = r.parse();
    ASSERT_TRUE(r.ok());
    EXPECT_FALSE(st["installed"].boolean);  // installed and running: dist_test.cpp
    EXPECT_EQ(st["ports"]["idle"].number, 1);
  }
  // For scripts: JSON, read back.
  result j = kivctl("--json ls");
  kj::reader listed(j.out);
  kj::value v = listed.parse();
  ASSERT_TRUE(listed.ok()) << j.out;
  ASSERT_EQ(v.items.size(), 1u) << j.out;
  EXPECT_EQ(v.items[0]["port"].number, port);  // the fields: listing_test.cpp
  for (auto [args, ok, code] :
       {std::tuple{"--json update", true, 0u}, {"--json remove 7", false, 1u}}) {
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
  r = kivctl("--raw", "update\n\"QUIT\" -x\nupdate\n");  // kivd hangs up: kivctl ends
  EXPECT_EQ(r.out, "+\n");
  EXPECT_EQ(r.code, 0u);
  // What kivd answers a line is the client's own rule (answer_test.cpp); the exit code is
  // the last command's.
  r = kivctl("--raw", "update\n" + std::string(5000, 'x') + "\nupdate\nquit " +
                          std::string(600, 'x') + "\n");
  EXPECT_EQ(r.out, "+\n-Message too long\n+\n-Message too long\n");
  EXPECT_EQ(r.code, 1u);

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
