// The attributes that every simple manager has from BaseSimpleEthDevPamManager, first in its table.
#pragma once

#include "intfsm/SimpleTxRxPktManager/BaseSimpleEthDevPamManager.h"
#include "intfsm/foundation/vorn/Attribute.h"

namespace Interface {

template <class T>
Vorn::AttributeTableOf<T> & baseSimpleAttributes(Vorn::AttributeTableOf<T> & t) {
  using B = BaseSimpleEthDevPamManager;
  return t.scalar("allIntfStatusDir", &B::allIntfStatusDir)
      .scalar("allIntfStatusLocalDir", &B::allIntfStatusLocalDir)
      .instantiating("deviceIntfStatusDir", &B::deviceIntfStatusDir, &B::deviceIntfStatusDirIs,
                     &B::deviceIntfStatusDirDel)
      .instantiating("desiredIntfDir", &B::desiredIntfDir, &B::desiredIntfDirIs, &B::desiredIntfDirDel)
      .instantiating("pamCollection", &B::pamCollection, &B::pamCollectionIs, &B::pamCollectionDel)
      .instantiating("ethDevPamManager", &B::ethDevPamManager, &B::ethDevPamManagerIs, &B::ethDevPamManagerDel);
}

}  // namespace Interface
