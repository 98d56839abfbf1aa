#include "tools/common/Filter.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "intfsm/SimpleTxRxPktManager/ParseFilter.h"
#include "intfsm/foundation/ovel/SocketAt.h"

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
    if (n > 0xffff) {
      error = "filter program of " + std::to_string(n) + " instructions: at most 65535 fit in a socket filter";
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

namespace {
// Runs `work` with the calling thread in namespace `netNs` ("" or "default": where it is), and back.
template <typename Work>
bool inNamespace(std::string const & netNs, std::string & error, Work && work) {
  if (Ovel::isDefaultNsName(netNs.c_str())) return work();
  int const self = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
  int const there = netNs.find('/') == std::string::npos ? open(("/run/netns/" + netNs).c_str(), O_RDONLY | O_CLOEXEC) : -1;
  if (self < 0 || there < 0 || setns(there, CLONE_NEWNET) != 0) {
    error = "cannot enter network namespace '" + netNs + "': " + std::strerror(errno);
    if (self >= 0) close(self);
    if (there >= 0) close(there);
    return false;
  }
  close(there);
  bool const done = work();
  if (setns(self, CLONE_NEWNET) != 0) {
    // A thread left in another namespace would open everything after this in the wrong place.
    std::fprintf(stderr, "cannot return from network namespace '%s': %s\n", netNs.c_str(), std::strerror(errno));
    std::abort();
  }
  close(self);
  return done;
}
}  // namespace

bool compileForDevice(std::string const & netNs, std::string const & device, std::string const & expression,
                      Ovel::SockFilterProgram & program, std::string & error) {
  return inNamespace(netNs, error, [&] {
    char reason[PCAP_ERRBUF_SIZE] = "";
    pcap_t * live = pcap_create(device.c_str(), reason);
    if (!live) {
      error = "cannot compile the filter for " + device + ": " + reason;
      return false;
    }
    // The smallest handle that compiles like a live capture: no promiscuous mode, a small buffer.
    pcap_set_snaplen(live, snapLength);
    pcap_set_buffer_size(live, 1 << 16);
    bpf_program compiled{};
    bool ok = false;
    if (pcap_activate(live) < 0) {
      error = "cannot compile the filter for " + device + ": " + pcap_geterr(live);
    } else if (pcap_compile(live, &compiled, expression.c_str(), 1, PCAP_NETMASK_UNKNOWN) != 0) {
      error = "malformed filter expression \"" + expression + "\": " + pcap_geterr(live);
    } else {
      program = Ovel::SockFilterProgram(reinterpret_cast<sock_filter const *>(compiled.bf_insns), compiled.bf_len);
      pcap_freecode(&compiled);
      ok = true;
    }
    pcap_close(live);
    return ok;
  });
}

bool kernelAccepts(std::string const & netNs, Ovel::SockFilterProgram const & program, std::string & error) {
  // Protocol 0: the socket is bound to no EtherType and receives nothing.
  int const sd = Ovel::socketAt(AF_PACKET, SOCK_RAW, 0, netNs.c_str());
  if (sd < 0) {
    error = std::string("cannot open a packet socket to try the filter: ") + std::strerror(errno);
    return false;
  }
  sock_fprog const fprog = program.fprog();
  bool const ok = setsockopt(sd, SOL_SOCKET, SO_ATTACH_FILTER, &fprog, sizeof fprog) == 0;
  if (!ok) error = "the kernel refused the socket filter of " + std::to_string(program.len()) + " instructions: " + std::strerror(errno);
  close(sd);
  return ok;
}

std::string programText(Ovel::SockFilterProgram const & program) {
  bpf_program view{program.len(), const_cast<bpf_insn *>(reinterpret_cast<bpf_insn const *>(program.filter()))};
  std::string out;
  for (unsigned i = 0; i < view.bf_len; ++i) out += std::string(bpf_image(view.bf_insns + i, static_cast<int>(i))) + "\n";
  return out;
}

}  // namespace Tools
