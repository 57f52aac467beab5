// Sequences of kivinfo_set / kivinfo_get / kivinfo_walk / kivinfo_fixname on the
// process-wide tree, with file sources that the target writes into a temporary folder.
// Files generated from the input are modelled (what each line adds, when the source is
// read); files of raw input bytes are only required not to crash anything.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "lib/heap.h"
#include "toolkit/config/info.h"
#include "toolkit/runtime/error.h"
#include "toolkit/runtime/platform.h"

namespace {

struct input {
  const uint8_t *p;
  size_t n;
  uint8_t byte() {
    if (!n) return 0;
    n--;
    return *p++;
  }
  bool empty() const { return n == 0; }
};

void check(bool ok) {
  if (!ok) abort();
}

std::string fold(std::string s) {
  for (char &c : s)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + 32);
  return s;
}

// a is b or lies above b (both folded).
bool covers(const std::string &a, const std::string &b) {
  if (a == ".") return true;
  return b.compare(0, a.size(), a) == 0 && (b.size() == a.size() || b[a.size()] == '.');
}

constexpr int SLOTS = 4;

struct entry {
  char letter;  // 'n', 's', or 'x' for the slot's source (unread or read)
  std::string text;
};
using tree = std::map<std::string, entry>;  // folded path -> entry

struct slot {
  bool known = true;    // false after a file of raw bytes: nothing is checked
  bool pending = false; // the source is attached and not yet read
  std::string file;
  std::vector<std::pair<std::string, entry>> lines;  // what reading the file adds, in order
};

std::filesystem::path dir;
tree model;
slot slots[SLOTS];

std::string slotpath(int s) { return ".f" + std::to_string(s); }

// One name of one or two components of a small alphabet, so that names meet.
std::string makename(input &in) {
  static const char *parts[] = {"a", "B", "c", "A", "b", "dd", "D", "ab"};
  std::string name = parts[in.byte() % 8];
  if (in.byte() & 1) name += std::string(".") + parts[in.byte() % 8];
  return name;
}

// What the add function does for one reported name.
void add(std::vector<std::pair<std::string, entry>> &out, const std::string &prefix,
         const std::string &name, const std::string *value) {
  std::string path = prefix;
  size_t start = 0;
  while (true) {
    size_t dot = name.find('.', start);
    path += "." + name.substr(start, dot == std::string::npos ? std::string::npos : dot - start);
    if (dot == std::string::npos) break;
    out.push_back({fold(path), {'n', ""}});
    start = dot + 1;
  }
  out.push_back({fold(path), value ? entry{'s', *value} : entry{'n', ""}});
}

void writefile(const std::string &path, const std::string &text) {
  FILE *f = fopen(path.c_str(), "wb");
  check(f != nullptr);
  fwrite(text.data(), 1, text.size(), f);
  fclose(f);
}

void removesubtree(const std::string &path) {
  std::string f = fold(path);
  for (auto it = model.begin(); it != model.end();)
    it = covers(f, it->first) ? model.erase(it) : std::next(it);
}

// Reading a slot's source, as a lookup or walk beneath it does.
void read(int s) {
  slot &sl = slots[s];
  if (!sl.pending) return;
  for (auto &l : sl.lines) model[l.first] = l.second;
  sl.pending = false;
}

bool pendingabove(int s, const std::string &path) {
  return slots[s].pending && covers(fold(slotpath(s)), fold(path));
}

void attachgenerated(input &in, int s) {
  slot &sl = slots[s];
  std::string text;
  sl.lines.clear();
  int count = in.byte() % 8;
  bool section = false;
  std::string current;
  for (int i = 0; i < count; i++) {
    std::string name = makename(in);
    if (in.byte() & 1) {
      text += name + ":\n";
      add(sl.lines, slotpath(s), name, nullptr);
      section = true;
      current = name;
    } else {
      std::string value;
      int len = in.byte() % 5;
      for (int k = 0; k < len; k++) value += "xyz019"[in.byte() % 6];
      text += (in.byte() & 1 ? "\t" : "  ") + name + " = " + value + "\n";
      add(sl.lines, slotpath(s), section ? current + "." + name : name, &value);
    }
  }
  writefile(sl.file, text);
  check(kivinfo_set(slotpath(s).c_str(), sl.file.c_str(), KIVINFO_FILE) == 0);
  removesubtree(slotpath(s));
  model[fold(slotpath(s))] = {'x', sl.file};
  sl.known = true;
  sl.pending = true;
}

void attachraw(input &in, int s) {
  slot &sl = slots[s];
  std::string text;
  int len = in.byte() % 48;
  for (int i = 0; i < len; i++) text += static_cast<char>(in.byte());
  writefile(sl.file, text);
  check(kivinfo_set(slotpath(s).c_str(), sl.file.c_str(), KIVINFO_FILE) == 0);
  removesubtree(slotpath(s));
  sl.known = false;
  sl.pending = false;
}

std::string makepath(input &in, int s) {
  std::string path = slotpath(s);
  if (in.byte() & 1) path = fold(path) == path ? ".F" + std::to_string(s) : path;
  int depth = in.byte() % 4;
  for (int i = 0; i < depth; i++) path += "." + makename(in);
  return path;
}

void lookup(input &in, int s) {
  std::string path = makepath(in, s);
  char *out = nullptr;
  int rc = kivinfo_get(nullptr, path.c_str(), &out);
  check(rc == 0 ? out != nullptr : out == nullptr);
  if (slots[s].known) {
    if (!model.count(fold(path)) && pendingabove(s, path)) read(s);
    auto it = model.find(fold(path));
    if (it == model.end())
      check(rc == KIV_ENOTFOUND);
    else if (it->second.letter == 's')
      check(rc == 0 && it->second.text == out);
    else
      check(rc == KIV_ENODE);
  }
  xfree(out);
}

int record(const char *path, const char *text, void *arg) {
  auto *seen = static_cast<std::multiset<std::string> *>(arg);
  seen->insert(fold(path) + "=" + text);
  return 0;
}

void walk(input &in, int s) {
  std::string path = makepath(in, s);
  std::multiset<std::string> seen;
  int rc = kivinfo_walk(path.c_str(), record, &seen);
  if (!slots[s].known) return;
  check(rc == 0);
  // Sources above the path are read first; only when there are none, those below.
  if (pendingabove(s, path) || covers(fold(path), fold(slotpath(s)))) read(s);
  std::multiset<std::string> expect;
  for (auto &e : model)
    if (covers(fold(path), e.first)) expect.insert(e.first + "=" + e.second.text);
  check(seen == expect);
}

// A refused kivinfo_set still removes the subtree.
void refuse(input &in, int s) {
  std::string path = makepath(in, s);
  int kind = in.byte() & 1 ? KIVINFO_RESERVED : 3 + in.byte() % 4;
  check(kivinfo_set(path.c_str(), "x", kind) == (kind == KIVINFO_RESERVED ? KIV_ENOTSUPP : KIV_EINVAL));
  removesubtree(path);
  if (fold(path) == fold(slotpath(s))) slots[s].pending = false;
}

void fixname(input &in) {
  std::string text;
  int len = in.byte() % 16;
  for (int i = 0; i < len; i++) text += static_cast<char>(in.byte());
  std::string before = text;
  check(kivinfo_fixname(&text[0]) == &text[0]);
  for (size_t i = 0; i < before.size() && before[i]; i++) {
    char want = before[i] == '.' ? '_' : fold(std::string(1, before[i]))[0];
    check(text[i] == want);
  }
}

bool setup() {
  int rc = kivinfo_init(0);
  check(rc == 0 || rc == KIV_EBUSY);
  dir = std::filesystem::temp_directory_path() / ("kivinfo-fuzz-" + std::to_string(kiv_processid()));
  std::filesystem::create_directories(dir);
  for (int s = 0; s < SLOTS; s++) slots[s].file = (dir / ("f" + std::to_string(s) + ".cfg")).string();
  std::atexit([] {
    std::error_code ec;
    std::filesystem::remove_all(dir, ec);
  });
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static bool ready = setup();
  (void)ready;
  model.clear();
  for (int s = 0; s < SLOTS; s++) {
    check(kivinfo_set(slotpath(s).c_str(), "x", KIVINFO_RESERVED) == KIV_ENOTSUPP);
    slots[s].known = true;
    slots[s].pending = false;
  }
  input in{data, size};
  while (!in.empty()) {
    uint8_t op = in.byte();
    int s = (op >> 4) % SLOTS;
    switch (op % 7) {
      case 0: attachgenerated(in, s); break;
      case 1: attachraw(in, s); break;
      case 2:
      case 3: lookup(in, s); break;
      case 4: walk(in, s); break;
      case 5: refuse(in, s); break;
      default: fixname(in); break;
    }
  }
  return 0;
}
