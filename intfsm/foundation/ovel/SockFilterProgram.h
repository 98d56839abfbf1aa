// A classic BPF socket filter, laid out as the kernel's `struct sock_fprog`: a 16-bit instruction
// count and an array of 8-byte `struct sock_filter` instructions. The program owns its instructions;
// fprog() hands the kernel a view of them for SO_ATTACH_FILTER.
//
//   Ovel::SockFilterProgram accept{{BPF_RET | BPF_K, 0, 0, 0xffff}};
//   sock_fprog f = accept.fprog();   // valid while `accept` lives and is not assigned to
//   setsockopt(sd, SOL_SOCKET, SO_ATTACH_FILTER, &f, sizeof f);
//
// At most 65535 instructions (the width of the count); more raises Vorn::RangeException. The kernel
// accepts fewer (BPF_MAXINSNS) and says so when the filter is attached; that limit is not repeated here.
// Programs compare equal field by field: the count, then code, jt, jf and k of every instruction.
// They print as "len 2: { 0x28, 0, 0, 0xc }, { 0x6, 0, 0, 0xffff }", which the text form of socket
// filters ("{ %x, %d, %d, %x }" per instruction) reads back.
#pragma once

#include <linux/filter.h>

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <iosfwd>
#include <vector>

namespace Ovel {

// One classic BPF instruction, as the kernel lays it out.
using SockFilter = sock_filter;

class SockFilterProgram {
 public:
  static constexpr size_t maxInstructions = 0xffff;

  SockFilterProgram() = default;
  SockFilterProgram(std::initializer_list<sock_filter> instructions);
  explicit SockFilterProgram(std::vector<sock_filter> instructions);
  SockFilterProgram(sock_filter const * instructions, size_t count);

  uint16_t len() const noexcept { return static_cast<uint16_t>(instructions_.size()); }
  bool empty() const noexcept { return instructions_.empty(); }
  // Null when the program is empty.
  sock_filter const * filter() const noexcept { return instructions_.empty() ? nullptr : instructions_.data(); }
  sock_filter const & instruction(size_t i) const { return instructions_.at(i); }
  sock_fprog fprog() const noexcept;

  bool operator==(SockFilterProgram const & o) const noexcept;

 private:
  std::vector<sock_filter> instructions_;
};

std::ostream & operator<<(std::ostream & os, SockFilterProgram const & p);

}  // namespace Ovel
