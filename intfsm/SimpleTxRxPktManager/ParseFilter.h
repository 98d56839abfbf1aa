// The text form of a classic BPF socket filter, one "{ code, jt, jf, k }" element per instruction,
// as tcpdump -dd prints a program and as Ovel::SockFilterProgram prints itself:
//
//   { 0x28, 0, 0, 0x0000000c }, { 0x15, 0, 1, 0x000088b5 }, { 0x6, 0, 0, 0x00040000 }, { 0x6, 0, 0, 0 }
//
//   int n = Interface::parseFilter(text, nullptr);        // count only: 4
//   std::vector<sock_filter> program(n);
//   Interface::parseFilter(text, program.data());         // the same 4 instructions
//
// Each element is read with "{ %x, %d, %d, %x }": the code and the constant in hexadecimal (a "0x"
// prefix is allowed), the two jumps in decimal, cut to 8 bits. Text outside the braces is ignored.
// One malformed element (fewer than four numbers, an opening brace without its closing one) makes
// the whole text invalid: the result is 0, as for a text without any brace.
#pragma once

#include <linux/filter.h>

#include "intfsm/foundation/vorn/String.h"

namespace Interface {

// The number of instructions in `text`, stored into `out` (room for all of them) unless it is null;
// 0 when the text is not a valid program.
int parseFilter(Vorn::String const & text, sock_filter * out);

}  // namespace Interface
