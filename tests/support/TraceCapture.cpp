#include "tests/support/TraceCapture.h"

#include <algorithm>
#include <cstring>
#include <ostream>
#include <sstream>

namespace IntfsmTest {

ScopedTraceSettings::ScopedTraceSettings(Start start)
    : settings_(Brisklog::settings()), sink_(Brisklog::sink()), outputFile_(Brisklog::outputFile()) {
  if (start == fromNothing) Brisklog::settingsIs(Brisklog::Settings());
}

ScopedTraceSettings::~ScopedTraceSettings() {
  Brisklog::sinkIs(sink_);
  Brisklog::settingsIs(settings_);
  if (Brisklog::outputFile() != outputFile_) Brisklog::outputFileIs(outputFile_.c_str());
}

TraceCapture::TraceCapture() { Brisklog::sinkIs(this); }

TraceCapture::TraceCapture(char const * module) : TraceCapture() { enable(module); }

TraceCapture::TraceCapture(std::initializer_list<char const *> modules) : TraceCapture() {
  for (char const * module : modules) enable(module);
}

TraceCapture::TraceCapture(std::initializer_list<ModuleLevels> modules) : TraceCapture() {
  for (ModuleLevels const & m : modules) enable(m.module, m.mask);
}

TraceCapture::~TraceCapture() = default;

void TraceCapture::enable(char const * module, uint16_t mask) { Brisklog::levelsIs(module, mask); }

void TraceCapture::lineIs(Brisklog::Line const & line) {
  char const * file = line.file ? line.file : "";
  if (char const * slash = std::strrchr(file, '/')) file = slash + 1;
  std::lock_guard lock(mutex_);
  lines_.push_back(Line{line.module ? line.module : "", line.level, std::string(line.text),
                        line.function ? line.function : "", file, line.line});
}

std::vector<TraceCapture::Line> TraceCapture::lines() const {
  std::lock_guard lock(mutex_);
  return lines_;
}

std::vector<std::string> TraceCapture::textsOf(std::string_view const * module, unsigned const * level) const {
  std::lock_guard lock(mutex_);
  std::vector<std::string> result;
  for (Line const & l : lines_) {
    if ((!module || l.module == *module) && (!level || l.level == *level)) result.push_back(l.text);
  }
  return result;
}

std::vector<std::string> TraceCapture::texts() const { return textsOf(nullptr, nullptr); }

std::vector<std::string> TraceCapture::texts(std::string_view module) const { return textsOf(&module, nullptr); }

std::vector<std::string> TraceCapture::texts(std::string_view module, unsigned level) const {
  return textsOf(&module, &level);
}

bool TraceCapture::contains(std::string_view text) const { return count(text) > 0; }

size_t TraceCapture::count(std::string_view text) const { return size_t(std::ranges::count(texts(), text)); }

size_t TraceCapture::countContaining(std::string_view fragment) const {
  return size_t(std::ranges::count_if(texts(), [&](std::string const & t) { return t.find(fragment) != std::string::npos; }));
}

size_t TraceCapture::size() const { return lines().size(); }

void TraceCapture::clear() {
  std::lock_guard lock(mutex_);
  lines_.clear();
}

std::string TraceCapture::dump() const {
  std::lock_guard lock(mutex_);
  std::ostringstream out;
  for (Line const & l : lines_) out << l << '\n';
  return out.str();
}

std::ostream & operator<<(std::ostream & os, TraceCapture::Line const & line) {
  return os << line.module << '/' << line.level << ' ' << line.function << ": " << line.text;
}

}  // namespace IntfsmTest
