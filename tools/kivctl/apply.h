// kivctl apply / export: the configuration as a file, written to and read from the
// registry under HKEY_LOCAL_MACHINE\SOFTWARE\Orvane\Agents.
#pragma once

// `apply [--dry-run] FILE`: argv[0] is "apply". Exit code, so that a configuration tool
// tells a change from none by it alone: 0 the registry already says what the file says
// (nothing written); KIVCTL_CHANGED (3) the registry was changed (with --dry-run: would
// be); 1 the file is refused (its line and message on standard error) or the usage is
// wrong; 2 the registry or the control pipe failed.
constexpr int KIVCTL_CHANGED = 3;
int kivctl_apply(int argc, char **argv);
// `export`: the registry's configuration on standard output in the file syntax. 0, or
// 2 when the registry cannot be read.
int kivctl_export(int argc, char **argv);
