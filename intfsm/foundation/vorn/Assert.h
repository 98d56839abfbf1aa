// The one assertion facility for program errors: a broken invariant is reported with the source
// module, the expression text and the place, and the process aborts.
//
//   VORN_ASSERT(intfStatusDir());
//   // KernelOperState: assertion "intfStatusDir()" failed at IntfStatusOperStatusSm.cpp:120 in doSyncIntfStatus
//
// The check stays in release builds: these state machines own kernel resources, and running on
// past a broken invariant would corrupt them silently.
#pragma once

namespace Vorn {

[[noreturn]] void assertionFailed(char const * expression, char const * file, int line, char const * function);

// The source module of a file path: the directory below "intfsm/" ("KernelOperState",
// "foundation/vorn"), or the file's directory when the path has no such part.
char const * moduleOfPath(char const * file, char * buffer, unsigned bufferSize);

}  // namespace Vorn

#define VORN_ASSERT(expr) \
  ((expr) ? static_cast<void>(0) : ::Vorn::assertionFailed(#expr, __FILE__, __LINE__, __func__))
