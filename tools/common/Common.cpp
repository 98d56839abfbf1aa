#include "tools/common/Common.h"

#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace Tools {

Program::Program(char const * name, char const * usage) : name_(name), usage_(usage) {
  ::signal(SIGPIPE, SIG_IGN);
}

void Program::argumentError(std::string const & problem) const {
  std::fprintf(stderr, "%s: %s\nTry '%s -h' for help.\n", name_, problem.c_str(), name_);
  std::exit(exitArguments);
}

void Program::help() const {
  std::fputs(usage_, stdout);
  std::exit(outputOk(name_) ? exitOk : exitFailed);
}

void Program::badOption(int optopt, char const * text) const {
  // getopt_long has printed nothing (opterr is 0): say which option, once.
  if (optopt) argumentError(std::string("bad option -") + static_cast<char>(optopt) + " or its value is missing");
  argumentError(std::string("bad option '") + (text ? text : "") + "' or its value is missing");
}

std::optional<unsigned long> number(std::string_view text, unsigned long max) {
  std::string const copy(text);
  char * end = nullptr;
  errno = 0;
  if (copy.empty() || copy[0] == '-' || copy[0] == '+' || copy[0] == ' ') return std::nullopt;
  unsigned long const v = std::strtoul(copy.c_str(), &end, 0);
  if (errno || *end || v > max) return std::nullopt;
  return v;
}

StopSignals::StopSignals(std::function<void()> onStop) : onStop_(std::move(onStop)) {
  sigset_t signals;
  sigemptyset(&signals);
  for (int s : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&signals, s);
  fd_ = signalfd(-1, &signals, SFD_NONBLOCK | SFD_CLOEXEC);
  if (fd_ < 0) return;
  // Blocked, a signal is queued for the descriptor even when a shell set it to be ignored, as it
  // does SIGINT for background jobs.
  sigprocmask(SIG_BLOCK, &signals, nullptr);
  descriptor_ = Vorn::fileDescriptorFactory("signals");
  descriptor_->descriptorIs(fd_);
  reactor_ = Vorn::reactorNew<VornSignal>(this, descriptor_);
}

StopSignals::~StopSignals() {
  reactor_ = nullptr;
  if (descriptor_) descriptor_->descriptorIs(-1);
  if (fd_ >= 0) close(fd_);
}

void StopSignals::handleSignal() {
  signalfd_siginfo info{};
  bool any = false;
  while (read(fd_, &info, sizeof info) == sizeof info) any = true;
  if (any) onStop_();
}

namespace {
bool reported = false;

bool lost(char const * program, int error) {
  if (!reported) std::fprintf(stderr, "%s: cannot write standard output: %s\n", program, std::strerror(error ? error : EIO));
  reported = true;
  return false;
}
}  // namespace

bool outputIs(char const * program, std::string const & text) {
  errno = 0;
  // A line-buffered stream may count the bytes as written and only mark the error.
  if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size() || std::ferror(stdout)) return lost(program, errno);
  return true;
}

bool outputOk(char const * program) {
  errno = 0;
  if (std::fflush(stdout) != 0) return lost(program, errno);
  return !std::ferror(stdout) || lost(program, EIO);
}

}  // namespace Tools
