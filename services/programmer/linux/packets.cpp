#include "programmer/linux/packets.h"

#include <bpf/libbpf.h>
#include <errno.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <chrono>

namespace programmer::dataplane {
namespace {

constexpr int kTakenAtATime = 64;  // packets from the ring, before the other direction has its turn
constexpr auto kBetweenReports = std::chrono::seconds(1);
constexpr std::uint64_t kNs = 1'000'000'000;

int millis(std::chrono::steady_clock::duration time) {
  return static_cast<int>(std::max<std::int64_t>(0, std::chrono::ceil<std::chrono::milliseconds>(time).count()));
}

}  // namespace

void Packets::FreeRing::operator()(ring_buffer *ring) const {
  ring_buffer__free(ring);
}

Packets::Packets(Plane &plane, Grace &grace)
    : plane_(plane),
      sender_(plane.ports()),
      executor_({plane.tables(), plane.ports(), plane.meters(), &plane.own_tally()}, grace, sender_,
                [this](const ss_pkt_in &about, Bytes frame) { hand_on(about, frame); }) {}

std::unique_ptr<Packets> Packets::open(const Context &context, Plane &plane, Grace &grace, PacketRate rate, std::string &why) {
  std::unique_ptr<Packets> packets(new Packets(plane, grace));
  return packets->start(context, rate, why) ? std::move(packets) : nullptr;
}

bool Packets::start(const Context &context, PacketRate rate, std::string &why) {
  if (!sender_.open(why)) return false;
  want(false);
  set_rate(rate);
  forget_earlier();
  const ss_pkt_user user{.arg = this,
                         .wanted =
                             [](void *self, int wanted) {
                               static_cast<Packets *>(self)->reported_.clear();
                               static_cast<Packets *>(self)->statistics_.forget();
                               static_cast<Packets *>(self)->want(wanted != 0);
                             },
                         .out = [](void *self, const ss_pkt_out *out) { static_cast<Packets *>(self)->executor_.run(*out); }};
  const auto sample = [](void *self, void *data, std::size_t size) {
    return static_cast<Packets *>(self)->take({static_cast<const std::uint8_t *>(data), size});
  };
  wake_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  path_.reset(ss_pkt_path_open(context.global, &user));
  ring_.reset(ring_buffer__new(plane_.punted(), sample, this, nullptr));
  if (wake_ < 0 || !path_ || !ring_) {
    why = std::string("packets to controllers are not possible: ") + std::strerror(errno);
    return false;
  }
  thread_ = std::thread(&Packets::run, this);
  return true;
}

// Discards the packets that an earlier service has left in the ring, which are too old for any controller.
void Packets::forget_earlier() {
  const auto drop = [](void *, void *, std::size_t) { return 0; };
  const std::unique_ptr<ring_buffer, FreeRing> ring(ring_buffer__new(plane_.punted(), drop, nullptr, nullptr));
  if (ring) ring_buffer__consume(ring.get());
}

Packets::~Packets() {
  want(false);
  if (thread_.joinable()) {
    ending_ = true;
    eventfd_write(wake_, 1);
    thread_.join();
  }
  if (wake_ >= 0) ::close(wake_);
}

void Packets::want(bool wanted) {
  std::atomic_ref(plane_.tables().control->punting).store(wanted ? 1 : 0, std::memory_order_relaxed);
}

void Packets::set_rate(PacketRate rate) {
  dp_punt fresh{};
  fresh.rate.cost = (kNs << DP_COST_SHIFT) / rate.rate;
  fresh.rate.burst = kNs * rate.burst / rate.rate;
  for (dp_punt *punt = plane_.punts(); punt != plane_.punts() + DP_MAX_PORTS; ++punt) *punt = fresh;
}

void Packets::run() {
  pthread_setname_np(pthread_self(), "packets");
  auto report_at = std::chrono::steady_clock::now() + kBetweenReports;
  while (true) {
    pollfd waits[] = {{wake_, POLLIN, 0},
                      {ring_buffer__epoll_fd(ring_.get()), POLLIN, 0},
                      {ss_pkt_path_fd(path_.get()), POLLIN, 0},
                      {sender_.has_waiting() ? sender_.fd() : -1, POLLOUT, 0}};
    const auto now = std::chrono::steady_clock::now();
    if (now >= report_at) {
      report();
      report_statistics();
      report_at = now + kBetweenReports;
    }
    if (::poll(waits, std::size(waits), millis(report_at - now)) < 0 && errno != EINTR) return;
    if (waits[0].revents != 0 && !woken()) return;
    taken_ = 0;
    if (waits[1].revents != 0) ring_buffer__consume(ring_.get());
    if (waits[2].revents != 0) ss_pkt_path_work(path_.get());
    if (waits[3].revents != 0) sender_.send_waiting();
  }
}

// False if the thread is to end.
bool Packets::woken() {
  eventfd_t times;
  eventfd_read(wake_, &times);
  report_statistics();
  return !ending_;
}

// ---- to the controllers

// Handles one packet of the program. Non-zero when this turn's share is used up.
int Packets::take(Bytes sample) {
  dp_punted about;
  if (sample.size() < sizeof about) return 0;
  std::memcpy(&about, sample.data(), sizeof about);
  if (about.length > sample.size() - sizeof about) return 0;
  const ss_pkt_in meta{.cookie = about.cookie,
                       .in_port = about.in_port,
                       .table = about.table,
                       .reason = static_cast<std::uint8_t>(about.miss != 0 ? SS_PKT_NO_MATCH : SS_PKT_ACTION)};
  unfold(about, sample.subspan(sizeof about, about.length), room_, [this, &meta](Bytes frame) { hand_on(meta, frame); });
  return ++taken_ < kTakenAtATime ? 0 : -EAGAIN;
}

void Packets::hand_on(const ss_pkt_in &about, Bytes frame) {
  Handed &handed = handed_[place_of(about.in_port)];
  const int rv = ss_pkt_path_in(path_.get(), &about, frame.data(), static_cast<std::uint32_t>(frame.size()));
  ++(rv == 0 ? handed.in : rv == -1 ? handed.unwanted : handed.full);
}

// The place of the port; DP_MAX_PORTS if there is no such port.
std::uint32_t Packets::place_of(std::uint32_t number) const {
  std::uint32_t place = 0;
  while (place < DP_MAX_PORTS && plane_.ports()[place].number != number) ++place;
  return place;
}

// ---- counts

ss_pkt_counts Packets::counts_of(std::uint32_t place) const {
  ss_pkt_counts counts{};
  const Handed &handed = handed_[place];
  counts.in = handed.in, counts.in_full = handed.full, counts.in_unwanted = handed.unwanted;
  if (place == DP_MAX_PORTS) {
    counts.out_refused = executor_.refused(), counts.out_nowhere = executor_.nowhere();
    return counts;
  }
  const dp_punt &punt = plane_.punts()[place];
  counts.port = plane_.ports()[place].number;
  counts.in_limited = punt.limited, counts.in_too_long = punt.too_long;
  counts.in_full += punt.full, counts.in_unwanted += punt.unwanted;
  const Sender::Counts &sent = sender_.counts(place);
  counts.out = sent.sent, counts.out_full = sent.full, counts.out_down = sent.down, counts.out_refused = sent.refused;
  return counts;
}

// Reports the counts of all ports to the packet path, unless none has changed.
void Packets::report() {
  std::vector<ss_pkt_counts> now = {counts_of(DP_MAX_PORTS)};
  for (std::uint32_t place = 0; place < DP_MAX_PORTS && plane_.ports()[place].number != 0; ++place)
    now.push_back(counts_of(place));
  const std::size_t bytes = now.size() * sizeof now[0];
  if (now.size() == reported_.size() && std::memcmp(now.data(), reported_.data(), bytes) == 0) return;
  if (ss_pkt_path_report(path_.get(), now.data(), static_cast<std::uint32_t>(now.size())) == 0) reported_ = std::move(now);
}

void Packets::tell(std::vector<ss_pkt_statistic> statistics) {
  {
    const std::lock_guard lock(telling_);
    told_ = std::move(statistics);
  }
  eventfd_write(wake_, 1);
}

void Packets::report_statistics() {
  std::vector<ss_pkt_statistic> now;
  {
    const std::lock_guard lock(telling_);
    now = told_;
  }
  if (!now.empty()) statistics_.send(path_.get(), now);
}

}  // namespace programmer::dataplane
