// Immutable, shared, reference-counted text.
//
// Copies share one buffer; the empty text holds no buffer at all. The 64-bit hash is computed once,
// when the text is made, because texts are keys of most collections and are made far less often
// than they are looked up.
//
//   Vorn::String dev("et1");
//   Vorn::String full = dev + "/" + Vorn::String("1");   // "et1/1"
//   full.pos("/") == 3;  full.substr(4) == "1";
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>

namespace Vorn {

class String {
 public:
  static constexpr size_t npos = static_cast<size_t>(-1);

  String() noexcept = default;
  String(char const * text);
  String(char const * text, size_t length);
  String(std::string_view text);
  String(std::string const & text) : String(std::string_view(text)) {}
  String(String const & o) noexcept;
  String(String && o) noexcept : rep_(o.rep_) { o.rep_ = nullptr; }
  ~String();
  String & operator=(String const & o) noexcept;
  String & operator=(String && o) noexcept;

  // Never null: the empty text yields "".
  char const * charPtr() const noexcept { return rep_ ? rep_->data : ""; }
  size_t size() const noexcept { return rep_ ? rep_->size : 0; }
  bool empty() const noexcept { return rep_ == nullptr; }
  uint64_t hash() const noexcept { return rep_ ? rep_->hash : emptyHash; }
  std::string_view view() const noexcept { return {charPtr(), size()}; }
  std::string stdString() const { return std::string(view()); }

  bool operator==(String const & o) const noexcept {
    return rep_ == o.rep_ || (hash() == o.hash() && view() == o.view());
  }
  bool operator==(char const * o) const noexcept { return view() == std::string_view(o ? o : ""); }
  bool operator==(std::string_view o) const noexcept { return view() == o; }
  bool operator==(std::string const & o) const noexcept { return view() == o; }
  std::strong_ordering operator<=>(String const & o) const noexcept { return view() <=> o.view(); }

  String operator+(String const & o) const;
  String operator+(char const * o) const { return *this + String(o); }
  String & operator+=(String const & o) { return *this = *this + o; }

  // Up to `length` bytes from `start`; an out-of-range start yields the empty text.
  String substr(size_t start, size_t length = npos) const;
  // Index of the first occurrence of `what` at or after `start`, or npos.
  size_t pos(String const & what, size_t start = 0) const noexcept;
  // Index of the first byte that is one of `chars`, at or after `start`, or npos.
  size_t posOf(String const & chars, size_t start = 0) const noexcept;

  static uint64_t hashOf(std::string_view text) noexcept;
  static uint64_t const emptyHash;

 private:
  struct Rep {
    mutable uint32_t refs;
    uint32_t size;
    uint64_t hash;
    char data[1];  // size + 1 bytes, zero-terminated
  };
  static Rep * make(std::string_view text);
  void drop() noexcept;
  Rep * rep_ = nullptr;
};

std::ostream & operator<<(std::ostream & os, String const & s);

// The name of an entity within its parent.
class Name : public String {
 public:
  Name() noexcept = default;
  Name(char const * text) : String(text) {}
  Name(std::string_view text) : String(text) {}
  Name(std::string const & text) : String(text) {}
  explicit Name(String const & text) : String(text) {}
};

}  // namespace Vorn

template <>
struct std::hash<Vorn::String> {
  size_t operator()(Vorn::String const & s) const noexcept { return s.hash(); }
};
template <>
struct std::hash<Vorn::Name> {
  size_t operator()(Vorn::Name const & s) const noexcept { return s.hash(); }
};
