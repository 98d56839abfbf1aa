#include "tests/support/TempDir.h"

#include <stdlib.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace IntfsmTest {

TempDir::TempDir() {
  char pattern[] = "/tmp/intfsm-test-XXXXXX";
  if (::mkdtemp(pattern) == nullptr) throw std::runtime_error(std::string("mkdtemp: ") + std::strerror(errno));
  path_ = pattern;
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::string fileContents(std::string const & path) {
  std::ifstream in(path);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

}  // namespace IntfsmTest
