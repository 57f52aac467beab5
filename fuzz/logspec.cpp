// The debug spec and the prefix template from the input: everything before the first NUL
// is a debug spec, the rest a template (its ";" become ":" since an item cannot hold one).
// Prefixes go into buffers of several sizes with a guard region behind them, and whole
// lines through a sink that checks their length.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "toolkit/runtime/context.h"
#include "toolkit/runtime/log.h"

namespace {
void checksink(const char *line) {
  if (strlen(line) > KIV_LOGLINE - 1) abort();
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  std::string input(reinterpret_cast<const char *>(data), size);
  size_t cut = input.find('\0');
  std::string debugspec = input.substr(0, cut);
  if (cut != std::string::npos) {
    std::string templ = input.substr(cut + 1);
    for (char &c : templ)
      if (c == ';' || c == '\0') c = ':';
    debugspec += ";=" + templ;
  }

  kiv_logreset();
  kiv_logconfig(debugspec.c_str());
  kiv_logsink = checksink;

  static const int sizes[] = {0, 1, 2, 3, 7, 16, 64, 300, KIV_LOGLINE};
  const int guard = 64;
  static char buffer[KIV_LOGLINE + guard];
  kiv_context ctx{42, 0, nullptr};
  for (int s : sizes) {
    memset(buffer, 0x5A, sizeof buffer);
    int n = kiv_logprefix(buffer, s, (s & 1) ? &ctx : nullptr, "ssock.ssock_update",
                          s % 5, -(s % 40));
    if (n < 0 || n > s) abort();
    for (size_t i = static_cast<size_t>(s); i < sizeof buffer; i++)
      if (buffer[i] != 0x5A) abort();
  }

  kiv_log(nullptr, "ssock.start_agent", "%s", debugspec.c_str());
  kiv_log(nullptr, "sserv", nullptr);
  kiv_logerror(nullptr, nullptr, 2, -12, "%s|%s", debugspec.c_str(), debugspec.c_str());
  kiv_logcheck(0, debugspec.c_str());
  kiv_logreset();
  return 0;
}
