// The counters through kivd.exe and kivctl.exe: what a client's commands and a served
// connection move, and kivctl's table and JSON saying what kivd's lines say.
#include <gtest/gtest.h>

#include <map>
#include <sstream>

#include "tests/support/support.h"

namespace {

using items = std::vector<std::pair<std::string, std::string>>;

// The items of a stats line in order, its first included.
items split(const std::string &line) {
  items out;
  std::istringstream words(line);
  for (std::string word; words >> word;) {
    size_t eq = word.find('=');
    out.emplace_back(word.substr(0, eq), eq == std::string::npos ? "" : word.substr(eq + 1));
  }
  return out;
}

std::string item(const items &line, const std::string &name) {
  for (const auto &i : line)
    if (i.first == name) return i.second;
  return "<none>";
}

kt::ran kivctl(const std::string &args) { return kt::run("\"" + kt::kivctl_exe() + "\" " + args); }

std::vector<std::string> lines_of(const std::string &text) {
  std::vector<std::string> out;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) out.push_back(line);
  return out;
}

TEST(Stats, ThroughKivdAndKivctl) {
  kt::registry reg;
  std::vector<int> ports = kt::free_ports(2);
  reg.auto_ports("echo", kt::echo_agent_exe(), ports);
  kt::kivd daemon("-D3");
  ASSERT_TRUE(daemon.log_has(kt::listening(ports[1])));
  std::string served = std::to_string(ports[0]), disabled = std::to_string(ports[1]);
  {
    SCOPED_TRACE("one client's commands, counted served or refused");
    kt::client c;
    for (const char *refused : {"lsx", "why 1", "disable", "stats 1"})
      EXPECT_EQ('-', c.command(refused).front()[0]) << refused;
    EXPECT_EQ("+", c.command("disable " + disabled).front());
    std::vector<std::string> reply = c.command("stats");
    ASSERT_GE(reply.size(), 3u);
    items own = split(reply[reply.size() - 2]);
    EXPECT_EQ("Kivd", own.front().first);
    EXPECT_EQ("1", item(own, "Commands"));  // the disable; this stats counts once it is done
    EXPECT_EQ("4", item(own, "CommandsRefused"));
    EXPECT_EQ("0", item(own, "ClientsHungUp"));
    EXPECT_EQ("0", item(own, "Handovers"));
    EXPECT_NE("0", item(own, "Events"));  // the start's and the disable's at least
  }
  ASSERT_TRUE(kt::echoes(ports[0]));

  kt::ran raw = kivctl("--raw stats");
  ASSERT_EQ(0u, raw.code) << raw.err;
  std::vector<std::string> lines = lines_of(raw.out);
  ASSERT_GE(lines.size(), 6u) << raw.out;  // "!", two ports, the service, kivd, "."
  EXPECT_EQ("!", lines.front());
  EXPECT_EQ(".", lines.back());
  lines = std::vector<std::string>(lines.begin() + 1, lines.end() - 1);
  std::map<std::string, items> by_first;
  for (const std::string &line : lines) {
    items it = split(line);
    by_first[it.front().first + "=" + it.front().second] = it;
  }
  const items &port = by_first["Port=" + served];
  EXPECT_EQ("serving", item(port, "State"));
  EXPECT_EQ("1", item(port, "Connections"));
  EXPECT_EQ("1", item(port, "Starts"));
  const items &off = by_first["Port=" + disabled];
  EXPECT_EQ("disabled-until-enabled", item(off, "State"));
  EXPECT_EQ("1", item(off, "Disables"));
  EXPECT_EQ("0", item(off, "Connections"));
  EXPECT_EQ("1", item(by_first["Service=echo"], "Starts"));

  // JSON: an object per line, in order, every item as the line has it (kivd's commands and
  // uptime move from one run to the next: their names).
  kt::ran json = kivctl("--json stats");
  ASSERT_EQ(0u, json.code) << json.err;
  std::vector<std::string> objects = lines_of(json.out);
  ASSERT_EQ(lines.size(), objects.size()) << json.out;
  for (size_t i = 0; i < lines.size(); i++) {
    size_t at = 0;
    for (const auto &it : split(lines[i])) {
      bool text = it.first == "Service" || it.first == "Program" || it.first == "State";
      bool moves = it.first == "Commands" || it.first == "Uptime";
      std::string member = "\"" + it.first + "\":" +
                           (moves  ? ""
                            : text ? "\"" + it.second + "\""
                                   : it.second);
      size_t found = objects[i].find(member, at);
      EXPECT_NE(std::string::npos, found) << member << " in " << objects[i];
      if (found != std::string::npos) at = found + member.size();
    }
  }

  // The table: the served port first (the busiest), with its counts.
  kt::ran table = kivctl("stats");
  ASSERT_EQ(0u, table.code) << table.err;
  std::vector<std::string> rows = lines_of(table.out);
  ASSERT_GE(rows.size(), 3u) << table.out;
  EXPECT_EQ(0u, rows[0].find("PORT")) << table.out;
  std::istringstream first(rows[1]);
  std::string number, service, state, connections, starts;
  first >> number >> service >> state >> connections >> starts;
  EXPECT_EQ(served + " echo serving 1 1",
            number + " " + service + " " + state + " " + connections + " " + starts);
  EXPECT_EQ(0u, rows[2].find(disabled + "  echo     disabled-until-enabled")) << table.out;

  // A word: that port's line alone; one that names nothing is refused.
  kt::ran one = kivctl("--raw stats " + served);
  EXPECT_EQ(3u, lines_of(one.out).size()) << one.out;
  EXPECT_EQ(0u, lines_of(one.out)[1].find("Port=" + served + " ")) << one.out;
  kt::ran none = kivctl("stats nothing");
  EXPECT_EQ(1u, none.code);
  EXPECT_NE(std::string::npos, none.err.find("Failed with code")) << none.err;
}

}  // namespace
