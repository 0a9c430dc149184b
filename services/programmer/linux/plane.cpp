#include "programmer/linux/plane.h"

#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/capability.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <utility>

#include "programmer/linux/filters.h"

extern "C" {
extern const unsigned char kelim_plane_object[], kelim_plane_object_end[];  // object.c
}

namespace programmer::dataplane {
namespace {

// The latest message of libbpf, kept for `why` instead of being printed to standard error.
thread_local std::string g_complaint;

[[gnu::format(printf, 2, 0)]] int note(libbpf_print_level level, const char *format, va_list arguments) {
  if (level != LIBBPF_WARN) return 0;
  char line[256];
  const int length = std::vsnprintf(line, sizeof line, format, arguments);
  g_complaint.assign(line, static_cast<std::size_t>(std::clamp<int>(length, 0, sizeof line - 1)));
  while (g_complaint.ends_with('\n')) g_complaint.pop_back();
  return 0;
}

// ---- requirements on the machine

struct Capability {
  const char *name;
  unsigned number;
  bool is_part_of_admin;  // CAP_SYS_ADMIN includes it
};
constexpr Capability kCapabilities[] = {{"CAP_NET_ADMIN", CAP_NET_ADMIN, false},
                                        {"CAP_NET_RAW", CAP_NET_RAW, false},
                                        {"CAP_BPF", CAP_BPF, true},
                                        {"CAP_PERFMON", CAP_PERFMON, true}};

std::uint64_t effective_capabilities() {
  std::ifstream status("/proc/self/status");
  for (std::string word; status >> word;) {
    std::uint64_t set = 0;
    if (word == "CapEff:" && status >> std::hex >> set) return set;
  }
  return 0;
}

std::string missing_capabilities() {
  const std::uint64_t held = effective_capabilities();
  const auto has = [held](unsigned number) { return (held >> number & 1) != 0; };
  std::string missing;
  for (const Capability &wanted : kCapabilities) {
    const bool implied = wanted.is_part_of_admin && has(CAP_SYS_ADMIN);
    if (!has(wanted.number) && !implied) missing += (missing.empty() ? "" : ", ") + std::string(wanted.name);
  }
  return missing;
}

constexpr std::uint32_t kCaches = 12 << 20;  // bytes of all processors' caches, unless the least possible size is more

struct Size {
  const char *map;
  std::uint32_t entries;
};

bool fail(std::string &why, const std::string &what, int error) {
  why = what + ": " + std::string(g_complaint.empty() ? std::strerror(error) : g_complaint);
  return false;
}

}  // namespace

void Plane::Free::operator()(bpf_object *object) const {
  bpf_object__close(object);
}

bool Plane::possible(std::string &why) {
  libbpf_set_print(note);
  if (const std::string missing = missing_capabilities(); !missing.empty()) {
    why = "the process lacks " + missing;
  } else if (const int rv = libbpf_probe_bpf_prog_type(BPF_PROG_TYPE_SCHED_CLS, nullptr); rv != 1) {
    why = "the kernel does not support tc programs (CONFIG_BPF_SYSCALL, CONFIG_NET_CLS_BPF)";
  } else if (libbpf_probe_bpf_helper(BPF_PROG_TYPE_SCHED_CLS, BPF_FUNC_loop, nullptr) != 1) {
    why = "the kernel has no bpf_loop (Linux 5.17 or later)";
  }
  return why.empty();
}

std::unique_ptr<Plane> Plane::load(const Wanted &wanted, Pins *pins, std::string &why) {
  g_complaint.clear();
  std::unique_ptr<Plane> plane(new Plane);
  plane->pins_ = pins;
  plane->object_.reset(
      bpf_object__open_mem(kelim_plane_object, static_cast<std::size_t>(kelim_plane_object_end - kelim_plane_object), nullptr));
  if (!plane->object_) return fail(why, "the program of the data plane cannot be read", errno), nullptr;
  plane->set_sizes(wanted.flows);
  plane->inherited_ = plane->settled_ = plane->inherit(wanted.ports);
  if (const int rv = bpf_object__load(plane->object_.get()); rv != 0) {
    return fail(why, "the kernel refuses the program of the data plane", -rv), nullptr;
  }
  return plane->map_all(why) && plane->choose_program(why) && plane->pin(why) ? std::move(plane) : nullptr;
}

void Plane::set_sizes(std::uint32_t flows) {
  // More places than flows, because vacated places wait for a grace period even if the table is full.
  tables_.places = flows + flows / 32 + 1024;
  tables_.bucket_count = std::max<std::uint32_t>(DP_HINT_BUCKETS, std::bit_ceil(flows / 2));
  const auto processors = static_cast<std::uint32_t>(std::max(libbpf_num_possible_cpus(), 1));
  tables_.rows = processors + 1;  // the last one is the service's own
  constexpr std::uint32_t kSet = sizeof(dp_cached);
  tables_.cache_sets = std::clamp<std::uint32_t>(std::bit_floor(kCaches / (processors * kSet)), DP_CACHE_SETS, DP_CACHE_MAX_SETS);
  const Size sizes[] = {{"buckets", tables_.bucket_count}, {"hints", tables_.bucket_count / DP_HINT_BUCKETS},
                        {"flows", tables_.places},         {"counts", tables_.places * (tables_.rows + 1)},
                        {"tallies", tables_.rows},         {"cache", tables_.cache_sets * processors}};
  for (const Size &size : sizes) bpf_map__set_max_entries(bpf_object__find_map_by_name(object_.get(), size.map), size.entries);
}

// ---- an earlier service's plane

namespace {

bool is(const bpf_map *wanted, int map) {
  bpf_map_info info{};
  __u32 size = sizeof info;
  return bpf_obj_get_info_by_fd(map, &info, &size) == 0 && info.type == bpf_map__type(wanted) &&
         info.key_size == bpf_map__key_size(wanted) && info.value_size == bpf_map__value_size(wanted) &&
         info.max_entries == bpf_map__max_entries(wanted);
}

template <typename T>
T entry_of(int map, std::uint32_t at) {
  T value{};
  bpf_map_lookup_elem(map, &at, &value);
  return value;
}

std::vector<std::uint32_t> keys_of(int map) {
  std::vector<std::uint32_t> keys;
  std::uint32_t key = 0;
  for (const std::uint32_t *before = nullptr; bpf_map_get_next_key(map, before, &key) == 0; before = &keys.back())
    keys.push_back(key);
  return keys;
}

bpf_prog_info about_program(int program) {
  bpf_prog_info info{};
  __u32 size = sizeof info;
  bpf_obj_get_info_by_fd(program, &info, &size);
  return info;
}

}  // namespace

// Takes over the pinned maps; true if every map is now the pinned one.
bool Plane::inherit(const std::vector<std::uint32_t> &ports) {
  if (!pins_) return false;
  std::vector<std::pair<bpf_map *, Descriptor>> found;
  bpf_map *map = nullptr;
  bpf_object__for_each_map(map, object_.get()) {
    found.emplace_back(map, pins_->get(Pins::kInForce, bpf_map__name(map)));
    if (!found.back().second || !is(map, found.back().second.get())) return false;
  }
  const auto pinned = [&found](const std::string &name) {
    return std::ranges::find(found, name, [](const auto &one) { return bpf_map__name(one.first); })->second.get();
  };
  if (entry_of<dp_control>(pinned("control"), 0).version != DP_LAYOUT_VERSION) return false;
  for (std::uint32_t place = 0; place < DP_MAX_PORTS; ++place)
    if (entry_of<dp_port>(pinned("ports"), place).number != (place < ports.size() ? ports[place] : 0)) return false;
  return std::ranges::all_of(found, [](const auto &one) { return bpf_map__reuse_fd(one.first, one.second.get()) == 0; });
}

// Uses the pinned program if it is identical, so that ports with that program need no change.
bool Plane::choose_program(std::string &why) {
  const bpf_program *loaded = bpf_object__find_program_by_name(object_.get(), filters::kProgram);
  if (!loaded) return fail(why, "the program of the data plane is not the expected one", EINVAL);
  if (inherited_) program_ = pins_->get(Pins::kInForce, filters::kProgram);
  const bpf_prog_info now = about_program(bpf_program__fd(loaded)), before = about_program(program_.get());
  if (!program_ || std::memcmp(now.tag, before.tag, sizeof now.tag) != 0)
    program_ = Descriptor(::fcntl(bpf_program__fd(loaded), F_DUPFD_CLOEXEC, 0));
  program_id_ = about_program(program_.get()).id;
  return true;
}

bool Plane::pin(std::string &why) {
  if (!pins_) return true;
  const char *plane = inherited_ ? Pins::kInForce : Pins::kNext;
  bool pinned = true;
  if (!inherited_) {
    earlier_ports_ = ports_in(*pins_);
    pins_->clear(plane);
    bpf_map *map = nullptr;
    bpf_object__for_each_map(map, object_.get()) pinned = pinned && pins_->put(plane, bpf_map__name(map), bpf_map__fd(map));
  }
  if (pinned && pins_->put(plane, filters::kProgram, program_.get())) return true;
  return fail(why, "the plane cannot be pinned in " + pins_->directory(), errno);
}

std::vector<std::uint32_t> Plane::ports_in(const Pins &pins) {
  std::vector<std::uint32_t> ports = keys_of(pins.get(Pins::kInForce, "port_of").get());
  for (const std::uint32_t port : keys_of(pins.get(Pins::kNext, "port_of").get())) ports.push_back(port);
  return ports;
}

void Plane::settle() {
  if (!std::exchange(settled_, true) && pins_) pins_->settle();
}

template <typename T>
bool Plane::map(const char *name, T *&memory, std::string &why) {
  const bpf_map *map = bpf_object__find_map_by_name(object_.get(), name);
  if (!map || bpf_map__value_size(map) != sizeof(T))
    return fail(why, std::string("the map ") + name + " is not the expected one", EINVAL);
  const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  const std::size_t bytes = (bpf_map__max_entries(map) * sizeof(T) + page - 1) / page * page;
  void *at = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, bpf_map__fd(map), 0);
  if (at == MAP_FAILED) return fail(why, std::string("the map ") + name + " cannot be shared", errno);
  memory = static_cast<T *>(at);
  mappings_.push_back({at, bytes});
  return true;
}

bool Plane::map_all(std::string &why) {
  g_complaint.clear();
  const bpf_map *port_of = bpf_object__find_map_by_name(object_.get(), "port_of");
  const bpf_map *punted = bpf_object__find_map_by_name(object_.get(), "punted");
  if (!port_of || !punted) return fail(why, "the program of the data plane is not the expected one", EINVAL);
  port_of_ = bpf_map__fd(port_of);
  punted_ = bpf_map__fd(punted);
  const bool mapped = map("control", tables_.control, why) && map("masks", tables_.masks, why) &&
                      map("buckets", tables_.buckets, why) && map("hints", tables_.hints, why) &&
                      map("flows", tables_.flows, why) && map("steps", tables_.steps, why) &&
                      map("counts", tables_.counts, why) && map("meters", meters_, why) && map("ports", ports_, why) &&
                      map("tallies", tallies_, why) && map("punts", punts_, why);
  if (!mapped) return false;
  tables_.before = tables_.counts + std::size_t{tables_.rows} * tables_.places;
  tables_.control->version = DP_LAYOUT_VERSION;
  return true;
}

// Removes the pins of a plane that was never filled, because nobody can use it.
Plane::~Plane() {
  if (pins_ && !settled_) pins_->clear(Pins::kNext);
  for (const auto &[at, bytes] : mappings_) munmap(at, bytes);
}

dp_tally Plane::tally() const {
  dp_tally sum{};
  for (const dp_tally *tally = tallies_; tally != tallies_ + tables_.rows; ++tally) {
    for (__u64 dp_tally::*one :
         {&dp_tally::matched_in_1, &dp_tally::matched, &dp_tally::looked_up, &dp_tally::metered, &dp_tally::no_port,
          &dp_tally::not_rewritten})  // a part before the whole, because packets go on being counted
      sum.*one += dp_counted(tally->*one);
  }
  return sum;
}

bool Plane::set_port(std::uint32_t interface, std::uint32_t place) {
  return bpf_map_update_elem(port_of_, &interface, &place, BPF_ANY) == 0;
}

void Plane::forget_port(std::uint32_t interface) {
  bpf_map_delete_elem(port_of_, &interface);
}

}  // namespace programmer::dataplane
