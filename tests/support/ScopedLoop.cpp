#include "tests/support/ScopedLoop.h"

#include "intfsm/foundation/vorn/System.h"

namespace IntfsmTest {

ScopedTestTime::ScopedTestTime(double t) { Vorn::System::testTimeIs(t); }

ScopedTestTime::~ScopedTestTime() { Vorn::System::testTimeDel(); }

double ScopedTestTime::now() const { return Vorn::System::currentTime(); }

void ScopedTestTime::advance(double seconds) { Vorn::System::testTimeIs(Vorn::System::currentTime() + seconds); }

void ScopedTestTime::nowIs(double t) { Vorn::System::testTimeIs(t); }

}  // namespace IntfsmTest
