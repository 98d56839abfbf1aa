#include "tools/common/FrameText.h"

#include <arpa/inet.h>
#include <time.h>

#include <cctype>

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

timespec receiveTime(Ovel::Pkt const & pkt) {
  if (uint64_t const ns = pkt.rxTime()) {
    return timespec{static_cast<time_t>(ns / 1000000000u), static_cast<long>(ns % 1000000000u)};
  }
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return now;
}

namespace {
std::string ipv4Text(uint8_t const * p) {
  char text[16];
  std::snprintf(text, sizeof text, "%u.%u.%u.%u", p[0], p[1], p[2], p[3]);
  return text;
}

std::string ipv6Text(uint8_t const * p) {
  char text[INET6_ADDRSTRLEN];
  return inet_ntop(AF_INET6, p, text, sizeof text) ? text : "?";
}

// "UDP 1234 > 53", "TCP 40000 > 80", "ICMP", "proto 89" for the transport after an IP header.
std::string transportText(uint8_t protocol, uint8_t const * p, size_t length, bool v6) {
  char text[48];
  auto const ports = [&](char const * name) {
    if (length < 4) return std::string(name);
    std::snprintf(text, sizeof text, "%s %u > %u", name, be16(p), be16(p + 2));
    return std::string(text);
  };
  switch (protocol) {
    case 6: return ports("TCP");
    case 17: return ports("UDP");
    case 132: return ports("SCTP");
    case 1: return "ICMP";
    case 58: return v6 ? "ICMP6" : "proto 58";
    default: std::snprintf(text, sizeof text, "proto %u", protocol); return text;
  }
}

// The first TLV of LLDP whose type is `wanted`, as text (chassis and port ids: a MAC or the bytes).
std::string lldpField(uint8_t const * p, size_t length, unsigned wanted) {
  for (size_t at = 0; at + 2 <= length;) {
    unsigned const type = p[at] >> 1;
    size_t const size = static_cast<size_t>((p[at] & 1) << 8 | p[at + 1]);
    if (type == 0 || at + 2 + size > length) break;
    if (type == wanted && size >= 1) {
      uint8_t const * v = p + at + 2;
      if (type != 5 && v[0] == 4 && size == 7) return macText(v + 1);  // chassis/port id subtype MAC
      std::string out;
      for (size_t i = type == 5 ? 0 : 1; i < size; ++i) out += std::isprint(v[i]) ? static_cast<char>(v[i]) : '.';
      return out;
    }
    at += 2 + size;
  }
  return "?";
}
}  // namespace

std::string protocolSummary(uint16_t type, uint8_t const * p, size_t length) {
  char text[160];
  if (type == 0x0806 && length >= 28 && be16(p) == 1 && be16(p + 2) == 0x0800) {
    uint16_t const op = be16(p + 6);
    if (op == 1) return "ARP, Request who-has " + ipv4Text(p + 24) + " tell " + ipv4Text(p + 14);
    if (op == 2) return "ARP, Reply " + ipv4Text(p + 14) + " is-at " + macText(p + 8);
    std::snprintf(text, sizeof text, "ARP, op %u", op);
    return text;
  }
  if (type == 0x0800 && length >= 20 && p[0] >> 4 == 4) {
    size_t const header = static_cast<size_t>(p[0] & 0x0f) * 4;
    bool const first = (be16(p + 6) & 0x1fff) == 0;
    std::string const rest = header <= length && first ? transportText(p[9], p + header, length - header, false)
                                                       : transportText(p[9], p, 0, false);
    return "IPv4 " + ipv4Text(p + 12) + " > " + ipv4Text(p + 16) + ", " + rest;
  }
  if (type == 0x86dd && length >= 40 && p[0] >> 4 == 6) {
    return "IPv6 " + ipv6Text(p + 8) + " > " + ipv6Text(p + 24) + ", " + transportText(p[6], p + 40, length - 40, true);
  }
  if (type == 0x88cc) return "LLDP, chassis " + lldpField(p, length, 1) + " port " + lldpField(p, length, 2);
  if (type == 0x8809 && length >= 1 && p[0] == 1 && length >= 22) {
    // LACPDU: actor information TLV at offset 2: type 1, length 20, priority, system, key, port priority, port, state.
    std::snprintf(text, sizeof text, "LACP, actor %s key %u port %u state 0x%02x", macText(p + 6).c_str(), be16(p + 12),
                  be16(p + 16), p[18]);
    return text;
  }
  if (type == 0x8809 && length >= 1 && p[0] == 2) return "LACP marker";
  return {};
}

std::string frameLine(timespec const & when, std::string_view device, uint8_t const * wire, size_t caplen, size_t len) {
  tm local{};
  time_t const seconds = when.tv_sec;
  localtime_r(&seconds, &local);
  char text[80];
  std::snprintf(text, sizeof text, "%02d:%02d:%02d.%06ld ", local.tm_hour, local.tm_min, local.tm_sec,
                static_cast<long>(when.tv_nsec / 1000));
  std::string line = text;
  line.append(device);
  if (caplen < ethHeader) {
    std::snprintf(text, sizeof text, " runt frame, length %zu", len);
    return line + text;
  }
  line += " " + macText(wire + macBytes) + " > " + macText(wire);
  size_t at = 2 * macBytes;
  uint16_t type = be16(wire + at);
  for (; isVlanType(type) && at + 6 <= caplen; at += 4, type = be16(wire + at)) {
    uint16_t const tci = be16(wire + at + 2);
    std::snprintf(text, sizeof text, ", vlan %u p %u", tci & 0x0fffu, tci >> 13);
    line += text;
  }
  std::snprintf(text, sizeof text, ", ethertype 0x%04x, length %zu", type, len);
  line += text;
  std::string const summary = protocolSummary(type, wire + at + 2, caplen - at - 2);
  return summary.empty() ? line : line + ": " + summary;
}

}  // namespace Tools
