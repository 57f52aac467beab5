#include <cstring>

#include "lib/printf.h"
#include "toolkit/runtime/events.h"

void kivev_systext(long syserror, char *buffer, int size) {
  if (size <= 0) return;
  xsnprintf(buffer, static_cast<unsigned>(size), "%s", strerror(static_cast<int>(syserror)));
}
