// applycfg: the configuration of `kivctl apply` and `kivctl export` as a model of keys
// and values: read and checked from a configuration text file, built from what the
// registry loader reports, compared and printed back in the text syntax. Portable (no
// Windows API), so the native build tests and fuzzes it.
#pragma once
#include <cstdio>
#include <map>
#include <string>
#include <vector>

struct applycfg_value {
  std::string name;  // as it is written to the registry ("service")
  std::string text;
  int line = 0;  // where the file gave it; 0 for the registry
};

struct applycfg_key {
  std::string name;  // dotted, as written ("tcp.s25", "services.echo", "global.start.x")
  int line = 0;      // where the file first named it
  std::map<std::string, applycfg_value> values;  // by the value name in lower case
};

// Keys by their dotted name in lower case: the registry and the info tree both ignore
// letter case.
struct applycfg {
  std::map<std::string, applycfg_key> keys;
};

// Records one report of a configuration reader: dotted is the full name of a node
// (value null) or of a value (the text). The registry loader's reports are fed here as
// they come, so nothing of the registry is walked twice.
void applycfg_add(applycfg *cfg, const char *dotted, const char *value, int line);

// Reads a configuration file from stream (opened in binary mode, seekable) with the
// project's parser and checks it against the configuration's schema: only the keys of
// its sections with their values, each value one the port manager can use, every
// required value given, and a port's service given in the file. 0 with *out
// the checked configuration (key and value names in their written form); -1 with
// *error a heap text "<line>: <message>" (caller frees with xfree, null when the heap
// refused it) for the first fault in the file.
int applycfg_read(FILE *stream, applycfg *out, char **error);

// What changes from old to next, one line each, in key order: "add K.V = T",
// "change K.V = T (was U)", "remove K.V". Keys without values carry no meaning and are
// left out.
std::vector<std::string> applycfg_diff(const applycfg &old, const applycfg &next);

// cfg in the text syntax: the global key, services, then global programs, then ports by number; values
// quoted only where the unquoted form would not read back the same. What the syntax
// cannot hold (names the parser refuses or rewrites) is left out and named in *skipped.
std::string applycfg_export(const applycfg &cfg, std::vector<std::string> *skipped);
