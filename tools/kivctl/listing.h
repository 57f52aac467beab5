// kivctl's reading of kivd's replies for people and for scripts: the port listing's lines
// parsed into fields, an aligned table, and JSON. Portable: no Windows call in here.
#pragma once
#include <map>
#include <string>
#include <vector>

#include "lib/wire.h"

// One line of kivd's port listing.
struct listed_port {
  int port = 0;
  std::string service;
  std::string mode;  // as configured: "auto", "hook" or "on"
  bool disabled = false;
  bool until_enabled = false;  // disabled by the disable command, not for a time
  std::string until;           // local "YYYY-MM-DD HH:MM" of a disable for a time
  // The line's other items by their wire names (WIRE_ITEM_*), a number's checked.
  std::map<std::string, std::string> items;
  // The item's text, "" when the line has none.
  std::string item(const char *name) const;
  // The item as a number, 0 when the line has none.
  unsigned number(const char *name) const;
};

// Parses a listing line as kivd writes it ("%5d  %-11s   Mode" and optional " Name=value"
// items in any order; a known number's item must be a positive number), whatever kivd's
// time zone and this one. false when the line is not a listing line.
bool parse_listing_line(const std::string &line, listed_port *out);

// "idle", "serving (pid N)", "disabled until DATE", "disabled until enabled", followed by
// ", hooked by pid N" for a hooked port.
std::string port_state(const listed_port &p);

// The ports by the state ls shows (a disabled port whose agent still runs is disabled),
// and the hooked ones besides.
struct port_counts {
  int total = 0, hooked = 0;
  int in[WIRE_STATE_COUNT] = {};  // by wire_state
};
port_counts count_ports(const std::vector<listed_port> &ports);

// The listing as an aligned table with a header line, each line ending in "\n": port,
// service, mode, the account once some port's service has one, and the state in words.
std::string listing_table(const std::vector<listed_port> &ports);

// The text as a JSON string, quotes included.
std::string json_string(const std::string &text);
// The port as ls shows it: "7007", "127.0.0.1:7007", "[::1]:7007".
std::string port_text(const listed_port &p);
// The listing as a JSON array of objects, a member for each column of listing.cpp's table
// (state the word alone, disabled_until and until_enabled for the state's date): a
// number, a text, a boolean, or null where the port has none.
std::string listing_json(const std::vector<listed_port> &ports);
// A reply element as JSON: "+" is {"ok":true}, "-text" is {"ok":false,"error":"text"}.
std::string reply_json(const std::string &reply);
