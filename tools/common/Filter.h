// The two forms of packet filter that intfsm-agent and pamdump take on their command lines:
//
// - an expression in the usual capture-filter language ("vlan and ether proto 0x88b5"), compiled to
//   classic BPF by libpcap (pcap_compile on a dead Ethernet handle);
// - the library's text form of a program, "{ 0x28, 0, 0, 0xc }, { 0x15, 0, 1, 0x88b5 }, ..." (a text
//   with a brace in it), read by Interface::parseFilter.
//
// Where each form runs. The kernel takes the outer VLAN tag out of a received frame before any socket
// filter sees it (the tag travels beside the frame as auxiliary data), so a program compiled for the
// frame as it is on the wire (a dead handle) would look for the tag, and for every field after it, in
// the wrong place. Such an expression is matched in user space (pcap_offline_filter) against the
// frame as it was on the wire, tag put back, as the agent does; compileForDevice below compiles it
// as a live capture does instead (the tag tests read the auxiliary data), for the socket, as pamdump
// does. The text form is a program for the socket and goes to the kernel as it is.
//
//   Tools::Filter f;
//   std::string error;
//   if (!f.parse("vlan 100 and ether proto 0x88b5", error)) { fprintf(stderr, "%s\n", error.c_str()); ... }
//   if (f.kind() == Tools::Filter::Kind::kernel) manager->filterProgramIs(f.kernelProgram());
//   ... per frame: if (!f.matches(wireBytes, length)) skip it
#pragma once

#include <pcap/pcap.h>

#include <cstdint>
#include <string>

#include "intfsm/foundation/ovel/SockFilterProgram.h"

namespace Tools {

class Filter {
 public:
  enum class Kind { none, kernel, expression };

  Filter() = default;
  ~Filter();
  Filter(Filter const &) = delete;
  Filter & operator=(Filter const &) = delete;

  // Replaces the filter with `text`; an empty text (or "none") clears it. On a malformed text the
  // filter is unchanged, `error` says why in one line, and the result is false.
  bool parse(std::string const & text, std::string & error);
  void clear();

  Kind kind() const { return kind_; }
  std::string const & text() const { return text_; }
  // The program for the socket (Kind::kernel); empty otherwise.
  Ovel::SockFilterProgram const & kernelProgram() const { return kernelProgram_; }
  // Whether a frame, as it was on the wire (VLAN tag included), passes the expression; true for the
  // other kinds, whose work (if any) the kernel did.
  bool matches(uint8_t const * frame, uint32_t length) const;

 private:
  Kind kind_ = Kind::none;
  std::string text_;
  Ovel::SockFilterProgram kernelProgram_;
  bpf_program expression_{};
};

// Compiles `expression` the way a live capture on `device` (in namespace `netNs`, "" for this one)
// does: libpcap on a handle activated on the device, so that VLAN tests use the tag the kernel keeps
// beside the frame (a receiving socket never sees the outer tag in the bytes). The program goes to
// the socket as it is. False with `error` set on a malformed expression or a device libpcap cannot
// open.
bool compileForDevice(std::string const & netNs, std::string const & device, std::string const & expression,
                      Ovel::SockFilterProgram & program, std::string & error);

// Whether the kernel takes `program` as a socket filter, tried on a scratch packet socket that
// receives nothing; false with the kernel's reason in `error` otherwise.
bool kernelAccepts(std::string const & netNs, Ovel::SockFilterProgram const & program, std::string & error);

// The classic BPF program as tcpdump -d prints it, one instruction a line ("(000) ldh [12]").
std::string programText(Ovel::SockFilterProgram const & program);

}  // namespace Tools
