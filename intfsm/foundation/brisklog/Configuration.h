// The parts of trace control that most code never needs: configuration texts parsed without being
// applied, the start-up environment, and a snapshot of every level to put back later.
//
//   Brisklog::Configuration c = Brisklog::parseConfiguration("KernelOperState/5,IntfByDevice");
//   // c.modules == { {"IntfByDevice", 0x3ff}, {"KernelOperState", 0x20} }
//
//   Brisklog::Settings saved = Brisklog::settings();
//   Brisklog::configure("*/0-9");
//   ...
//   Brisklog::settingsIs(saved);   // every level as it was
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "intfsm/foundation/brisklog/Brisklog.h"

namespace Brisklog {

// What a configuration text asks for (syntax in `configure(char const *)`).
struct Configuration {
  std::map<std::string, uint16_t, std::less<>> modules;  // levels of each module named
  std::optional<uint16_t> everyModule;                   // levels of "*", when given
  bool operator==(Configuration const &) const = default;
};

// Parses without applying; malformed text raises Vorn::RangeException whose message quotes the text
// and says what is wrong with it.
Configuration parseConfiguration(std::string_view text);

// Applies a parsed configuration, with the rules of `configure(char const *)`.
void configure(Configuration const & configuration);

// Applies the values of BRISKLOG (levels) and BRISKLOG_FILE (output file), either of which may be null
// or empty; the registry does this once, with the process environment, when it is created. There is
// nobody to raise to at start-up, so a bad value is reported on stderr as the error's text followed by
// " (BRISKLOG ignored)" (or BRISKLOG_FILE) and changes nothing; the other value still applies. True when
// both applied.
bool environmentIs(char const * levels, char const * file);

// Every level the registry holds: what was asked per module name and for "*", and each live handle's
// mask.
class Settings {
 public:
  Settings() = default;

 private:
  friend class Registry;
  std::map<std::string, uint16_t, std::less<>> modules_;
  std::optional<uint16_t> everyModule_;
  struct HandleLevels {
    Handle const * handle;
    std::string module;  // a handle made later at the same address is told apart by its name
    uint16_t levels;
  };
  std::vector<HandleLevels> handleLevels_;
};

Settings settings();
// Puts back what `settings()` returned. Handles that still exist get their saved masks; handles made
// since get what the restored requests give them.
void settingsIs(Settings const & settings);

}  // namespace Brisklog
