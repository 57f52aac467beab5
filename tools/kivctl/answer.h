// What kivd will answer a control line, told beforehand with the server's own splitter,
// so that kivctl never waits for a reply that cannot come.
#pragma once

enum class answer {
  none,    // the first word splits to nothing: the server says nothing at all
  hangup,  // "quit" in any letter case: the server hangs up (and with -Q stops)
  reply,   // a reply: "+", a "-" text (too long, too many words...) or a listing
};

// The answer to the line of `length` bytes (not terminated), sent as one message.
answer server_answer(const char *line, int length);
