#include "tools/common/PcapWriter.h"

#include <cerrno>
#include <cstring>

namespace Tools {

namespace {
constexpr uint32_t nanosecondMagic = 0xa1b23c4d;
constexpr size_t ethHeader = 14;
constexpr size_t sll2Header = 20;

void put16(uint8_t * p, uint16_t v) {
  p[0] = static_cast<uint8_t>(v >> 8);
  p[1] = static_cast<uint8_t>(v);
}
void put32(uint8_t * p, uint32_t v) {
  put16(p, static_cast<uint16_t>(v >> 16));
  put16(p + 2, static_cast<uint16_t>(v));
}
}  // namespace

PcapWriter::~PcapWriter() { close(); }

bool PcapWriter::failed(char const * what) {
  if (error_.empty()) error_ = std::string(what) + " " + (toStdout_ ? "standard output" : path_) + ": " + std::strerror(errno ? errno : EIO);
  return false;
}

bool PcapWriter::open(std::string const & path, uint32_t linkType, uint32_t snapLength) {
  path_ = path;
  linkType_ = linkType;
  toStdout_ = path == "-";
  errno = 0;
  file_ = toStdout_ ? stdout : std::fopen(path.c_str(), "wb");
  if (!file_) return failed("cannot open");
  // pcap's own header, in this machine's byte order as readers expect.
  struct {
    uint32_t magic;
    uint16_t major, minor;
    int32_t zone;
    uint32_t sigfigs, snapLength, linkType;
  } const header{nanosecondMagic, 2, 4, 0, 0, snapLength, linkType};
  return write(&header, sizeof header) && (!toStdout_ || std::fflush(file_) == 0 || failed("cannot write"));
}

bool PcapWriter::write(void const * bytes, size_t length) {
  if (!error_.empty()) return false;
  errno = 0;
  return std::fwrite(bytes, 1, length, file_) == length || failed("cannot write");
}

bool PcapWriter::frameIs(timespec const & when, uint8_t const * wire, uint32_t caplen, uint32_t len, uint32_t ifIndex,
                         uint8_t pktType) {
  if (!file_ || !error_.empty()) return false;
  struct {
    uint32_t seconds, nanoseconds, caplen, len;
  } header{static_cast<uint32_t>(when.tv_sec), static_cast<uint32_t>(when.tv_nsec), caplen, len};
  if (linkType_ == linuxSll2 && caplen >= ethHeader) {
    uint8_t sll[sll2Header] = {};
    put16(sll, static_cast<uint16_t>(wire[12] << 8 | wire[13]));  // the EtherType
    put32(sll + 4, ifIndex);
    put16(sll + 8, 1);                                              // ARPHRD_ETHER
    sll[10] = pktType;
    sll[11] = 6;                                                    // the source address's length
    std::memcpy(sll + 12, wire + 6, 6);
    header.caplen = caplen - ethHeader + sll2Header;
    header.len = len - ethHeader + sll2Header;
    if (!write(&header, sizeof header) || !write(sll, sizeof sll) || !write(wire + ethHeader, caplen - ethHeader)) return false;
  } else if (!write(&header, sizeof header) || !write(wire, caplen)) {
    return false;
  }
  errno = 0;
  return !packetBuffered_ || std::fflush(file_) == 0 || failed("cannot write");
}

bool PcapWriter::close() {
  if (!file_) return error_.empty();
  errno = 0;
  if (std::fflush(file_) != 0) failed("cannot write");
  if (!toStdout_ && std::fclose(file_) != 0) failed("cannot write");
  file_ = nullptr;
  return error_.empty();
}

}  // namespace Tools
