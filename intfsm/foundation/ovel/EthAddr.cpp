#include "intfsm/foundation/ovel/EthAddr.h"

#include <cstring>
#include <ostream>

#include "intfsm/foundation/ovel/internal/PrintableText.h"
#include "intfsm/foundation/vorn/Exception.h"

namespace Ovel {

namespace {
int hexDigit(char c) noexcept {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}
}  // namespace

EthAddr::EthAddr(Vorn::String const & text) {
  std::optional<EthAddr> parsed = fromText(text.view());
  if (!parsed) {
    throw Vorn::RangeException("EthAddr::text " + printableText(text.view()) +
                               " not allowed: expected six hex bytes as xx:xx:xx:xx:xx:xx");
  }
  *this = *parsed;
}

EthAddr EthAddr::fromBytes(uint8_t const * bytes) noexcept {
  EthAddr a;
  std::memcpy(a.bytes_.data(), bytes, a.bytes_.size());
  return a;
}

std::optional<EthAddr> EthAddr::fromText(std::string_view text) noexcept {
  if (text.size() != 17) return std::nullopt;
  Bytes b;
  for (size_t i = 0; i < b.size(); ++i) {
    size_t const at = i * 3;
    int const hi = hexDigit(text[at]);
    int const lo = hexDigit(text[at + 1]);
    if (hi < 0 || lo < 0 || (i < 5 && text[at + 2] != ':')) return std::nullopt;
    b[i] = static_cast<uint8_t>(hi << 4 | lo);
  }
  return EthAddr(b);
}

uint64_t EthAddr::hash() const noexcept {
  return Vorn::String::hashOf(std::string_view(reinterpret_cast<char const *>(bytes_.data()), bytes_.size()));
}

std::ostream & operator<<(std::ostream & os, EthAddr const & a) {
  static char const hex[] = "0123456789abcdef";
  char text[18];
  for (size_t i = 0; i < 6; ++i) {
    text[i * 3] = hex[a.byte(i) >> 4];
    text[i * 3 + 1] = hex[a.byte(i) & 0xf];
    text[i * 3 + 2] = i < 5 ? ':' : '\0';
  }
  return os << text;
}

}  // namespace Ovel
