// What a running kivd holds, read from outside: the reliability runs compare it before
// and after a run, the scale benchmark reports it per size.
#pragma once
#include <windows.h>

#include <string>
#include <vector>

namespace rel {

struct usage {
  DWORD handles = 0;
  SIZE_T private_bytes = 0;
};

// The handle count and private bytes of process pid; false when either cannot be read.
bool usage_of(DWORD pid, usage *out);

// "handles A -> B, private KB A -> B", for assert messages and tables.
std::string describe(const usage &before, const usage &after);

// The port lines of a listing reply ("!", lines, "."); empty when it is not a listing.
std::vector<std::string> listed_ports(const std::vector<std::string> &reply);

}  // namespace rel
