// What a test reactor saw, one line per call-back in delivery order ("onIntfStatus(Ethernet1)"), so a
// test can assert the exact sequence of notifications an entity sent.
//
//   struct Watcher : Interface::AllIntfStatusDir::NotifieeConst {
//     NotificationLog & log;
//     void onIntfStatus(Ovel::IntfId const & id) override { log.add("onIntfStatus", id); }
//   };
//   EXPECT_THAT(log.take(), ElementsAre("onIntfStatus(Ethernet1)"));
#pragma once

#include <sstream>
#include <string>
#include <vector>

namespace IntfsmTest {

class NotificationLog {
 public:
  // Records "callback(arg, arg...)"; no parentheses without arguments.
  template <class... A>
  void add(char const * callback, A const &... args) {
    std::ostringstream line;
    line << callback;
    if constexpr (sizeof...(A) > 0) {
      line << '(';
      char const * sep = "";
      ((line << sep << args, sep = ", "), ...);
      line << ')';
    }
    lines_.push_back(line.str());
  }

  std::vector<std::string> const & lines() const { return lines_; }
  // The lines so far; the log starts over.
  std::vector<std::string> take();

 private:
  std::vector<std::string> lines_;
};

}  // namespace IntfsmTest
