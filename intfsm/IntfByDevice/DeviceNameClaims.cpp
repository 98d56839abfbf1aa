#include "intfsm/IntfByDevice/DeviceNameClaims.h"

#include <algorithm>

namespace Interface {

void DeviceNameClaims::claim(IntfStatusIndexDir * index, Vorn::String const & name,
                             Vorn::Ptr<IntfStatus const> const & status, uint64_t seq) {
  Claims * stored = claims_.find(name);
  if (!stored) {
    claims_.set(name, Claims());
    stored = claims_.find(name);
  }
  Claims & claims = *stored;
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
  Vorn::String const key = name;  // `name` may be the key that goes
  Claims * const found = claims_.find(key);
  if (!found) return;
  Claims & claims = *found;
  auto const mine = std::find_if(claims.begin(), claims.end(), [&](Claim const & c) { return c.status->intfId() == id; });
  if (mine == claims.end()) return;
  bool const held = mine + 1 == claims.end();
  claims.erase(mine);
  Vorn::Ptr<IntfStatus const> const next = claims.empty() ? nullptr : claims.back().status;
  if (claims.empty()) claims_.del(key);
  if (!held || !index) return;
  if (next) {
    index->intfStatusIs(key, next);
  } else {
    index->intfStatusDel(key);
  }
}

std::vector<Ovel::IntfId> DeviceNameClaims::claimants(Vorn::String const & name) const {
  std::vector<Ovel::IntfId> out;
  if (Claims const * const found = claims_.find(name)) {
    for (Claim const & c : *found) out.push_back(c.status->intfId());
  }
  return out;
}

uint64_t DeviceNameWants::seqIs(Ovel::IntfId const & id, Ovel::NamespaceName const & ns, Vorn::String const & name) {
  Want const * const want = wants_.find(id);
  if (want && want->ns == ns.name() && want->name == name) return want->seq;
  wants_.set(id, Want{ns.name(), name, ++next_});
  return next_;
}

}  // namespace Interface
