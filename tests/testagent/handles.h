// What a helper process of the tests inherited (the test agent, upcase.exe): every valid
// small inheritable handle value other than the standard handles and `own` (the agent's
// pipe) is a socket (listening or not), a pipe, or anything else (a file, an event, a
// process...). Winsock must be started. Scan before the process opens anything itself.
#pragma once

#include <winsock2.h>
#include <windows.h>

#include <cstdint>
#include <cstdio>
#include <string>

inline std::string scan_handles(HANDLE own) {
  int listening = 0, sockets = 0, pipes = 0, others = 0, owned = 0;
  HANDLE std_handles[] = {GetStdHandle(STD_INPUT_HANDLE), GetStdHandle(STD_OUTPUT_HANDLE),
                          GetStdHandle(STD_ERROR_HANDLE)};
  for (uintptr_t v = 4; v < 0x4000; v += 4) {
    HANDLE h = reinterpret_cast<HANDLE>(v);
    DWORD flags;
    if (!GetHandleInformation(h, &flags)) continue;
    if (own && h == own) {
      owned++;
      continue;
    }
    // An inherited handle keeps its inheritance flag; handles the runtime opened in this
    // process (Wine keeps some pipes of its own) have it clear and are not counted.
    if (h == std_handles[0] || h == std_handles[1] || h == std_handles[2] ||
        !(flags & HANDLE_FLAG_INHERIT))
      continue;
    int accepting = 0, length = sizeof accepting;
    if (getsockopt(SOCKET(v), SOL_SOCKET, SO_ACCEPTCONN, reinterpret_cast<char *>(&accepting),
                   &length) == 0)
      accepting ? listening++ : sockets++;
    else
      GetFileType(h) == FILE_TYPE_PIPE ? pipes++ : others++;
  }
  char text[128];
  snprintf(text, sizeof text, "#handles listening=%d sockets=%d pipes=%d other=%d own=%d",
           listening, sockets, pipes, others, owned);
  return text;
}
