// What the three programs share on their command lines and at their ends: numbers from arguments,
// argument errors, the signals that stop them and their standard output.
//
//   Tools::Program program("pamdump", usageText);          // -h/--help print usageText to stdout, exit 0
//   auto n = Tools::number(optarg, 0xffff);                // nullopt unless a whole number <= max
//   if (!n) program.argumentError("bad EtherType '" + std::string(optarg) + "'");   // one line + hint, exit 2
//   Tools::StopSignals stop([&] { Vorn::activityManager().stop(); });   // SIGINT, SIGTERM, SIGHUP on the loop
//   ... if (!Tools::outputOk()) exit status 1: standard output could not be written
//
// SIGPIPE is ignored once a Program exists: a closed output shows as EPIPE on the write that hit it,
// which the program reports and ends on, instead of dying with half a file written.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "intfsm/foundation/vorn/FileDescriptor.h"
#include "intfsm/foundation/vorn/Reactor.h"

namespace Tools {

// Exit statuses of all three programs.
inline constexpr int exitOk = 0;
inline constexpr int exitFailed = 1;    // the work failed (the kernel refused, output lost, a command failed)
inline constexpr int exitArguments = 2; // bad arguments; nothing was done

class Program {
 public:
  Program(char const * name, char const * usage);
  char const * name() const { return name_; }
  // "NAME: problem" and "Try 'NAME -h' for help." on standard error; exit status 2.
  [[noreturn]] void argumentError(std::string const & problem) const;
  // The usage on standard output; exit status 0 (1 when it could not be written).
  [[noreturn]] void help() const;
  // The option character getopt_long returned for an unknown option or a missing value: the error.
  [[noreturn]] void badOption(int optopt, char const * text) const;

 private:
  char const * name_;
  char const * usage_;
};

// A whole unsigned number (decimal, 0x hex or 0 octal) no larger than `max`.
std::optional<unsigned long> number(std::string_view text, unsigned long max);

// SIGINT, SIGTERM and SIGHUP, blocked and read from a signal descriptor on the loop; `onStop` runs
// there for each. A process whose descriptors have run out keeps the default action (it ends).
class StopSignals {
 public:
  explicit StopSignals(std::function<void()> onStop);
  ~StopSignals();
  StopSignals(StopSignals const &) = delete;
  StopSignals & operator=(StopSignals const &) = delete;

  void handleSignal();

 private:
  class VornSignal : public Vorn::Reactor<StopSignals, Vorn::FileDescriptor> {
   public:
    using Reactor::Reactor;
    void onReadableCount() override { forward(&StopSignals::handleSignal); }
  };
  std::function<void()> onStop_;
  int fd_ = -1;
  Vorn::Ptr<Vorn::FileDescriptor> descriptor_;
  Vorn::Ptr<VornSignal> reactor_;
};

// Writes `text` to standard output; false (and one line on standard error, once) when it was lost.
bool outputIs(char const * program, std::string const & text);
// Flushes standard output; false (and one line on standard error, once) when anything written to it
// so far was lost.
bool outputOk(char const * program);

}  // namespace Tools
