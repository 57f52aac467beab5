// kivctl apply's file check (errors with their lines), its comparison with the registry's
// configuration and the export that reads back as the same configuration.
#include <string>
#include <vector>

#include "tests/lib/testing.h"
#include "toolkit/config/schema.h"
#include "tools/kivctl/applycfg.h"

namespace {

// Reads text as `kivctl apply` reads a file (written byte for byte, opened in binary):
// the refusal's message, "" when the text is taken; the result code must say the same.
std::string read_text(const std::string &text, applycfg *cfg) {
  FILE *f = fopen(tempfile("apply.cfg", text).c_str(), "rb");
  char *error = nullptr;
  int rc = applycfg_read(f, cfg, &error);
  fclose(f);
  std::string out = error ? error : "";
  xfree(error);
  EXPECT_EQ(rc, out.empty() ? 0 : -1) << text;
  return out;
}

const std::string SVC = "services.e:\n\tprogram = x\n";  // two lines

// Each value's texts are judged alike by the port manager's reading and by apply's check
// of a file that gives the text at "@" ("-": leaves the value out) and is otherwise
// valid: what apply refuses, kivd cannot use.
TEST(ApplyCfg, ValuesJudgedAsThePortManagerReadsThem) {
  std::string program(256, 'p'), line(32766, 'p'), name(234, 'n'), most(231, 'n');
  // The port manager finds the service at ".services.<name>" with "." made "_", letter
  // case ignored.
  std::string port = SVC + "tcp.s1:\n",
              relay = "services.Mail_Relay:\n\tprogram = x\ntcp.S65534:\n";
  std::string prog = "global.start.g:\n\tprogram = p\n";
  std::string top = "services:\n" + SVC, dflt = schema_values[SCHEMA_SERVICE_LIFESPAN].fallback;
  struct row {
    int value;
    std::string file;
    std::vector<std::string> taken, refused;
  } rows[] = {
      {SCHEMA_PORT_START, port + "\tservice = e\n@", {"auto", "on", "hook"}, {"Auto", "off", "-"}},
      {SCHEMA_PORT_SERVICE, relay + "\tstart = on\n@", {"mail.relay"}, {"", name, "-"}},
      {SCHEMA_PORT_ADDRESS,
       port + "\tservice = e\n\tstart = auto\n@",
       {"127.0.0.1", "0.0.0.0", "::1", "::", "fe80::1%12", "::ffff:127.0.0.1", "-"},
       {"", "localhost", "127.0.0.1:7007", "[::1]", "1.2.3.4.5", "fe80::1%", "1::2::3",
        std::string(64, '1')}},
      {SCHEMA_SERVICE_PROGRAM, "services.e:\n@", {program}, {program + "p", "", "-"}},
      {SCHEMA_SERVICE_LIFESPAN, top + "@", {"0", "4294967", "0000060", dflt, "-"}, {"00000060"}},
      {SCHEMA_SERVICE_LIFESPAN, SVC + "@", {}, {"4294968", "+60", ""}},
      {SCHEMA_PROGRAM_START, "global.start.g:\n\tprogram = p\n@", {"ON", "off", "-"}, {"yes"}},
      {SCHEMA_PROGRAM_PROGRAM, "global.start." + most + ":\n@", {line}, {line + "p", "", "-"}},
      {SCHEMA_SERVICE_ACCOUNT,
       SVC + "@",
       {"system", "LocalService", "networkservice", "RESTRICTED", "-"},
       {"admin", "local service", "LocalServic", ""}},
      {SCHEMA_SERVICE_MEMORY, SVC + "@", {"1", "64", "1048576", "-"}, {"0", "1048577", "64M", ""}},
      {SCHEMA_SERVICE_PROCESSES, SVC + "@", {"1", "10", "65536", "-"}, {"0", "65537", "-1"}},
      {SCHEMA_SERVICE_CPU, SVC + "@", {"1", "100", "-"}, {"0", "101", "50%"}},
      {SCHEMA_PROGRAM_ACCOUNT, prog + "@", {"localSERVICE", "-"}, {"nobody"}},
      {SCHEMA_PROGRAM_MEMORY, prog + "@", {"64", "65537", "1048576", "-"}, {"0", "1048577"}},
      {SCHEMA_PROGRAM_PROCESSES, prog + "@", {"10", "-"}, {"0"}},
      {SCHEMA_PROGRAM_CPU, prog + "@", {"100", "-"}, {"101"}},
      {SCHEMA_GLOBAL_METRICS,
       "global:\n@",
       {"C:\\metrics\\kivd.prom", "", std::string(240, 'p'), "-"},
       {std::string(241, 'p')}},
  };
  for (const row &r : rows)
    for (bool taken : {true, false})
      for (const std::string &text : taken ? r.taken : r.refused) {
        const schema_value &v = schema_values[r.value];
        SCOPED_TRACE(std::string(v.name) + " = " + text.substr(0, 20));
        EXPECT_EQ(taken, text == "-" ? !v.required : kivschema_judge(v, text.c_str()) >= 0);
        std::string file = r.file, given = "\t" + std::string(v.name) + " = " + text + "\n";
        file.replace(file.find('@'), 1, text == "-" ? "" : given);
        applycfg cfg;
        EXPECT_EQ(taken, read_text(file, &cfg).empty());
      }
}

TEST(ApplyCfg, RefusesWithTheLineAndTheMessage) {
  struct refusal {
    std::string text, error;
  };
  std::vector<refusal> cases = {
      // The parser's own refusals (its table: conf_test.cpp) come through unchanged.
      {"port = 25\n", "1: \":\" expected"},
      {SVC + "\tdescription = \"open\n", "3: missing end quote"},
      // Port keys: one spelling of a number from 1 to 65534 (more in the loop below).
      {SVC + "\n# comment\ntcp.s0:\n\tstart = auto\n\tservice = e\n",
       "5: bad port s0 (s and a number from 1 to 65534)"},
      // A fault of each kind of value (which texts: the table above).
      {SVC + "tcp.s25:\n\tservice = e\n", "3: port 25 has no start mode"},
      {SVC + "tcp.s25:\n\tstart = on\n\tservice = f\n", "5: service f of port 25 is not given"},
      {SVC + "tcp.s25:\n\tstart = on\n\tservice = e\n\taddress = localhost\n",
       "6: address localhost of port 25 is not a numeric IPv4 or IPv6 address"},
      {"services.e:\n\tprogram =\n", "2: service e has no program"},
      {"services.e:\n\tprogram = " + std::string(257, 'p') + "\n",
       "2: program of service e is longer than 256 characters"},
      {SVC + "\tlifespan = 1d\n",
       "3: lifespan 1d of service e is not a number of seconds from 0 to 4294967"},
      {"services." + std::string(234, 'n') + ":\n\tprogram = x\n",
       "1: name too long (234 characters, at most 233)"},
      {SVC + "\taccount = admin\n", "3: unknown account admin for service e"},
      {SVC + "\tmemory = 0\n",
       "3: memory 0 of service e is not a number of megabytes from 1 to 1048576"},
      {"global.start.g:\n\tprogram = p\n\tcpu = 101\n",
       "3: cpu 101 of global program g is not a number of percent from 1 to 100"},
      {"global:\n\tmetrics = " + std::string(241, 'p') + "\n",
       "2: monitoring file of the global key is longer than 240 characters"},
      {"global:\n\tmetrics = \"C:/k\\tprom\"\n",
       "2: monitoring file of the global key holds a control character"},
      // Anything else is refused rather than written where nothing reads it.
      {SVC + "\tprogam = y\n", "3: unknown value progam in services.e"},
      {SVC + "tcp:\n\tx = 1\n", "4: unknown value x in tcp"},
      {SVC + "tcp.s25.extra:\n", "3: unknown section tcp.s25.extra"},
      {"foo:\n", "1: unknown section foo"},
      {"global:\n\tmetric = m\n", "2: unknown value metric in global"},
      {"global.metrics:\n\tx = 1\n", "1: unknown section global.metrics"},
      {"\tx = 1\n", "1: unknown entry x"},
      {SVC + "\tPROGRAM = y\n", "3: value services.e.PROGRAM given twice"},
      // Lines are counted with CR LF ends and without a final line feed alike.
      {"services.e:\r\n\tprogram = x\r\n\r\ntcp.s25:\r\n\tstart = bad\r\n\tservice = e\r\n",
       "5: unknown start mode bad for port 25"},
      {SVC + "tcp.s25:\n\tservice = e\n\tstart = bad", "5: unknown start mode bad for port 25"},
      // The first fault by line wins, whatever the order of keys.
      {"tcp.s25:\n\tstart = auto\nservices.e:\n\tprogram = x\n\tbogus = 1\n",
       "1: port 25 has no service"},
  };
  for (std::string port : {"s65535", "s025", "p25", "s25x"})
    cases.push_back({SVC + "tcp." + port + ":\n\tstart = auto\n\tservice = e\n",
                     "3: bad port " + port + " (s and a number from 1 to 65534)"});
  for (auto &c : cases) {
    applycfg cfg;
    EXPECT_EQ(read_text(c.text, &cfg), c.error) << c.text;
    EXPECT_TRUE(cfg.keys.empty()) << c.text;
  }
}

TEST(ApplyCfg, TakesWhatThePortManagerReads) {
  for (const char *empty : {"", "# nothing\n\n"}) {
    applycfg cfg;
    EXPECT_EQ(read_text(empty, &cfg), "") << empty;
  }
  applycfg cfg;
  ASSERT_EQ(read_text("tcp.s25:\n\tService = Echo\n\tstart = on\nservices.Echo:\n\tProgram = a b\n",
                      &cfg),
            "");
  // Value names are written as the port manager names them; key names as the file has them.
  EXPECT_EQ(cfg.keys.at("services.echo").name, "services.Echo");
  EXPECT_EQ(cfg.keys.at("services.echo").values.at("program").name, "program");
  EXPECT_EQ(cfg.keys.at("services.echo").values.at("program").text, "a b");
  EXPECT_EQ(cfg.keys.at("tcp.s25").values.at("service").text, "Echo");
  // kivd's own values sit in the global key itself, beside the global programs' folder.
  applycfg global;
  ASSERT_EQ(
      read_text("global:\n\tMetrics = C:\\m\\kivd.prom\nglobal.start.g:\n\tprogram = p\n", &global),
      "");
  EXPECT_EQ(global.keys.at("global").values.at("metrics").name, "metrics");
  EXPECT_EQ(global.keys.at("global").values.at("metrics").text, "C:\\m\\kivd.prom");
  EXPECT_EQ(global.keys.at("global.start.g").values.at("program").text, "p");
}

applycfg model(std::initializer_list<std::pair<const char *, const char *>> values) {
  applycfg cfg;
  for (auto &v : values) applycfg_add(&cfg, v.first, v.second, 0);
  return cfg;
}

std::string joined(const std::vector<std::string> &lines) {
  std::string out;
  for (auto &l : lines) out += l + "\n";
  return out;
}

TEST(ApplyCfg, DiffNamesWhatIsAddedChangedAndRemoved) {
  applycfg old = model({{"tcp.s25", nullptr},
                        {"tcp.s25.start", "auto"},
                        {"tcp.s25.service", "e"},
                        {"services.e.program", "x"},
                        {"services.e.description", "d"},
                        {"global.start", nullptr},
                        {"tcp.s9", nullptr}});
  applycfg next = model({{"tcp.s25.start", "on"},
                         {"TCP.S25.SERVICE", "e"},
                         {"services.e.program", "x"},
                         {"services.e.lifespan", "60"},
                         {"tcp.s26.start", "auto"},
                         {"tcp.s26.service", "e"}});
  EXPECT_EQ(joined(applycfg_diff(old, next)),
            "remove services.e.description\n"
            "add services.e.lifespan = 60\n"
            "change tcp.s25.start = on (was auto)\n"
            "add tcp.s26.service = e\n"
            "add tcp.s26.start = auto\n");
  EXPECT_EQ(joined(applycfg_diff(next, next)), "");
  // Keys without values (the folders, an emptied port) mean nothing to the port manager.
  EXPECT_EQ(joined(applycfg_diff(model({{"tcp", nullptr}, {"tcp.s9", nullptr}}), applycfg{})), "");
  // Letter case of a text is meaning ("Auto" is not "auto").
  EXPECT_EQ(
      joined(applycfg_diff(model({{"tcp.s1.start", "auto"}}), model({{"tcp.s1.start", "Auto"}}))),
      "change tcp.s1.start = Auto (was auto)\n");
}

TEST(ApplyCfg, ExportReadsBackAsTheSameConfiguration) {
  applycfg reg = model({
      {"services.e.program", "C:\\agents\\e.exe -x \"quoted\""},
      {"services.e.description", "  padded  "},
      {"services.e.lifespan", "60"},
      {"services.odd.program", "\"starts with a quote"},
      {"services.odd.description", "tab\there, line\nfeed, bell\a1, back\\slash, hash # kept"},
      {"services.empty.program", "p"},
      {"services.empty.description", ""},
      {"global.start.g.start", "on"},
      {"global.start.g.program", "g.exe"},
      {"tcp.s8.start", "auto"},
      {"tcp.s8.service", "e"},
      {"tcp.s10.start", "hook"},
      {"tcp.s10.service", "odd"},
      {"global.metrics", "C:\\metrics dir\\kivd.prom"},
  });
  // What the syntax cannot carry, or the port manager would not read, is left out.
  applycfg all = reg;
  for (const char *name :
       {"tcp.s11.foo", "tcp.sx.start", "services.a=b.program", "other.key.v", "tcp.v"})
    applycfg_add(&all, name, "1", 0);
  std::vector<std::string> skipped;
  std::string text = applycfg_export(all, &skipped);
  EXPECT_EQ(joined(skipped),
            "other.key.v\nservices.a=b.program\ntcp.v\ntcp.sx.start\ntcp.s11.foo\n");
  // Ports come in number order after the global key, the services and global programs.
  EXPECT_EQ(text.find("global:\n\tmetrics = C:\\metrics dir\\kivd.prom\n"), 0u) << text;
  EXPECT_LT(text.find("services.e:"), text.find("global.start.g:"));
  EXPECT_LT(text.find("global.start.g:"), text.find("tcp.s8:"));
  EXPECT_LT(text.find("tcp.s8:"), text.find("tcp.s10:"));
  EXPECT_NE(text.find("\tprogram = C:\\agents\\e.exe -x \"quoted\"\n"), std::string::npos) << text;

  applycfg back;
  ASSERT_EQ(read_text(text, &back), "") << text;
  EXPECT_EQ(joined(applycfg_diff(reg, back)), "") << text;
}

}  // namespace
