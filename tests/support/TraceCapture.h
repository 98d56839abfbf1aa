// Records trace lines for a test to assert on.
//
// While it lives, a TraceCapture is the trace sink and the modules it was given are enabled (all
// levels, or the masks given). On destruction it puts back the previous sink and every level as it
// was, including changes the test itself made with Brisklog::levelsIs or configure.
//
//   IntfsmTest::TraceCapture trace("KernelOperState");
//   sm->handleIntfStatus(intfId);
//   EXPECT_THAT(trace.texts("KernelOperState"), ElementsAre("handleIntfStatus( et1 )", ...));
//   EXPECT_EQ(trace.count("doSyncIntfStatus( et1 )"), 1u);
//
//   TraceCapture levels{{"EthDevPamManagerTypes", Brisklog::levelRange(0, 5)}, {"IntfByDevice", 1 << 8}};
//
// Lines of modules that were already enabled (level 0 of a handle enabled by default, BRISKLOG) are
// recorded too; `texts(module)` picks one module's.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <iosfwd>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "intfsm/foundation/brisklog/Brisklog.h"
#include "intfsm/foundation/brisklog/Configuration.h"

namespace IntfsmTest {

// Puts the whole trace set-up back as it was when it dies: what was asked for each module, each
// handle's levels, the sink and the output file. `fromNothing` also starts the test from a set-up
// where nothing has been asked for, so that a BRISKLOG in the test run's environment does not leak in.
class ScopedTraceSettings {
 public:
  enum Start { asItIs, fromNothing };
  explicit ScopedTraceSettings(Start start = asItIs);
  ~ScopedTraceSettings();
  ScopedTraceSettings(ScopedTraceSettings const &) = delete;
  ScopedTraceSettings & operator=(ScopedTraceSettings const &) = delete;

 private:
  Brisklog::Settings settings_;
  Brisklog::Sink * sink_;
  std::string outputFile_;
};

class TraceCapture : public Brisklog::Sink {
 public:
  struct Line {
    std::string module;
    unsigned level;
    std::string text;
    std::string function;
    std::string file;  // base name
    int line;
    bool operator==(Line const &) const = default;
  };
  struct ModuleLevels {
    char const * module;
    uint16_t mask;
  };

  // Captures without enabling anything.
  TraceCapture();
  // Captures with every level of `module` enabled.
  explicit TraceCapture(char const * module);
  // Captures with every level of each module enabled.
  TraceCapture(std::initializer_list<char const *> modules);
  // Captures with the given levels of each module.
  TraceCapture(std::initializer_list<ModuleLevels> modules);
  ~TraceCapture() override;
  TraceCapture(TraceCapture const &) = delete;
  TraceCapture & operator=(TraceCapture const &) = delete;

  // Enables more while capturing; put back with the rest on destruction.
  void enable(char const * module, uint16_t mask = Brisklog::allLevels);

  std::vector<Line> lines() const;
  // Texts in the order traced.
  std::vector<std::string> texts() const;
  std::vector<std::string> texts(std::string_view module) const;
  std::vector<std::string> texts(std::string_view module, unsigned level) const;
  // Whether some line's text is exactly `text`, and how many are.
  bool contains(std::string_view text) const;
  size_t count(std::string_view text) const;
  // How many lines' texts have `fragment` somewhere in them.
  size_t countContaining(std::string_view fragment) const;
  size_t size() const;
  void clear();
  // Every line as "<module>/<level> <function>: <text>", one per line: for failure messages.
  std::string dump() const;

  void lineIs(Brisklog::Line const & line) override;

 private:
  // The texts of the module and level given (any when null).
  std::vector<std::string> textsOf(std::string_view const * module, unsigned const * level) const;

  ScopedTraceSettings saved_;
  mutable std::mutex mutex_;
  std::vector<Line> lines_;
};

// So that GoogleTest prints recorded lines readably.
std::ostream & operator<<(std::ostream & os, TraceCapture::Line const & line);

}  // namespace IntfsmTest

