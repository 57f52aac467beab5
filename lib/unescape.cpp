#include "lib/unescape.h"

#include <climits>

int unescape(char *text) {
  if (!text) return -1;
  const char *from = text;
  char *to = text;  // never ahead of from: every escape shrinks the text
  while (*from != '\0') {
    char c = *from++;
    if (c != '\\') {
      *to++ = c;
      continue;
    }
    c = *from;
    if (c == '\0') break;  // a lone trailing backslash is dropped
    from++;
    switch (c) {
      case 'a':
        c = 7;
        break;
      case 'b':
        c = 8;
        break;
      case 'e':
        c = 27;
        break;
      case 'f':
        c = 12;
        break;
      case 'n':
        c = 10;
        break;
      case 'r':
        c = 13;
        break;
      case 't':
        c = 9;
        break;
      case '0':
      case '1':
      case '2':
      case '3':
      case '4':
      case '5':
      case '6':
      case '7':
      case '8':
      case '9': {
        // Weighted by 8 although 8 and 9 are accepted: \19 is 1*8+9 = 17.
        unsigned value = static_cast<unsigned>(c - '0');
        for (int i = 0; i < 2 && *from >= '0' && *from <= '9'; i++)
          value = value * 8 + static_cast<unsigned>(*from++ - '0');
        c = static_cast<char>(static_cast<unsigned char>(value & 0xFF));
        break;
      }
      default:
        break;  // the character itself
    }
    *to++ = c;
  }
  *to = '\0';
  long long length = to - text;
  return length > INT_MAX ? INT_MAX : static_cast<int>(length);
}
