#include "intfsm/foundation/brisklog/Configuration.h"

#include <cctype>

#include "intfsm/foundation/vorn/Exception.h"

namespace Brisklog {

namespace {

[[noreturn]] void malformed(std::string_view text, std::string const & reason) {
  throw Vorn::RangeException("Brisklog: malformed trace configuration \"" + std::string(text) + "\": " + reason);
}

// Appended piece by piece: GCC's -O3 sees a possible overlap in `"\"" + std::string(s)` that cannot be.
std::string quoted(std::string_view s) {
  std::string out;
  out.reserve(s.size() + 2);
  out += '"';
  out += s;
  out += '"';
  return out;
}

std::string_view trimmed(std::string_view s) {
  auto const blank = [](char c) { return c == ' ' || c == '\t'; };
  while (!s.empty() && blank(s.front())) s.remove_prefix(1);
  while (!s.empty() && blank(s.back())) s.remove_suffix(1);
  return s;
}

// Module names are C identifiers in practice; the few punctuation marks allow "foundation/vorn"-like
// names to be written as "foundation.vorn" and keep typos such as a stray space from passing unnoticed.
bool isModuleName(std::string_view name) {
  for (char c : name) {
    if (!std::isalnum(static_cast<unsigned char>(c)) && c != '_' && c != '.' && c != ':' && c != '-') return false;
  }
  return !name.empty();
}

unsigned level(std::string_view text, std::string_view item, std::string_view digits) {
  digits = trimmed(digits);
  if (digits.size() != 1 || digits[0] < '0' || digits[0] > '9') {
    malformed(text, "level " + quoted(digits) + " in " + quoted(item) + " is not one of 0-9");
  }
  return static_cast<unsigned>(digits[0] - '0');
}

uint16_t levels(std::string_view text, std::string_view item, std::string_view range) {
  range = trimmed(range);
  if (range.empty()) malformed(text, quoted(item) + " names no level");
  size_t const dash = range.find('-');
  if (dash == std::string_view::npos) {
    unsigned const only = level(text, item, range);
    return levelRange(only, only);
  }
  unsigned const first = level(text, item, range.substr(0, dash));
  unsigned const last = level(text, item, range.substr(dash + 1));
  if (first > last) malformed(text, "range " + quoted(range) + " in " + quoted(item) + " runs backwards");
  return levelRange(first, last);
}

}  // namespace

Configuration parseConfiguration(std::string_view text) {
  Configuration result;
  if (trimmed(text).empty()) return result;
  size_t start = 0;
  unsigned itemNumber = 0;
  while (start <= text.size()) {
    size_t comma = text.find(',', start);
    if (comma == std::string_view::npos) comma = text.size();
    std::string_view const item = trimmed(text.substr(start, comma - start));
    ++itemNumber;
    if (item.empty()) malformed(text, "item " + std::to_string(itemNumber) + " is empty");

    size_t const slash = item.find('/');
    std::string_view const name = trimmed(item.substr(0, slash));
    uint16_t const mask = slash == std::string_view::npos ? allLevels : levels(text, item, item.substr(slash + 1));
    if (name.empty()) malformed(text, quoted(item) + " names no module");
    if (name == "*") {
      result.everyModule = static_cast<uint16_t>(result.everyModule.value_or(0) | mask);
    } else if (isModuleName(name)) {
      uint16_t & entry = result.modules.try_emplace(std::string(name), uint16_t{0}).first->second;
      entry = static_cast<uint16_t>(entry | mask);
    } else {
      malformed(text, quoted(name) + " is not a module name (letters, digits and _ . : - only)");
    }
    start = comma + 1;
  }
  return result;
}

}  // namespace Brisklog
