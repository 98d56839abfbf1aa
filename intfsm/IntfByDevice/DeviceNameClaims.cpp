#include "intfsm/IntfByDevice/DeviceNameClaims.h"

#include <algorithm>

namespace Interface {

void DeviceNameClaims::claim(IntfStatusIndexDir * index, Vorn::String const & name,
                             Vorn::Ptr<IntfStatus const> const & status, uint64_t seq) {
  Claims & claims = claims_[name.stdString()];
  Ovel::IntfId const id = status->intfId();
  claims.erase(std::remove_if(claims.begin(), claims.end(), [&](Claim const & c) { return c.status->intfId() == id; }),
               claims.end());
  auto const at = std::upper_bound(claims.begin(), claims.end(), seq,
                                   [](uint64_t s, Claim const & c) { return s < c.seq; });
  bool const holds = at == claims.end();
  claims.insert(at, Claim{seq, status});
  if (holds && index) index->intfStatusIs(name, status);
}

void DeviceNameClaims::unclaim(IntfStatusIndexDir * index, Vorn::String const & name, Ovel::IntfId const & id) {
  auto const found = claims_.find(name.stdString());
  if (found == claims_.end()) return;
  Claims & claims = found->second;
  auto const mine = std::find_if(claims.begin(), claims.end(), [&](Claim const & c) { return c.status->intfId() == id; });
  if (mine == claims.end()) return;
  bool const held = mine + 1 == claims.end();
  claims.erase(mine);
  Vorn::Ptr<IntfStatus const> const next = claims.empty() ? nullptr : claims.back().status;
  if (claims.empty()) claims_.erase(found);
  if (!held || !index) return;
  if (next) {
    index->intfStatusIs(name, next);
  } else {
    index->intfStatusDel(name);
  }
}

std::vector<Ovel::IntfId> DeviceNameClaims::claimants(Vorn::String const & name) const {
  std::vector<Ovel::IntfId> out;
  auto const found = claims_.find(name.stdString());
  if (found == claims_.end()) return out;
  for (Claim const & c : found->second) out.push_back(c.status->intfId());
  return out;
}

uint64_t DeviceNameWants::seqIs(Ovel::IntfId const & id, Ovel::NamespaceName const & ns, Vorn::String const & name) {
  Want & want = wants_[id.name().stdString()];
  if (want.seq == 0 || want.ns != ns.name().stdString() || want.name != name.stdString()) {
    want = Want{ns.name().stdString(), name.stdString(), ++next_};
  }
  return want.seq;
}

}  // namespace Interface
