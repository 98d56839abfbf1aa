#include "intfsm/foundation/ovel/SockFilterProgram.h"

#include <ios>
#include <ostream>
#include <string>

#include "intfsm/foundation/vorn/Exception.h"

namespace Ovel {

static_assert(sizeof(sock_filter) == 8, "the kernel reads 8-byte instructions");

namespace {
void checkCount(size_t count) {
  if (count > SockFilterProgram::maxInstructions) {
    throw Vorn::RangeException("SockFilterProgram::len > 65535 not allowed: " + std::to_string(count) +
                               " instructions");
  }
}
}  // namespace

SockFilterProgram::SockFilterProgram(std::initializer_list<sock_filter> instructions) {
  checkCount(instructions.size());
  instructions_.assign(instructions.begin(), instructions.end());
}

SockFilterProgram::SockFilterProgram(std::vector<sock_filter> instructions) {
  checkCount(instructions.size());
  instructions_ = std::move(instructions);
}

SockFilterProgram::SockFilterProgram(sock_filter const * instructions, size_t count) {
  checkCount(count);
  if (count) instructions_.assign(instructions, instructions + count);
}

sock_fprog SockFilterProgram::fprog() const noexcept {
  // The kernel's struct is not const-correct; it only reads the instructions.
  return sock_fprog{len(), const_cast<sock_filter *>(filter())};
}

bool SockFilterProgram::operator==(SockFilterProgram const & o) const noexcept {
  if (len() != o.len()) return false;
  for (size_t i = 0; i < instructions_.size(); ++i) {
    sock_filter const & a = instructions_[i];
    sock_filter const & b = o.instructions_[i];
    if (a.code != b.code || a.jt != b.jt || a.jf != b.jf || a.k != b.k) return false;
  }
  return true;
}

std::ostream & operator<<(std::ostream & os, SockFilterProgram const & p) {
  std::ios_base::fmtflags const flags = os.flags();
  os << "len " << std::dec << p.len() << ":";
  for (size_t i = 0; i < p.len(); ++i) {
    sock_filter const & f = p.instruction(i);
    os << (i ? ", " : " ") << "{ " << std::hex << std::showbase << f.code << ", " << std::dec
       << std::noshowbase << unsigned(f.jt) << ", " << unsigned(f.jf) << ", " << std::hex << std::showbase << f.k
       << " }";
  }
  os.flags(flags);
  return os;
}

}  // namespace Ovel
