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

TEST(NamespaceName, DefaultNamespaceIsTheDefaultTextAndEmptyIsDistinct) {
  EXPECT_STREQ(Ovel::DEFAULT_NS, "default");
  NamespaceName const def = NamespaceName::defaultNamespace();
  EXPECT_EQ(def, NamespaceName(Vorn::String(Ovel::DEFAULT_NS)));
  EXPECT_TRUE(def.isDefault());
  EXPECT_STREQ(def.charPtr(), "default");

  NamespaceName const empty;
  EXPECT_TRUE(empty.empty());
  EXPECT_FALSE(empty.isDefault());
  EXPECT_NE(empty, def);
  EXPECT_EQ(empty.orDefault(), def);
  EXPECT_STREQ(empty.charPtr(), "");

  NamespaceName const blue("blue");
  EXPECT_FALSE(blue.isDefault());
  EXPECT_EQ(blue.orDefault(), blue);
}

TEST(NamespaceName, HashOrderPrintingAndUseAsKey) {
  NamespaceName const a("blue");
  NamespaceName const b{Vorn::String(std::string("bl") + "ue")};
  EXPECT_EQ(a, b);
  EXPECT_EQ(a.hash(), Vorn::String("blue").hash());
  EXPECT_EQ(std::hash<NamespaceName>()(a), b.hash());
  EXPECT_LT(NamespaceName("blue"), NamespaceName("red"));
  EXPECT_LT(NamespaceName(), NamespaceName("blue"));

  std::ostringstream os;
  os << a << '|' << NamespaceName() << '|' << NamespaceName::defaultNamespace();
  EXPECT_EQ(os.str(), "blue||default");

  Vorn::Collection<NamespaceName, Vorn::String> byNs;
  byNs.set(NamespaceName::defaultNamespace(), "one");
  byNs.set(NamespaceName("blue"), "two");
  EXPECT_EQ(byNs.get(NamespaceName("default")), "one");
  EXPECT_EQ(byNs.get(b), "two");
  EXPECT_FALSE(byNs.contains(NamespaceName()));
}

}  // namespace
