// The identifier of an interface, built from its name text ("Ethernet1", "Ethernet3/1",
// "Port-Channel10", "Vlan100", "Cpu", or a kernel device name such as "et1", "veth-a0", "ma1").
// Ids key most collections of the library, so they hash and order cheaply (the hash is the name's).
//
//   Ovel::IntfId id("Ethernet1");                        // throws Vorn::RangeException on a bad name
//   auto maybe = Ovel::IntfId::fromName(deviceName);     // std::nullopt on a bad name, never throws
//
// Which texts convert: 1 to 64 bytes, every byte printable ASCII other than space (0x21 to 0x7e).
// Rejected are the empty text, whitespace, control characters (including DEL), any byte of 0x80 or
// above, and names longer than 64 bytes. Case matters: "cpu" and "Cpu" are different ids.
// The kernel accepts some device names that this rule refuses (control characters, non-ASCII bytes);
// the receive path counts frames from such devices as coming from an unknown interface, which is what a
// failed conversion means there.
//
// The default-constructed id is the empty id: it names no interface and is what "no id" looks like.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <optional>
#include <string>

#include "intfsm/foundation/vorn/String.h"

namespace Ovel {

class IntfId {
 public:
  static constexpr size_t maxNameBytes = 64;

  IntfId() noexcept = default;
  explicit IntfId(Vorn::String const & name) { handleInitialized(name); }

  // Makes this the id of `name`. On a bad name raises Vorn::RangeException and leaves the id unchanged.
  void handleInitialized(Vorn::String const & name);

  static bool isValidName(Vorn::String const & name) noexcept;
  static std::optional<IntfId> fromName(Vorn::String const & name);

  Vorn::String const & name() const noexcept { return name_; }
  Vorn::String const & stringValue() const noexcept { return name_; }
  char const * charPtr() const noexcept { return name_.charPtr(); }
  bool empty() const noexcept { return name_.empty(); }
  uint64_t hash() const noexcept { return name_.hash(); }

  bool operator==(IntfId const & o) const noexcept { return name_ == o.name_; }
  bool operator<(IntfId const & o) const noexcept { return (name_ <=> o.name_) < 0; }

 private:
  // Why `name` is refused, or the empty text when it converts.
  static std::string problemOf(Vorn::String const & name);

  Vorn::String name_;
};

std::ostream & operator<<(std::ostream & os, IntfId const & id);

}  // namespace Ovel

template <>
struct std::hash<Ovel::IntfId> {
  size_t operator()(Ovel::IntfId const & id) const noexcept { return id.hash(); }
};
