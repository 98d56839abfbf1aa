#include "intfsm/foundation/ovel/SockFilterProgramValue.h"

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
