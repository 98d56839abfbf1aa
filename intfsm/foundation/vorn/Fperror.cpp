#include "intfsm/foundation/vorn/Fperror.h"

#include <cstdio>
#include <cstdlib>

void fperror(char const * what) {
  std::perror(what);
  std::exit(1);
}
