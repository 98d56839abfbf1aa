#include "intfsm/foundation/vorn/String.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>
#include <ostream>

#include "intfsm/foundation/vorn/Ptr.h"

namespace Vorn {

namespace {
// FNV-1a followed by a final mix: cheap, and the mix spreads short names such as "et1".."et48" over
// the low bits that pick a collection's bucket.
uint64_t mix(uint64_t h) noexcept {
  h ^= h >> 33;
  h *= 0xff51afd7ed558ccdULL;
  h ^= h >> 33;
  h *= 0xc4ceb9fe1a85ec53ULL;
  h ^= h >> 33;
  return h;
}
}  // namespace

uint64_t String::hashOf(std::string_view text) noexcept {
  uint64_t h = 0xcbf29ce484222325ULL;
  for (unsigned char c : text) {
    h ^= c;
    h *= 0x100000001b3ULL;
  }
  return mix(h);
}

uint64_t const String::emptyHash = String::hashOf({});

String::Rep * String::make(std::string_view text) {
  if (text.empty()) return nullptr;
  if (text.size() > UINT32_MAX) throw std::bad_alloc();
  void * mem = std::malloc(offsetof(Rep, data) + text.size() + 1);
  if (!mem) throw std::bad_alloc();
  Rep * rep = static_cast<Rep *>(mem);
  rep->refs = 1;
  rep->size = static_cast<uint32_t>(text.size());
  rep->hash = hashOf(text);
  std::memcpy(rep->data, text.data(), text.size());
  rep->data[text.size()] = '\0';
  return rep;
}

String::String(char const * text) : rep_(make(text ? std::string_view(text) : std::string_view())) {}
String::String(char const * text, size_t length) : rep_(make(std::string_view(text, text ? length : 0))) {}
String::String(std::string_view text) : rep_(make(text)) {}

String::String(String const & o) noexcept : rep_(o.rep_) {
  if (!rep_) return;
  if (threadSafePointers) std::atomic_ref<uint32_t>(rep_->refs).fetch_add(1, std::memory_order_relaxed);
  else ++rep_->refs;
}

String::~String() { drop(); }

void String::drop() noexcept {
  if (!rep_) return;
  uint32_t before;
  if (threadSafePointers) before = std::atomic_ref<uint32_t>(rep_->refs).fetch_sub(1, std::memory_order_acq_rel);
  else before = rep_->refs--;
  if (before == 1) std::free(rep_);
  rep_ = nullptr;
}

String & String::operator=(String const & o) noexcept {
  if (rep_ != o.rep_) {
    String copy(o);
    std::swap(rep_, copy.rep_);
  }
  return *this;
}

String & String::operator=(String && o) noexcept {
  if (this != &o) {
    drop();
    rep_ = o.rep_;
    o.rep_ = nullptr;
  }
  return *this;
}

String String::operator+(String const & o) const {
  if (o.empty()) return *this;
  if (empty()) return o;
  std::string joined;
  joined.reserve(size() + o.size());
  joined.append(view()).append(o.view());
  return String(joined);
}

String String::substr(size_t start, size_t length) const {
  if (start >= size()) return String();
  return String(view().substr(start, length));
}

size_t String::pos(String const & what, size_t start) const noexcept {
  size_t at = view().find(what.view(), start);
  return at == std::string_view::npos ? npos : at;
}

size_t String::posOf(String const & chars, size_t start) const noexcept {
  size_t at = view().find_first_of(chars.view(), start);
  return at == std::string_view::npos ? npos : at;
}

std::ostream & operator<<(std::ostream & os, String const & s) { return os << s.view(); }

}  // namespace Vorn
