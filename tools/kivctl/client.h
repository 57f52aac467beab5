// kivctl's end of kivd's control pipe: opening it (a busy pipe is waited for) and its
// greeting, then one command line at a time sent and what kivd owes it read (answer.h):
// the elements of a reply or of a listing, or the hang-up after quit. Failures are
// reported on standard error as "kivctl: WHAT \\.\pipe\vesk_kivd: error N".
#pragma once
#include <windows.h>

#include <string>
#include <vector>

// What client_open does when kivd is not there to answer.
enum class if_absent {
  report,  // every failure is reported: 2
  pass,    // a pipe that does not exist (no kivd runs) gives -1 without a report
  quiet,   // a pipe that cannot be opened, unless busy, or that gives no greeting: -1 unreported
};

// Opens the control pipe in message mode and reads kivd's greeting; *pipe gets the
// handle, which the caller closes. A busy pipe is waited for as long as the server's
// default time-out. 0; -1 as `absent` says; 2 when the pipe fails (reported).
int client_open(HANDLE *pipe, if_absent absent);

// Sends one command line of `length` bytes (not terminated) and reads what kivd owes it
// into *elements: "+" or a "-" text, or a listing from "!" to "."; nothing for a line
// kivd ignores or for quit, which is answered by hanging up. 0 for "+", a listing, no
// reply or the hang-up; 1 for a "-" text; 2 when the pipe fails (reported).
int client_exchange(HANDLE pipe, const char *line, int length, std::vector<std::string> *elements);
