#include "intfsm/foundation/vorn/Exception.h"

namespace Vorn {

std::string nullParameterText(char const * attribute, char const * ownerType) {
  return std::string("null _") + attribute + " parameter to mutator for " + ownerType + "::" + attribute +
         " not allowed\"";
}

std::string reinstantiationText(char const * argument, std::string const & newValue, std::string const & currentValue) {
  return std::string("Reinstantiating the pointer interface where constructor parameter attribute ") + argument +
         " has a different value of " + newValue + " than the current value of " + currentValue + " not allowed";
}

}  // namespace Vorn
