// A socket filter program in generic attribute access: a list of instructions, each the list
// [code, jt, jf, k].
//
//   Vorn::Value v = Vorn::toValue(program);              // [[40, 0, 0, 12], [21, 0, 1, 2048], ...]
//   auto p = Vorn::fromValue<Ovel::SockFilterProgram>(v);
#pragma once

#include "intfsm/foundation/ovel/SockFilterProgram.h"
#include "intfsm/foundation/vorn/Value.h"

template <>
struct Vorn::ValueTraits<Ovel::SockFilterProgram> {
  static Value to(Ovel::SockFilterProgram const & p);
  // An instruction that is not four integers in range, or more than 65535 of them, raise
  // Vorn::ValueTypeException.
  static Ovel::SockFilterProgram from(Value const & v);
};
