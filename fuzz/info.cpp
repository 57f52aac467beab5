// Sequences of kivinfo_set / kivinfo_get / kivinfo_walk / kivinfo_fixname on the
// process-wide tree, with file sources of raw input bytes written to a temporary folder,
// plus one generated line per file whose value a lookup must then find.
#include <filesystem>

#include "fuzz/fuzz.h"
#include "lib/heap.h"
#include "toolkit/config/info.h"
#include "toolkit/runtime/error.h"
#include "toolkit/runtime/platform.h"

namespace {

fuzzinput in;
// Paths of a small alphabet under four slots, so that paths meet and differ by case.
std::string makepath(int s) {
  static const char *parts[] = {"a", "B", "c", "A", "b", "dd", "D", "ab"};
  std::string path = (in.byte() & 1 ? ".f" : ".F") + std::to_string(s);
  for (int depth = in.byte() % 4; depth > 0; depth--)
    path += std::string(".") + parts[in.byte() % 8];
  return path;
}
int record(const char *path, const char *text, void *) {
  check(path[0] == '.' && text != nullptr);
  return 0;
}

std::filesystem::path dir;
bool setup() {
  int rc = kivinfo_init(0);
  check(rc == 0 || rc == KIV_EBUSY);
  dir =
      std::filesystem::temp_directory_path() / ("kivinfo-fuzz-" + std::to_string(kiv_processid()));
  std::filesystem::create_directories(dir);
  std::atexit([] { std::filesystem::remove_all(dir); });
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static bool ready = setup();
  (void)ready;
  for (in.start(data, size); in.more();) {
    uint8_t op = in.byte();
    int s = (op >> 4) % 4;
    std::string path = makepath(s), slot = ".f" + std::to_string(s);
    char *out = nullptr;
    switch (op % 5) {
      case 0: {  // attach a file: a known first section, then raw bytes
        std::string file = (dir / ("f" + std::to_string(s) + ".cfg")).string(),
                    value = std::to_string(in.byte());
        FILE *f = fopen(file.c_str(), "wb");
        check(f != nullptr);
        std::string raw = in.bytes(48);
        fprintf(f, "known:\n  v = %s\n%s", value.c_str(), raw.c_str());
        fclose(f);
        check(kivinfo_set(slot.c_str(), file.c_str(), KIVINFO_FILE) == 0);
        int rc = kivinfo_get(nullptr, (slot + ".KNOWN.v").c_str(), &out);
        check(raw.empty() ? rc == 0 && value == out : (rc == 0) == (out != nullptr));
        break;
      }
      case 1: {
        int rc = kivinfo_get(nullptr, path.c_str(), &out);
        check(rc == 0 ? out != nullptr : out == nullptr);
        break;
      }
      case 2:
        kivinfo_walk(path.c_str(), record, nullptr);
        break;
      case 3:
        check(kivinfo_set(path.c_str(), "x", KIVINFO_RESERVED) == KIV_ENOTSUPP);
        break;
      default: {
        std::string text = in.bytes(16);
        check(kivinfo_fixname(&text[0]) == &text[0] &&
              std::string(text.c_str()).find('.') == std::string::npos);
      }
    }
    xfree(out);
  }
  return 0;
}
