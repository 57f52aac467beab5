// The .cfg parser on arbitrary file bytes, and conf_checkname on arbitrary names.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "lib/heap.h"
#include "toolkit/config/conf.h"

namespace {

const char PREFIX[] = ".fuzz";

bool namechar(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
         (c != 0 && strchr("._- /@%&:+~*\t", c) != nullptr);
}

// What the parser hands on must be a rewritten name: allowed characters only, no empty
// component, no blank beside a dot, and a value exactly for the letter 's'.
int check(const char *name, const char *value, const char *prefix, int letter) {
  if (!name || prefix != PREFIX) abort();
  if ((letter == 's') != (value != nullptr) || (letter != 's' && letter != 0)) abort();
  size_t n = strlen(name);
  if (n == 0 || name[0] == '.' || name[n - 1] == '.') abort();
  for (size_t i = 0; i < n; i++) {
    if (!namechar(name[i])) abort();
    if (name[i] == '.' && (name[i + 1] == '.' || name[i + 1] == ' ' || name[i + 1] == '\t'))
      abort();
    if ((name[i] == ' ' || name[i] == '\t') && name[i + 1] == '.') abort();
  }
  return (n & 1) ? -1 : 0;  // a failing store must not change the parse
}

void checkname(const uint8_t *data, size_t size) {
  // Exactly the name and its terminator on the heap, so a write past it is caught.
  char *name = static_cast<char *>(malloc(size + 1));
  memcpy(name, data, size);
  name[size] = 0;
  int length = -1;
  char *error = nullptr;
  if (conf_checkname(name, &length, 3, &error) == 0) {
    if (error || static_cast<size_t>(length) != strlen(name)) abort();
    // A rewritten name is its own rewriting.
    char *again = strdup(name);
    int length2 = -1;
    if (conf_checkname(again, &length2, 3, nullptr) != 0 || strcmp(again, name) != 0) abort();
    free(again);
  } else if (!error || strncmp(error, "3: ", 3) != 0 || strlen(error) > 255) {
    abort();
  }
  xfree(error);
  free(name);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  checkname(data, size);
  FILE *stream = fmemopen(const_cast<uint8_t *>(data), size, "r");
  if (!stream) return 0;  // fmemopen refuses an empty buffer on some C libraries
  char *error = nullptr;
  int rc = kivconf_parse(stream, check, PREFIX, &error);
  fclose(stream);
  if (rc != 0 && rc != -1) abort();
  if ((rc == -1) != (error != nullptr)) abort();
  xfree(error);
  return 0;
}
