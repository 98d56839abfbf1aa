// A fresh directory under /tmp, removed with everything in it when the object dies.
//
//   IntfsmTest::TempDir tmp;
//   std::string const file = tmp.path() + "/trace";
//   ... write it ...
//   EXPECT_EQ(IntfsmTest::fileContents(file), "...");
#pragma once

#include <string>

namespace IntfsmTest {

class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(TempDir const &) = delete;
  TempDir & operator=(TempDir const &) = delete;
  std::string const & path() const { return path_; }

 private:
  std::string path_;
};

// The whole content of the file at `path` ("" when it cannot be read).
std::string fileContents(std::string const & path);

}  // namespace IntfsmTest
