// kivctl apply's file check on arbitrary file bytes. A refusal names a line of the file;
// an accepted file exports to a text that is accepted again as the same configuration.
#include "fuzz/fuzz.h"
#include "lib/heap.h"
#include "tools/kivctl/applycfg.h"

static int read(const void *data, size_t size, applycfg *cfg, char **error) {
  FILE *f = fmemopen(const_cast<void *>(data), size, "rb");
  if (!f) return 1;  // some C libraries refuse an empty buffer
  int rc = applycfg_read(f, cfg, error);
  fclose(f);
  return rc;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  applycfg cfg, back;
  char *error = nullptr;
  int rc = read(data, size, &cfg, &error);
  if (rc == 1) return 0;
  if (rc == -1) {
    long lines = 1 + std::count(data, data + size, '\n');
    long line = error ? strtol(error, nullptr, 10) : 0;
    check(error && cfg.keys.empty() && line >= 1 && line <= lines && strlen(error) <= 255);
    xfree(error);
    return 0;
  }
  check(rc == 0 && !error);
  std::vector<std::string> skipped;
  std::string text = applycfg_export(cfg, &skipped);
  check(skipped.empty());
  if (text.empty()) {
    for (const auto &k : cfg.keys) check(k.second.values.empty());
    return 0;
  }
  check(read(text.data(), text.size(), &back, &error) == 0);
  check(applycfg_diff(cfg, back).empty() && applycfg_diff(back, cfg).empty());
  return 0;
}
