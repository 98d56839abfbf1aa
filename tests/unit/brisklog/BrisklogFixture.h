// Shared by the tracing tests: each test starts from a registry where nothing has been asked for (so a
// BRISKLOG in the environment of the test run does not leak in) and leaves it as it found it.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

#include "intfsm/foundation/brisklog/Brisklog.h"
#include "intfsm/foundation/brisklog/Configuration.h"

class BrisklogTest : public ::testing::Test {
 protected:
  void SetUp() override { Brisklog::settingsIs(Brisklog::Settings()); }
  void TearDown() override {
    Brisklog::sinkIs(savedSink_);
    Brisklog::settingsIs(saved_);
    Brisklog::outputFileIs(savedOutputFile_.c_str());
  }

 private:
  Brisklog::Settings saved_ = Brisklog::settings();
  Brisklog::Sink * savedSink_ = Brisklog::sink();
  std::string savedOutputFile_ = Brisklog::outputFile();
};

// A file name in /tmp, removed when the test ends.
class TempFile {
 public:
  TempFile() {
    char name[] = "/tmp/brisklog-test-XXXXXX";
    int const fd = ::mkstemp(name);
    EXPECT_GE(fd, 0);
    if (fd >= 0) ::close(fd);
    path_ = name;
  }
  ~TempFile() { ::unlink(path_.c_str()); }
  char const * path() const { return path_.c_str(); }
  std::string contents() const {
    std::ifstream in(path_);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
  }

 private:
  std::string path_;
};
