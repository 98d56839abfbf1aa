#include "intfsm/foundation/ovel/EthAddr.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "intfsm/foundation/vorn/Exception.h"
#include "tests/support/ThrownText.h"

using IntfsmTest::thrownText;
using Ovel::EthAddr;

namespace {

std::string printed(EthAddr const & a) {
  std::ostringstream os;
  os << a;
  return os.str();
}

TEST(EthAddr, ParsesEitherCaseReadsFrameBytesAndPrintsLowerCase) {
  EthAddr const a("01:80:C2:00:00:0e");
  EXPECT_EQ(a.bytes(), (EthAddr::Bytes{0x01, 0x80, 0xc2, 0x00, 0x00, 0x0e}));
  EXPECT_EQ(printed(a), "01:80:c2:00:00:0e");
  EXPECT_EQ(printed(EthAddr()), "00:00:00:00:00:00");
  uint8_t const header[] = {0x02, 0x11, 0x22, 0x33, 0x44, 0x55, 0x99};
  EXPECT_EQ(printed(EthAddr::fromBytes(header)), "02:11:22:33:44:55");
}

TEST(EthAddr, RefusesAnythingButSixColonSeparatedHexPairs) {
  for (char const * bad : {"", "01:80:c2:00:00", "01:80:c2:00:00:0e:", "01-80-c2-00-00-0e", "1:80:c2:00:00:0e0",
                           "01:80:c2:00:00:0g", " 01:80:c2:00:00:0e", "01::80:c2:00:00:0"}) {
    SCOPED_TRACE(bad);
    EXPECT_FALSE(EthAddr::fromText(bad).has_value());
    EXPECT_THROW(EthAddr{Vorn::String(bad)}, Vorn::RangeException);
  }
  EXPECT_EQ(thrownText<Vorn::RangeException>([] { EthAddr a("a\nb"); }),
            "EthAddr::text \"a\\x0ab\" not allowed: expected six hex bytes as xx:xx:xx:xx:xx:xx");
}

TEST(EthAddr, ZeroMulticastBroadcastAndOrder) {
  EXPECT_TRUE(EthAddr().isZero());
  EXPECT_FALSE(EthAddr("00:00:00:00:00:01").isZero());
  EXPECT_TRUE(EthAddr("01:00:5e:00:00:01").isMulticast());
  EXPECT_FALSE(EthAddr("02:00:00:00:00:01").isMulticast());
  EXPECT_TRUE(EthAddr("ff:ff:ff:ff:ff:ff").isBroadcast());
  EXPECT_FALSE(EthAddr("ff:ff:ff:ff:ff:fe").isBroadcast());
  EXPECT_LT(EthAddr("00:00:00:00:00:ff"), EthAddr("00:00:00:00:01:00"));  // byte order, first byte first
  EXPECT_NE(EthAddr("00:00:00:00:00:01").hash(), EthAddr("00:00:00:00:00:02").hash());
}

}  // namespace
