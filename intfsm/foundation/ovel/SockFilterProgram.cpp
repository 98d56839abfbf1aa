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

Vorn::Value Vorn::ValueTraits<Ovel::SockFilterProgram>::to(Ovel::SockFilterProgram const & p) {
  Value::List out;
  for (size_t i = 0; i < p.len(); ++i) {
    sock_filter const & f = p.instruction(i);
    out.push_back(Value::List{f.code, f.jt, f.jf, f.k});
  }
  return out;
}

Ovel::SockFilterProgram Vorn::ValueTraits<Ovel::SockFilterProgram>::from(Value const & v) {
  std::vector<sock_filter> instructions;
  for (Value const & i : v.list()) {
    Value::List const & f = i.list();
    if (f.size() != 4) throw ValueTypeException("a filter instruction is [code, jt, jf, k], got " + i.str());
    instructions.push_back(sock_filter{fromValue<uint16_t>(f[0]), fromValue<uint8_t>(f[1]), fromValue<uint8_t>(f[2]),
                                       fromValue<uint32_t>(f[3])});
  }
  if (instructions.size() > Ovel::SockFilterProgram::maxInstructions) {
    throw ValueTypeException("a filter program has at most 65535 instructions");
  }
  return Ovel::SockFilterProgram(std::move(instructions));
}
