#include <windows.h>

#include <cstring>

#include "lib/printf.h"
#include "toolkit/runtime/events.h"

void kivev_systext(long syserror, char *buffer, int size) {
  if (size <= 0) return;
  DWORD n = FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
                           static_cast<DWORD>(syserror), MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT),
                           buffer, static_cast<DWORD>(size), nullptr);
  if (n == 0) {
    xsnprintf(buffer, static_cast<unsigned>(size), "Unknown error %ld", syserror);
    return;
  }
  // The system's texts end in ".\r\n"; the message that takes one as an insert has its own.
  while (n > 0 && (buffer[n - 1] == '\n' || buffer[n - 1] == '\r' || buffer[n - 1] == ' ' ||
                   buffer[n - 1] == '.'))
    buffer[--n] = '\0';
}
