// The flow table, as the only writer of masks, buckets and flows. It works on memory alone and makes no system calls.
//
// A flow is written completely into a place that nobody reads; then one 64-bit store publishes it or replaces another one, so
// that a packet sees the table either before or after the change. Readers may still use what has left the table: a place, a
// mask's identifier and the list of masks that is not in force are reused only after a grace period, whose begin and end the
// caller reports with begin_grace() and end_grace().
//
// Of several flows with the same mask and key only the highest-ranking one is published; the others wait behind it.
//
// A table starts with whatever an earlier one left in the memory, even if that one was killed: its published flows stay in force
// unchanged until they are added again or drop_inherited() removes them. Flows that waited behind them return only when added.
//
// Thread: one at a time; readers need no lock.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <unordered_map>
#include <utility>
#include <vector>

#include "programmer/linux/memory.h"
#include "programmer/target.h"

namespace programmer::dataplane {

class FlowTable {
 public:
  using Place = std::uint32_t;
  static constexpr Place kNone = ~Place{0};

  // The memory is zeroed or was left by another table, and a grace period has passed since that one ended. It must outlive this
  // table.
  explicit FlowTable(const dp_tables &memory);

  // The reason why the latest add() returned kNone: kGrace if there will be room after a grace period, otherwise what is lacking.
  enum class Lack : std::uint8_t { kGrace, kPlaces, kMasks, kBuckets };

  // Puts a flow in force. The caller sets rank, cookie, index, vsd and actions of `flow`; key and mask are filled in here. Among
  // flows of the same rank, mask and key the one with the greatest index wins, and for equal indexes the newest. An identical
  // inherited flow is taken over with its counters.
  Place add(const dp_key &key, const dp_key &mask, dp_flow flow);
  void remove(Place place);
  // The flow's counters since it was added, plus the counters given to go_on_from().
  Counters count(Place place) const;
  void go_on_from(Place place, const Counters &counted);

  // The number of flows that the memory held at the start and that have not been added again.
  std::uint32_t inherited() const { return inherited_count_; }
  // The lists that these flows refer to, with repetitions.
  std::vector<std::uint32_t> inherited_lists() const;
  void drop_inherited();

  // Sorts the masks again if that makes searches shorter. Does nothing while the list to be written may be in use.
  void tidy();
  // True if something waits for a grace period; the caller must let one pass, so that no earlier reader is left, and then call
  // end_grace(). Only one is in progress at a time.
  bool begin_grace();
  void end_grace();

  std::uint32_t size() const { return size_; }
  std::uint32_t masks() const { return static_cast<std::uint32_t>(ids_.size()); }
  Lack lack() const { return lack_; }

 private:
  using Words = std::array<__u64, DP_WORDS>;
  struct Hash {
    std::size_t operator()(const Words &words) const { return dp_hash(words.data(), 0); }
  };
  struct Mask {
    Words words{};
    std::uint32_t row = 0;  // in the list in force
    std::uint32_t only_type = DP_ANY_TYPE;
    std::map<std::uint32_t, std::uint32_t> ranks;  // number of flows by rank; empty: the mask waits to leave the list
  };

  static Words words_of(const dp_key &key);
  void publish();
  dp_mask *list(bool in_force) const;

  std::uint32_t mask_of(const Words &words, std::uint32_t type);
  std::uint32_t append_mask(const Words &words, std::uint32_t type);
  void match_on(const Words &words);
  void raise(std::uint32_t mask, std::uint32_t rank, std::uint32_t type);
  void lower(std::uint32_t mask, std::uint32_t rank);
  bool rewrite_list();

  Place take_place();
  void reset_counts(Place place);
  bool outranks(Place a, Place b) const;
  bool link(Place place, const Words &masked, std::uint32_t mask);
  bool insert(Place place, std::uint64_t hash);
  void put(std::uint64_t hash, Place old, Place place);
  void vacate(std::uint64_t hash, Place place);
  void expect(std::uint64_t hash, std::uint32_t home);
  void expect_only_present(std::uint32_t bucket);
  void keep_closed(std::uint32_t bucket);
  void open_again(std::uint32_t bucket);

  void inherit_masks();
  void inherit_flows();
  bool inherit_flow(std::uint32_t bucket, __u64 entry);
  void find_free_places();
  bool knows(std::uint32_t mask) const;
  Place claim(const dp_key &mask, dp_flow &flow);
  __u64 *entry_of(std::uint32_t bucket, Place place) const;

  Place refuse(Lack lack) {
    lack_ = lack;
    return kNone;
  }

  dp_tables memory_;
  std::uint32_t size_ = 0;
  Lack lack_ = Lack::kPlaces;

  std::vector<Place> free_, retired_, resting_;  // places: reusable, vacated since the grace period began, vacated before it
  Place unused_ = 0;                             // places from here on have never been used
  std::vector<Place> behind_;                    // by place: the next flow with the same mask and key
  std::vector<std::uint16_t> elsewhere_;         // by bucket: number of its flows that are in their second bucket
  std::vector<bool> inherited_;                  // by place
  std::uint32_t inherited_count_ = 0;

  std::unordered_map<Words, std::uint32_t, Hash> ids_;
  std::vector<Mask> masks_;  // by identifier
  std::vector<std::uint32_t> free_ids_, retired_ids_, resting_ids_;
  std::uint32_t rows_ = 0;
  bool untidy_ = false;
  bool list_retired_ = false, list_resting_ = false;  // true while readers may still use the list that is not in force
};

}  // namespace programmer::dataplane
