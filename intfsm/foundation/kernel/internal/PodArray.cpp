#include "intfsm/foundation/kernel/internal/PodArray.h"

#include <sstream>

namespace KernelNetInfo {

std::string podArraySizeText(size_t limit, size_t size, void const * data) {
  std::ostringstream text;
  text << "PodArray::set expected size <= " << limit << ", instead got " << size
       << ". Buffer is at address: " << data << " with contents: ";
  if (data != nullptr) text.write(static_cast<char const *>(data), static_cast<std::streamsize>(size));
  return text.str();
}

}  // namespace KernelNetInfo
