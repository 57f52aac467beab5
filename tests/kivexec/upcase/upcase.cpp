// upcase: the program kivexec starts in the tests. It copies its standard input to its
// standard output in capitals and writes "END" when its input ends. First argument:
//   env      first the connection's names from the environment, one "NAME=value" a line
//   handles  first what it inherited beyond its standard handles, as the test agent
//            records it ("#handles listening=0 sockets=0 pipes=0 other=0 own=0")
//   stderr   first "to stderr" on its standard error
//   hang     nothing at all: it never ends by itself (ended after a minute, so that a
//            failed test leaves nothing behind)
// Any further argument is written first, one a line: a test sees the program run.
#include <cctype>
#include <string>

#include "tests/testagent/handles.h"

namespace {

void put(const std::string &text) {
  DWORD written = 0;
  WriteFile(GetStdHandle(STD_OUTPUT_HANDLE), text.data(), static_cast<DWORD>(text.size()), &written,
            nullptr);
}

}  // namespace

int main(int argc, char **argv) {
  std::string mode = argc > 1 ? argv[1] : "";
  for (int i = 2; i < argc; i++) put(std::string(argv[i]) + "\n");
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
  if (mode == "handles") {
    WSADATA wsa;
    WSAStartup(MAKEWORD(2, 2), &wsa);
    put(scan_handles(nullptr) + "\n");
  }
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
