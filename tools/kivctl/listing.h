// kivctl's reading of kivd's replies for people and for scripts: the port listing's lines
// parsed into fields, an aligned table, and JSON. Portable: no Windows call in here.
#pragma once
#include <string>
#include <vector>

// One line of kivd's port listing.
struct listed_port {
  int port = 0;
  std::string service;
  std::string mode;  // as configured: "auto", "hook" or "on"
  bool disabled = false;
  bool until_enabled = false;  // disabled by the disable command, not for a time
  std::string until;           // local "YYYY-MM-DD HH:MM" of a disable for a time
  unsigned parent = 0;         // pid of the process that hooked the port, 0 when none
  unsigned agent = 0;          // pid of the agent serving the port, 0 when idle
  std::string address;         // the configured local address; "" for every IPv4 address
  std::string account;         // the service's account, empty for kivd's own
  unsigned memory = 0;         // the service's job limits, 0 when unset: megabytes,
  unsigned processes = 0;      // processes at once,
  unsigned cpu = 0;            // percent of the machine
};

// Parses a listing line as kivd writes it ("%5d  %-11s   Mode" and optional " Name=value"
// items in any order: Disable, Parent, Agent, Address, Account, Memory, Processes, Cpu;
// others are skipped), whatever kivd's time zone and this one. false when the line is not
// a listing line.
bool parse_listing_line(const std::string &line, listed_port *out);

// "idle", "serving (pid N)", "disabled until DATE", "disabled until enabled", followed by
// ", hooked by pid N" for a hooked port.
std::string port_state(const listed_port &p);

// The ports by the state ls shows (a disabled port whose agent still runs is disabled),
// and the hooked ones besides.
struct port_counts {
  int total = 0, idle = 0, serving = 0, disabled = 0, hooked = 0;
};
port_counts count_ports(const std::vector<listed_port> &ports);

// The listing as an aligned table with a header line, each line ending in "\n"; an
// ACCOUNT column only when some port's service has an account.
std::string listing_table(const std::vector<listed_port> &ports);

// The text as a JSON string, quotes included.
std::string json_string(const std::string &text);
// The port as ls shows it: "7007", "127.0.0.1:7007", "[::1]:7007".
std::string port_text(const listed_port &p);
// The listing as a JSON array of objects: port, service, mode, state ("idle", "serving",
// "disabled"), agent and parent (numbers or null), disabled_until (text or null),
// until_enabled (boolean), address (text, or null for every IPv4 address), account (text
// or null), memory, processes and cpu (numbers or null).
std::string listing_json(const std::vector<listed_port> &ports);
// A reply element as JSON: "+" is {"ok":true}, "-text" is {"ok":false,"error":"text"}.
std::string reply_json(const std::string &reply);
