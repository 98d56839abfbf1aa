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
  // A name now bound to another namespace (deleted and re-created between two looks) drops the old number.
  if (uint32_t const * old = netNsByName_.find(name); old && *old != number) netNsDel(*old);
  netNsIs(number, name);
  netNsByNameIs(name, number);
}

void Root::namespaceDel(Ovel::NamespaceName const & name) {
  if (uint32_t const * number = netNsByName_.find(name)) {
    uint32_t n = *number;
    netNsDel(n);
  }
  netNsByNameDel(name);
}

void Root::namespaceDelAll() {
  while (Ovel::NamespaceName const * key = netNsByName_.anyKey()) namespaceDel(Ovel::NamespaceName(*key));
  while (uint32_t const * key = netNs_.anyKey()) netNsDel(*key);
}

}  // namespace KernelNetNsInfo
