// The constructors of names from outside text: Ovel::NamespaceName, Ovel::IntfId and the device name
// of a KernelNetInfo::Interface. Each either gives a value that holds exactly the text, or raises
// Vorn::RangeException with a text saying why; never anything else. The three ways to ask for an id
// (the constructor, fromName, isValidName) agree.
#include <optional>
#include <string>

#include "fuzz/FuzzSupport.h"
#include "intfsm/foundation/kernel/KernelNetInfo.h"
#include "intfsm/foundation/ovel/IntfId.h"
#include "intfsm/foundation/ovel/NamespaceName.h"
#include "intfsm/foundation/vorn/Exception.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  Fuzz::quietTracing();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(uint8_t const * data, size_t size) {
  std::string const bytes(reinterpret_cast<char const *>(data), size);
  Vorn::String const text(bytes.data(), bytes.size());
  FUZZ_CHECK(text.view() == bytes, "Vorn::String keeps every byte");

  try {
    Ovel::NamespaceName const ns(text);
    FUZZ_CHECK(size <= Ovel::NamespaceName::maxBytes, std::to_string(size));
    FUZZ_CHECK(ns.name() == text && ns.size() == size, bytes);
    FUZZ_CHECK(ns.isDefault() == (bytes == Ovel::DEFAULT_NS), bytes);
    FUZZ_CHECK(ns.orDefault() == (size == 0 ? Ovel::NamespaceName::defaultNamespace() : ns), bytes);
  } catch (Vorn::RangeException const & e) {
    FUZZ_CHECK(size > Ovel::NamespaceName::maxBytes, std::to_string(size));
    FUZZ_CHECK(std::string(e.what()) == "NamespaceName::bytes > 150 not allowed", e.what());
  }

  bool const valid = Ovel::IntfId::isValidName(text);
  std::optional<Ovel::IntfId> const maybe = Ovel::IntfId::fromName(text);
  FUZZ_CHECK(maybe.has_value() == valid, bytes);
  Ovel::IntfId id;
  try {
    id.handleInitialized(text);
    FUZZ_CHECK(valid && id.name() == text && *maybe == id && id.hash() == text.hash(), bytes);
    FUZZ_CHECK(size >= 1 && size <= Ovel::IntfId::maxNameBytes, std::to_string(size));
    for (char c : bytes) FUZZ_CHECK(c > ' ' && c < 0x7f, bytes);
  } catch (Vorn::RangeException const & e) {
    FUZZ_CHECK(!valid && id.empty(), bytes);  // refused, and the id unchanged
    std::string const why = e.what();
    FUZZ_CHECK(why.rfind("IntfId::", 0) == 0 && why.find("not allowed") != std::string::npos, why);
  }

  // A device name: at most 16 bytes (the kernel's IFNAMSIZ); it reads back up to its first zero byte.
  uint32_t const ifIndex = size > 0 ? data[0] : 1;
  try {
    KernelNetInfo::Interface const device(ifIndex, 0, text);
    FUZZ_CHECK(size <= KernelNetInfo::deviceNameBytes, std::to_string(size));
    std::string const upToZero = bytes.substr(0, bytes.find('\0'));
    FUZZ_CHECK(device.deviceName().view() == upToZero && device.ifIndex() == ifIndex, bytes);
  } catch (Vorn::RangeException const & e) {
    FUZZ_CHECK(size > KernelNetInfo::deviceNameBytes, std::to_string(size));
    FUZZ_CHECK(std::string(e.what()).rfind("PodArray::set expected size <= 16, instead got " + std::to_string(size), 0) == 0,
               e.what());
  }
  return 0;
}
