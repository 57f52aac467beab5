// kivd.exe's event log outlet end to end, read where Wine writes every ReportEvent call:
// with WINEDEBUG=fixme+advapi,+eventlog each call is a line with its type and message id,
// then one line per insert, on the standard error kivd inherits from this process. This
// test runs in a ctest entry of its own that sends that standard error to the file named
// by KIV_WINE_STDERR; without it (and on Windows, whose event log has no such channel) it
// is skipped.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/support.h"

namespace {

const bool wine = GetProcAddress(GetModuleHandleA("ntdll.dll"), "wine_get_version") != nullptr;

// One ReportEvent call as Wine's channels show it.
struct reported {
  unsigned long type = 0, id = 0;
  std::vector<std::string> inserts;
};

// The text of a debugstr: L"..." with \\, \", \n, \r, \t and \xXXXX escapes.
std::string unquote(const std::string &text) {
  std::string out;
  size_t open = text.find("L\"");
  if (open == std::string::npos) return out;
  for (size_t i = open + 2; i < text.size() && text[i] != '"'; i++) {
    if (text[i] != '\\' || i + 1 == text.size()) {
      out += text[i];
      continue;
    }
    char c = text[++i];
    if (c == 'n' || c == 'r' || c == 't') {
      out += c == 'n' ? '\n' : c == 'r' ? '\r' : '\t';
    } else if (c == 'x' && i + 4 < text.size()) {
      out += static_cast<char>(strtoul(text.substr(i + 1, 4).c_str(), nullptr, 16));
      i += 4;
    } else {
      out += c;
    }
  }
  return out;
}

// Every call in text: "TID:fixme:advapi:ReportEventW (source,type,category,id,sid,count,
// size,strings,data): stub", then "TID:<class>:eventlog:ReportEventW L"..."" per insert,
// on the same thread.
std::vector<reported> calls(const std::string &text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  std::vector<reported> out;
  for (size_t i = 0; i < lines.size(); i++) {
    size_t at = lines[i].find(":advapi:ReportEventW (");
    if (at == std::string::npos) continue;
    std::string thread = lines[i].substr(0, lines[i].find(':') + 1);
    std::vector<std::string> args;
    std::istringstream list(lines[i].substr(lines[i].find('(', at) + 1));
    for (std::string arg; std::getline(list, arg, ',');) args.push_back(arg);
    if (args.size() < 9) continue;
    reported r;
    r.type = strtoul(args[1].c_str(), nullptr, 16);
    r.id = strtoul(args[3].c_str(), nullptr, 16);
    unsigned long count = strtoul(args[5].c_str(), nullptr, 16);
    for (size_t j = i + 1; j < lines.size() && r.inserts.size() < count; j++)
      if (lines[j].rfind(thread, 0) == 0 &&
          lines[j].find(":eventlog:ReportEventW L\"") != std::string::npos)
        r.inserts.push_back(unquote(lines[j]));
    out.push_back(r);
  }
  return out;
}

std::string channel_text(const std::string &file, std::streamoff from) {
  std::ifstream in(file, std::ios::binary);
  in.seekg(from);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

// "type|id|insert|insert|...": the insert of a system error's text and of a rest's end,
// which the machine decides, as "*".
std::string shown(const reported &r) {
  char head[32];
  snprintf(head, sizeof head, "%lu|%08lX", r.type, r.id);
  std::string out = head;
  for (size_t i = 0; i < r.inserts.size(); i++)
    out += "|" + ((r.id & 0xFFFF) == 103 && (i == 3 || i == 4) ? "*" : r.inserts[i]);
  return out;
}

// One kivd: a port whose agent cannot start, one refused address, a service with two
// refused values, a global program with a refused limit; the port disabled twice and
// enabled, then the configuration read again. Each event reaches the event log with its
// type, number and inserts, each refused value once, and no repeat within the minute.
TEST(EventLogChannel, EachEventReachesTheEventLogOnceAMinute) {
  const char *where = getenv("KIV_WINE_STDERR");
  if (!wine || !where) GTEST_SKIP() << "Wine's debug channels are read in their own ctest entry";
  std::string file = std::string("Z:") + where;
  std::replace(file.begin(), file.end(), '/', '\\');
  std::streamoff start = static_cast<std::streamoff>(channel_text(file, 0).size());
  kt::registry reg;
  std::vector<int> p = kt::free_ports(3);
  std::string calm = std::to_string(p[0]), moved = std::to_string(p[1]),
              nobody = std::to_string(p[2]);
  reg.auto_ports("calm", kt::NO_PROGRAM, {p[0], p[1]});
  reg.set("tcp\\s" + moved, "address", "bogus");
  reg.auto_ports("nobody", kt::NO_PROGRAM, {p[2]});
  reg.set("services\\nobody", "account", "admin");
  reg.set("services\\nobody", "memory", "0");
  reg.set("global\\start\\g", "start", "on");
  reg.set("global\\start\\g", "program", kt::NO_PROGRAM);
  reg.set("global\\start\\g", "memory", "0");
  ULONGLONG began = GetTickCount64();
  SetEnvironmentVariableA("WINEDEBUG", "fixme+advapi,+eventlog");
  kt::kivd daemon("-D3");
  SetEnvironmentVariableA("WINEDEBUG", "-all");
  ASSERT_TRUE(daemon.log_has(kt::listening(p[0]))) << daemon.err();
  closesocket(kt::connect_to(p[0]));
  ASSERT_TRUE(daemon.log_has("Failed to start agent")) << daemon.err();
  kt::client c;
  for (const char *command : {"disable ", "disable ", "enable "})
    EXPECT_EQ(c.command(command + calm), std::vector<std::string>{"+"}) << command;
  EXPECT_EQ(c.command("reconfig"), std::vector<std::string>{"+"});
  bool within_minute = GetTickCount64() - began < 59000;
  {
    SCOPED_TRACE("why finds each refused value by what it belongs to");
    struct {
      std::string what, path, value;
    } rows[] = {{moved, ".tcp.s" + moved + ".address", "bogus"},
                {"nobody", ".services.nobody.account", "admin"},
                {"nobody", ".services.nobody.memory", "0"},
                {"g", ".global.start.g.memory", "0"}};
    for (const auto &r : rows) {
      std::vector<std::string> lines = c.command("why " + r.what);
      std::string field = "\ttext=" + r.path + "\tvalue=" + r.value + "\t";
      EXPECT_TRUE(std::any_of(lines.begin(), lines.end(),
                              [&](const std::string &l) {
                                return l.rfind("106\t", 0) == 0 &&
                                       l.find(field) != std::string::npos;
                              }))
          << r.what << ": " << testing::PrintToString(lines);
    }
    std::vector<std::string> port = c.command("why " + moved);
    ASSERT_GE(port.size(), 3u);
    EXPECT_NE(port[port.size() - 2].find("\tport=" + moved + "\tstate=down"), std::string::npos)
        << port[port.size() - 2];
  }
  c.close();
  daemon.quit();
  std::vector<reported> written;
  EXPECT_TRUE(kt::poll([&] {
    written = calls(channel_text(file, start));
    return !written.empty() && written.back().id == 0x40000002;
  })) << channel_text(file, start);
  std::vector<std::string> got;
  for (const reported &r : written) got.push_back(shown(r));
  std::vector<std::string> expected = {
      "4|40000001|",                                    // started
      "2|8000006A|.tcp.s" + moved + ".address|bogus|",  // refused, a warning
      "2|8000006A|.services.nobody.account|admin|",     // two values of one service
      "2|8000006A|.services.nobody.memory|0|",          //
      "2|8000006A|.global.start.g.memory|0|",           //
      "2|80000069|" + nobody + "|nobody|",              // no program
      "1|C0000067|" + calm + "|calm|2|*|*|",            // the start failed, an error
      "4|4000006B|" + calm + "|calm|",                  // disabled once: the second held
      "4|4000006C|" + calm + "|calm|",                  //
      "4|40000002|0|",                                  // stopped
  };
  EXPECT_EQ(got.back(), expected.back());
  std::sort(got.begin(), got.end());
  std::sort(expected.begin(), expected.end());
  // Past a minute (a machine slow beyond measure) the reconfiguration's repeats are written
  // again: then only that each event was written is checked.
  if (!within_minute) got.erase(std::unique(got.begin(), got.end()), got.end());
  EXPECT_EQ(got, expected);
}

}  // namespace
