#include "intfsm/SimpleTxRxPktManager/ParseFilter.h"

#include <cstdio>
#include <string>

namespace Interface {

int parseFilter(Vorn::String const & text, sock_filter * out) {
  std::string const s = text.stdString();
  size_t open = s.find('{');
  if (open == std::string::npos) return 0;
  int count = 0;
  for (;;) {
    size_t const close = s.find('}', open);
    if (close == std::string::npos) return 0;
    std::string const element = s.substr(open, close - open + 1);
    unsigned code = 0;
    int jt = 0;
    int jf = 0;
    unsigned k = 0;
    if (std::sscanf(element.c_str(), "{ %x, %d, %d, %x }", &code, &jt, &jf, &k) < 4) return 0;
    if (out) {
      out[count].code = static_cast<uint16_t>(code);
      out[count].jt = static_cast<uint8_t>(jt);
      out[count].jf = static_cast<uint8_t>(jf);
      out[count].k = static_cast<uint32_t>(k);
    }
    ++count;
    open = s.find('{', close);
    if (open == std::string::npos) return count;
  }
}

}  // namespace Interface
