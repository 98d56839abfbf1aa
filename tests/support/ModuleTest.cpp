#include "tests/support/ModuleTest.h"

namespace IntfsmTest {

ModuleTest::ModuleTest(char const * traceModule) : module_(traceModule), trace(traceModule) {}

unsigned ModuleTest::runUntilIdle(unsigned maxPasses) {
  unsigned ran = 0;
  while (ran < maxPasses && loop_.runOnce(0)) ++ran;
  return ran;
}

void ModuleTest::advanceAndRun(double seconds) {
  time_.advance(seconds);
  runUntilIdle();
}

std::vector<std::string> ModuleTest::takeTraces() {
  std::vector<std::string> texts = traces();
  trace.clear();
  return texts;
}

}  // namespace IntfsmTest
