#include "tools/common/Filter.h"

#include <sys/time.h>

#include <vector>

#include "intfsm/SimpleTxRxPktManager/ParseFilter.h"

namespace Tools {

namespace {
// Frames up to this length are matched whole: larger than any frame the tools keep.
constexpr int snapLength = 262144;
}  // namespace

Filter::~Filter() { clear(); }

void Filter::clear() {
  if (kind_ == Kind::expression) pcap_freecode(&expression_);
  expression_ = bpf_program{};
  kernelProgram_ = Ovel::SockFilterProgram();
  kind_ = Kind::none;
  text_.clear();
}

bool Filter::parse(std::string const & text, std::string & error) {
  if (text.empty() || text == "none") {
    clear();
    return true;
  }
  if (text.find('{') != std::string::npos) {
    int const n = Interface::parseFilter(Vorn::String(text), nullptr);
    if (n <= 0) {
      error = "malformed filter program \"" + text + "\": want elements \"{ code, jt, jf, k }\", code and k in hex";
      return false;
    }
    std::vector<sock_filter> program(static_cast<size_t>(n));
    Interface::parseFilter(Vorn::String(text), program.data());
    clear();
    kernelProgram_ = Ovel::SockFilterProgram(std::move(program));
    kind_ = Kind::kernel;
    text_ = text;
    return true;
  }
  pcap_t * dead = pcap_open_dead(DLT_EN10MB, snapLength);
  if (!dead) {
    error = "cannot compile a filter: libpcap has no Ethernet handle";
    return false;
  }
  bpf_program compiled{};
  if (pcap_compile(dead, &compiled, text.c_str(), 1, PCAP_NETMASK_UNKNOWN) != 0) {
    error = "malformed filter expression \"" + text + "\": " + pcap_geterr(dead);
    pcap_close(dead);
    return false;
  }
  pcap_close(dead);
  clear();
  expression_ = compiled;
  kind_ = Kind::expression;
  text_ = text;
  return true;
}

bool Filter::matches(uint8_t const * frame, uint32_t length) const {
  if (kind_ != Kind::expression) return true;
  pcap_pkthdr header{};
  header.caplen = length;
  header.len = length;
  return pcap_offline_filter(&expression_, &header, frame) != 0;
}

}  // namespace Tools
