// The text form of socket filters (Interface::parseFilter; the tools read "{ ... }" texts with it too).
// Properties: counting (null output) and storing give the same number; a valid program printed back
// (Ovel::SockFilterProgram's form, the one the header promises it reads) parses to the same program;
// a text without any brace is never a program.
#include <linux/filter.h>

#include <sstream>
#include <string>
#include <vector>

#include "fuzz/FuzzSupport.h"
#include "intfsm/SimpleTxRxPktManager/ParseFilter.h"
#include "intfsm/foundation/ovel/SockFilterProgram.h"
#include "intfsm/foundation/vorn/Exception.h"

namespace {

std::vector<sock_filter> parsed(std::string const & text, int & count) {
  Vorn::String const s(text.data(), text.size());
  count = Interface::parseFilter(s, nullptr);
  FUZZ_CHECK(count >= 0, text);
  std::vector<sock_filter> program(static_cast<size_t>(count));
  if (count > 0) FUZZ_CHECK(Interface::parseFilter(s, program.data()) == count, text);
  return program;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  Fuzz::quietTracing();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(uint8_t const * data, size_t size) {
  std::string const text(reinterpret_cast<char const *>(data), size);
  int count = 0;
  std::vector<sock_filter> const program = parsed(text, count);
  if (text.find('{') == std::string::npos) FUZZ_CHECK(count == 0, text);
  if (count == 0) return 0;

  Ovel::SockFilterProgram first;
  try {
    first = Ovel::SockFilterProgram(program);
  } catch (Vorn::RangeException const &) {
    FUZZ_CHECK(program.size() > Ovel::SockFilterProgram::maxInstructions, std::to_string(program.size()));
    return 0;
  }
  std::ostringstream printed;
  printed << first;
  int again = 0;
  std::vector<sock_filter> const back = parsed(printed.str(), again);
  FUZZ_CHECK(again == count, text + " printed as " + printed.str());
  FUZZ_CHECK(Ovel::SockFilterProgram(back) == first, text + " printed as " + printed.str());
  return 0;
}
