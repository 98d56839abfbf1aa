// What every fuzz target shares: tracing on at every level into a sink that drops the lines (so that
// the formatting of every trace runs, and nothing is written), the check that ends a run with the
// property that failed, and a reader of the input in the shape the targets use.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <linux/netlink.h>
#include <string>
#include <string_view>

#include "intfsm/foundation/brisklog/Brisklog.h"

namespace Fuzz {

// Every level of every module on, into a sink that keeps nothing. Called once, at start.
inline void quietTracing() {
  struct Drop : Brisklog::Sink {
    void lineIs(Brisklog::Line const &) override {}
  };
  static Drop drop;
  Brisklog::sinkIs(&drop);
  Brisklog::levelsIs("*", Brisklog::allLevels);
}

// A property that does not hold: said on stderr, then abort(), which libFuzzer reports as a crash
// and keeps the input of.
[[noreturn]] inline void broken(char const * file, int line, char const * what, std::string const & detail) {
  std::fprintf(stderr, "%s:%d: property broken: %s %s\n", file, line, what, detail.c_str());
  std::abort();
}

#define FUZZ_CHECK(condition, detail) \
  ((condition) ? (void)0 : ::Fuzz::broken(__FILE__, __LINE__, #condition, (detail)))

// The input, read front to back; past the end every read yields zeros or nothing.
class Input {
 public:
  Input(uint8_t const * data, size_t size) : data_(data), size_(size) {}
  bool empty() const { return at_ >= size_; }
  uint8_t byte() { return at_ < size_ ? data_[at_++] : 0; }
  uint16_t u16() { return static_cast<uint16_t>(byte() | byte() << 8); }
  // Up to `n` bytes (fewer at the end).
  std::string bytes(size_t n) {
    size_t const take = n < size_ - at_ ? n : size_ - at_;
    std::string out(reinterpret_cast<char const *>(data_ + at_), empty() ? 0 : take);
    at_ += out.size();
    return out;
  }

 private:
  uint8_t const * data_;
  size_t size_;
  size_t at_ = 0;
};

// Sets the sequence number of every message that lies whole in `bytes` (as a sender would).
inline std::string withSeq(std::string bytes, uint32_t seq) {
  for (size_t at = 0; bytes.size() - at >= sizeof(nlmsghdr);) {
    nlmsghdr header;
    std::memcpy(&header, bytes.data() + at, sizeof header);
    header.nlmsg_seq = seq;
    std::memcpy(bytes.data() + at, &header, sizeof header);
    if (header.nlmsg_len < sizeof header || header.nlmsg_len > bytes.size() - at) break;
    at += NLMSG_ALIGN(header.nlmsg_len);
    if (at > bytes.size()) break;
  }
  return bytes;
}

}  // namespace Fuzz
