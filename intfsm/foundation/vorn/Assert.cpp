#include "intfsm/foundation/vorn/Assert.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace Vorn {

char const * moduleOfPath(char const * file, char * buffer, unsigned bufferSize) {
  if (!file || bufferSize == 0) return "";
  // The last "intfsm/" of the path: the checkout itself may sit in a directory of that name.
  char const * start = file;
  for (char const * at = std::strstr(file, "intfsm/"); at; at = std::strstr(at + 1, "intfsm/")) {
    if (at == file || at[-1] == '/') start = at + std::strlen("intfsm/");
  }
  char const * end = std::strrchr(start, '/');
  if (!end) end = start;
  unsigned n = static_cast<unsigned>(end - start);
  if (n >= bufferSize) n = bufferSize - 1;
  std::memcpy(buffer, start, n);
  buffer[n] = '\0';
  return buffer;
}

void assertionFailed(char const * expression, char const * file, int line, char const * function) {
  char module[128];
  char const * base = std::strrchr(file, '/');
  std::fprintf(stderr, "%s: assertion \"%s\" failed at %s:%d in %s\n", moduleOfPath(file, module, sizeof module),
               expression, base ? base + 1 : file, line, function);
  std::fflush(stderr);
  std::abort();
}

}  // namespace Vorn
