#include "tests/support/ModuleTest.h"

#include "intfsm/foundation/vorn/System.h"

namespace IntfsmTest {

ScopedTestTime::ScopedTestTime(double t) { Vorn::System::testTimeIs(t); }

ScopedTestTime::~ScopedTestTime() { Vorn::System::testTimeDel(); }

double ScopedTestTime::now() const { return Vorn::System::currentTime(); }

void ScopedTestTime::advance(double seconds) { Vorn::System::testTimeIs(Vorn::System::currentTime() + seconds); }

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
