// The in-flight log: undecided hand-overs to the daemon, in order.
//
// The daemon reports only failures; success follows from a barrier reply, which says that everything handed over before the
// barrier is decided. This log keeps the requests of undecided adds (for a late error) and the barriers in flight. It knows
// neither flows nor connections. Openflow thread only.
#pragma once

#include <cstdint>
#include <deque>
#include <vector>

#include "host/of_ss/desired/southbound_client.h"
#include "host/of_ss/wire/wire.h"

namespace host::of_ss {

// The requester: the connection's generation, which is never reused, and the transaction id. Generation 0 is the agent itself.
struct Origin {
  std::uint64_t generation = 0;
  std::uint32_t xid = 0;
  std::uint16_t controller = 0;  // its address (Peer::controller)
  std::uint32_t request = 0;     // in the trace
};

// An undecided add.
struct Pending {
  std::uint64_t index;
  std::uint64_t number;   // of the hand-over
  std::uint64_t request;  // the same for all adds of one request
  std::int64_t since_ns;
  Origin origin;
  bool answered = false;  // its failure has been reported
  bool failed = false;    // the programming service has reported a failure; the daemon may not
  bool no_room = false;   // its reason was a shortage
  std::uint8_t request_len;
  std::byte request_head[64];
};

// A barrier in flight.
struct SentBarrier {
  std::uint64_t number;  // hand-overs up to this one are decided once it is answered
  BarrierTag tag;
  Origin origin;
  std::int64_t since_ns;
};

class InFlightLog {
 public:
  // Notes a hand-over that only a barrier answers: a delete or a meter.
  void note() { ++handed_; }
  // Notes an add. `same_request`: it belongs to the latest request, not to a new one.
  void expect(std::uint64_t index, const Origin &origin, Bytes request, bool same_request, std::int64_t now_ns);
  void barrier_sent(const BarrierTag &tag, const Origin &origin, std::int64_t now_ns);

  // The undecided add with this index; null if there is none.
  Pending *find(std::uint64_t index);
  // Marks the add, and all others of the same request, as answered.
  void answer(Pending &pending);

  // Processes a barrier reply. In hand-over order it calls `decided` with each Pending that is thereby decided and `answered`
  // with each SentBarrier: the answered one, and earlier ones, whose own replies are lost. False for an unknown tag.
  template <typename Decided, typename Answered>
  bool barrier_replied(const BarrierTag &tag, Decided &&decided, Answered &&answered) {
    std::size_t n = 0;
    while (n < barriers_.size() && barriers_[n].tag != tag) ++n;
    if (n == barriers_.size()) return false;
    for (++n; n > 0; --n) {
      release(barriers_.front().number, decided);
      answered(barriers_.front());
      barriers_.pop_front();
    }
    return true;
  }
  // Removes the oldest undecided add, which is given up or has been decided by other means.
  template <typename Decided>
  void release_front(Decided &&decided) {
    release(pending_[head_].number, decided);
  }

  // Visits the undecided adds, oldest first, until `visit` returns false.
  template <typename Visit>
  void for_each(Visit &&visit) const {
    for (std::size_t n = head_; n < pending_.size() && visit(pending_[n]);) ++n;
  }

  const Pending *front() const { return head_ < pending_.size() ? &pending_[head_] : nullptr; }
  const SentBarrier *front_barrier() const { return barriers_.empty() ? nullptr : &barriers_.front(); }
  bool all_decided() const { return handed_ == decided_; }
  std::uint64_t outstanding() const { return handed_ - decided_; }
  std::uint64_t handed() const { return handed_; }  // hand-overs so far
  std::size_t undecided_adds() const { return pending_.size() - head_; }
  // Hand-overs without a barrier behind them.
  std::uint64_t uncovered() const { return handed_ - (barriers_.empty() ? decided_ : barriers_.back().number); }
  bool barrier_under_way() const { return !barriers_.empty(); }
  std::size_t barriers() const { return barriers_.size(); }
  // The number of decided hand-overs; compare to detect progress.
  std::uint64_t decided() const { return decided_; }

 private:
  template <typename Decided>
  void release(std::uint64_t number, Decided &&decided) {
    while (head_ < pending_.size() && pending_[head_].number <= number) decided(pending_[head_++]);
    if (decided_ < number) decided_ = number;
    shrink();
  }
  void shrink();

  std::vector<Pending> pending_;  // ascending in number and index; entries before head_ are finished
  std::size_t head_ = 0;
  std::deque<SentBarrier> barriers_;
  std::uint64_t handed_ = 0, decided_ = 0, request_ = 0;
};

}  // namespace host::of_ss
