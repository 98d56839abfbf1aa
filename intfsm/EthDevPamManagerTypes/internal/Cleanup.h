// Runs a callable when the scope ends, unless released: the one close of a descriptor on every early
// exit of a set-up path.
//
//   int fd = socket(...);
//   auto closeFd = Interface::Cleanup([fd] { close(fd); });
//   ... steps that may throw ...
//   closeFd.release();   // set up: the descriptor is kept
#pragma once

#include <utility>

namespace Interface {

template <typename F>
class [[nodiscard]] Cleanup {
 public:
  explicit Cleanup(F f) : f_(std::move(f)) {}
  ~Cleanup() {
    if (armed_) f_();
  }
  Cleanup(Cleanup const &) = delete;
  Cleanup & operator=(Cleanup const &) = delete;
  void release() noexcept { armed_ = false; }

 private:
  F f_;
  bool armed_ = true;
};

}  // namespace Interface
