// The name of a network namespace: the file name under /run/netns that names it, or DEFAULT_NS for
// the namespace the process started in. At most 150 bytes; longer raises Vorn::RangeException with
// the text "NamespaceName::bytes > 150 not allowed" and nothing is constructed.
//
//   Ovel::NamespaceName ns("blue");
//   Ovel::NamespaceName where = local->netNsName().orDefault();   // empty means the default namespace
//
// The default namespace is spelled DEFAULT_NS, "default". A namespace file /run/netns/default is
// therefore not addressable by name: every user of a NamespaceName (socketAt first of all) takes
// "default" to mean the process's own namespace.
//
// The empty name is a valid value distinct from "default"; where the contract says that an empty name
// means the default namespace (a namespace read from IntfStatusLocal), the reader maps it with
// orDefault(). isDefault() is true for "default" only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>

#include "intfsm/foundation/vorn/String.h"

namespace Ovel {

inline constexpr char DEFAULT_NS[] = "default";

class NamespaceName {
 public:
  static constexpr size_t maxBytes = 150;

  NamespaceName() noexcept = default;
  explicit NamespaceName(Vorn::String const & name);

  static NamespaceName defaultNamespace();

  bool isDefault() const noexcept { return name_ == DEFAULT_NS; }
  bool empty() const noexcept { return name_.empty(); }
  // This name, or the default namespace's when this one is empty.
  NamespaceName orDefault() const { return empty() ? defaultNamespace() : *this; }

  Vorn::String const & name() const noexcept { return name_; }
  char const * charPtr() const noexcept { return name_.charPtr(); }
  size_t size() const noexcept { return name_.size(); }
  uint64_t hash() const noexcept { return name_.hash(); }

  bool operator==(NamespaceName const & o) const noexcept { return name_ == o.name_; }
  bool operator<(NamespaceName const & o) const noexcept { return (name_ <=> o.name_) < 0; }

 private:
  Vorn::String name_;
};

std::ostream & operator<<(std::ostream & os, NamespaceName const & ns);

}  // namespace Ovel

template <>
struct std::hash<Ovel::NamespaceName> {
  size_t operator()(Ovel::NamespaceName const & ns) const noexcept { return ns.hash(); }
};
