#include "intfsm/foundation/vorn/Descriptors.h"

#include <cerrno>
#include <set>
#include <unordered_map>

namespace Vorn {

namespace {

struct Registry {
  std::unordered_map<int, DescriptorUse> byFd;
  std::map<DescriptorUse, uint32_t> counts;
  std::set<DescriptorUse> shortages;
};

Registry & registry() {
  static Registry * r = new Registry;  // never destroyed: owners may close in static destructors
  return *r;
}

void uncount(Registry & r, DescriptorUse const & use) {
  auto const it = r.counts.find(use);
  if (it == r.counts.end()) return;
  if (--it->second == 0) r.counts.erase(it);
}

}  // namespace

bool isDescriptorShortage(int error) { return error == EMFILE || error == ENFILE; }

void descriptorOpened(int fd, std::string const & purpose, std::string const & scope) {
  if (fd < 0) return;
  Registry & r = registry();
  DescriptorUse use{purpose, scope};
  auto const [it, added] = r.byFd.try_emplace(fd, use);
  if (!added) {
    uncount(r, it->second);
    it->second = use;
  }
  ++r.counts[use];
  r.shortages.erase(use);
}

void descriptorClosed(int fd) {
  Registry & r = registry();
  auto const it = r.byFd.find(fd);
  if (it == r.byFd.end()) return;
  uncount(r, it->second);
  r.byFd.erase(it);
}

std::map<DescriptorUse, uint32_t> descriptorCounts() { return registry().counts; }

uint32_t descriptorTotal() { return static_cast<uint32_t>(registry().byFd.size()); }

DescriptorUse descriptorUseOf(int fd) {
  Registry const & r = registry();
  auto const it = r.byFd.find(fd);
  return it == r.byFd.end() ? DescriptorUse{} : it->second;
}

std::string descriptorShortageText(std::string const & purpose, std::string const & scope, int error) {
  return "cannot open " + purpose + " for " + scope + ", errno: " + std::to_string(error) + " (out of descriptors)";
}

std::string descriptorShortageIs(std::string const & purpose, std::string const & scope, int error) {
  if (!registry().shortages.insert(DescriptorUse{purpose, scope}).second) return {};
  return descriptorShortageText(purpose, scope, error);
}

std::vector<DescriptorUse> descriptorShortages() {
  Registry const & r = registry();
  return {r.shortages.begin(), r.shortages.end()};
}

}  // namespace Vorn
