#include "intfsm/IntfByDevice/AllIntfDeviceNameReactor.h"

#include "intfsm/IntfByDevice/internal/Trace.h"
#include "intfsm/LibraryTypes.h"
#include "intfsm/foundation/vorn/Assert.h"
#include "intfsm/foundation/vorn/Exception.h"

namespace Interface {

namespace {
using R = AllIntfDeviceNameReactor;
Vorn::AttributeTableOf<R> const attributes("Interface::AllIntfDeviceNameReactor", [](auto & t) {
  auto intfIdOf = [](auto const & s) { return s->intfId(); };
  t.collection("intfStatus", &R::intfStatusIter, &R::intfStatusIs, &R::intfStatusDel, intfIdOf)
      .scalar("allIntfStatusDir", &R::allIntfStatusDir)
      .scalar("allIntfStatusLocalDir", &R::allIntfStatusLocalDir)
      .scalar("intf", &R::intf)
      .scalar("netNs", &R::netNs)
      .scalar("filterByNetNs", &R::filterByNetNs, &R::filterByNetNsIs)
      .collection("intfStatusToDeviceName", &R::intfStatusToDeviceNameIter, nullptr, nullptr)
      .collection("intfStatusLocal", &R::intfStatusLocalIter, &R::intfStatusLocalIs, &R::intfStatusLocalDel, intfIdOf);
});
Intfsm::TypeRegistration registration("Interface::AllIntfDeviceNameReactor", nullptr, attributes);

constexpr char handleDeviceNameText[] = "void Interface::AllIntfDeviceNameReactor::handleDeviceName(Ovel::IntfId)";
}  // namespace

Brisklog::Handle & AllIntfDeviceNameReactor::vornTrace() { return intfByDeviceTrace; }

Vorn::Ptr<AllIntfDeviceNameReactor> allIntfDeviceNameReactorFactory(
    Vorn::Ptr<AllIntfStatusDir const> const & allIntfStatusDir,
    Vorn::Ptr<AllIntfStatusLocalDir const> const & allIntfStatusLocalDir, Vorn::Ptr<IntfStatusIndexDir> const & intf,
    Ovel::NamespaceName const & netNs) {
  return new AllIntfDeviceNameReactor(allIntfStatusDir, allIntfStatusLocalDir, intf, netNs);
}

AllIntfDeviceNameReactor::AllIntfDeviceNameReactor(Vorn::Ptr<AllIntfStatusDir const> const & allIntfStatusDir,
                                                   Vorn::Ptr<AllIntfStatusLocalDir const> const & allIntfStatusLocalDir,
                                                   Vorn::Ptr<IntfStatusIndexDir> const & intf,
                                                   Ovel::NamespaceName const & netNs)
    : Entity(Vorn::Name()), intf_(intf), netNs_(netNs) {
  if (!intf_) throw Vorn::RangeException(Vorn::nullParameterText("intf", "Interface::AllIntfDeviceNameReactor"));
  watcher_.start(allIntfStatusDir, allIntfStatusLocalDir);
}

AllIntfDeviceNameReactor::~AllIntfDeviceNameReactor() { watcher_.retire(); }

void AllIntfDeviceNameReactor::filterByNetNsIs(bool filter) {
  if (filter == filterByNetNs_) return;
  filterByNetNs_ = filter;
  handleFilter();
  notify(&NotifieeConst::onFilterByNetNs);
}

void AllIntfDeviceNameReactor::intfStatusToDeviceNameDel(Ovel::IntfId const & intfId) {
  delEntry(intfStatusToDeviceName_, intfId, &NotifieeConst::onIntfStatusToDeviceName);
}

void AllIntfDeviceNameReactor::unindex(Ovel::IntfId const & intfId, Vorn::String const & name) {
  claims_.unclaim(intf_.ptr(), name, intfId);
  intfStatusToDeviceNameDel(intfId);
}

void AllIntfDeviceNameReactor::handleIntfStatus() { VORN_ASSERT(intf()->intfStatuss() == 0); }

void AllIntfDeviceNameReactor::handleIntfStatusLocal() { VORN_ASSERT(intf()->intfStatuss() == 0); }

void AllIntfDeviceNameReactor::handleIntfStatus(Ovel::IntfId const & intfId) {
  IBD_TRACE(3, "void Interface::AllIntfDeviceNameReactor::handleIntfStatus(Ovel::IntfId)" << " for " << intfId);
  if (!watcher_.status(intfId)) {
    Vorn::String const name = intfStatusToDeviceName(intfId);
    wants_.del(intfId);
    if (name.empty()) return;
    IBD_TRACE(3, intfId << " was removed");
    unindex(intfId, name);
    return;
  }
  IBD_TRACE(3, intfId << " was added");
  handleDeviceName(intfId);
}

void AllIntfDeviceNameReactor::handleIntfStatusLocal(Ovel::IntfId const & intfId) {
  IBD_TRACE(3, "void Interface::AllIntfDeviceNameReactor::handleIntfStatusLocal(Ovel::IntfId)" << " for " << intfId);
  if (!watcher_.local(intfId)) {
    if (intfStatusToDeviceName(intfId).empty()) return;
    IBD_TRACE(3, intfId << " local status was removed");
    handleDeviceName(intfId);
    return;
  }
  IBD_TRACE(3, intfId << "local status was added");
  handleDeviceName(intfId);
}

void AllIntfDeviceNameReactor::handleDeviceName(Ovel::IntfId const & intfId) {
  IBD_TRACE(3, handleDeviceNameText << " for " << intfId);
  Vorn::Ptr<IntfStatus const> const status = watcher_.status(intfId);
  if (!status) {
    IBD_TRACE(3, handleDeviceNameText << " no intfStatus for " << intfId);
    return;
  }
  Vorn::Ptr<IntfStatusLocal const> const local = watcher_.local(intfId);
  Ovel::NamespaceName const myNsName = netNs_.orDefault();
  Ovel::NamespaceName const intfNsName = local ? local->netNsName().orDefault() : Ovel::NamespaceName::defaultNamespace();
  IBD_TRACE(3, handleDeviceNameText << " myNsName is " << '"' << myNsName << '"' << " intfNsName is " << '"'
                                    << intfNsName << '"');

  Vorn::String const prev = intfStatusToDeviceName(intfId);
  if (!(myNsName == intfNsName) && filterByNetNs_) {
    if (prev.empty()) return;
    IBD_TRACE(3, intfId << " was moved to another namespace");
    unindex(intfId, prev);
    return;
  }

  Vorn::String const cur = status->deviceName();
  uint64_t const seq = wants_.seqIs(intfId, intfNsName, cur);
  bool deleted = false;
  if (!prev.empty() && !(prev == cur)) {
    IBD_TRACE(0, "Deleting intf " << prev << "->" << intfId);
    claims_.unclaim(intf_.ptr(), prev, intfId);  // the record of prev goes below, or is overwritten by cur
    deleted = true;
  }
  if (cur.empty()) {
    if (!prev.empty()) intfStatusToDeviceNameDel(intfId);
    if (!deleted) IBD_TRACE(0, "Ignoring notification about " << intfId << " device was " << prev << " is " << cur);
    return;
  }
  // Also when cur is prev: the entry is re-asserted while this interface holds the name.
  IBD_TRACE(0, "Adding intf " << cur << "->" << intfId);
  claims_.claim(intf_.ptr(), cur, status, seq);
  setEntry(intfStatusToDeviceName_, intfId, cur, &NotifieeConst::onIntfStatusToDeviceName);
}

void AllIntfDeviceNameReactor::handleFilter() {
  // Only what is indexed now (holders and the claimants behind them): turning the filter off brings
  // nothing back by itself.
  for (auto const & e : intfStatusToDeviceName_) {
    Ovel::IntfId const intfId = e.key;
    IBD_TRACE(3, "void Interface::AllIntfDeviceNameReactor::handleFilter()" << " for " << intfId);
    handleIntfStatusLocal(intfId);
  }
}

}  // namespace Interface
