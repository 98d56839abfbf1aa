#include "intfsm/foundation/kernel/KernelNetNsInfo.h"

namespace KernelNetNsInfo {

void Root::netNsIs(uint32_t number, Ovel::NamespaceName const & name) {
  setEntry(netNs_, number, name, &NotifieeConst::onNetNs);
}

void Root::netNsDel(uint32_t number) {
  delEntry(netNs_, number, &NotifieeConst::onNetNs);
}

void Root::netNsByNameIs(Ovel::NamespaceName const & name, uint32_t number) {
  setEntry(netNsByName_, name, number, &NotifieeConst::onNetNsByName);
}

void Root::netNsByNameDel(Ovel::NamespaceName const & name) {
  delEntry(netNsByName_, name, &NotifieeConst::onNetNsByName);
}

void Root::namespaceIs(Ovel::NamespaceName const & name, uint32_t number) {
  uint32_t const oldNumber = netNsByName_.get(name);
  // netNs[number] names one of the namespace's names: it keeps a name that is still bound to it, except
  // that the default namespace's name wins (the default namespace may also be bound under /run/netns).
  bool take = true;
  if (Ovel::NamespaceName const * current = netNs_.find(number); current && !(*current == name)) {
    bool const currentBound = netNsByName_.get(*current) == number;
    take = !currentBound || (name.isDefault() && !current->isDefault());
  }
  if (take) netNsIs(number, name);
  netNsByNameIs(name, number);
  // A name now bound to another namespace (deleted and re-created between two looks) leaves the old one.
  if (oldNumber != 0 && oldNumber != number) renumber(oldNumber, name);
}

void Root::namespaceDel(Ovel::NamespaceName const & name) {
  if (uint32_t const * number = netNsByName_.find(name)) {
    uint32_t const n = *number;
    Ovel::NamespaceName const key = name;
    renumber(n, key);
    netNsByNameDel(key);
    return;
  }
  netNsByNameDel(name);
}

void Root::renumber(uint32_t number, Ovel::NamespaceName const & leaving) {
  Ovel::NamespaceName const * current = netNs_.find(number);
  if (!current || !(*current == leaving)) return;
  // Another name still bound to that namespace takes its place; else the number goes.
  for (auto const & e : netNsByName_) {
    if (e.value == number && !(e.key == leaving)) {
      netNsIs(number, e.key);
      return;
    }
  }
  netNsDel(number);
}

void Root::namespaceDelAll() {
  while (Ovel::NamespaceName const * key = netNsByName_.anyKey()) namespaceDel(Ovel::NamespaceName(*key));
  while (uint32_t const * key = netNs_.anyKey()) netNsDel(*key);
}

}  // namespace KernelNetNsInfo
