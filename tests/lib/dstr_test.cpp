// The heap wrappers, the growable text, the string vector and the line reader, with
// out-of-memory runs: every refusal leaves the structure whole, holding exactly what
// succeeded, and nothing leaks.
#include <algorithm>
#include <climits>
#include <string>
#include <vector>

#include "lib/dfgets.h"
#include "lib/dstr.h"
#include "lib/strvec.h"
#include "tests/lib/format.h"
#include "tests/lib/testing.h"

// The status word is set to 0 exactly when xrealloc hands back no block; callers that
// test it after a series of copies rely on success leaving it alone. Each call is made
// again with the heap refusing: a call that would hand back a block then gives none and 0.
TEST(Heap, StatusWordIsClearedOnlyWhenNoBlockComesBack) {
  struct {
    const char *what;
    void *(*call)(int *status);
    int status;  // afterwards, from 7
    bool block;
  } cases[] = {
      {"allocation", [](int *st) { return xrealloc(nullptr, 8, st); }, 7, true},
      {"size 0 releases", [](int *st) { return xrealloc(xrealloc(nullptr, 8, nullptr), 0, st); }, 0,
       false},
      {"text copy", [](int *st) { return static_cast<void *>(xstrdup("abc", st)); }, 7, true},
      {"no text", [](int *st) { return static_cast<void *>(xstrdup(nullptr, st)); }, 7, false},
      {"byte copy", [](int *st) { return memdup("abc", 3, st); }, 7, true},
      {"no bytes", [](int *st) { return memdup("abc", 0, st); }, 7, false},
  };
  for (const auto &c : cases)
    for (bool refused : {false, true}) {
      int status = 7;
      xheap_failafter(refused ? 0 : -1);
      void *block = c.call(&status);
      xheap_failafter(-1);
      EXPECT_EQ(refused && c.block ? 0 : c.status, status) << c.what << " refused " << refused;
      EXPECT_EQ(c.block && !refused, block != nullptr) << c.what << " refused " << refused;
      xfree(block);
    }
}

TEST(Dstr, AppendGrowsToTwiceTheNeedOrRefuses) {
  dstr rec;
  ASSERT_EQ(&rec, dstr_init(&rec));
  EXPECT_EQ(16, rec.capacity);
  EXPECT_EQ(20, dstr_append(&rec, "abcdefghijklmnopqrst", -1));
  EXPECT_EQ(42, rec.capacity);
  EXPECT_EQ(22, dstr_append(&rec, "abc", 2));
  EXPECT_EQ(24, dstr_append(&rec, "xy", 100));  // the copy stops at the text's end...
  EXPECT_EQ(2 * (22 + 100 + 1), rec.capacity);  // ...but room is made for the whole count
  EXPECT_STREQ("abcdefghijklmnopqrstabxy", rec.buffer);
  xfree(dstr_free(&rec, 1));  // the text stays with the caller (ASan would see a leak)
  // length + count + 1 beyond an int is refused before anything is touched.
  char small[4] = "abc";
  dstr big = {INT_MAX - 3, INT_MAX - 2, 0, small};
  EXPECT_EQ(-1, dstr_append(&big, "abcdef", -1));
}

TEST(Dstr, TruncateShrinksOnlyLargeBuffersCutShort) {
  struct {
    int to, length, capacity;
  } cases[] = {{10, 10, 256},    {500, 500, 4096},   {255, 255, 256},
               {256, 256, 4096}, {3000, 2000, 4096}, {-5, 0, 256}};
  for (const auto &c : cases) {
    dstr rec = {0, 0, 0, nullptr};
    dstr_append(&rec, std::string(2047, 'x').c_str(), -1);
    dstr_truncate(&rec, 2000);
    EXPECT_EQ(c.length, dstr_truncate(&rec, c.to)) << c.to;
    EXPECT_EQ(c.capacity, rec.capacity) << c.to;
    EXPECT_EQ(std::string(static_cast<size_t>(c.length), 'x'), rec.buffer) << c.to;
    dstr_free(&rec, 0);
  }
}

TEST(OutOfMemory, Dstr) {
  int points = failpoints("dstr: init, appends, a shrinking cut, unbounded format", [] {
    dstr *rec = dstr_init(nullptr);
    if (!rec) return false;  // the record or its buffer was refused: nothing may stay
    std::string want;
    bool complete = true;
    for (const std::string &text :
         {std::string("abc"), std::string(40, 'x'), std::string(3000, 'y')}) {
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
    EXPECT_EQ(static_cast<int>(full.size()), call(rec, nullptr, 0, "[%500d]", 7));
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

// The vector holds copies (each text is gone when the next is made), the empty text too.
TEST(OutOfMemory, StringVector) {
  int points = failpoints("string vector: ten appends", [] {
    char **vec = nullptr;
    std::vector<std::string> want;
    bool complete = true;
    for (int i = 0; i < 10; i++) {
      std::string text = i == 4 ? "" : "item" + std::to_string(i);
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

// The lines of a real file, read into one record; with resume, the line after the first
// is read with the heap refusing every growth first.
std::vector<std::string> lines_of(const std::string &content, bool resume = false) {
  FILE *f = fopen(tempfile("dfgets.txt", content).c_str(), "rb");
  dstr rec = {0, 0, 0, nullptr};  // no buffer yet: dfgets gets one
  std::vector<std::string> lines;
  for (char *line; (line = dfgets(f, &rec)) != nullptr;) {
    lines.emplace_back(line, static_cast<size_t>(rec.length));
    dstr_truncate(&rec, 0);
    if (!resume || lines.size() != 1) continue;
    // A refused growth returns null with the stream not at its end; the part read stays
    // in the record and the next call carries on, so no character of the line is lost.
    xheap_failafter(0);
    EXPECT_EQ(nullptr, dfgets(f, &rec));
    EXPECT_FALSE(feof(f));
    EXPECT_EQ(content.substr(lines[0].size() + 1, static_cast<size_t>(rec.capacity - 1)),
              rec.buffer);
    EXPECT_EQ(nullptr, dfgets(f, &rec));  // still refused: nothing is lost either
    xheap_failafter(-1);
  }
  fclose(f);
  dstr_free(&rec, 0);
  return lines;
}

TEST(Dfgets, Lines) {
  std::string longline;
  for (int i = 0; i < 100; i++) longline += static_cast<char>('A' + i % 26);
  struct {
    std::string content;
    std::vector<std::string> lines;
    bool resume = false;
  } cases[] = {{"", {}},
               {"one\ntwo", {"one", "two"}},
               {"\n\n", {"", ""}},
               {"a\r\nb\r\n", {"a\r", "b\r"}},
               {std::string(100000, 'L') + "\nend\n", {std::string(100000, 'L'), "end"}},
               {"short\n" + longline + "\nend", {"short", longline, "end"}, true}};
  for (const auto &c : cases)
    EXPECT_EQ(c.lines, lines_of(c.content, c.resume)) << c.content.substr(0, 20);
}
