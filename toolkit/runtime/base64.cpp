#include "toolkit/runtime/base64.h"

#include "lib/b64.h"
#include "toolkit/runtime/error.h"

int kiv_b64encode(const void *bytes, int count, char *out) {
  int n = b64_encode(bytes, count, out);
  return n < 0 ? KIV_EINVAL : n;
}
