// Ovel's value types: which texts convert (and the exact refusal texts), equality, order and printing.
#include <gtest/gtest.h>

#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "intfsm/foundation/ovel/EthAddr.h"
#include "intfsm/foundation/ovel/IntfId.h"
#include "intfsm/foundation/ovel/NamespaceName.h"
#include "intfsm/foundation/ovel/SockFilterProgram.h"
#include "intfsm/foundation/vorn/Collection.h"
#include "intfsm/foundation/vorn/Exception.h"
#include "tests/support/ThrownText.h"

using IntfsmTest::printed;
using IntfsmTest::thrownText;
using Ovel::EthAddr;
using Ovel::IntfId;
using Ovel::NamespaceName;
using Ovel::SockFilterProgram;

namespace {

TEST(IntfId, ConvertsInterfaceAndKernelDeviceNamesUpTo64Bytes) {
  for (std::string const & name :
       std::vector<std::string>{"Ethernet3/1", "Port-Channel10", "veth-a0", "Ethernet3/1/4.100", std::string(64, 'e')}) {
    EXPECT_EQ(std::tuple(IntfId::isValidName(name), IntfId(Vorn::String(name)).name(), IntfId::fromName(name)),
              std::tuple(true, name, std::optional(IntfId(Vorn::String(name)))));
  }
}

TEST(IntfId, RefusedNamesRaiseTheOffendingByteAndFailToConvert) {
  std::string const at64(64, 'e');
  std::pair<std::string, std::string> const cases[] = {
      // The message shows the first 64 bytes only: a peer's long name cannot flood the error.
      {at64 + "X", "IntfId::bytes > 64 not allowed: \"" + at64 + "\"... has 65 bytes"},
      {"", "IntfId::name empty not allowed"},
      {"Ethernet 1", "IntfId::name \"Ethernet 1\" with whitespace at byte 8 not allowed"},
      {"et1\t", "IntfId::name \"et1\\x09\" with whitespace at byte 3 not allowed"},
      {"et1\x7f", "IntfId::name \"et1\\x7f\" with a control character at byte 3 not allowed"},
      {"eth\xc3\xa9", "IntfId::name \"eth\\xc3\\xa9\" with a non-ASCII byte at byte 3 not allowed"},
      // A NUL inside the text is a control character, not the end of the name.
      {std::string("et\0" "1", 4), "IntfId::name \"et\\x001\" with a control character at byte 2 not allowed"},
  };
  for (auto const & [name, text] : cases) {
    EXPECT_EQ(thrownText<Vorn::RangeException>([&] { IntfId id{Vorn::String(name)}; }), text);
    EXPECT_FALSE(IntfId::fromName(name).has_value()) << text;
  }
  IntfId id{Vorn::String("Ethernet1")};
  EXPECT_THROW(id.handleInitialized("Ethernet 2"), Vorn::RangeException);
  EXPECT_EQ(id.name(), "Ethernet1");  // a failed initialization keeps the previous id
}

TEST(IntfId, EqualityHashOrderAndPrinting) {
  IntfId const a("Ethernet1");
  IntfId const b{Vorn::String(std::string("Ethernet") + "1")};  // same text, separate buffer
  EXPECT_EQ(std::tuple(a, std::hash<IntfId>()(a)), std::tuple(b, b.hash()));
  EXPECT_NE(IntfId("cpu"), IntfId("Cpu"));
  EXPECT_LT(IntfId("Ethernet1"), IntfId("Ethernet2"));
  EXPECT_EQ(printed(IntfId("Ethernet3/1")) + "|" + printed(IntfId()), "Ethernet3/1|");
}

TEST(EthAddr, ParsesEitherCaseReadsFrameBytesAndPrintsLowerCase) {
  EthAddr const a("01:80:C2:00:00:0e");
  uint8_t const header[] = {0x02, 0x11, 0x22, 0x33, 0x44, 0x55, 0x99};
  EXPECT_EQ(std::tuple(a.bytes(), printed(a), printed(EthAddr::fromBytes(header))),
            std::tuple(EthAddr::Bytes{0x01, 0x80, 0xc2, 0x00, 0x00, 0x0e}, "01:80:c2:00:00:0e", "02:11:22:33:44:55"));
  for (char const * bad : {"", "01:80:c2:00:00", "01:80:c2:00:00:0e:", "01-80-c2-00-00-0e", "01:80:c2:00:00:0g",
                           " 01:80:c2:00:00:0e", "01::80:c2:00:00:0"}) {
    EXPECT_FALSE(EthAddr::fromText(bad).has_value()) << bad;
  }
  EXPECT_EQ(thrownText<Vorn::RangeException>([] { EthAddr a("a\nb"); }),
            "EthAddr::text \"a\\x0ab\" not allowed: expected six hex bytes as xx:xx:xx:xx:xx:xx");
}

TEST(EthAddr, ZeroMulticastBroadcastAndOrder) {
  // {zero, multicast, broadcast}
  for (auto [a, is] : {std::pair(EthAddr(), std::tuple(true, false, false)), {EthAddr("00:00:00:00:00:01"), {false, false, false}},
                       {EthAddr("01:00:5e:00:00:01"), {false, true, false}}, {EthAddr("02:00:00:00:00:01"), {false, false, false}},
                       {EthAddr("ff:ff:ff:ff:ff:ff"), {false, true, true}}, {EthAddr("ff:ff:ff:ff:ff:fe"), {false, true, false}}}) {
    EXPECT_EQ(std::tuple(a.isZero(), a.isMulticast(), a.isBroadcast()), is) << a;
  }
  EXPECT_LT(EthAddr("00:00:00:00:00:ff"), EthAddr("00:00:00:00:01:00"));  // byte order, first byte first
}

// Up to 150 bytes; the empty name is not "default" but stands for it; equal texts are one key.
TEST(NamespaceName, UpTo150BytesAndTheEmptyNameMeansDefault) {
  std::string const at150(150, 'n');
  EXPECT_EQ(NamespaceName(Vorn::String(at150)).size(), 150u);
  EXPECT_EQ(thrownText<Vorn::RangeException>([&] { NamespaceName n{Vorn::String(at150 + "n")}; }),
            "NamespaceName::bytes > 150 not allowed");
  NamespaceName const def = NamespaceName::defaultNamespace(), empty;
  EXPECT_EQ(std::tuple(def, def.isDefault(), empty.isDefault(), empty.orDefault(), NamespaceName("blue").orDefault()),
            std::tuple(NamespaceName("default"), true, false, def, NamespaceName("blue")));
  EXPECT_EQ(printed(NamespaceName("blue")) + "|" + printed(empty) + "|" + printed(def), "blue||default");
  Vorn::Collection<NamespaceName, int> byNs;
  byNs.set(NamespaceName{Vorn::String(std::string("bl") + "ue")}, 2);  // a separate buffer
  EXPECT_EQ(std::tuple(byNs.get(NamespaceName("blue")), byNs.contains(NamespaceName())), std::tuple(2, false));
}

// ldh [12]; jeq #0x88cc, 0, 1; ret #0xffff; ret #0 -- accept LLDP only.
std::vector<sock_filter> lldpOnly() {
  return {{BPF_LD | BPF_H | BPF_ABS, 0, 0, 12}, {BPF_JMP | BPF_JEQ | BPF_K, 0, 1, 0x88cc}, {BPF_RET | BPF_K, 0, 0, 0xffff},
          {BPF_RET | BPF_K, 0, 0, 0}};
}

// The program is contiguous (the kernel walks len instructions from filter), owns its copy, and
// compares every field.
TEST(SockFilterProgram, LaidOutAsTheKernelReadsItAndComparedFieldByField) {
  std::vector<sock_filter> source = lldpOnly();
  SockFilterProgram const p(source.data(), source.size());
  source[0].k = 99;
  sock_fprog const f = p.fprog();
  EXPECT_EQ(std::tuple(f.len, f.filter[0].k, reinterpret_cast<char const *>(&p.instruction(3)) - reinterpret_cast<char const *>(f.filter),
                       SockFilterProgram().fprog().filter),
            std::tuple(4u, 12u, 24, nullptr));
  EXPECT_THROW(static_cast<void>(p.instruction(4)), std::out_of_range);
  EXPECT_EQ(SockFilterProgram(lldpOnly()), p);
  for (auto change : std::vector<void (*)(std::vector<sock_filter> &)>{
           [](auto & v) { v[2].code = BPF_RET | BPF_A; }, [](auto & v) { v[1].jt = 1; }, [](auto & v) { v[1].jf = 0; },
           [](auto & v) { v[3].k = 1; }, [](auto & v) { v.pop_back(); }}) {
    std::vector<sock_filter> v = lldpOnly();
    change(v);
    EXPECT_NE(SockFilterProgram(v), p);
  }
}

TEST(SockFilterProgram, RefusesMoreThan65535InstructionsAndPrintsInTheTextForm) {
  std::vector<sock_filter> big(65536, sock_filter{BPF_RET | BPF_K, 0, 0, 0});
  EXPECT_EQ(thrownText<Vorn::RangeException>([&] { SockFilterProgram p(big.data(), big.size()); }),
            "SockFilterProgram::len > 65535 not allowed: 65536 instructions");
  big.pop_back();
  EXPECT_EQ(SockFilterProgram(big).len(), 65535u);
  std::ostringstream os;
  os << std::hex << SockFilterProgram{{0x28, 0, 0, 0xc}, {0x15, 0, 1, 0x88cc}} << ' ' << 255 << ' ' << SockFilterProgram();
  EXPECT_EQ(os.str(), "len 2: { 0x28, 0, 0, 0xc }, { 0x15, 0, 1, 0x88cc } ff len 0:");  // stream flags kept
}

}  // namespace
