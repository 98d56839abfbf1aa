#include "intfsm/foundation/ovel/internal/PrintableText.h"

namespace Ovel {

std::string printableText(std::string_view text, size_t maxBytes) {
  static char const hex[] = "0123456789abcdef";
  std::string out = "\"";
  size_t const shown = text.size() > maxBytes ? maxBytes : text.size();
  for (size_t i = 0; i < shown; ++i) {
    unsigned char c = static_cast<unsigned char>(text[i]);
    if (c < 0x20 || c >= 0x7f) {
      out += "\\x";
      out += hex[c >> 4];
      out += hex[c & 0xf];
    } else {
      out += static_cast<char>(c);
    }
  }
  out += '"';
  if (shown < text.size()) out += "...";
  return out;
}

}  // namespace Ovel
