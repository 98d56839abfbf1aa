// pamsend: sends Ethernet frames out of one device, through the library's packet endpoint (an
// Ovel::EthDevPam with a socket of its own). The traffic source of the lab that scripts/demo builds,
// and of the tools' kernel tests.
//
//   pamsend -i vb0 -n lab -c 10                    # 10 frames, EtherType 0x88b5, 100 a second
//   pamsend -i vb1 -v 100 -r 20 -c 0               # VLAN 100, 20 a second, until interrupted
//
// SIGINT, SIGTERM and SIGHUP stop it with the summary, also in the background (they are read from a
// signal descriptor between frames, not left to a shell's choice of dispositions).
// Exit status: 0 when every frame was sent, 1 when the kernel refused some, 2 for bad arguments
// (unknown device or namespace included).
#include <getopt.h>
#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "intfsm/foundation/ovel/EthDevPam.h"
#include "intfsm/foundation/ovel/SocketAt.h"
#include "intfsm/foundation/vorn/Exception.h"
#include "tools/common/Common.h"
#include "tools/common/FrameText.h"

namespace {

char const usageText[] =
    "usage: pamsend -i DEVICE [--netns NAMESPACE] [-c COUNT] [-r RATE] [-e ETHERTYPE] [-v VLAN [-V EVERY]]\n"
    "               [-s SRC-MAC] [-t DST-MAC] [-l LENGTH]\n"
    "  -i, --device DEVICE      the device to send out of\n"
    "  -n, --netns NS           the device's network namespace (default: pamsend's own)\n"
    "  -c, --count COUNT        frames to send, 0 = until interrupted (default 10)\n"
    "  -r, --rate RATE          frames a second, 0 = as fast as the kernel takes them (default 100)\n"
    "  -e, --ethertype TYPE     EtherType (default 0x88b5)\n"
    "  -v, --vlan VLAN          802.1Q tag            -V, --tag-every N   tag every Nth frame only (needs -v)\n"
    "  -s, --source MAC / -t, --destination MAC      (default 02:00:00:00:00:01 > broadcast)\n"
    "  -l, --length LENGTH      length on the wire, 60 (64 tagged) to 9216 (default 64)\n"
    "  -h, --help               this text\n";

Tools::Program const program("pamsend", usageText);

unsigned long number(char const * text, unsigned long max, char const * what) {
  auto const n = Tools::number(text, max);
  if (!n) program.argumentError(std::string("bad ") + what + " '" + text + "'");
  return *n;
}

Ovel::EthAddr address(char const * text) {
  auto a = Ovel::EthAddr::fromText(text);
  if (!a) program.argumentError(std::string("bad address '") + text + "' (want xx:xx:xx:xx:xx:xx)");
  return *a;
}

// The stop signals, read between frames: the sender has no event loop.
int stopSignalsFd() {
  sigset_t signals;
  sigemptyset(&signals);
  // Blocked, a signal is queued for the descriptor even when a shell set it to be ignored, as it
  // does SIGINT for background jobs.
  for (int s : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&signals, s);
  sigprocmask(SIG_BLOCK, &signals, nullptr);
  return signalfd(-1, &signals, SFD_NONBLOCK | SFD_CLOEXEC);
}

}  // namespace

int main(int argc, char ** argv) {
  static option const longOptions[] = {
      {"device", required_argument, nullptr, 'i'},    {"netns", required_argument, nullptr, 'n'},
      {"count", required_argument, nullptr, 'c'},     {"rate", required_argument, nullptr, 'r'},
      {"ethertype", required_argument, nullptr, 'e'}, {"vlan", required_argument, nullptr, 'v'},
      {"tag-every", required_argument, nullptr, 'V'}, {"source", required_argument, nullptr, 's'},
      {"destination", required_argument, nullptr, 't'}, {"length", required_argument, nullptr, 'l'},
      {"help", no_argument, nullptr, 'h'},            {nullptr, 0, nullptr, 0},
  };
  std::string device;
  std::string netNs;
  unsigned long count = 10;
  unsigned long rate = 100;
  unsigned long every = 0;
  bool lengthGiven = false;
  Tools::FrameFields fields;
  opterr = 0;
  for (int opt; (opt = getopt_long(argc, argv, "i:n:c:r:e:v:V:s:t:l:h", longOptions, nullptr)) != -1;) {
    switch (opt) {
      case 'i': device = optarg; break;
      case 'n':
        if (!*optarg || std::strlen(optarg) > Ovel::maxNsNameBytes || std::strchr(optarg, '/')) {
          program.argumentError(std::string("bad network namespace name '") + optarg + "'");
        }
        netNs = optarg;
        break;
      case 'c': count = number(optarg, 1ul << 32, "count"); break;
      case 'r': rate = number(optarg, 10000000, "rate"); break;
      case 'e': fields.etherType = static_cast<uint16_t>(number(optarg, 0xffff, "EtherType")); break;
      case 'v': fields.vlan = static_cast<int>(number(optarg, 4095, "VLAN id")); break;
      case 'V': every = number(optarg, 1ul << 20, "tag interval"); break;
      case 's': fields.source = address(optarg); break;
      case 't': fields.destination = address(optarg); break;
      case 'l':
        fields.length = static_cast<uint32_t>(number(optarg, 9216, "length"));
        lengthGiven = true;
        break;
      case 'h': program.help();
      default: program.badOption(optopt, argv[optind - 1]);
    }
  }
  if (device.empty()) program.argumentError("no device (-i)");
  if (optind != argc) program.argumentError(std::string("unexpected argument '") + argv[optind] + "'");
  if (every && fields.vlan < 0) program.argumentError("-V tags every Nth frame of -v: give -v too");
  if (every == 0) every = 1;
  // The shortest frame on the wire, FCS left out: 60 bytes, 64 with a tag.
  uint32_t const shortest = fields.vlan >= 0 && every == 1 ? 64 : 60;
  if (lengthGiven && fields.length < shortest) {
    program.argumentError("length " + std::to_string(fields.length) + " below the shortest frame, " + std::to_string(shortest));
  }

  Vorn::Ptr<Ovel::EthDevPam> pam = new Ovel::EthDevPam(Vorn::Name(device));
  if (!netNs.empty()) pam->netNsIs(Ovel::NamespaceName(netNs));
  pam->perIntfSocketIs(true);
  pam->createVornFileDescOnEnabledIs(false);  // it only sends
  pam->ethProtocolIs(fields.etherType);
  try {
    pam->enabledIs(true);
  } catch (Vorn::ErrnoException const & e) {
    if (e.errorNumber() == ENODEV || e.errorNumber() == ENOENT || e.errorNumber() == EINVAL) {
      program.argumentError("no device " + device + (netNs.empty() ? "" : " in namespace " + netNs));
    }
    std::fprintf(stderr, "pamsend: %s\n", e.what());
    return Tools::exitFailed;
  } catch (Vorn::Exception const & e) {
    std::fprintf(stderr, "pamsend: %s\n", e.what());
    return Tools::exitFailed;
  }

  int const signals = stopSignalsFd();
  timespec next{};
  clock_gettime(CLOCK_MONOTONIC, &next);
  long const interval = rate ? static_cast<long>(1000000000ul / rate) : 0;
  unsigned long refused = 0;
  unsigned long sent = 0;
  bool stopped = false;
  int const vlan = fields.vlan;
  for (unsigned long i = 0; (count == 0 || i < count) && !stopped; ++i) {
    fields.vlan = (vlan >= 0 && i % every == 0) ? vlan : -1;
    Vorn::Ptr<Ovel::Pkt> pkt = Tools::framePktOf(fields, static_cast<uint32_t>(i));
    if (!pkt || !pam->txPkt(pkt)) ++refused;
    ++sent;
    if (interval) {
      next.tv_nsec += interval;
      while (next.tv_nsec >= 1000000000) {
        next.tv_nsec -= 1000000000;
        ++next.tv_sec;
      }
      clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &next, nullptr);
    }
    // A signal between frames ends the run; checked every frame at low rates, every 256 at full speed.
    if (signals >= 0 && (interval || (i & 0xff) == 0)) {
      signalfd_siginfo info{};
      stopped = read(signals, &info, sizeof info) == sizeof info;
    }
  }
  pam->enabledIs(false);
  if (signals >= 0) close(signals);
  if (stopped) std::fprintf(stderr, "pamsend: stopped after %lu frames\n", sent);
  if (refused) {
    std::fprintf(stderr, "pamsend: %lu of %lu frames refused (last errno %d: %s)\n", refused, sent,
                 pam->lastTxErrno(), std::strerror(pam->lastTxErrno()));
    return Tools::exitFailed;
  }
  return Tools::exitOk;
}
