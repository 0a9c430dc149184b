#include "programmer/linux/filters.h"

#include <bpf/libbpf.h>
#include <linux/pkt_cls.h>
#include <linux/pkt_sched.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "programmer/linux/netlink.h"

namespace programmer::dataplane::filters {
namespace {

// Handle and preference of the program's filter; the filters of other software keep theirs.
constexpr std::uint32_t kHandle = 1, kPriority = 0x4b45;

struct Side {
  bool ingress;
  std::uint32_t parent;
};
constexpr Side kSides[] = {{true, TC_H_MAKE(TC_H_CLSACT, TC_H_MIN_INGRESS)}, {false, TC_H_MAKE(TC_H_CLSACT, TC_H_MIN_EGRESS)}};

bpf_tc_hook hook_of(std::uint32_t interface, bpf_tc_attach_point at) {
  return {.sz = sizeof(bpf_tc_hook), .ifindex = static_cast<int>(interface), .attach_point = at, .parent = 0};
}

std::string text_of(const rtattr &attribute) {
  const auto *text = static_cast<const char *>(RTA_DATA(&attribute));
  return {text, strnlen(text, RTA_PAYLOAD(&attribute))};
}

Filter read(const nlmsghdr &message, bool ingress) {
  const auto *about = static_cast<const tcmsg *>(NLMSG_DATA(&message));
  Filter filter{ingress, TC_H_MAJ(about->tcm_info) >> 16, "", 0};
  netlink::for_each(TCA_RTA(about), TCA_PAYLOAD(&message), [&filter](const rtattr &one) {
    if (one.rta_type == TCA_KIND && filter.name.empty()) filter.name = text_of(one);
    if (one.rta_type != TCA_OPTIONS) return;
    netlink::for_each_nested(one, [&filter](const rtattr &option) {
      if (option.rta_type == TCA_BPF_NAME) filter.name = text_of(option);
      if (option.rta_type == TCA_BPF_ID) std::memcpy(&filter.program, RTA_DATA(&option), sizeof filter.program);
    });
  });
  return filter;
}

// One entry a preference, and one for each program there. The kernel also lists each preference once without a filter.
void add(Filter filter, std::vector<Filter> &filters) {
  if (!filters.empty() && filters.back().ingress == filter.ingress && filters.back().preference == filter.preference &&
      filters.back().program == 0)
    filters.pop_back();
  filters.push_back(std::move(filter));
}

}  // namespace

bool Filter::ours() const {
  return ingress && preference == kPriority && name.starts_with(kProgram);
}

std::vector<Filter> list(std::uint32_t interface) {
  std::vector<Filter> filters;
  const Descriptor kernel = netlink::open();
  for (const Side &side : kSides) {
    tcmsg about{};
    about.tcm_ifindex = static_cast<int>(interface);
    about.tcm_parent = side.parent;
    netlink::dump(kernel, RTM_GETTFILTER, RTM_NEWTFILTER, about,
                  [&](const nlmsghdr &message) { add(read(message, side.ingress), filters); });
  }
  return filters;
}

std::uint32_t program_of(std::uint32_t interface) {
  const std::vector<Filter> filters = list(interface);
  const auto ours = std::ranges::find_if(filters, &Filter::ours);
  return ours == filters.end() ? 0 : ours->program;
}

int attach(std::uint32_t interface, int program) {
  bpf_tc_hook hook = hook_of(interface, BPF_TC_INGRESS);
  if (const int rv = bpf_tc_hook_create(&hook); rv != 0 && rv != -EEXIST) return rv;
  bpf_tc_opts options{};
  options.sz = sizeof options;
  options.prog_fd = program;
  options.flags = BPF_TC_F_REPLACE;
  options.handle = kHandle;
  options.priority = kPriority;
  return bpf_tc_attach(&hook, &options);
}

void detach(std::uint32_t interface) {
  bpf_tc_hook hook = hook_of(interface, BPF_TC_INGRESS);
  bpf_tc_opts options{};
  options.sz = sizeof options;
  options.handle = kHandle;
  options.priority = kPriority;
  bpf_tc_detach(&hook, &options);
  if (!list(interface).empty()) return;
  hook = hook_of(interface, static_cast<bpf_tc_attach_point>(BPF_TC_INGRESS | BPF_TC_EGRESS));
  bpf_tc_hook_destroy(&hook);
}

}  // namespace programmer::dataplane::filters
