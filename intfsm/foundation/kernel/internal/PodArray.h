// A fixed array of N bytes holding a short text, copied by value with no allocation: how a kernel
// record keeps a device name (N = 16, the kernel's IFNAMSIZ).
//
//   KernelNetInfo::PodArray<16> name;
//   name.set("va0", 3);          // "va0", the other 13 bytes zero
//   name.view() == "va0";
//   name.set(text, 17);          // Vorn::RangeException, nothing changed:
//   // "PodArray::set expected size <= 16, instead got 17. Buffer is at address: 0x7ffc... with contents: <the 17 bytes>"
//
// A text of exactly N bytes fills the array with no terminating zero; readers use size() / view(),
// never strlen. Unused bytes are always zero, so equal texts compare equal byte for byte.
#pragma once

#include <array>
#include <cstddef>
#include <cstring>
#include <string>
#include <string_view>

#include "intfsm/foundation/vorn/Exception.h"

namespace KernelNetInfo {

// The text of a PodArray::set whose source is longer than the array: "PodArray::set expected size <= "
// limit ", instead got " size ". Buffer is at address: " address " with contents: " the source bytes.
std::string podArraySizeText(size_t limit, size_t size, void const * data);

template <size_t N>
class PodArray {
 public:
  static constexpr size_t capacity = N;

  PodArray() noexcept = default;

  // Copies `size` bytes from `data`; more than N raises Vorn::RangeException and keeps the old text.
  void set(char const * data, size_t size) {
    if (size > N) throw Vorn::RangeException(podArraySizeText(N, size, data));
    bytes_.fill('\0');
    if (size != 0) std::memcpy(bytes_.data(), data, size);
  }
  void set(std::string_view text) { set(text.data(), text.size()); }

  // Bytes up to the first zero, at most N.
  size_t size() const noexcept { return strnlen(bytes_.data(), N); }
  bool empty() const noexcept { return bytes_[0] == '\0'; }
  char const * data() const noexcept { return bytes_.data(); }
  std::string_view view() const noexcept { return {bytes_.data(), size()}; }

  bool operator==(PodArray const &) const noexcept = default;

 private:
  std::array<char, N> bytes_{};
};

}  // namespace KernelNetInfo
