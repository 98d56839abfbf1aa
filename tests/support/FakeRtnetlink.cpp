#include "tests/support/FakeRtnetlink.h"

#include <linux/if_link.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>

namespace IntfsmTest {

namespace {

void putAttribute(std::string & message, uint16_t type, void const * data, size_t length) {
  rtattr attribute{};
  attribute.rta_type = type;
  attribute.rta_len = static_cast<unsigned short>(RTA_LENGTH(length));
  message.append(reinterpret_cast<char const *>(&attribute), sizeof attribute);
  message.append(static_cast<char const *>(data), length);
  message.append(RTA_ALIGN(attribute.rta_len) - attribute.rta_len, '\0');
}

void finish(std::string & message) {
  auto * nlh = reinterpret_cast<nlmsghdr *>(message.data());
  nlh->nlmsg_len = static_cast<uint32_t>(message.size());
  message.append(NLMSG_ALIGN(message.size()) - message.size(), '\0');
}

std::string header(uint16_t type, uint16_t flags, uint32_t seq) {
  nlmsghdr nlh{};
  nlh.nlmsg_type = type;
  nlh.nlmsg_flags = flags;
  nlh.nlmsg_seq = seq;
  return std::string(reinterpret_cast<char const *>(&nlh), sizeof nlh);
}

}  // namespace

FakeRtnetlink::FakeRtnetlink(FakePlatform & fake) : fake_(fake) {
  fake_.behaviour().socketAt = [this](int, int, int, char const *) { return socketPair(); };
  fake_.behaviour().sendto = [this](int fd, void const * data, size_t length, int flags, sockaddr const * to,
                                    socklen_t toLength) -> ssize_t {
    if (fd != statusSide_) return fake_.previous().sendto(fd, data, length, flags, to, toLength);
    auto const * nlh = static_cast<nlmsghdr const *>(data);
    if (length >= sizeof(nlmsghdr) && nlh->nlmsg_type == RTM_GETLINK && (nlh->nlmsg_flags & NLM_F_DUMP) == NLM_F_DUMP) {
      requests_.push_back(nlh->nlmsg_seq);
      held_.push_back(nlh->nlmsg_seq);
      if (autoAnswer_) answer();
    }
    return static_cast<ssize_t>(length);
  };
}

FakeRtnetlink::~FakeRtnetlink() {
  if (kernelSide_ >= 0) ::close(kernelSide_);
}

int FakeRtnetlink::socketPair() {
  int ends[2];
  if (::socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, ends) < 0) return -1;
  if (kernelSide_ >= 0) ::close(kernelSide_);
  statusSide_ = ends[0];
  kernelSide_ = ends[1];
  return statusSide_;
}

void FakeRtnetlink::send(std::string const & datagram) {
  ASSERT_GE(kernelSide_, 0) << "no socket handed out yet";
  ssize_t const sent = ::send(kernelSide_, datagram.data(), datagram.size(), MSG_DONTWAIT);
  ASSERT_EQ(sent, static_cast<ssize_t>(datagram.size())) << std::strerror(errno);
}

void FakeRtnetlink::newLink(uint32_t ifIndex, uint32_t flags, std::string const & name) {
  linkIs(ifIndex, flags, name);
  send(linkMessage(RTM_NEWLINK, 0, 0, ifIndex, flags, name));
}

void FakeRtnetlink::delLink(uint32_t ifIndex) {
  Link const link = links_.count(ifIndex) ? links_[ifIndex] : Link{};
  linkDel(ifIndex);
  send(linkMessage(RTM_DELLINK, 0, 0, ifIndex, link.flags, link.name));
}

void FakeRtnetlink::answer() {
  dumpBegin();
  dumpSend(dumpLinks_.size());
  dumpDone();
}

void FakeRtnetlink::refuse(int error) {
  ASSERT_FALSE(held_.empty()) << "no dump request to refuse";
  uint32_t const seq = held_.front();
  held_.pop_front();
  send(errorMessage(seq, error));
}

void FakeRtnetlink::dumpBegin() {
  ASSERT_FALSE(held_.empty()) << "no dump request to answer";
  dumpSeq_ = held_.front();
  held_.pop_front();
  dumpFlags_ = NLM_F_MULTI | (interruptNext_ ? NLM_F_DUMP_INTR : 0);
  interruptNext_ = false;
  dumpLinks_.assign(links_.begin(), links_.end());
  dumpNext_ = 0;
}

void FakeRtnetlink::dumpSend(size_t count) {
  size_t const end = std::min(dumpLinks_.size(), dumpNext_ + count);
  while (dumpNext_ < end) {
    std::string datagram;
    for (unsigned n = 0; n < linksPerDatagram_ && dumpNext_ < end; ++n, ++dumpNext_) {
      auto const & [ifIndex, link] = dumpLinks_[dumpNext_];
      datagram += linkMessage(RTM_NEWLINK, dumpFlags_, dumpSeq_, ifIndex, link.flags, link.name);
    }
    send(datagram);
  }
}

void FakeRtnetlink::dumpDone() { send(doneMessage(dumpSeq_, dumpFlags_)); }

std::string FakeRtnetlink::linkMessage(uint16_t type, uint16_t nlFlags, uint32_t seq, uint32_t ifIndex, uint32_t flags,
                                       std::string const & name, uint8_t family, std::optional<int32_t> newNetNsId,
                                       std::optional<uint8_t> operState) {
  std::string message = header(type, nlFlags, seq);
  ifinfomsg ifi{};
  ifi.ifi_family = family;
  ifi.ifi_index = static_cast<int>(ifIndex);
  ifi.ifi_flags = flags;
  message.append(reinterpret_cast<char const *>(&ifi), sizeof ifi);
  putAttribute(message, IFLA_IFNAME, name.c_str(), name.size() + 1);
  if (newNetNsId) putAttribute(message, IFLA_NEW_NETNSID, &*newNetNsId, sizeof *newNetNsId);
  if (operState) putAttribute(message, IFLA_OPERSTATE, &*operState, sizeof *operState);
  finish(message);
  return message;
}

std::string FakeRtnetlink::doneMessage(uint32_t seq, uint16_t nlFlags) {
  std::string message = header(NLMSG_DONE, nlFlags | NLM_F_MULTI, seq);
  int const result = 0;
  message.append(reinterpret_cast<char const *>(&result), sizeof result);
  finish(message);
  return message;
}

std::string FakeRtnetlink::errorMessage(uint32_t seq, int error) {
  std::string message = header(NLMSG_ERROR, 0, seq);
  nlmsgerr body{};
  body.error = -error;
  body.msg.nlmsg_type = RTM_GETLINK;
  body.msg.nlmsg_seq = seq;
  message.append(reinterpret_cast<char const *>(&body), sizeof body);
  finish(message);
  return message;
}

}  // namespace IntfsmTest
