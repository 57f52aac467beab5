#include "service/retired.h"

#include <windows.h>

#include <cstring>
#include <string>

#include "lib/wire.h"

namespace {

// Empties dir of what is not in use, depth first; true when dir itself went.
bool sweep(const std::string &dir) {
  WIN32_FIND_DATAA found;
  HANDLE h = FindFirstFileA((dir + "\\*").c_str(), &found);
  if (h != INVALID_HANDLE_VALUE) {
    do {
      std::string name = found.cFileName, path = dir + "\\" + name;
      if (name == "." || name == "..") continue;
      if (found.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) {
        // A link goes as a name; what it points at is never walked.
        if (found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)
          RemoveDirectoryA(path.c_str());
        else
          DeleteFileA(path.c_str());
      } else if (found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) {
        sweep(path);
      } else {
        if (found.dwFileAttributes & FILE_ATTRIBUTE_READONLY)
          SetFileAttributesA(path.c_str(), found.dwFileAttributes & ~FILE_ATTRIBUTE_READONLY);
        // A running program's file refuses: it stays for a later sweep.
        DeleteFileA(path.c_str());
      }
    } while (FindNextFileA(h, &found));
    FindClose(h);
  }
  return RemoveDirectoryA(dir.c_str()) != 0;  // refused while anything is left
}

}  // namespace

void sweep_retired(const char *install_folder) {
  if (!install_folder || !*install_folder) return;
  std::string base = install_folder;
  while (base.size() > 1 && (base.back() == '\\' || base.back() == '/')) base.pop_back();
  std::string retired = base + "\\" WIRE_RETIRED;
  DWORD a = GetFileAttributesA(retired.c_str());
  if (a == INVALID_FILE_ATTRIBUTES || !(a & FILE_ATTRIBUTE_DIRECTORY) ||
      (a & FILE_ATTRIBUTE_REPARSE_POINT))
    return;
  sweep(retired);
}

void sweep_retired_here() {
  char path[MAX_PATH];
  DWORD n = GetModuleFileNameA(nullptr, path, sizeof path);
  char *slash = n && n < sizeof path ? strrchr(path, '\\') : nullptr;
  if (!slash) return;
  *slash = 0;
  sweep_retired(path);
}
