#include "tools/common/FrameText.h"

#include <time.h>

#include <cstdio>
#include <cstring>

#include "intfsm/foundation/ovel/PktManager.h"

namespace Tools {

namespace {
constexpr size_t macBytes = 6;
constexpr size_t ethHeader = 14;

uint16_t be16(uint8_t const * p) { return static_cast<uint16_t>(p[0] << 8 | p[1]); }
bool isVlanType(uint16_t type) { return type == 0x8100 || type == 0x88a8; }

std::string macText(uint8_t const * p) {
  char text[18];
  std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", p[0], p[1], p[2], p[3], p[4], p[5]);
  return text;
}
}  // namespace

Vorn::Ptr<Ovel::Pkt> framePktOf(FrameFields const & fields, uint32_t sequence) {
  Vorn::Ptr<Ovel::Pkt> pkt = Ovel::globalPktManager().newPkt();
  if (!pkt) return pkt;
  uint32_t const tag = fields.vlan >= 0 ? 4 : 0;
  uint32_t const length = fields.length < ethHeader + tag + 4 ? ethHeader + tag + 4 : fields.length;
  std::vector<uint8_t> bytes(length - tag, 0);
  std::memcpy(bytes.data(), fields.destination.bytes().data(), macBytes);
  std::memcpy(bytes.data() + macBytes, fields.source.bytes().data(), macBytes);
  bytes[12] = static_cast<uint8_t>(fields.etherType >> 8);
  bytes[13] = static_cast<uint8_t>(fields.etherType);
  for (int i = 0; i < 4; ++i) bytes[ethHeader + i] = static_cast<uint8_t>(sequence >> (24 - 8 * i));
  pkt->dataIs(bytes.data(), static_cast<uint32_t>(bytes.size()));
  if (fields.vlan >= 0) pkt->newSeparateVlanTag(static_cast<uint16_t>(fields.vlan), Ovel::Pkt::defaultVlanTpid);
  return pkt;
}

void wireFrameOf(Ovel::Pkt const & pkt, std::vector<uint8_t> & out) {
  uint8_t const * data = pkt.data();
  uint32_t const length = data ? pkt.dataLen() : 0;
  out.clear();
  if (!pkt.hasVlanTag() || length < 2 * macBytes) {
    out.assign(data, data + length);
    return;
  }
  out.reserve(length + 4);
  out.insert(out.end(), data, data + 2 * macBytes);
  uint16_t const tpid = pkt.vlanTpid();
  uint16_t const tci = pkt.vlanTci();
  uint8_t const tag[4] = {static_cast<uint8_t>(tpid >> 8), static_cast<uint8_t>(tpid),
                          static_cast<uint8_t>(tci >> 8), static_cast<uint8_t>(tci)};
  out.insert(out.end(), tag, tag + 4);
  out.insert(out.end(), data + 2 * macBytes, data + length);
}

std::string frameLine(timeval const & when, std::string_view device, uint8_t const * wire, size_t length) {
  tm local{};
  time_t const seconds = when.tv_sec;
  localtime_r(&seconds, &local);
  char prefix[64];
  std::snprintf(prefix, sizeof prefix, "%02d:%02d:%02d.%06ld ", local.tm_hour, local.tm_min, local.tm_sec,
                static_cast<long>(when.tv_usec));
  std::string line = prefix;
  line.append(device);
  if (length < ethHeader) {
    char rest[48];
    std::snprintf(rest, sizeof rest, " runt frame, length %zu", length);
    return line + rest;
  }
  line += " " + macText(wire + macBytes) + " > " + macText(wire);
  uint16_t type = be16(wire + 2 * macBytes);
  char rest[80];
  if (isVlanType(type) && length >= ethHeader + 4) {
    unsigned const vlan = be16(wire + ethHeader) & 0x0fff;
    type = be16(wire + ethHeader + 2);
    std::snprintf(rest, sizeof rest, ", ethertype 0x%04x, vlan %u, length %zu", type, vlan, length);
  } else {
    std::snprintf(rest, sizeof rest, ", ethertype 0x%04x, length %zu", type, length);
  }
  return line + rest;
}

}  // namespace Tools
