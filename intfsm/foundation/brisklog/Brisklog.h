// Tracing: one handle per source module, ten levels per handle, switched on and off at run time.
//
// A module owns one handle at namespace scope in its .cpp and traces through the macro:
//
//   Brisklog::Handle traceHandle("KernelOperState");
//   ...
//   BRISKLOG_TRACE(traceHandle, 8, "doSyncIntfStatus" << "( " << intfId << " )");
//
// A disabled level costs one relaxed load of the handle's 16-bit mask and one test: the pieces are
// not evaluated, nothing is formatted and nothing is called. An enabled level formats the pieces into
// a writer and hands one `Line` to the sink.
//
// Levels by convention: 0 anomalies, 1 notable skips, 5 state changes, 8 function entry with arguments.
//
// Run-time control, by API or by the environment variable BRISKLOG read once at start-up:
//
//   BRISKLOG=EthDevPamManagerTypes/0-8,KernelOperState/5    levels 0 to 8 of one module, level 5 of another
//   BRISKLOG=IntfByDevice                                   every level (0-9) of one module
//   BRISKLOG='*/0-3'                                        levels 0 to 3 of every module
//
// Output goes to stderr, or appended to the file named by BRISKLOG_FILE or `outputFileIs`, one line per
// trace (`lineText`):
//
//   2026-11-21T23:20:52.123456Z KernelOperState/5 OperStateSm.cpp:88 doSyncIntfStatus: state up
//
// Handles, levels and the sink may be used from several threads; a sink is called under a lock, one
// line at a time, and must not trace itself.
#pragma once

#include <atomic>
#include <cstdint>
#include <ostream>
#include <sstream>
#include <string>
#include <string_view>
#include <type_traits>

namespace Brisklog {

inline constexpr unsigned maxLevel = 9;
// The mask with every level 0-9 on; bits above level 9 are never set.
inline constexpr uint16_t allLevels = 0x3ff;
// The mask of levels first..last (both included, at most 9).
constexpr uint16_t levelRange(unsigned first, unsigned last) {
  return static_cast<uint16_t>(((2u << last) - 1u) & ~((1u << first) - 1u));
}

// The trace switch of one source module. Lives at namespace scope for the life of the process (or of
// a test); registers with the process registry on construction, so levels asked for its module name
// before it existed (by `levelsIs`, `configure` or BRISKLOG) apply at once.
class Handle {
 public:
  // `enabledByDefault` turns level 0 (anomalies) on while nothing has been configured for the module.
  explicit Handle(char const * module, bool enabledByDefault = false);
  ~Handle();
  Handle(Handle const &) = delete;
  Handle & operator=(Handle const &) = delete;

  char const * module() const noexcept { return module_.c_str(); }
  bool enabledByDefault() const noexcept { return enabledByDefault_; }
  // The hot test of every trace statement: one relaxed load and one bit test. Levels above 9 are
  // never enabled.
  bool enabled(unsigned level) const noexcept {
    return (levels_.load(std::memory_order_relaxed) >> level) & 1u;
  }
  uint16_t levels() const noexcept { return levels_.load(std::memory_order_relaxed); }
  // This handle only; `Brisklog::levelsIs(module, mask)` also covers handles made later.
  // A mask with bits above level 9 raises Vorn::RangeException.
  void levelsIs(uint16_t mask);

 private:
  friend class Registry;
  std::atomic<uint16_t> levels_{0};
  bool enabledByDefault_;
  std::string module_;
};

// The stream one enabled trace statement writes into. Takes anything an std::ostream takes, with two
// differences that keep trace texts readable: 8-bit integers (uint8_t, int8_t) print as numbers, and
// a null C text prints as "(null)".
class Writer {
 public:
  Writer(Writer const &) = delete;
  Writer & operator=(Writer const &) = delete;

  template <class T>
  Writer & operator<<(T const & value) {
    using Plain = std::remove_cv_t<T>;
    if constexpr (std::is_same_v<Plain, unsigned char> || std::is_same_v<Plain, signed char>) {
      stream_ << static_cast<int>(value);
    } else if constexpr (std::is_same_v<Plain, char const *> || std::is_same_v<Plain, char *>) {
      stream_ << (value ? value : "(null)");
    } else {
      stream_ << value;
    }
    return *this;
  }
  Writer & operator<<(std::ostream & (*manipulator)(std::ostream &)) {
    stream_ << manipulator;
    return *this;
  }
  Writer & operator<<(std::ios_base & (*manipulator)(std::ios_base &)) {
    stream_ << manipulator;
    return *this;
  }

  // For printers that take an std::ostream.
  std::ostream & stream() noexcept { return stream_; }
  std::string_view text() const noexcept { return stream_.view(); }
  Handle const & handle() const noexcept { return handle_; }
  unsigned level() const noexcept { return level_; }

  // Stamps the time and hands the line to the sink.
  void trace(char const * file, int line, char const * function);

 private:
  friend class WriterPtr;
  Writer(Handle const & handle, unsigned level) : handle_(handle), level_(level) {}
  [[gnu::returns_nonnull]] static Writer * make(Handle const & handle, unsigned level);
  static void destroy(Writer * writer) noexcept;

  Handle const & handle_;
  unsigned level_;
  std::ostringstream stream_;
};

// What `createIfEnabled` returns: owns a writer when the level is enabled and is empty (false)
// otherwise. Empty, it holds a null pointer and nothing else, so the disabled path constructs,
// tests and destroys it with no call and no memory traffic.
class WriterPtr {
 public:
  WriterPtr() noexcept = default;
  WriterPtr(Handle const & handle, unsigned level) : writer_(Writer::make(handle, level)) {}
  WriterPtr(WriterPtr && o) noexcept : writer_(o.writer_) { o.writer_ = nullptr; }
  WriterPtr & operator=(WriterPtr && o) noexcept {
    if (this != &o) {
      reset();
      writer_ = o.writer_;
      o.writer_ = nullptr;
    }
    return *this;
  }
  ~WriterPtr() { reset(); }

  explicit operator bool() const noexcept { return writer_ != nullptr; }
  Writer & operator*() const noexcept { return *writer_; }
  Writer * operator->() const noexcept { return writer_; }

 private:
  void reset() noexcept {
    if (writer_) Writer::destroy(writer_);
    writer_ = nullptr;
  }
  Writer * writer_ = nullptr;
};

// A writer for `level` of `handle` when that level is enabled, an empty WriterPtr otherwise.
inline WriterPtr createIfEnabled(Handle const & handle, unsigned level) {
  if (handle.enabled(level)) [[unlikely]]
    return WriterPtr(handle, level);
  return WriterPtr();
}

// One emitted trace, as a sink sees it. The pointers and the text live until `lineIs` returns.
struct Line {
  double time;           // seconds since the Unix epoch (UTC)
  char const * module;
  unsigned level;
  char const * file;     // as the compiler gave it (__FILE__); the default output keeps the base name
  int line;
  char const * function;
  std::string_view text;
};

// Where lines go. The default sink writes `lineText(line)` to stderr or the output file.
class Sink {
 public:
  virtual ~Sink() = default;
  virtual void lineIs(Line const & line) = 0;
};

// "<UTC time with microseconds> <module>/<level> <file base name>:<line> <function>: <text>\n", the time
// as 2026-11-21T23:20:52.123456Z. Line breaks inside the text are written as "\n" so that one trace
// stays one line.
std::string lineText(Line const & line);

// Installs `sink` for every line from now on; nullptr restores the default sink. The caller keeps the
// sink alive until it is replaced.
void sinkIs(Sink * sink);
// The installed sink; nullptr while the default one is in use.
Sink * sink();

// Levels of every handle named `module`, now and made later; "*" means every module, as in `configure`.
// A mask with bits above level 9, or a null module, raises Vorn::RangeException.
void levelsIs(char const * module, uint16_t mask);

// Applies a configuration text: items separated by ",", each "<module>" (levels 0-9),
// "<module>/<level>" or "<module>/<first>-<last>"; the module "*" stands for every module. Items naming
// the same module add up. A module named gets exactly the levels named for it (plus those of "*");
// with "*", every module not named gets the levels of "*", made later or not; without "*", modules
// not named keep their levels. Blank text changes nothing. Malformed text raises Vorn::RangeException
// saying what is wrong, and nothing changes.
void configure(char const * text);

// Lines of the default sink are appended to the file at `path` from now on; a null or empty path means
// stderr. A file that cannot be opened raises Vorn::ErrnoException and the output stays where it was.
void outputFileIs(char const * path);
// The current output file; empty for stderr.
std::string outputFile();

}  // namespace Brisklog

// The trace statement. `pieces` are stream insertions ("a" << x << "b"), evaluated only when the level
// is enabled.
#define BRISKLOG_TRACE(handle, level, pieces)                                  \
  do {                                                                         \
    if (auto _brisklogWriter = ::Brisklog::createIfEnabled(handle, level)) {   \
      *_brisklogWriter << pieces;                                              \
      _brisklogWriter->trace(__FILE__, __LINE__, __func__);                    \
    }                                                                          \
  } while (0)
