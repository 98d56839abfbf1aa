#include "intfsm/foundation/ovel/IntfId.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "intfsm/foundation/vorn/Exception.h"
#include "tests/support/ThrownText.h"

using IntfsmTest::thrownText;
using Ovel::IntfId;

namespace {

std::string rangeError(std::string const & name) {
  return thrownText<Vorn::RangeException>([&] { IntfId id{Vorn::String(name)}; });
}

TEST(IntfId, ConvertsInterfaceAndKernelDeviceNamesUpTo64Bytes) {
  std::string const at64(64, 'e');
  for (std::string const & name :
       std::vector<std::string>{"Ethernet3/1", "Port-Channel10", "Cpu", "veth-a0", "Ethernet3/1/4.100", "x", at64}) {
    SCOPED_TRACE(name);
    EXPECT_TRUE(IntfId::isValidName(name));
    IntfId const id{Vorn::String(name)};
    EXPECT_EQ(id.name(), name);
    ASSERT_TRUE(IntfId::fromName(name).has_value());
    EXPECT_EQ(*IntfId::fromName(name), id);
  }
}

TEST(IntfId, RefusedNamesRaiseTheOffendingByteAndFailToConvert) {
  std::string const at64(64, 'e');
  struct Case {
    std::string name;
    std::string text;
  };
  Case const cases[] = {
      // The message shows the first 64 bytes only: a peer's long name cannot flood the error.
      {at64 + "X", "IntfId::bytes > 64 not allowed: \"" + at64 + "\"... has 65 bytes"},
      {"", "IntfId::name empty not allowed"},
      {"Ethernet 1", "IntfId::name \"Ethernet 1\" with whitespace at byte 8 not allowed"},
      {"et1\t", "IntfId::name \"et1\\x09\" with whitespace at byte 3 not allowed"},
      {" et1", "IntfId::name \" et1\" with whitespace at byte 0 not allowed"},
      {"et1\x7f", "IntfId::name \"et1\\x7f\" with a control character at byte 3 not allowed"},
      {"eth\xc3\xa9", "IntfId::name \"eth\\xc3\\xa9\" with a non-ASCII byte at byte 3 not allowed"},
      // A NUL inside the text is a control character, not the end of the name.
      {std::string("et\0" "1", 4), "IntfId::name \"et\\x001\" with a control character at byte 2 not allowed"},
  };
  for (Case const & c : cases) {
    SCOPED_TRACE(c.text);
    EXPECT_EQ(rangeError(c.name), c.text);
    EXPECT_FALSE(IntfId::isValidName(c.name));
    EXPECT_FALSE(IntfId::fromName(c.name).has_value());
  }
}

TEST(IntfId, FailedInitializationKeepsThePreviousId) {
  IntfId id{Vorn::String("Ethernet1")};
  EXPECT_THROW(id.handleInitialized("Ethernet 2"), Vorn::RangeException);
  EXPECT_EQ(id.name(), "Ethernet1");
  id.handleInitialized("Ethernet2");
  EXPECT_EQ(id.name(), "Ethernet2");
}

TEST(IntfId, EqualityHashOrderAndPrinting) {
  IntfId const a("Ethernet1");
  IntfId const b{Vorn::String(std::string("Ethernet") + "1")};  // same text, separate buffer
  EXPECT_EQ(a, b);
  EXPECT_EQ(std::hash<IntfId>()(a), b.hash());
  EXPECT_NE(IntfId("cpu"), IntfId("Cpu"));  // case matters
  EXPECT_LT(IntfId("Ethernet1"), IntfId("Ethernet2"));
  std::ostringstream os;
  os << IntfId("Ethernet3/1") << '|' << IntfId();
  EXPECT_EQ(os.str(), "Ethernet3/1|");
}

}  // namespace
