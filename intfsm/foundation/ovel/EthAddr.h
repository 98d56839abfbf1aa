// A 48-bit Ethernet (MAC) address, as a packet-access listen address and in frames.
//
//   Ovel::EthAddr a("01:80:c2:00:00:0e");          // throws Vorn::RangeException on bad text
//   Ovel::EthAddr b({0x02, 0, 0, 0, 0, 1});
//   auto c = Ovel::EthAddr::fromText(userText);    // std::nullopt on bad text
//
// The text form is six two-digit hexadecimal bytes separated by ':' (either case on input, lower case
// when printed). Nothing else is accepted: no '-' separators, no single digits, no surrounding space.
// The default-constructed address is 00:00:00:00:00:00, which means "no address".
#pragma once

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <optional>
#include <string_view>

#include "intfsm/foundation/vorn/String.h"

namespace Ovel {

class EthAddr {
 public:
  using Bytes = std::array<uint8_t, 6>;

  constexpr EthAddr() noexcept = default;
  constexpr explicit EthAddr(Bytes const & bytes) noexcept : bytes_(bytes) {}
  explicit EthAddr(Vorn::String const & text);

  // The six bytes at `bytes`, in network order (as in a frame header).
  static EthAddr fromBytes(uint8_t const * bytes) noexcept;
  static std::optional<EthAddr> fromText(std::string_view text) noexcept;

  Bytes const & bytes() const noexcept { return bytes_; }
  uint8_t byte(size_t i) const noexcept { return bytes_[i]; }

  bool isZero() const noexcept { return *this == EthAddr(); }
  bool isMulticast() const noexcept { return bytes_[0] & 1; }  // broadcast included
  bool isBroadcast() const noexcept { return *this == EthAddr(Bytes{0xff, 0xff, 0xff, 0xff, 0xff, 0xff}); }

  uint64_t hash() const noexcept;

  friend bool operator==(EthAddr const &, EthAddr const &) noexcept = default;
  friend std::strong_ordering operator<=>(EthAddr const &, EthAddr const &) noexcept = default;

 private:
  Bytes bytes_{};
};

std::ostream & operator<<(std::ostream & os, EthAddr const & a);

}  // namespace Ovel

template <>
struct std::hash<Ovel::EthAddr> {
  size_t operator()(Ovel::EthAddr const & a) const noexcept { return a.hash(); }
};
