#include "intfsm/foundation/ovel/IntfId.h"

#include <ostream>

#include "intfsm/foundation/ovel/internal/PrintableText.h"
#include "intfsm/foundation/vorn/Exception.h"

namespace Ovel {

namespace {
// What is wrong with `text` (nullptr when it converts) and where. Runs on the receive path for every
// device name that is looked up, so it allocates nothing.
char const * defectOf(std::string_view text, size_t & at) noexcept {
  at = 0;
  if (text.empty()) return "empty";
  if (text.size() > IntfId::maxNameBytes) return "too long";
  for (size_t i = 0; i < text.size(); ++i) {
    unsigned char const c = static_cast<unsigned char>(text[i]);
    at = i;
    if (c == ' ' || (c >= '\t' && c <= '\r')) return "whitespace";
    if (c < 0x20 || c == 0x7f) return "a control character";
    if (c >= 0x80) return "a non-ASCII byte";
  }
  return nullptr;
}
}  // namespace

std::string IntfId::problemOf(Vorn::String const & name) {
  size_t at;
  char const * defect = defectOf(name.view(), at);
  if (!defect) return {};
  if (name.empty()) return "IntfId::name empty not allowed";
  if (name.size() > maxNameBytes) {
    return "IntfId::bytes > 64 not allowed: " + printableText(name.view(), maxNameBytes) + " has " +
           std::to_string(name.size()) + " bytes";
  }
  return "IntfId::name " + printableText(name.view()) + " with " + defect + " at byte " + std::to_string(at) +
         " not allowed";
}

void IntfId::handleInitialized(Vorn::String const & name) {
  std::string problem = problemOf(name);
  if (!problem.empty()) throw Vorn::RangeException(std::move(problem));
  name_ = name;
}

bool IntfId::isValidName(Vorn::String const & name) noexcept {
  size_t at;
  return defectOf(name.view(), at) == nullptr;
}

std::optional<IntfId> IntfId::fromName(Vorn::String const & name) {
  if (!isValidName(name)) return std::nullopt;
  IntfId id;
  id.name_ = name;
  return id;
}

std::ostream & operator<<(std::ostream & os, IntfId const & id) { return os << id.name(); }

}  // namespace Ovel
