// upcase: the program kivexec starts in the tests. It copies its standard input to its
// standard output in capitals and writes "END" when its input ends. First argument:
//   env      first the connection's names from the environment, one "NAME=value" a line
//   handles  first "handles=N": the handles it inherited beyond its standard handles
//   stderr   first "to stderr" on its standard error
//   hang     nothing at all: it never ends by itself (ended after a minute, so that a
//            failed test leaves nothing behind)
#include <windows.h>

#include <cctype>
#include <cstdint>
#include <cstdio>
#include <string>

namespace {

void put(const std::string &text) {
  DWORD written = 0;
  WriteFile(GetStdHandle(STD_OUTPUT_HANDLE), text.data(), static_cast<DWORD>(text.size()), &written,
            nullptr);
}

int inherited_handles() {
  HANDLE std_handles[] = {GetStdHandle(STD_INPUT_HANDLE), GetStdHandle(STD_OUTPUT_HANDLE),
                          GetStdHandle(STD_ERROR_HANDLE)};
  int n = 0;
  for (uintptr_t v = 4; v < 0x4000; v += 4) {
    HANDLE h = reinterpret_cast<HANDLE>(v);
    DWORD flags;
    // An inherited handle keeps its inheritance flag; the runtime's own have it clear.
    if (GetHandleInformation(h, &flags) && (flags & HANDLE_FLAG_INHERIT) && h != std_handles[0] &&
        h != std_handles[1] && h != std_handles[2])
      n++;
  }
  return n;
}

}  // namespace

int main(int argc, char **argv) {
  std::string mode = argc > 1 ? argv[1] : "";
  if (mode == "hang") {
    Sleep(60000);
    return 3;
  }
  if (mode == "env") {
    for (const char *name :
         {"TCPREMOTEIP", "TCPREMOTEPORT", "TCPLOCALIP", "TCPLOCALPORT", "PROTO"}) {
      char value[256];
      DWORD n = GetEnvironmentVariableA(name, value, sizeof value);
      put(std::string(name) + "=" + std::string(value, n < sizeof value ? n : 0) + "\n");
    }
  }
  if (mode == "stderr") {
    DWORD written = 0;
    WriteFile(GetStdHandle(STD_ERROR_HANDLE), "to stderr\n", 10, &written, nullptr);
  }
  if (mode == "handles") put("handles=" + std::to_string(inherited_handles()) + "\n");
  static char buffer[65536];
  DWORD got = 0;
  while (ReadFile(GetStdHandle(STD_INPUT_HANDLE), buffer, sizeof buffer, &got, nullptr) &&
         got > 0) {
    for (DWORD i = 0; i < got; i++)
      buffer[i] = static_cast<char>(toupper(static_cast<unsigned char>(buffer[i])));
    put(std::string(buffer, got));
  }
  put("END\n");
  return 0;
}
