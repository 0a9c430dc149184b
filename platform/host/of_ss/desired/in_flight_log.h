// What has been handed to the daemon and is not decided yet, in the order of the hand-over.
//
// The daemon reports failures only; that everything else succeeded follows from a barrier reply, which says that all that was
// handed over before the barrier is decided. This log keeps the requests behind undecided adds (for a late error) and the
// barriers that are under way. It calls nobody and knows neither flows nor connections. Openflow thread only.
#pragma once

#include <cstdint>
#include <deque>
#include <vector>

#include "host/of_ss/desired/southbound_client.h"
#include "host/of_ss/wire/wire.h"

namespace host::of_ss {

// Who asked: the connection's generation, which is never used again, and the transaction. Generation 0 is the agent itself.
struct Origin {
  std::uint64_t generation = 0;
  std::uint32_t xid = 0;
  std::uint16_t controller = 0;  // its address (Peer::controller)
  std::uint32_t request = 0;     // in the trace
};

// An add that is not decided.
struct Pending {
  std::uint64_t index;
  std::uint64_t number;   // of the hand-over
  std::uint64_t request;  // the same for all adds that one request led to
  std::int64_t since_ns;
  Origin origin;
  bool answered = false;  // its failure has been reported
  bool failed = false;    // the programming service says so; the daemon may not
  bool no_room = false;   // why
  std::uint8_t request_len;
  std::byte request_head[64];
};

// A barrier under way.
struct SentBarrier {
  std::uint64_t number;  // hand-overs up to this one are decided once it is answered
  BarrierTag tag;
  Origin origin;
  std::int64_t since_ns;
};

class InFlightLog {
 public:
  // A hand-over that only a barrier answers: a delete, a meter.
  void note() { ++handed_; }
  // An add. `request` says whether it belongs to a request of its own or to the latest one.
  void expect(std::uint64_t index, const Origin &origin, Bytes request, bool same_request, std::int64_t now_ns);
  void barrier_sent(const BarrierTag &tag, const Origin &origin, std::int64_t now_ns);

  // The undecided add with this index; null when there is none.
  Pending *find(std::uint64_t index);
  // Marks the add, and all others of the same request, as answered.
  void answer(Pending &pending);

  // Takes a barrier reply. In the order of the hand-overs `decided` gets each Pending that is decided thereby and `answered` each
  // SentBarrier: the one that is answered, and earlier ones, whose own replies are lost for good. False for a tag that nobody
  // waits for.
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
  // The oldest undecided add is given up or has been decided in another way: takes it off.
  template <typename Decided>
  void release_front(Decided &&decided) {
    release(pending_[head_].number, decided);
  }

  // The undecided adds, oldest first, until `visit` gives false.
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
  // Hand-overs that no barrier has been sent behind.
  std::uint64_t uncovered() const { return handed_ - (barriers_.empty() ? decided_ : barriers_.back().number); }
  bool barrier_under_way() const { return !barriers_.empty(); }
  std::size_t barriers() const { return barriers_.size(); }
  // How often the front has moved; who waits for progress compares.
  std::uint64_t decided() const { return decided_; }

 private:
  template <typename Decided>
  void release(std::uint64_t number, Decided &&decided) {
    while (head_ < pending_.size() && pending_[head_].number <= number) decided(pending_[head_++]);
    if (decided_ < number) decided_ = number;
    shrink();
  }
  void shrink();

  std::vector<Pending> pending_;  // ascending in number and index; before head_ they are done with
  std::size_t head_ = 0;
  std::deque<SentBarrier> barriers_;
  std::uint64_t handed_ = 0, decided_ = 0, request_ = 0;
};

}  // namespace host::of_ss
