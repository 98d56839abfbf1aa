#include "intfsm/foundation/ovel/SockFilterProgram.h"

#include <gtest/gtest.h>

#include <sstream>
#include <vector>

#include "intfsm/foundation/vorn/Exception.h"
#include "tests/support/ThrownText.h"

using IntfsmTest::thrownText;
using Ovel::SockFilterProgram;

namespace {

// ldh [12]; jeq #0x88cc, 0, 1; ret #0xffff; ret #0 -- accept LLDP only.
std::vector<sock_filter> lldpOnly() {
  return {{BPF_LD | BPF_H | BPF_ABS, 0, 0, 12},
          {BPF_JMP | BPF_JEQ | BPF_K, 0, 1, 0x88cc},
          {BPF_RET | BPF_K, 0, 0, 0xffff},
          {BPF_RET | BPF_K, 0, 0, 0}};
}

TEST(SockFilterProgram, LaidOutAsTheKernelReadsIt) {
  SockFilterProgram const p(lldpOnly());
  sock_fprog const f = p.fprog();
  EXPECT_EQ(f.len, 4u);
  EXPECT_EQ(f.filter, &p.instruction(0));
  // Contiguous: the kernel walks len instructions from filter.
  EXPECT_EQ(reinterpret_cast<char const *>(&p.instruction(3)) - reinterpret_cast<char const *>(f.filter), 24);
  EXPECT_EQ(f.filter[1].jf, 1u);
  EXPECT_EQ(f.filter[1].k, 0x88ccu);
  EXPECT_EQ(SockFilterProgram().fprog().len, 0u);
  EXPECT_EQ(SockFilterProgram().fprog().filter, nullptr);
}

TEST(SockFilterProgram, CopiesOwnTheirInstructionsAndEqualityComparesEveryField) {
  std::vector<sock_filter> source = lldpOnly();
  SockFilterProgram const base(source.data(), source.size());
  source[0].k = 99;  // the program does not alias the caller's array
  EXPECT_EQ(base.instruction(0).k, 12u);
  SockFilterProgram const copy = base;
  EXPECT_NE(copy.filter(), base.filter());
  EXPECT_EQ(copy, base);
  EXPECT_THROW(static_cast<void>(copy.instruction(4)), std::out_of_range);

  auto changed = [](auto change) {
    std::vector<sock_filter> v = lldpOnly();
    change(v);
    return SockFilterProgram(std::move(v));
  };
  EXPECT_NE(base, changed([](auto & v) { v[2].code = BPF_RET | BPF_A; }));
  EXPECT_NE(base, changed([](auto & v) { v[1].jt = 1; }));
  EXPECT_NE(base, changed([](auto & v) { v[1].jf = 0; }));
  EXPECT_NE(base, changed([](auto & v) { v[3].k = 1; }));
  EXPECT_NE(base, changed([](auto & v) { v.pop_back(); }));
  EXPECT_NE(SockFilterProgram(), base);
  EXPECT_EQ(SockFilterProgram(), SockFilterProgram(std::vector<sock_filter>{}));
}

TEST(SockFilterProgram, RefusesMoreThan65535Instructions) {
  std::vector<sock_filter> big(65535, sock_filter{BPF_RET | BPF_K, 0, 0, 0});
  EXPECT_EQ(SockFilterProgram(big).len(), 65535u);
  big.push_back(big.back());
  EXPECT_EQ(thrownText<Vorn::RangeException>([&] { SockFilterProgram p(big); }),
            "SockFilterProgram::len > 65535 not allowed: 65536 instructions");
  EXPECT_EQ(thrownText<Vorn::RangeException>([&] { SockFilterProgram p(big.data(), big.size()); }),
            "SockFilterProgram::len > 65535 not allowed: 65536 instructions");
}

TEST(SockFilterProgram, PrintsInTheTextFormOfSocketFilters) {
  std::ostringstream os;
  os << std::hex << SockFilterProgram{{0x28, 0, 0, 0xc}, {0x15, 0, 1, 0x88cc}} << ' ' << 255 << ' '
     << SockFilterProgram();
  EXPECT_EQ(os.str(), "len 2: { 0x28, 0, 0, 0xc }, { 0x15, 0, 1, 0x88cc } ff len 0:");  // stream flags kept
}

}  // namespace
