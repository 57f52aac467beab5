#include "tools/kivctl/retire.h"

#include <windows.h>

#include <cstring>
#include <string>

#include "lib/wire.h"
#include "toolkit/runtime/error.h"

const char *const RETIRE_AGENTS[] = {"kivexec.exe", "echo-agent.exe"};
const int RETIRE_AGENT_COUNT = sizeof RETIRE_AGENTS / sizeof RETIRE_AGENTS[0];

namespace {

enum class use { absent, free, in_use };

// A running program's file cannot be opened for writing, whatever the sharing asked for:
// the image section holds it. Opening without truncating changes nothing in the file.
use use_of(const std::string &path) {
  HANDLE h = CreateFileA(path.c_str(), GENERIC_WRITE,
                         FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                         OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (h != INVALID_HANDLE_VALUE) {
    CloseHandle(h);
    return use::free;
  }
  DWORD e = GetLastError();
  if (e == ERROR_FILE_NOT_FOUND || e == ERROR_PATH_NOT_FOUND) return use::absent;
  // Anything else (a sharing violation, a denied write) would stop the installer too.
  return use::in_use;
}

std::string error_text(const char *what, const std::string &path, DWORD e) {
  return std::string(what) + " " + path + ": error " + std::to_string(e);
}

// Makes "<retired>\<UTC time>-<pid>[-n]", a folder no earlier upgrade made; "" on failure
// with *error set.
std::string unique_folder(const std::string &retired, std::string *error) {
  if (!CreateDirectoryA(retired.c_str(), nullptr) && GetLastError() != ERROR_ALREADY_EXISTS) {
    *error = error_text("cannot make", retired, GetLastError());
    return "";
  }
  SYSTEMTIME t;
  GetSystemTime(&t);
  char stamp[64];
  snprintf(stamp, sizeof stamp, "%04u%02u%02u-%02u%02u%02u-%lu", t.wYear, t.wMonth, t.wDay, t.wHour,
           t.wMinute, t.wSecond, static_cast<unsigned long>(GetCurrentProcessId()));
  for (int n = 1; n < 1000; n++) {
    std::string dir = retired + "\\" + stamp + (n > 1 ? "-" + std::to_string(n) : "");
    if (CreateDirectoryA(dir.c_str(), nullptr)) return dir;
    if (GetLastError() != ERROR_ALREADY_EXISTS) {
      *error = error_text("cannot make", dir, GetLastError());
      return "";
    }
  }
  *error = "no free name under " + retired;
  return "";
}

void put(const std::string &text, char *report, int size) {
  if (!report || size <= 0) return;
  size_t n = text.size() < static_cast<size_t>(size) ? text.size() : static_cast<size_t>(size) - 1;
  memcpy(report, text.data(), n);
  report[n] = 0;
}

}  // namespace

int retire_package_agents(const char *folder, char *report, int size) {
  put("", report, size);
  if (!folder || !*folder) {
    put("no install folder given", report, size);
    return KIV_EINVAL;
  }
  std::string base = folder;
  while (base.size() > 1 && (base.back() == '\\' || base.back() == '/')) base.pop_back();
  std::string into, moved, error;
  for (int i = 0; i < RETIRE_AGENT_COUNT; i++) {
    std::string from = base + "\\" + RETIRE_AGENTS[i];
    if (use_of(from) != use::in_use) continue;
    if (into.empty() && (into = unique_folder(base + "\\" WIRE_RETIRED, &error)).empty()) break;
    std::string to = into + "\\" + RETIRE_AGENTS[i];
    // No copy allowed: a copy would leave the running file where it was.
    if (!MoveFileExA(from.c_str(), to.c_str(), 0)) {
      error = "cannot move " + from + " to " + to + ": error " + std::to_string(GetLastError());
      break;
    }
    moved += (moved.empty() ? "" : ", ") + std::string(RETIRE_AGENTS[i]);
  }
  if (into.empty() && error.empty()) {
    put("no agent file of the package is in use", report, size);
    return 0;
  }
  if (into.empty() || moved.empty()) {
    // A folder made for nothing goes at once; the sweep would take it later anyway.
    if (!into.empty()) RemoveDirectoryA(into.c_str());
    put(error, report, size);
    return KIV_ESYS;
  }
  std::string text = "retired " + moved + " into " + into;
  put(error.empty() ? text : text + "; " + error, report, size);
  return error.empty() ? 0 : KIV_ESYS;
}

int retire_package_agents_here(char *report, int size) {
  char path[MAX_PATH];
  DWORD n = GetModuleFileNameA(nullptr, path, sizeof path);
  char *slash = n && n < sizeof path ? strrchr(path, '\\') : nullptr;
  if (!slash) {
    put("cannot tell kivctl's own folder", report, size);
    return KIV_ESYS;
  }
  *slash = 0;
  return retire_package_agents(path, report, size);
}
