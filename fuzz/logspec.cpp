// The debug spec and the prefix template from the input: everything before the first NUL
// is a debug spec, the rest a template (its ";" become ":" since an item cannot hold one).
// Prefixes go into buffers of several sizes with a guard region behind them, and whole
// lines through a sink that checks their length.
#include "fuzz/fuzz.h"
#include "toolkit/runtime/context.h"
#include "toolkit/runtime/log.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  std::string input(reinterpret_cast<const char *>(data), size);
  size_t cut = input.find('\0');
  std::string debugspec = input.substr(0, cut);
  if (cut != std::string::npos) {
    std::string templ = input.substr(cut + 1);
    std::replace(templ.begin(), templ.end(), ';', ':');
    std::replace(templ.begin(), templ.end(), '\0', ':');
    debugspec += ";=" + templ;
  }
  kiv_logreset();
  kiv_logconfig(debugspec.c_str());
  kiv_logsink = [](const char *line) { check(strlen(line) <= KIV_LOGLINE - 1); };

  static char buffer[KIV_LOGLINE + 64];  // 64 bytes of guard behind the largest size
  kiv_context ctx{42, 0, nullptr};
  for (int s : {0, 1, 2, 3, 7, 16, 64, 300, KIV_LOGLINE}) {
    memset(buffer, 0x5A, sizeof buffer);
    int n =
        kiv_logprefix(buffer, s, (s & 1) ? &ctx : nullptr, "ssock.ssock_update", s % 5, -(s % 40));
    check(n >= 0 && n <= s);
    check(std::all_of(buffer + s, buffer + sizeof buffer, [](char c) { return c == 0x5A; }));
  }
  kiv_log(nullptr, "ssock.start_agent", "%s", debugspec.c_str());
  kiv_log(nullptr, "sserv", nullptr);
  kiv_logerror(nullptr, nullptr, 2, -12, "%s|%s", debugspec.c_str(), debugspec.c_str());
  kiv_logcheck(0, debugspec.c_str());
  kiv_logreset();
  return 0;
}
