// Ptr and PtrInterface: the count, the flag bits sharing its word, both counting modes.
#include "intfsm/foundation/vorn/Ptr.h"

#include <gtest/gtest.h>

namespace {

struct Counted : Vorn::PtrInterface {
  explicit Counted(int * deaths) : deaths(deaths) {}
  ~Counted() override { ++*deaths; }
  int * deaths;
};

TEST(Ptr, TheLastReferenceDestroysAndTheFlagBitsNeverCount) {
  for (bool threadSafe : {false, true}) {
    SCOPED_TRACE(threadSafe);
    Vorn::threadSafePointers = threadSafe;
    int deaths = 0;
    Vorn::Ptr<Counted> a = new Counted(&deaths);
    {
      Vorn::Ptr<Counted const> b = a;
      Vorn::Ptr<Counted> c = a;
      Vorn::Ptr<Counted> moved = std::move(c);
      EXPECT_FALSE(c);
      EXPECT_EQ(a->references(), 3u);
    }
    a->vornMarkedForDeletionIs(true);
    Vorn::Ptr<Counted> d = a;
    EXPECT_EQ(a->references(), 2u);
    EXPECT_TRUE(a->vornMarkedForDeletion());
    d = nullptr;
    a = a;  // self-assignment keeps the object
    EXPECT_EQ(deaths, 0);
    a->vornMarkedForDeletionIs(false);
    EXPECT_FALSE(a->vornMarkedForDeletion());
    a = nullptr;
    EXPECT_EQ(deaths, 1);
  }
  Vorn::threadSafePointers = false;
}

}  // namespace
