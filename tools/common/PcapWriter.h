// Writes a pcap file (nanosecond time stamps) with every write checked: a file that ends without
// an error is complete, and one that could not be written says so and why.
//
//   Tools::PcapWriter w;
//   if (!w.open("-", Tools::PcapWriter::ethernet, 262144)) ... w.error()    // "-": standard output
//   w.frameIs(when, wire, caplen, len);               // caplen bytes kept of a frame of len bytes
//   w.frameIs(when, wire, caplen, len, ifIndex, pktType);   // sll2: the device and direction too
//   if (!w.close()) ... w.error()
//
// Records are written as given; `packetBuffered` flushes after each one (tcpdump's -U).
//
// In the Linux cooked header (sll2), a frame's own Ethernet header is replaced by the 20-byte header
// holding its EtherType (the outer one: a VLAN tag stays in the payload, as live captures on "any"
// write it), the device's ifindex, the packet type and the source address.
#pragma once

#include <time.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace Tools {

class PcapWriter {
 public:
  static constexpr uint32_t ethernet = 1;     // LINKTYPE_ETHERNET
  static constexpr uint32_t linuxSll2 = 276;  // LINKTYPE_LINUX_SLL2

  PcapWriter() = default;
  ~PcapWriter();
  PcapWriter(PcapWriter const &) = delete;
  PcapWriter & operator=(PcapWriter const &) = delete;

  bool open(std::string const & path, uint32_t linkType, uint32_t snapLength);
  void packetBufferedIs(bool v) { packetBuffered_ = v; }
  // False once anything failed; the first failure is kept in error().
  bool frameIs(timespec const & when, uint8_t const * wire, uint32_t caplen, uint32_t len, uint32_t ifIndex = 0,
               uint8_t pktType = 0);
  bool close();
  bool isOpen() const { return file_ != nullptr; }
  bool toStdout() const { return toStdout_; }
  std::string const & error() const { return error_; }

 private:
  bool write(void const * bytes, size_t length);
  bool failed(char const * what);

  FILE * file_ = nullptr;
  bool toStdout_ = false;
  bool packetBuffered_ = false;
  uint32_t linkType_ = ethernet;
  std::string path_;
  std::string error_;
  std::vector<uint8_t> record_;
};

}  // namespace Tools
