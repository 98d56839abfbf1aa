#include "intfsm/foundation/interface/IntfOperStatus.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "intfsm/foundation/interface/ForwardingModel.h"

namespace {

template <class E>
std::string printed(E e) {
  std::ostringstream os;
  os << e;
  return os.str();
}

TEST(IntfOperStatus, NumberedAsRfc2863AndPrintedByName) {
  using namespace Interface;
  struct {
    int number;
    IntfOperStatus status;
    char const * text;
  } const table[] = {
      {1, intfOperUp, "intfOperUp"},
      {2, intfOperDown, "intfOperDown"},
      {3, intfOperTesting, "intfOperTesting"},
      {4, intfOperUnknown, "intfOperUnknown"},
      {5, intfOperDormant, "intfOperDormant"},
      {6, intfOperNotPresent, "intfOperNotPresent"},
      {7, intfOperLowerLayerDown, "intfOperLowerLayerDown"},
  };
  for (auto const & row : table) {
    EXPECT_EQ(static_cast<int>(row.status), row.number);
    EXPECT_EQ(printed(IntfOperStatus(row.number)), row.text);
  }
}

TEST(IntfOperStatus, ValuesOutsideTheListPrintAsTheirNumber) {
  EXPECT_EQ(printed(Interface::IntfOperStatus(0)), "0");
  EXPECT_EQ(printed(Interface::IntfOperStatus(8)), "8");
  EXPECT_EQ(printed(Interface::IntfOperStatus(-1)), "-1");
  EXPECT_EQ(Interface::intfOperStatusName(Interface::IntfOperStatus(0)), nullptr);
  // Also inside a longer trace line, whatever base the stream was left in.
  std::ostringstream os;
  os << "unknown operStatus: " << std::hex << Interface::IntfOperStatus(42);
  EXPECT_EQ(os.str(), "unknown operStatus: 2a");
}

TEST(ForwardingModel, BridgedIsFourAndEveryModelPrints) {
  using namespace Interface;
  EXPECT_EQ(static_cast<int>(forwardingModelBridged), 4);
  EXPECT_EQ(printed(forwardingModelBridged), "forwardingModelBridged");
  EXPECT_EQ(printed(ForwardingModel(0)), "forwardingModelUnknown");
  EXPECT_EQ(printed(ForwardingModel(1)), "forwardingModelRouted");
  EXPECT_EQ(printed(ForwardingModel(2)), "forwardingModelDataLink");
  EXPECT_EQ(printed(ForwardingModel(3)), "forwardingModelInactive");
  EXPECT_EQ(printed(ForwardingModel(9)), "9");
}

}  // namespace
