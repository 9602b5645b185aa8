#include "Kiv/Assert.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace Kiv {

void assertionFailed(char const* expression, char const* file, int line, char const* function) {
  char const* base = std::strrchr(file, '/');
  std::fprintf(stderr, "Assertion failed: %s (%s:%d, %s)\n", expression, base ? base + 1 : file, line, function);
  std::fflush(stderr);
  std::abort();
}

}  // namespace Kiv
