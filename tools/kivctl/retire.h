// retire: before an upgrade replaces the package's files, moves its agent executables that
// still run out of the way. Windows refuses to overwrite or delete a running program's
// file, and an installer that meets one replaces it only at the next reboot; a rename on
// the same volume is allowed, and the running processes keep their image. The
// configuration keeps naming the install folder's path, so new agents start from the new
// file. kivd deletes the moved files once nothing runs from them (service/retired.h).
#pragma once

// The package's agent executables, as the install folder names them.
extern const char *const RETIRE_AGENTS[];
extern const int RETIRE_AGENT_COUNT;

// Moves each of RETIRE_AGENTS in `folder` that is in use (a process runs from it, or
// holds it open without sharing writes) into a new folder "<folder>\retired\<unique name>\", under
// its own name; a file not in use, and every other file, stays where it is. Writes into
// report (size bytes, terminated when size > 0, cut to fit) what moved where, or what
// failed. 0, also when nothing is in use or the folder does not exist; KIV_EINVAL for a
// null or empty folder; KIV_ESYS when a folder cannot be made or a file cannot be moved
// (files moved before stay moved: each is whole in one place or the other).
int retire_package_agents(const char *folder, char *report, int size);
// The same for the folder of the running executable: the installed kivctl.exe's.
int retire_package_agents_here(char *report, int size);
