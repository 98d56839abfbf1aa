#include "intfsm/foundation/ovel/IntfId.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "intfsm/foundation/vorn/Exception.h"
#include "tests/support/ThrownText.h"

using IntfsmTest::thrownText;
using Ovel::IntfId;

namespace {

std::string rangeError(std::string const & name) {
  return thrownText<Vorn::RangeException>([&] { IntfId id{Vorn::String(name)}; });
}

TEST(IntfId, ConvertsInterfaceAndKernelDeviceNames) {
  for (char const * name : {"Ethernet1", "Ethernet3/1", "Port-Channel10", "Vlan100", "Cpu", "et1", "veth-a0",
                            "ma1", "Ethernet3/1/4.100", "x"}) {
    SCOPED_TRACE(name);
    EXPECT_TRUE(IntfId::isValidName(name));
    IntfId id{Vorn::String(name)};
    EXPECT_EQ(id.name(), name);
    EXPECT_EQ(id.stringValue(), name);
    ASSERT_TRUE(IntfId::fromName(name).has_value());
    EXPECT_EQ(*IntfId::fromName(name), id);
  }
}

TEST(IntfId, LengthLimitIs64Bytes) {
  std::string const at64(64, 'e');
  EXPECT_TRUE(IntfId::isValidName(at64));
  EXPECT_EQ(IntfId(Vorn::String(at64)).name().size(), 64u);

  std::string const at65 = std::string(64, 'e') + "X";
  EXPECT_FALSE(IntfId::isValidName(at65));
  EXPECT_FALSE(IntfId::fromName(at65).has_value());
  // The message shows the first 64 bytes only: a peer's long name cannot flood the error.
  EXPECT_EQ(rangeError(at65), "IntfId::bytes > 64 not allowed: \"" + at64 + "\"... has 65 bytes");
}

TEST(IntfId, RejectsEmptyWhitespaceControlAndNonAsciiWithTheOffendingByte) {
  EXPECT_EQ(rangeError(""), "IntfId::name empty not allowed");
  EXPECT_EQ(rangeError("Ethernet 1"), "IntfId::name \"Ethernet 1\" with whitespace at byte 8 not allowed");
  EXPECT_EQ(rangeError("et1\t"), "IntfId::name \"et1\\x09\" with whitespace at byte 3 not allowed");
  EXPECT_EQ(rangeError(" et1"), "IntfId::name \" et1\" with whitespace at byte 0 not allowed");
  EXPECT_EQ(rangeError("et\x01" "1"), "IntfId::name \"et\\x011\" with a control character at byte 2 not allowed");
  EXPECT_EQ(rangeError("et1\x7f"), "IntfId::name \"et1\\x7f\" with a control character at byte 3 not allowed");
  EXPECT_EQ(rangeError("eth\xc3\xa9"), "IntfId::name \"eth\\xc3\\xa9\" with a non-ASCII byte at byte 3 not allowed");
  // A NUL inside the text is a control character, not the end of the name.
  EXPECT_EQ(rangeError(std::string("et\0" "1", 4)),
            "IntfId::name \"et\\x001\" with a control character at byte 2 not allowed");

  for (char const * bad : {"", "a b", "a\nb", "a\x1f"}) {
    SCOPED_TRACE(bad);
    EXPECT_FALSE(IntfId::isValidName(bad));
    EXPECT_FALSE(IntfId::fromName(bad).has_value());
  }
}

TEST(IntfId, FailedInitializationKeepsThePreviousId) {
  IntfId id{Vorn::String("Ethernet1")};
  EXPECT_THROW(id.handleInitialized("Ethernet 2"), Vorn::RangeException);
  EXPECT_EQ(id.name(), "Ethernet1");
  id.handleInitialized("Ethernet2");
  EXPECT_EQ(id.name(), "Ethernet2");
}

TEST(IntfId, DefaultIsTheEmptyIdAndDiffersFromEveryNamedOne) {
  IntfId none;
  EXPECT_TRUE(none.empty());
  EXPECT_EQ(none, IntfId());
  EXPECT_NE(none, IntfId("Ethernet1"));
  EXPECT_EQ(none.hash(), Vorn::String().hash());
}

TEST(IntfId, EqualityHashOrderAndPrinting) {
  IntfId const a("Ethernet1");
  IntfId const b{Vorn::String(std::string("Ethernet") + "1")};  // same text, separate buffer
  EXPECT_EQ(a, b);
  EXPECT_EQ(a.hash(), b.hash());
  EXPECT_EQ(a.hash(), Vorn::String("Ethernet1").hash());
  EXPECT_EQ(std::hash<IntfId>()(a), a.hash());
  EXPECT_NE(IntfId("cpu"), IntfId("Cpu"));  // case matters

  EXPECT_LT(IntfId("Ethernet1"), IntfId("Ethernet2"));
  EXPECT_FALSE(IntfId("Ethernet2") < IntfId("Ethernet1"));
  EXPECT_FALSE(a < b);

  std::ostringstream os;
  os << IntfId("Ethernet3/1") << '|' << IntfId();
  EXPECT_EQ(os.str(), "Ethernet3/1|");
}

}  // namespace
