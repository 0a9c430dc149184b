// The only writer of masks, buckets and flows: memory alone, no kernel, no thread.
//
// A flow is written whole into a place that nobody reads, then one 64-bit store publishes it or puts it where another one was, so
// a packet meets the table before a change or after it. What leaves the table may still be in a reader's hands: a place, an
// identifier of a mask and the list of masks that is not in force are used again only after a grace period, of which the caller
// tells with begin_grace() and end_grace().
//
// Of flows with the same mask and key only the one that decides is published; the others wait behind it.
//
// A table begins with what another one has left in the memory, however suddenly that one ended: the published flows stay in force
// untouched, each until it is asked for again, or until drop_inherited(). Those behind them come back when they are asked for.
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

  // The memory is zeroed, or another table's whose readers of the time of its end have gone. It outlives this one.
  explicit FlowTable(const dp_tables &memory);

  // How the latest add() that gave kNone ended: what it needs is there after a grace period, or is not there at all.
  enum class Lack : std::uint8_t { kGrace, kPlaces, kMasks, kBuckets };

  // Puts a flow in force: rank, cookie, index, vsd and actions of `flow`, whose key and mask are filled in. Of flows of the same
  // rank, mask and key the one with the greater index decides, of one index the newest. Where just this flow has been inherited
  // that one is meant, with what it has counted.
  Place add(const dp_key &key, const dp_key &mask, dp_flow flow);
  void remove(Place place);
  // What a flow has counted: since it was added, and what it has been given to go on from.
  Counters count(Place place) const;
  void go_on_from(Place place, const Counters &counted);

  // Flows that the memory held at the start and nobody has asked for since.
  std::uint32_t inherited() const { return inherited_count_; }
  void drop_inherited();

  // Sorts the masks anew where that makes searches shorter. Does nothing while the list that it writes may be in use.
  void tidy();
  // True when something waits for a grace period, which the caller lets pass, every reader of before having gone, before
  // end_grace(). While one is under way no other one begins.
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
    std::map<std::uint32_t, std::uint32_t> ranks;  // how many flows have each; empty: the mask only waits to leave the list
  };

  static Words words_of(const dp_key &key);
  void publish();
  dp_mask *list(bool in_force) const;

  std::uint32_t mask_of(const Words &words, std::uint32_t type);
  std::uint32_t append_mask(const Words &words, std::uint32_t type);
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

  std::vector<Place> free_, retired_, resting_;  // places: to be used, left since the grace period began, before it
  Place unused_ = 0;                             // from here on never used
  std::vector<Place> behind_;                    // by place: the next one with the same mask and key
  std::vector<std::uint16_t> elsewhere_;         // by bucket: how many that belong in it are in their second one
  std::vector<bool> inherited_;                  // by place
  std::uint32_t inherited_count_ = 0;

  std::unordered_map<Words, std::uint32_t, Hash> ids_;
  std::vector<Mask> masks_;  // by identifier
  std::vector<std::uint32_t> free_ids_, retired_ids_, resting_ids_;
  std::uint32_t rows_ = 0;
  bool untidy_ = false;
  bool list_retired_ = false, list_resting_ = false;  // whether somebody may read the list that is not in force
};

}  // namespace programmer::dataplane
