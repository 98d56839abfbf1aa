#include "intfsm/foundation/brisklog/Brisklog.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <vector>

#include "intfsm/foundation/brisklog/Configuration.h"
#include "intfsm/foundation/vorn/Exception.h"

namespace Brisklog {

namespace {

void checkMask(uint16_t mask) {
  if (mask & ~allLevels) {
    char hex[8];
    std::snprintf(hex, sizeof hex, "%#x", static_cast<unsigned>(mask));
    throw Vorn::RangeException(std::string("Brisklog: level mask ") + hex + " has bits above level 9");
  }
}

double currentUtcTime() {
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// A trace that cannot be written has nowhere better to be reported, so a failed write ends the
// attempt; a short write or an interrupted one is carried on.
void writeAll(int fd, std::string_view text) {
  while (!text.empty()) {
    ssize_t const n = ::write(fd, text.data(), text.size());
    if (n < 0) {
      if (errno == EINTR) continue;
      return;
    }
    text.remove_prefix(static_cast<size_t>(n));
  }
}

// The default sink: stderr or an output file opened for appending. One write per line, so lines of
// several processes appending to one file do not interleave.
class OutputSink : public Sink {
 public:
  ~OutputSink() override {
    if (fd_ != STDERR_FILENO) ::close(fd_);
  }
  void lineIs(Line const & line) override { writeAll(fd_, lineText(line)); }
  // Takes ownership of `fd` (STDERR_FILENO for stderr) and closes the file it replaces.
  void outputIs(int fd, std::string path) {
    if (fd_ != STDERR_FILENO) ::close(fd_);
    fd_ = fd;
    path_ = std::move(path);
  }
  std::string const & path() const { return path_; }

 private:
  int fd_ = STDERR_FILENO;
  std::string path_;
};

}  // namespace

// Every handle of the process and what has been asked for each module name. Levels and output have
// separate locks so that a sink that is slow to write does not hold up configuration.
class Registry {
 public:
  Registry() { environmentIs(std::getenv("BRISKLOG"), std::getenv("BRISKLOG_FILE")); }

  void handleIs(Handle * handle) {
    std::lock_guard lock(levelsMutex_);
    handles_.push_back(handle);
    handle->levels_.store(levelsFor(*handle), std::memory_order_relaxed);
  }

  void handleDel(Handle * handle) {
    std::lock_guard lock(levelsMutex_);
    handles_.erase(std::remove(handles_.begin(), handles_.end(), handle), handles_.end());
  }

  void levelsIs(std::string_view module, uint16_t mask) {
    std::lock_guard lock(levelsMutex_);
    auto const entry = modules_.find(module);
    if (entry == modules_.end()) {
      modules_.emplace(std::string(module), mask);
    } else {
      entry->second = mask;
    }
    for (Handle * h : handles_) {
      if (h->module_ == module) h->levels_.store(mask, std::memory_order_relaxed);
    }
  }

  void configure(Configuration const & configuration) {
    std::lock_guard lock(levelsMutex_);
    if (configuration.everyModule) {
      uint16_t const every = *configuration.everyModule;
      modules_.clear();
      everyModule_ = every;
      for (auto const & [module, mask] : configuration.modules) modules_.emplace(module, mask | every);
      for (Handle * h : handles_) h->levels_.store(levelsFor(*h), std::memory_order_relaxed);
      return;
    }
    for (auto const & [module, mask] : configuration.modules) modules_.insert_or_assign(module, mask);
    for (Handle * h : handles_) {
      if (configuration.modules.count(h->module_)) h->levels_.store(levelsFor(*h), std::memory_order_relaxed);
    }
  }

  Settings settings() {
    std::lock_guard lock(levelsMutex_);
    Settings result;
    result.modules_ = modules_;
    result.everyModule_ = everyModule_;
    for (Handle const * h : handles_) result.handleLevels_.push_back({h, h->module_, h->levels()});
    return result;
  }

  void settingsIs(Settings const & settings) {
    std::lock_guard lock(levelsMutex_);
    modules_ = settings.modules_;
    everyModule_ = settings.everyModule_;
    for (Handle * h : handles_) {
      auto const saved = std::find_if(settings.handleLevels_.begin(), settings.handleLevels_.end(),
                                      [h](auto const & s) { return s.handle == h && s.module == h->module_; });
      h->levels_.store(saved != settings.handleLevels_.end() ? saved->levels : levelsFor(*h),
                       std::memory_order_relaxed);
    }
  }

  bool environmentIs(char const * levels, char const * file) {
    bool applied = true;
    if (levels && *levels) {
      try {
        configure(parseConfiguration(levels));
      } catch (Vorn::Exception const & e) {
        ignored("BRISKLOG", e.what());
        applied = false;
      }
    }
    if (file && *file) {
      try {
        outputFileIs(file);
      } catch (Vorn::Exception const & e) {
        ignored("BRISKLOG_FILE", e.what());
        applied = false;
      }
    }
    return applied;
  }

  void lineIs(Line const & line) {
    std::lock_guard lock(outputMutex_);
    (sink_ ? sink_ : &output_)->lineIs(line);
  }

  void sinkIs(Sink * sink) {
    std::lock_guard lock(outputMutex_);
    sink_ = sink;
  }

  Sink * sink() {
    std::lock_guard lock(outputMutex_);
    return sink_;
  }

  void outputFileIs(char const * path) {
    int fd = STDERR_FILENO;
    if (path && *path) {
      fd = ::open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
      if (fd < 0) {
        int const error = errno;
        throw Vorn::ErrnoException(
            error, std::string("Brisklog: cannot open trace file \"") + path + "\": " + std::strerror(error));
      }
    }
    std::lock_guard lock(outputMutex_);
    output_.outputIs(fd, fd == STDERR_FILENO ? std::string() : std::string(path));
  }

  std::string outputFile() {
    std::lock_guard lock(outputMutex_);
    return output_.path();
  }

 private:
  // Caller holds levelsMutex_.
  uint16_t levelsFor(Handle const & handle) const {
    auto const entry = modules_.find(handle.module_);
    if (entry != modules_.end()) return entry->second;
    if (everyModule_) return *everyModule_;
    return handle.enabledByDefault_ ? levelRange(0, 0) : 0;
  }

  static void ignored(char const * variable, char const * reason) {
    std::string const text = std::string(reason) + " (" + variable + " ignored)\n";
    writeAll(STDERR_FILENO, text);
  }

  std::mutex levelsMutex_;
  std::vector<Handle *> handles_;
  std::map<std::string, uint16_t, std::less<>> modules_;
  std::optional<uint16_t> everyModule_;

  std::mutex outputMutex_;
  Sink * sink_ = nullptr;
  OutputSink output_;
};

namespace {

// Never destroyed: handles and trace statements in other static objects' destructors run in no
// particular order relative to it, and must still find it.
Registry & registry() {
  static Registry * const instance = new Registry;
  return *instance;
}

}  // namespace

Handle::Handle(char const * module, bool enabledByDefault)
    : enabledByDefault_(enabledByDefault), module_(module ? module : "") {
  registry().handleIs(this);
}

Handle::~Handle() { registry().handleDel(this); }

void Handle::levelsIs(uint16_t mask) {
  checkMask(mask);
  levels_.store(mask, std::memory_order_relaxed);
}

Writer * Writer::make(Handle const & handle, unsigned level) { return new Writer(handle, level); }

void Writer::destroy(Writer * writer) noexcept { delete writer; }

void Writer::trace(char const * file, int line, char const * function) {
  registry().lineIs(Line{currentUtcTime(), handle_.module(), level_, file, line, function, stream_.view()});
}

std::string lineText(Line const & line) {
  double const whole = std::floor(line.time);
  auto seconds = static_cast<time_t>(whole);
  long micros = std::lround((line.time - whole) * 1e6);
  if (micros >= 1000000) {
    ++seconds;
    micros -= 1000000;
  }
  tm utc{};
  gmtime_r(&seconds, &utc);
  char stamp[96];
  std::snprintf(stamp, sizeof stamp, "%04d-%02d-%02dT%02d:%02d:%02d.%06ldZ", utc.tm_year + 1900, utc.tm_mon + 1,
                utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec, micros);

  char const * file = line.file ? line.file : "?";
  if (char const * slash = std::strrchr(file, '/')) file = slash + 1;

  std::string out;
  out.reserve(96 + line.text.size());
  out += stamp;
  out += ' ';
  out += line.module ? line.module : "?";
  out += '/';
  out += std::to_string(line.level);
  out += ' ';
  out += file;
  out += ':';
  out += std::to_string(line.line);
  out += ' ';
  out += line.function ? line.function : "?";
  out += ": ";
  for (char c : line.text) {
    if (c == '\n') {
      out += "\\n";
    } else {
      out += c;
    }
  }
  out += '\n';
  return out;
}

void sinkIs(Sink * sink) { registry().sinkIs(sink); }

Sink * sink() { return registry().sink(); }

void levelsIs(char const * module, uint16_t mask) {
  if (!module) throw Vorn::RangeException("Brisklog: null module name");
  checkMask(mask);
  if (std::string_view(module) == "*") {
    Configuration every;
    every.everyModule = mask;
    registry().configure(every);
    return;
  }
  registry().levelsIs(module, mask);
}

void configure(char const * text) { registry().configure(parseConfiguration(text ? text : "")); }

void configure(Configuration const & configuration) {
  for (auto const & entry : configuration.modules) checkMask(entry.second);
  if (configuration.everyModule) checkMask(*configuration.everyModule);
  registry().configure(configuration);
}

bool environmentIs(char const * levels, char const * file) { return registry().environmentIs(levels, file); }

void outputFileIs(char const * path) { registry().outputFileIs(path); }

std::string outputFile() { return registry().outputFile(); }

Settings settings() { return registry().settings(); }

void settingsIs(Settings const & settings) { registry().settingsIs(settings); }

}  // namespace Brisklog
