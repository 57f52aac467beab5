// kivctl apply's file check on arbitrary file bytes. A refusal names a line of the file;
// an accepted file exports to a text that is accepted again as the same configuration.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "lib/heap.h"
#include "tools/kivctl/applycfg.h"

namespace {

int read(const void *data, size_t size, applycfg *cfg, char **error) {
  FILE *stream = fmemopen(const_cast<void *>(data), size, "rb");
  if (!stream) return 1;  // fmemopen refuses an empty buffer on some C libraries
  int rc = applycfg_read(stream, cfg, error);
  fclose(stream);
  return rc;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  applycfg cfg;
  char *error = nullptr;
  int rc = read(data, size, &cfg, &error);
  if (rc == 1) return 0;
  if (rc == -1) {
    long lines = 1;
    for (size_t i = 0; i < size; i++) lines += data[i] == '\n';
    long line = error ? strtol(error, nullptr, 10) : 0;
    if (!error || !cfg.keys.empty() || line < 1 || line > lines || strlen(error) > 255) abort();
    xfree(error);
    return 0;
  }
  if (rc != 0 || error) abort();
  std::vector<std::string> skipped;
  std::string text = applycfg_export(cfg, &skipped);
  if (!skipped.empty()) abort();
  applycfg back;
  if (text.empty()) {
    for (const auto &k : cfg.keys)
      if (!k.second.values.empty()) abort();
    return 0;
  }
  if (read(text.data(), text.size(), &back, &error) != 0) abort();
  if (!applycfg_diff(cfg, back).empty() || !applycfg_diff(back, cfg).empty()) abort();
  return 0;
}
