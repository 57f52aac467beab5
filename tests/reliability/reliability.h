// Sizes of the reliability runs: a reduced default for make test, the full size from the
// environment (make soak).
#pragma once
#include <cstdio>
#include <cstdlib>
#include <string>

namespace rel {

inline int run_size(const char *variable, int fallback) {
  const char *text = getenv(variable);
  int n = text ? atoi(text) : 0;
  return n > 0 ? n : fallback;
}

// One row of the summary table make soak prints.
inline void summary(const std::string &run, const std::string &figures) {
  printf("| %-14s | %s\n", run.c_str(), figures.c_str());
  fflush(stdout);
}

}  // namespace rel
