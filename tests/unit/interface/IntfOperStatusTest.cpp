#include "intfsm/foundation/interface/IntfOperStatus.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "intfsm/foundation/interface/ForwardingModel.h"

namespace {

using namespace Interface;

// RFC 2863 numbering, and the number for values outside the list, whatever base the stream was left in.
TEST(IntfOperStatus, NumberedAsRfc2863AndPrintedByNameOrNumber) {
  IntfOperStatus const inOrder[] = {intfOperUp,      intfOperDown,       intfOperTesting,       intfOperUnknown,
                                    intfOperDormant, intfOperNotPresent, intfOperLowerLayerDown};
  for (int i = 0; i < 7; ++i) EXPECT_EQ(static_cast<int>(inOrder[i]), i + 1);
  std::ostringstream os;
  os << intfOperLowerLayerDown << ' ' << IntfOperStatus(0) << ' ' << std::hex << IntfOperStatus(42) << ' '
     << forwardingModelBridged << ' ' << ForwardingModel(9);
  EXPECT_EQ(os.str(), "intfOperLowerLayerDown 0 2a forwardingModelBridged 9");
  EXPECT_EQ(static_cast<int>(forwardingModelBridged), 4);
}

}  // namespace
