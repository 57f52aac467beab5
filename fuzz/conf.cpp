// The .cfg parser on arbitrary file bytes, and conf_checkname on arbitrary names.
#include <cctype>

#include "fuzz/fuzz.h"
#include "lib/heap.h"
#include "toolkit/config/conf.h"

namespace {

const char PREFIX[] = ".fuzz";

bool namechar(char c) {
  return isalnum(static_cast<unsigned char>(c)) || (c && strchr("._- /@%&:+~*\t", c));
}

// What the parser hands on must be a rewritten name: allowed characters only, no empty
// component, no blank beside a dot, and a value exactly for the letter 's'.
int store(const char *name, const char *value, const char *prefix, int letter) {
  check(name && prefix == PREFIX && (letter == 's') == (value != nullptr) &&
        (letter == 's' || letter == 0));
  size_t n = strlen(name);
  check(n && name[0] != '.' && name[n - 1] != '.');
  for (size_t i = 0; i < n; i++) {
    bool blank = name[i] == ' ' || name[i] == '\t',
         nextblank = name[i + 1] == ' ' || name[i + 1] == '\t';
    check(namechar(name[i]) && !(name[i] == '.' && (name[i + 1] == '.' || nextblank)) &&
          !(blank && name[i + 1] == '.'));
  }
  return (n & 1) ? -1 : 0;  // a failing store must not change the parse
}

void checkname(const uint8_t *data, size_t size) {
  // Exactly the name and its terminator on the heap, so a write past it is caught.
  char *name = static_cast<char *>(malloc(size + 1));
  memcpy(name, data, size);
  name[size] = 0;
  int length = -1, length2 = -1;
  char *error = nullptr;
  if (conf_checkname(name, &length, 3, &error) == 0) {
    check(!error && static_cast<size_t>(length) == strlen(name));
    char *again = strdup(name);  // a rewritten name is its own rewriting
    check(conf_checkname(again, &length2, 3, nullptr) == 0 && strcmp(again, name) == 0);
    free(again);
  } else {
    check(error && strncmp(error, "3: ", 3) == 0 && strlen(error) <= 255);
  }
  xfree(error);
  free(name);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  checkname(data, size);
  FILE *f = fmemopen(const_cast<uint8_t *>(data), size, "r");
  if (!f) return 0;  // some C libraries refuse an empty buffer
  char *error = nullptr;
  int rc = kivconf_parse(f, store, PREFIX, &error);
  fclose(f);
  check((rc == 0 || rc == -1) && (rc == -1) == (error != nullptr));
  xfree(error);
  return 0;
}
