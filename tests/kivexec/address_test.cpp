// Where a port listens, through kivd.exe: its configured address in either family, "::"
// for both, the default on IPv4 only; kivexec's programs see each peer as it connected.
// And kivexec hands its program the line as written.
#include <ws2tcpip.h>

#include <gtest/gtest.h>

#include "tests/support/support.h"

namespace {

const std::string KIVEXEC = "\"" + kt::build_dir() + "\\agent\\kivexec.exe\"";
const std::string UPCASE = "\"" + kt::build_dir() + "\\tests\\kivexec\\upcase.exe\"";
const char REFUSED[] = "<refused>";

// A client of host (a numeric address) and port, not inheritable; INVALID_SOCKET when
// refused.
SOCKET connect_at(const char *host, int port) {
  addrinfo hints = {}, *found = nullptr;
  hints.ai_flags = AI_NUMERICHOST;
  hints.ai_socktype = SOCK_STREAM;
  if (getaddrinfo(host, std::to_string(port).c_str(), &hints, &found) != 0) return INVALID_SOCKET;
  SOCKET s = socket(found->ai_family, SOCK_STREAM, IPPROTO_TCP);
  SetHandleInformation(reinterpret_cast<HANDLE>(s), HANDLE_FLAG_INHERIT, 0);
  DWORD timeout = 20000;
  setsockopt(s, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<char *>(&timeout), sizeof timeout);
  if (connect(s, found->ai_addr, static_cast<int>(found->ai_addrlen)) != 0) {
    closesocket(s);
    s = INVALID_SOCKET;
  }
  freeaddrinfo(found);
  return s;
}

// Sends line, half-closes, reads to the end: the client closes first.
std::string finish(SOCKET s, const std::string &line) {
  send(s, line.data(), static_cast<int>(line.size()), 0);
  shutdown(s, SD_SEND);
  std::string got;
  char buf[512];
  for (int n; (n = recv(s, buf, sizeof buf, 0)) > 0;) got.append(buf, n);
  closesocket(s);
  return got;
}

std::string ask_at(const char *host, int port, const std::string &line) {
  SOCKET s = connect_at(host, port);
  return s == INVALID_SOCKET ? REFUSED : finish(s, line);
}

// The answer once the port serves at host (polled), or REFUSED.
std::string served_at(const char *host, int port, const std::string &line) {
  std::string got = REFUSED;
  kt::poll([&] { return (got = ask_at(host, port, line)) != REFUSED; });
  return got;
}

bool has(const std::string &text, const std::string &part) {
  return text.find(part) != std::string::npos;
}

TEST(Address, PortsListenWhereTheyAreConfigured) {
  kt::registry reg;
  std::vector<int> ports = kt::free_ports(8);
  int v4 = ports[0], v6 = ports[1], dual = ports[2], plain = ports[3], bad = ports[4],
      moved = ports[5], on6 = ports[6], hook = ports[7];
  reg.service("up", KIVEXEC + " -- " + UPCASE);
  reg.service("env", KIVEXEC + " -- " + UPCASE + " env");
  reg.service("on", KIVEXEC + " -- " + UPCASE);
  for (int p : {v4, v6, plain, bad, moved}) reg.port(p, "auto", "up");
  reg.port(dual, "auto", "env");
  reg.port(on6, "on", "on");
  reg.port(hook, "hook", "up");
  auto address = [&](int port, const char *text) {
    reg.set("tcp\\s" + std::to_string(port), "address", text);
  };
  address(v4, "127.0.0.1");
  address(v6, "::1");
  address(dual, "::");
  address(bad, "localhost");
  address(moved, "127.0.0.1");
  address(on6, "::1");
  address(hook, "::1");
  kt::kivd d("-D3");
  EXPECT_EQ(served_at("127.0.0.1", v4, "a"), "AEND\n");
  EXPECT_EQ(ask_at("::1", v4, "a"), REFUSED);
  EXPECT_EQ(served_at("::1", v6, "b"), "BEND\n");
  EXPECT_EQ(ask_at("127.0.0.1", v6, "b"), REFUSED);
  EXPECT_EQ(served_at("::1", on6, "c"), "CEND\n") << "an \"on\" port's agent listens there";
  EXPECT_EQ(ask_at("127.0.0.1", on6, "c"), REFUSED);
  EXPECT_EQ(served_at("127.0.0.1", plain, "d"), "DEND\n");
  EXPECT_EQ(ask_at("::1", plain, "d"), REFUSED) << "the default is IPv4 only";
  // Dual stack: an IPv4 client is seen as plain dotted IPv4 with both ports, an IPv6 one
  // as IPv6.
  std::string from6 = served_at("::1", dual, "f");
  SOCKET four = connect_at("127.0.0.1", dual);
  ASSERT_NE(four, INVALID_SOCKET);
  sockaddr_in me = {};
  int size = sizeof me;
  getsockname(four, reinterpret_cast<sockaddr *>(&me), &size);
  std::string from4 = finish(four, "e");
  EXPECT_TRUE(
      has(from4, "TCPREMOTEIP=127.0.0.1\nTCPREMOTEPORT=" + std::to_string(ntohs(me.sin_port)) +
                     "\nTCPLOCALIP=127.0.0.1\nTCPLOCALPORT=" + std::to_string(dual) + "\n"))
      << from4 << "\nkivd and its agents said:\n"
      << d.err();
  EXPECT_TRUE(has(from6, "TCPREMOTEIP=::1\n") && has(from6, "TCPLOCALIP=::1\n")) << from6;
  EXPECT_TRUE(d.log_has("Port " + std::to_string(bad) + ": bad address \"localhost\""));
  EXPECT_EQ(ask_at("127.0.0.1", bad, "g"), REFUSED) << "never all addresses instead";

  kt::client c;
  // The address is the listing line's last item; a port without one is listed as before.
  auto line_of = [&](int port) {
    for (const std::string &line : kt::listed_ports(c.command("ls")))
      if (line.rfind(kt::port_line(port, "up", "Auto"), 0) == 0) return line;
    return std::string();
  };
  std::string listed6 = line_of(v6), listed = line_of(plain);
  const std::string item = " Address=::1";
  EXPECT_TRUE(listed6.size() > item.size() &&
              listed6.compare(listed6.size() - item.size(), item.size(), item) == 0)
      << listed6;
  EXPECT_FALSE(has(listed, "Address")) << listed;
  kt::ran ls = kt::run("\"" + kt::kivctl_exe() + "\" ls"),
          json = kt::run("\"" + kt::kivctl_exe() + "\" --json ls");
  EXPECT_TRUE(has(ls.out, "[::1]:" + std::to_string(v6) + "  up")) << ls.out;
  EXPECT_TRUE(has(ls.out, "127.0.0.1:" + std::to_string(v4) + "  up")) << ls.out;
  EXPECT_TRUE(has(json.out, "\"port\":" + std::to_string(v6) + ",") &&
              has(json.out, "\"address\":\"::1\"") && has(json.out, "\"address\":null"))
      << json.out;

  // A hooked port listens where its configuration says.
  EXPECT_EQ(c.command("add -p " + std::to_string(hook)), std::vector<std::string>{"+"});
  EXPECT_EQ(served_at("::1", hook, "l"), "LEND\n");
  EXPECT_EQ(ask_at("127.0.0.1", hook, "l"), REFUSED);

  // A move by reconfiguration: the connection being served is served to its end, and
  // the port then serves at its new address only.
  SOCKET held = connect_at("127.0.0.1", moved);
  ASSERT_NE(held, INVALID_SOCKET);
  send(held, "h", 1, 0);
  ASSERT_TRUE(kt::poll([] { return kt::processes_named("upcase.exe") >= 1; }));
  address(moved, "::1");
  EXPECT_EQ(c.command("reconfig"), std::vector<std::string>{"+"});
  EXPECT_EQ(served_at("::1", moved, "i"), "IEND\n");
  EXPECT_EQ(finish(held, "j"), "HJEND\n");
  EXPECT_EQ(ask_at("127.0.0.1", moved, "k"), REFUSED);
  c.close();
  d.quit();
}

// The program gets kivexec's line after "--" as written, quotes and all, without what
// kivd appends (-D when it traces, -C); an escaped backslash before a closing quote ends
// an argument as the C runtime reads it.
TEST(Address, KivexecPassesTheProgramLineAsWritten) {
  kt::registry reg;
  int port = kt::free_port();
  reg.service("quote", KIVEXEC +
                           " --max 2 -- C:\\windows\\system32\\cmd.exe /q /c echo \"ab\" "
                           "\"c d\"  x\\\"y \"C:\\dir\\\\\"");
  reg.port(port, "auto", "quote");
  kt::kivd d("-D3");
  EXPECT_EQ(served_at("127.0.0.1", port, ""), "\"ab\" \"c d\"  x\\\"y \"C:\\dir\\\\\"\r\n");
  d.quit();
}

}  // namespace
