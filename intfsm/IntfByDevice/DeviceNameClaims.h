// Who claims each device name of one device-name index. Two interfaces may report one device name
// (a port remap done one interface at a time, a typo corrected a moment later); the index can hold
// only one of them. The name goes to the interface whose claim is the newest, the others wait behind
// it, and when the holder lets go the name passes to the newest of those still waiting. So an index
// entry always belongs to an interface that still reports that name, and an interface that reports
// a name is indexed as soon as nobody newer contests it.
//
//   Interface::DeviceNameClaims claims;
//   claims.claim(index, "et1", e1, claims.seqOf(...));   // index: et1 -> e1
//   claims.claim(index, "et1", e2, newerSeq);             // index: et1 -> e2 (the newer claim)
//   claims.unclaim(index, "et1", e2->intfId());          // index: et1 -> e1 again
//
// The age of a claim is a sequence number that the owner gives out (see DeviceNameWants): it grows
// when an interface starts reporting a name (or a namespace), and only then, so that an incidental
// notification does not reorder the claimants.
#pragma once

#include <cstdint>
#include <vector>

#include "intfsm/IntfByDevice/IntfStatusIndexDir.h"
#include "intfsm/foundation/interface/IntfStatus.h"
#include "intfsm/foundation/ovel/IntfId.h"
#include "intfsm/foundation/ovel/NamespaceName.h"
#include "intfsm/foundation/vorn/Collection.h"

namespace Interface {

class DeviceNameClaims {
 public:
  // Records (or refreshes) `status`'s claim on `name` with age `seq`, and writes the index entry when
  // the claim is the newest. `index` may be null (the index is gone): only the record changes.
  void claim(IntfStatusIndexDir * index, Vorn::String const & name, Vorn::Ptr<IntfStatus const> const & status,
             uint64_t seq);
  // Drops `id`'s claim on `name`; when it held the name, the index entry passes to the newest claim
  // left, or goes.
  void unclaim(IntfStatusIndexDir * index, Vorn::String const & name, Ovel::IntfId const & id);
  // The ids that claim `name`, oldest first.
  std::vector<Ovel::IntfId> claimants(Vorn::String const & name) const;
  bool empty() const { return claims_.empty(); }

 private:
  struct Claim {
    uint64_t seq;
    Vorn::Ptr<IntfStatus const> status;
    bool operator==(Claim const &) const = default;
  };
  using Claims = std::vector<Claim>;  // oldest first: the last one holds the name
  Vorn::Collection<Vorn::String, Claims> claims_;
};

// When each interface started reporting what it reports now (a namespace and a device name): the
// age of its claims. A new pair gets the next number; the same pair keeps its number.
class DeviceNameWants {
 public:
  uint64_t seqIs(Ovel::IntfId const & id, Ovel::NamespaceName const & ns, Vorn::String const & name);
  void del(Ovel::IntfId const & id) { wants_.del(id); }

 private:
  struct Want {
    Vorn::String ns;
    Vorn::String name;
    uint64_t seq = 0;
    bool operator==(Want const &) const = default;
  };
  Vorn::Collection<Ovel::IntfId, Want> wants_;
  uint64_t next_ = 0;
};

}  // namespace Interface
