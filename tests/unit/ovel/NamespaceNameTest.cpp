#include "intfsm/foundation/ovel/NamespaceName.h"

#include <gtest/gtest.h>

#include <optional>
#include <sstream>
#include <string>

#include "intfsm/foundation/vorn/Collection.h"
#include "intfsm/foundation/vorn/Exception.h"
#include "tests/support/ThrownText.h"

using IntfsmTest::thrownText;
using Ovel::NamespaceName;

namespace {

TEST(NamespaceName, AcceptsUpTo150BytesAndRefusesLongerWithTheFixedText) {
  std::string const at150(150, 'n');
  NamespaceName const ok{Vorn::String(at150)};
  EXPECT_EQ(ok.size(), 150u);
  EXPECT_EQ(ok.name().view(), at150);

  std::optional<NamespaceName> made;
  EXPECT_EQ(thrownText<Vorn::RangeException>([&] { made.emplace(Vorn::String(at150 + "n")); }),
            "NamespaceName::bytes > 150 not allowed");
  EXPECT_FALSE(made.has_value());
}

TEST(NamespaceName, EmptyIsDistinctFromDefaultButMeansIt) {
  NamespaceName const def = NamespaceName::defaultNamespace();
  EXPECT_EQ(def, NamespaceName("default"));
  EXPECT_TRUE(def.isDefault());
  NamespaceName const empty;
  EXPECT_FALSE(empty.isDefault());
  EXPECT_NE(empty, def);
  EXPECT_EQ(empty.orDefault(), def);
  EXPECT_EQ(NamespaceName("blue").orDefault(), NamespaceName("blue"));
  EXPECT_FALSE(NamespaceName("blue").isDefault());

  std::ostringstream os;
  os << NamespaceName("blue") << '|' << empty << '|' << def;
  EXPECT_EQ(os.str(), "blue||default");
}

TEST(NamespaceName, EqualTextsAreOneKey) {
  Vorn::Collection<NamespaceName, Vorn::String> byNs;
  byNs.set(NamespaceName::defaultNamespace(), "one");
  byNs.set(NamespaceName{Vorn::String(std::string("bl") + "ue")}, "two");  // a separate buffer
  EXPECT_EQ(byNs.get(NamespaceName("default")), "one");
  EXPECT_EQ(byNs.get(NamespaceName("blue")), "two");
  EXPECT_FALSE(byNs.contains(NamespaceName()));
  EXPECT_LT(NamespaceName(), NamespaceName("blue"));
}

}  // namespace
