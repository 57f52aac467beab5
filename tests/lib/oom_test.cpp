// Out-of-memory runs of the growable text and the string vector: every refusal leaves
// the structure whole, holding exactly what succeeded, and nothing leaks.
#include <algorithm>
#include <cstdarg>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "lib/dstr.h"
#include "lib/heap.h"
#include "lib/printf.h"
#include "lib/strvec.h"
#include "tests/lib/oom.h"

namespace {
int format(dstr *rec, const char *f, ...) {
  va_list args;
  va_start(args, f);
  int n = dstr_vformat(rec, -1, f, args);
  va_end(args);
  return n;
}
}  // namespace

TEST(OutOfMemory, Dstr) {
  int points = failpoints("dstr: init, appends, a shrinking cut, unbounded format", [](int n) {
    xheap_failafter(n);
    dstr *rec = dstr_init(nullptr);
    if (!rec) return false;  // the record or its buffer was refused: nothing may stay
    std::string want;
    bool complete = true;
    for (const std::string &text : {std::string("abc"), std::string(40, 'x'), std::string(3000, 'y')}) {
      int r = dstr_append(rec, text.c_str(), -1);
      if (r >= 0) {
        want += text;
        EXPECT_EQ(static_cast<int>(want.size()), r);
      } else {
        EXPECT_EQ(-1, r);
        complete = false;
      }
    }
    int r = dstr_truncate(rec, 10);
    if (r == static_cast<int>(std::min<size_t>(10, want.size()))) {
      want.resize(static_cast<size_t>(r));
    } else {
      EXPECT_EQ(-1, r);  // only a shrink can be refused, and then the text is not cut
      EXPECT_EQ(static_cast<int>(want.size()), rec->length);
      complete = false;
    }
    // Pieces the heap refuses are dropped; the total still counts them.
    std::string full = "[" + std::string(499, ' ') + "7]";
    EXPECT_EQ(static_cast<int>(full.size()), format(rec, "[%500d]", 7));
    std::string got(rec->buffer, static_cast<size_t>(rec->length));
    EXPECT_EQ(want, got.substr(0, want.size()));
    if (got != want + full) complete = false;
    xheap_failafter(-1);
    int before = rec->length;
    EXPECT_EQ(before + 1, dstr_append(rec, "z", 1));  // still usable
    EXPECT_EQ(got + "z", rec->buffer);
    dstr_free(rec, 0);
    return complete;
  });
  EXPECT_GE(points, 4);
}

TEST(OutOfMemory, StringVector) {
  int points = failpoints("string vector: ten appends", [](int n) {
    xheap_failafter(n);
    char **vec = nullptr;
    std::vector<std::string> want;
    bool complete = true;
    for (int i = 0; i < 10; i++) {
      std::string text = "item" + std::to_string(i);
      char **grown = vecapp(vec, text.c_str());
      if (grown) {
        vec = grown;
        want.push_back(text);
      } else {
        complete = false;  // the old vector stays as it was and stays ours
      }
    }
    xheap_failafter(-1);
    std::vector<std::string> got;
    for (char **p = vec; p && *p; p++) got.push_back(*p);
    EXPECT_EQ(want, got);
    vecfree(vec);
    return complete;
  });
  EXPECT_GE(points, 20);
}
