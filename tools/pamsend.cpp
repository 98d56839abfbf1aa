// pamsend: sends Ethernet frames out of one device, through the library's packet endpoint (an
// Ovel::EthDevPam with a socket of its own). The traffic source of the lab that scripts/demo builds,
// and of the tools' kernel tests.
//
//   pamsend -i vb0 -n lab -c 10                    # 10 frames, EtherType 0x88b5, 100 a second
//   pamsend -i vb1 -v 100 -r 20 -c 0               # VLAN 100, 20 a second, until interrupted
//
// Exit status: 0 when every frame was sent, 1 when the kernel refused some, 2 for bad arguments
// (unknown device or namespace included).
#include <getopt.h>
#include <time.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "intfsm/foundation/ovel/EthDevPam.h"
#include "intfsm/foundation/vorn/Exception.h"
#include "tools/common/FrameText.h"

namespace {

[[noreturn]] void usage(char const * problem) {
  if (problem) std::fprintf(stderr, "pamsend: %s\n", problem);
  std::fprintf(stderr,
               "usage: pamsend -i DEVICE [-n NAMESPACE] [-c COUNT] [-r RATE] [-e ETHERTYPE] [-v VLAN [-V EVERY]]\n"
               "               [-s SRC-MAC] [-t DST-MAC] [-l LENGTH]\n"
               "  -c COUNT   frames to send, 0 = until interrupted (default 10)\n"
               "  -r RATE    frames a second, 0 = as fast as the kernel takes them (default 100)\n"
               "  -e TYPE    EtherType (default 0x88b5)     -v VLAN  802.1Q tag     -V N  tag every Nth frame only\n"
               "  -s / -t    source / destination address (default 02:00:00:00:00:01 > broadcast)\n"
               "  -l LENGTH  length on the wire (default 64)\n");
  std::exit(2);
}

unsigned long number(char const * text, unsigned long max, char const * what) {
  char * end = nullptr;
  errno = 0;
  unsigned long const v = std::strtoul(text, &end, 0);
  if (errno || !*text || *end || v > max) {
    std::string const problem = std::string("bad ") + what + " '" + text + "'";
    usage(problem.c_str());
  }
  return v;
}

Ovel::EthAddr address(char const * text) {
  auto a = Ovel::EthAddr::fromText(text);
  if (!a) {
    std::string const problem = std::string("bad address '") + text + "' (want xx:xx:xx:xx:xx:xx)";
    usage(problem.c_str());
  }
  return *a;
}

}  // namespace

int main(int argc, char ** argv) {
  std::string device;
  std::string netNs;
  unsigned long count = 10;
  unsigned long rate = 100;
  unsigned long every = 1;
  Tools::FrameFields fields;
  int opt;
  while ((opt = getopt(argc, argv, "i:n:c:r:e:v:V:s:t:l:h")) != -1) {
    switch (opt) {
      case 'i': device = optarg; break;
      case 'n': netNs = optarg; break;
      case 'c': count = number(optarg, 1ul << 32, "count"); break;
      case 'r': rate = number(optarg, 10000000, "rate"); break;
      case 'e': fields.etherType = static_cast<uint16_t>(number(optarg, 0xffff, "EtherType")); break;
      case 'v': fields.vlan = static_cast<int>(number(optarg, 4095, "VLAN id")); break;
      case 'V': every = number(optarg, 1ul << 20, "tag interval"); break;
      case 's': fields.source = address(optarg); break;
      case 't': fields.destination = address(optarg); break;
      case 'l': fields.length = static_cast<uint32_t>(number(optarg, 9216, "length")); break;
      default: usage(nullptr);
    }
  }
  if (device.empty()) usage("no device (-i)");
  if (optind != argc) usage("unexpected arguments");
  if (every == 0) every = 1;

  Vorn::Ptr<Ovel::EthDevPam> pam = new Ovel::EthDevPam(Vorn::Name(device));
  if (!netNs.empty()) pam->netNsIs(Ovel::NamespaceName(netNs));
  pam->perIntfSocketIs(true);
  pam->createVornFileDescOnEnabledIs(false);  // it only sends
  pam->ethProtocolIs(fields.etherType);
  try {
    pam->enabledIs(true);
  } catch (Vorn::ErrnoException const & e) {
    if (e.errorNumber() == ENODEV || e.errorNumber() == ENOENT) {
      std::fprintf(stderr, "pamsend: no device %s%s%s\n", device.c_str(), netNs.empty() ? "" : " in namespace ",
                   netNs.c_str());
      return 2;
    }
    std::fprintf(stderr, "pamsend: %s\n", e.what());
    return 1;
  }

  timespec next{};
  clock_gettime(CLOCK_MONOTONIC, &next);
  long const interval = rate ? static_cast<long>(1000000000ul / rate) : 0;
  unsigned long refused = 0;
  int const vlan = fields.vlan;
  for (unsigned long i = 0; count == 0 || i < count; ++i) {
    fields.vlan = (vlan >= 0 && i % every == 0) ? vlan : -1;
    Vorn::Ptr<Ovel::Pkt> pkt = Tools::framePktOf(fields, static_cast<uint32_t>(i));
    if (!pkt || !pam->txPkt(pkt)) ++refused;
    if (interval) {
      next.tv_nsec += interval;
      while (next.tv_nsec >= 1000000000) {
        next.tv_nsec -= 1000000000;
        ++next.tv_sec;
      }
      clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &next, nullptr);
    }
  }
  pam->enabledIs(false);
  if (refused) {
    std::fprintf(stderr, "pamsend: %lu of %lu frames refused (last errno %d: %s)\n", refused, count,
                 pam->lastTxErrno(), std::strerror(pam->lastTxErrno()));
    return 1;
  }
  return 0;
}
