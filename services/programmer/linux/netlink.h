// Questions to the kernel about traffic control (rtnetlink). Any thread.
#pragma once

#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <cstddef>
#include <cstdint>

#include "programmer/linux/descriptor.h"

namespace programmer::dataplane::netlink {

inline Descriptor open() {
  return Descriptor(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
}

// Calls `visit` with each attribute.
template <typename Visit>
void for_each(const rtattr *first, std::size_t bytes, Visit visit) {
  auto length = static_cast<int>(bytes);
  for (const rtattr *at = first; RTA_OK(at, length); at = RTA_NEXT(at, length)) visit(*at);
}

template <typename Visit>
void for_each_nested(const rtattr &of, Visit visit) {
  for_each(static_cast<const rtattr *>(RTA_DATA(&of)), RTA_PAYLOAD(&of), visit);
}

// Asks for everything of the kind that `about` describes, such as RTM_GETTFILTER, and calls `visit` with each message of the
// answer; these have the type `answers`.
template <typename Visit>
void dump(const Descriptor &kernel, std::uint16_t kind, std::uint16_t answers, const tcmsg &about, Visit visit) {
  struct {
    nlmsghdr header;
    tcmsg about;
  } question{};
  question.header = {.nlmsg_len = sizeof question,
                     .nlmsg_type = kind,
                     .nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP,
                     .nlmsg_seq = 0,
                     .nlmsg_pid = 0};
  question.about = about;
  if (::send(kernel.get(), &question, sizeof question, 0) < 0) return;
  alignas(nlmsghdr) char answer[32768];
  for (ssize_t got = 1; got > 0;) {
    got = ::recv(kernel.get(), answer, sizeof answer, 0);
    auto length = static_cast<unsigned>(got > 0 ? got : 0);
    for (const auto *at = reinterpret_cast<const nlmsghdr *>(answer); NLMSG_OK(at, length); at = NLMSG_NEXT(at, length)) {
      if (at->nlmsg_type != answers) return;
      visit(*at);
    }
  }
}

}  // namespace programmer::dataplane::netlink
