// The table of the data plane in plain memory: against a linear list, and with a reader beside the writer; the parsing of
// packets, here and in the kernel.
#ifdef KELIM_LINUX_TARGET
#include <bpf/bpf.h>
#include <linux/pkt_cls.h>
#endif
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <memory>
#include <random>
#include <set>
#include <thread>

#include "programmer/linux/flow_table.h"
#include "programmer/linux/meter.h"
#include "programmer/linux/meters.h"
#include "programmer/linux/plane.h"
#include "support/flow_bytes.h"

namespace {

using namespace programmer::dataplane;

struct Memory {
  Memory(std::uint32_t places, std::uint32_t bucket_count)
      : masks(2 * DP_MAX_MASKS),
        buckets(bucket_count),
        hints((bucket_count + DP_HINT_BUCKETS - 1) / DP_HINT_BUCKETS),
        flows(places),
        counts(places),
        before(places),
        cache(DP_CACHE_SETS) {
    tables = {&control,      masks.data(),  buckets.data(), hints.data(), flows.data(),
              counts.data(), before.data(), bucket_count,   places,       1,
              cache.data()};
  }
  // The index of the flow that decides; 0: none.
  std::uint64_t find(const dp_key &key) const {
    const std::uint32_t place = dp_classify(&tables, &control, &key);
    return place == 0 ? 0 : flows[place - 1].index;
  }
  dp_control control{};
  std::vector<dp_mask> masks;
  std::vector<dp_bucket> buckets;
  std::vector<dp_hint> hints;
  std::vector<dp_flow> flows;
  std::vector<dp_count> counts, before;
  std::vector<dp_cached> cache;
  dp_tables tables;
};

struct Model {
  FlowTable::Place place;
  dp_key key, mask;
  std::uint32_t rank;
  std::uint64_t index;

  bool matches(const dp_key &packet) const {
    const auto *p = reinterpret_cast<const unsigned char *>(&packet), *k = reinterpret_cast<const unsigned char *>(&key),
               *m = reinterpret_cast<const unsigned char *>(&mask);
    for (std::size_t i = 0; i < sizeof key; ++i)
      if (((p[i] ^ k[i]) & m[i]) != 0) return false;
    return true;
  }
};

dp_flow flow_of(std::uint32_t rank, std::uint64_t index) {
  dp_flow flow{};
  flow.rank = rank;
  flow.index = index;
  return flow;
}

std::uint64_t find(const std::vector<Model> &flows, const dp_key &packet) {
  const Model *best = nullptr;
  for (const Model &flow : flows)
    if (flow.matches(packet) && (!best || std::pair(flow.rank, flow.index) > std::pair(best->rank, best->index))) best = &flow;
  return best ? best->index : 0;
}

class Random {
 public:
  explicit Random(unsigned seed) : engine_(seed) {}
  std::uint32_t below(std::uint32_t end) { return static_cast<std::uint32_t>(engine_() % end); }
  dp_key key() {
    dp_key key{};
    key.in_port = below(3);
    key.eth_type = below(2) ? DP_TYPE_IPV4 : DP_TYPE_IPV6;
    key.eth_dst[5] = static_cast<__u8>(below(3));
    key.l4_dst = static_cast<__u16>(below(4));
    key.dst[3] = static_cast<__u8>(below(8));
    return key;
  }
  dp_key mask() {
    dp_key mask{};
    mask.in_port = below(2) ? ~0U : 0;
    mask.eth_type = below(4) ? 0xffff : 0;
    mask.eth_dst[5] = below(2) ? 0xff : 0;
    mask.l4_dst = below(2) ? 0xffff : 0;
    mask.dst[3] = static_cast<__u8>(0xff << below(9));
    mask.src[0] = static_cast<__u8>(below(2) ? 0 : below(200));  // as many masks as there is room for, and more
    return mask;
  }

 private:
  std::mt19937 engine_;
};

void rest(FlowTable &table) {
  if (table.begin_grace()) table.end_grace();
}

std::set<FlowTable::Place> published(const Memory &memory) {
  std::set<FlowTable::Place> places;
  for (const dp_bucket &bucket : memory.buckets)
    for (const __u64 entry : bucket.entries)
      if (entry != 0 && entry != DP_TOMB) places.insert(static_cast<FlowTable::Place>(entry) - 1);
  return places;
}

// Another table takes the memory over and is asked for some of the flows, in any order: what is in force is not touched, and
// what nobody asks for decides to the end.
void take_over(std::unique_ptr<FlowTable> &table, const Memory &memory, std::vector<Model> &model, Random &random) {
  const std::set<FlowTable::Place> in_force = published(memory);
  table = std::make_unique<FlowTable>(memory.tables);
  ASSERT_EQ(table->inherited(), in_force.size());
  std::vector<Model> asked;
  while (!model.empty()) {
    std::swap(model[random.below(static_cast<std::uint32_t>(model.size()))], model.back());
    asked.push_back(model.back());
    model.pop_back();
  }
  const std::vector<Model> all = asked;
  const std::size_t wanted = asked.size() - asked.size() / 4;
  asked.resize(wanted);
  for (Model &flow : asked) {
    const FlowTable::Place before = flow.place;
    flow.place = table->add(flow.key, flow.mask, flow_of(flow.rank, flow.index));
    ASSERT_NE(flow.place, FlowTable::kNone);
    ASSERT_TRUE(flow.place == before || !in_force.contains(before));
    const dp_key packet = random.key();
    ASSERT_EQ(memory.find(packet), find(all, packet));
  }
  table->drop_inherited();
  ASSERT_EQ(table->inherited(), 0U);
  model = asked;
}

// Buckets are so few that they overflow, and places too; masks come and go.
void run_steps(unsigned seed, std::uint32_t places, std::uint32_t buckets, int steps) {
  SCOPED_TRACE("seed " + std::to_string(seed));
  Random random(seed);
  Memory memory(places, buckets);
  auto owner = std::make_unique<FlowTable>(memory.tables);
  std::vector<Model> model;
  std::uint64_t index = 0;
  for (int step = 0; step < steps; ++step) {
    if (step % 500 == 499) take_over(owner, memory, model, random);
    FlowTable &table = *owner;
    const std::uint32_t choice = random.below(100);
    if (choice < (step / 2000 % 2 != 0 ? 20U : 40U)) {
      Model flow{FlowTable::kNone, random.key(), random.mask(), 1 + random.below(20), ++index};
      flow.place = table.add(flow.key, flow.mask, flow_of(flow.rank, index));
      if (flow.place != FlowTable::kNone)
        model.push_back(flow);
      else if (table.lack() == FlowTable::Lack::kGrace)
        rest(table);
    } else if (choice < 65 && !model.empty()) {
      const std::size_t which = random.below(static_cast<std::uint32_t>(model.size()));
      table.remove(model[which].place);
      model.erase(model.begin() + static_cast<std::ptrdiff_t>(which));
    } else if (choice == 65) {
      table.tidy();
      rest(table);
    }
    const dp_key packet = random.key();
    ASSERT_EQ(memory.find(packet), find(model, packet)) << "step " << step;
    ASSERT_EQ(table.size(), model.size());
  }
  for (const Model &flow : model) owner->remove(flow.place);
  EXPECT_EQ(owner->size(), 0U);
  for (const dp_bucket &bucket : memory.buckets)
    for (const __u64 entry : bucket.entries) ASSERT_EQ(entry, 0U);
  for (const dp_hint &hint : memory.hints) ASSERT_EQ(hint.bits, 0U);
}

TEST(PlaneTable, FindsWhatALinearListFinds) {
  const unsigned seed = std::random_device{}();
  for (unsigned i = 0; i < 8; ++i) run_steps(seed + i, 40U << i, 4U << i, 8'000);
}

// ---- a writer that is killed in the middle of a change

struct Shared {
  dp_control control;
  dp_mask masks[2 * DP_MAX_MASKS];
  dp_bucket buckets[4];
  dp_hint hints[1];
  dp_flow flows[96];
  dp_count counts[96], before[96];
  dp_cached cache[DP_CACHE_SETS];
};

[[noreturn]] void change_for_ever(const dp_tables &tables, const std::vector<Model> &flows) {
  FlowTable table(tables);
  std::vector<FlowTable::Place> places(flows.size(), FlowTable::kNone);
  for (std::mt19937 random(1);;) {
    const std::size_t i = random() % flows.size();
    if (places[i] == FlowTable::kNone)
      places[i] = table.add(flows[i].key, flows[i].mask, flow_of(flows[i].rank, flows[i].index));
    else
      table.remove(std::exchange(places[i], FlowTable::kNone));
    if (random() % 16 == 0) table.tidy(), rest(table);
  }
}

TEST(PlaneTable, IsTakenOverFromAWriterThatWasKilled) {
  Random random(std::random_device{}());
  std::vector<Model> flows;
  for (std::uint64_t index = 1; index <= 30; ++index)
    flows.push_back({FlowTable::kNone, random.key(), random.mask(), 1 + random.below(20), index});
  for (unsigned round = 0; round < 40; ++round) {
    void *const memory = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(memory, MAP_FAILED);
    auto &shared = *static_cast<Shared *>(memory);
    const dp_tables tables{
        &shared.control, shared.masks, shared.buckets, shared.hints, shared.flows, shared.counts, shared.before, 4, 96, 1,
        shared.cache};
    const pid_t writer = fork();
    if (writer == 0) change_for_ever(tables, flows);
    const __u64 from = 100 + random.below(2'000);
    while (std::atomic_ref(shared.control.current).load() < from) std::this_thread::yield();
    kill(writer, SIGKILL);
    waitpid(writer, nullptr, 0);
    FlowTable table(tables);
    std::vector<Model> asked(flows.begin() + random.below(10), flows.end() - random.below(10));
    std::erase_if(asked, [&table](const Model &flow) {
      const bool refused = table.add(flow.key, flow.mask, flow_of(flow.rank, flow.index)) == FlowTable::kNone;
      EXPECT_TRUE(!refused || table.lack() == FlowTable::Lack::kBuckets);
      return refused;
    });
    table.drop_inherited();
    for (unsigned i = 0; i < 500; ++i) {
      const dp_key packet = random.key();
      const std::uint32_t place = dp_classify(&tables, &shared.control, &packet);
      ASSERT_EQ(place == 0 ? 0 : shared.flows[place - 1].index, find(asked, packet));
    }
    ASSERT_EQ(table.size(), asked.size());
    munmap(memory, sizeof(Shared));
  }
}

// A flow that is replaced all the time under a reader, beside others that come and go: found each time.
TEST(PlaneTable, AReplacedFlowIsNeverMissing) {
#ifdef __SANITIZE_THREAD__
  GTEST_SKIP() << "the program in the kernel reads without locks on purpose";
#endif
  Memory memory(64, 16);
  FlowTable table(memory.tables);
  dp_key key{}, mask{};
  key.in_port = 7;
  mask.in_port = ~0U;
  FlowTable::Place present = table.add(key, mask, flow_of(3, 1));
  std::atomic<bool> end = false;
  std::atomic<std::uint64_t> turns = 0, misses = 0;
  std::thread reader([&] {
    for (; !end; ++turns) misses += dp_classify(&memory.tables, &memory.control, &key) == 0;
  });
  for (std::uint64_t index = 2; index < 4'000; ++index) {
    const FlowTable::Place next = table.add(key, mask, flow_of(3, index));
    ASSERT_NE(next, FlowTable::kNone);
    table.remove(present);
    present = next;
    dp_key other = key;
    other.in_port = static_cast<__u32>(index << 8);
    table.remove(table.add(other, mask, flow_of(3, index)));
    table.tidy();
    if (index % 16 != 0 || !table.begin_grace()) continue;
    for (const std::uint64_t before = turns; turns < before + 2;) std::this_thread::yield();
    table.end_grace();
  }
  end = true;
  reader.join();
  EXPECT_EQ(misses, 0U) << "of " << turns;
}

// ---- packets

using flow_bytes::Bytes, flow_bytes::hex, flow_bytes::operator+;

struct Parsed {
  dp_key key;
  dp_headers headers;
};

// From a copy of exactly that length, so that the address sanitizer sees a read behind it.
Parsed parse(const Bytes &frame, __u16 tag = 0) {
  const std::vector<std::uint8_t> bytes(reinterpret_cast<const std::uint8_t *>(frame.data()),
                                        reinterpret_cast<const std::uint8_t *>(frame.data()) + frame.size());
  dp_packet packet{bytes.data(), static_cast<std::uint32_t>(bytes.size())};
  Parsed out;
  dp_parse(&packet, 1, tag, &out.key, &out.headers);
  return out;
}

const Bytes kEth = hex("020000000002 020000000001");
const Bytes kPorts = hex("03e8 0035 0008 0000");

// The header of IPv4: the first word, then what decides.
Bytes ipv4(std::string_view length, std::string_view fragment = "0000", std::string_view first = "45",
           std::string_view proto = "11") {
  const Bytes options(first == "46" ? 4 : 0);
  return hex(first) + hex("b8") + hex(length) + hex("0001") + hex(fragment) + hex("40") + hex(proto) +
         hex("0000 0a000001 0a000002") + options;
}
// The header of IPv6, of which `length` and the type of the next header decide.
Bytes ipv6(std::string_view length, std::string_view next) {
  return hex("6b800000") + hex(length) + hex(next) + hex("40") +
         hex("fd000000000000000000000000000001 fd000000000000000000000000000002");
}

const Bytes kV4 = hex("0800"), kV6 = hex("86dd");
const Bytes kEight = hex("3c00000000000000 3c00000000000000 3c00000000000000 3c00000000000000") +
                     hex("3c00000000000000 3c00000000000000 3c00000000000000 3c00000000000000");
constexpr unsigned kIp = DP_HAS_IP, kAll = DP_HAS_IP | DP_HAS_L4;
const struct {
  const char *what;
  Bytes frame;
  unsigned eth_type, vlan, has, proto, ext_headers, l4_dst;
} kParsed[] = {
    {"IPv4", kEth + kV4 + ipv4("001c") + kPorts, 0x800, 0, kAll, 17, 0, 53},
    {"options", kEth + kV4 + ipv4("0020", "0000", "46") + kPorts, 0x800, 0, kAll, 17, 0, 53},
    {"a header that is too short", kEth + kV4 + ipv4("001c", "0000", "44") + kPorts, 0x800, 0, 0, 0, 0, 0},
    {"another version", kEth + kV4 + ipv4("001c", "0000", "65") + kPorts, 0x800, 0, 0, 0, 0, 0},
    {"ports behind the packet's end", kEth + kV4 + ipv4("0014") + kPorts, 0x800, 0, kIp, 17, 0, 0},
    {"the first fragment", kEth + kV4 + ipv4("001c", "2000") + kPorts, 0x800, 0, kAll, 17, 0, 53},
    {"a later fragment", kEth + kV4 + ipv4("001c", "0001") + kPorts, 0x800, 0, kIp, 17, 0, 0},
    {"a tag", kEth + hex("8100 a007 0800") + ipv4("001c") + kPorts, 0x800, 0xb007, kAll, 17, 0, 53},
    {"two tags", kEth + hex("88a8 2005 8100 a007 0800") + ipv4("001c") + kPorts, 0x800, 0x3005, kAll, 17, 0, 53},
    {"a length", kEth + hex("0026 4242"), 0x5ff, 0, 0, 0, 0, 0},
    {"IPv6", kEth + kV6 + ipv6("0008", "11") + kPorts, 0x86dd, 0, kAll, 17, 0, 53},
    {"hop by hop, routing", kEth + kV6 + ipv6("0018", "00") + hex("2b00000000000000 1100000000000000") + kPorts, 0x86dd, 0, kAll,
     17, DP_EXT_HOP | DP_EXT_ROUTER, 53},
    {"out of order", kEth + kV6 + ipv6("0018", "2b") + hex("0000000000000000 1100000000000000") + kPorts, 0x86dd, 0, kAll, 17,
     DP_EXT_HOP | DP_EXT_ROUTER | DP_EXT_DISORDER, 53},
    {"twice", kEth + kV6 + ipv6("0018", "2b") + hex("2b00000000000000 1100000000000000") + kPorts, 0x86dd, 0, kAll, 17,
     DP_EXT_ROUTER | DP_EXT_REPEATED, 53},
    {"a first fragment", kEth + kV6 + ipv6("0010", "2c") + hex("1100000100000000") + kPorts, 0x86dd, 0, kAll, 17, DP_EXT_FRAG,
     53},
    {"a fragment of IPv6", kEth + kV6 + ipv6("0010", "2c") + hex("1100000900000000") + kPorts, 0x86dd, 0, kIp, 17, DP_EXT_FRAG,
     0},
    {"a header that is cut", kEth + kV6 + ipv6("0010", "2b") + hex("1100"), 0x86dd, 0, kIp, 43, 0, 0},
    {"a header that lies", kEth + kV6 + ipv6("0018", "2b") + hex("11ff000000000000") + kPorts, 0x86dd, 0, kIp, 17, DP_EXT_ROUTER,
     0},
    {"no next header", kEth + kV6 + ipv6("0000", "3b"), 0x86dd, 0, kIp, 59, DP_EXT_NO_NEXT, 0},
    {"TCP", kEth + kV4 + ipv4("0028", "0000", "45", "06") + hex("03e80050 00000001 00000000 50020400 00000000"), 0x800, 0, kAll,
     6, 0, 80},
    {"ICMP", kEth + kV4 + ipv4("001c", "0000", "45", "01") + hex("0303000000000001"), 0x800, 0, kAll, 1, 0, 3},
    {"ICMP of IPv6", kEth + kV6 + ipv6("0008", "3a") + hex("0104000000000001"), 0x86dd, 0, kAll, 58, 0, 4},
    {"ICMP of the other version", kEth + kV6 + ipv6("0008", "01") + hex("0303000000000001"), 0x86dd, 0, kIp, 1, 0, 0},
    {"SCTP", kEth + kV4 + ipv4("001c", "0000", "45", "84") + kPorts, 0x800, 0, kIp, 132, 0, 0},
    {"a length that lies", kEth + kV4 + ipv4("ffff") + kPorts, 0x800, 0, kAll, 17, 0, 53},
    {"options that lie", kEth + kV4 + ipv4("003c", "0000", "4f") + kPorts, 0x800, 0, kIp, 17, 0, 0},
    {"ports behind the payload of IPv6", kEth + kV6 + ipv6("0003", "11") + kPorts, 0x86dd, 0, kIp, 17, 0, 0},
    {"authentication, options", kEth + kV6 + ipv6("001c", "33") + hex("3c01000000000000 00000001 1100000000000000") + kPorts,
     0x86dd, 0, kAll, 17, DP_EXT_AUTH | DP_EXT_DEST, 53},
    {"more headers than are followed", kEth + kV6 + ipv6("0050", "3c") + kEight + hex("1100000000000000") + kPorts, 0x86dd, 0,
     kIp, 60, DP_EXT_DEST | DP_EXT_REPEATED, 0},
    {"ARP", kEth + hex("0806 0001 0800 06 04 0001") + Bytes(20), 0x806, 0, 0, 0, 0, 0},
};

TEST(PlaneParse, ReadsWhatIsThereAndNothingElse) {
  for (const auto &c : kParsed) {
    SCOPED_TRACE(c.what);
    const dp_key key = parse(c.frame).key;
    EXPECT_EQ((std::array<unsigned, 6>{key.eth_type, key.vlan, key.has, key.proto, key.ext_headers, key.l4_dst}),
              (std::array{c.eth_type, c.vlan, c.has, c.proto, c.ext_headers, c.l4_dst}));
    EXPECT_EQ(key.dscp, (c.has & DP_HAS_IP) != 0 ? 46 : 0);
    for (std::size_t length = 0; length < c.frame.size(); ++length) {
      const Parsed cut = parse(Bytes(c.frame.begin(), c.frame.begin() + static_cast<std::ptrdiff_t>(length)));
      EXPECT_LE(cut.headers.l4 == 0 ? 0 : cut.headers.l4 + 4, length);
      EXPECT_EQ((cut.key.has & DP_HAS_L4) != 0, cut.headers.l4 != 0);
    }
  }
  EXPECT_EQ(parse(kEth + kV4, 0x7003).key.vlan, 0x7003) << "the tag that the kernel keeps beside the frame";
}

#ifdef KELIM_LINUX_TARGET
// The program in the kernel and this build of the same source agree on every field of every frame, cut at every length: a packet
// finds the flow that matches on exactly what was read here.
TEST(PlaneParse, TheKernelReadsTheSame) {
  std::string why;
  if (!Plane::possible(why)) GTEST_SKIP() << why;
  const auto plane = Plane::load({.flows = 1000, .ports = {1}}, nullptr, why);
  ASSERT_TRUE(plane) << why;
  plane->ports()[0] = {.ifindex = 1, .number = 1};
  ASSERT_TRUE(plane->set_port(1, 0)) << "test runs arrive at lo";
  const auto verdict = [&plane](const Bytes &frame) {
    bpf_test_run_opts run{};
    run.sz = sizeof run;
    run.data_in = frame.data();
    run.data_size_in = static_cast<__u32>(frame.size());
    return bpf_prog_test_run_opts(plane->program(), &run) == 0 ? static_cast<int>(run.retval) : -errno;
  };
  dp_key all;
  std::memset(&all, 0xff, sizeof all);
  FlowTable table(plane->tables());
  dp_flow flow = flow_of(2, 1);
  flow.actions.output = DP_IN_PORT;
  for (const auto &c : kParsed)
    for (const Bytes &tag : {Bytes(), hex("8100 6007")})
      for (std::size_t length = DP_ETH_LEN; length <= c.frame.size() + tag.size(); ++length) {
        SCOPED_TRACE(c.what + (", cut to " + std::to_string(length)));
        Bytes frame = kEth + tag + Bytes(c.frame.begin() + kEth.size(), c.frame.end());
        frame.resize(length);
        const Parsed here = parse(frame);
        flow.actions.sets = here.headers.l3 != 0 ? DP_SET_DSCP : 0;  // which fails without that header
        const FlowTable::Place place = table.add(here.key, all, flow);
        ASSERT_NE(place, FlowTable::kNone);
        const int found = verdict(frame);
        if (!tag.empty() ||
            found != -EINVAL) {  // later kernels run no test with a part of an IP header, unless it is behind a tag
          ASSERT_EQ(found, TC_ACT_REDIRECT);
          ASSERT_EQ(table.count(place), (programmer::Counters{1, length}));
        }
        table.remove(place);
        rest(table);
      }
  EXPECT_EQ(verdict(kParsed[0].frame), TC_ACT_SHOT) << "no flow is left";
}
#endif

// ---- meters

// Packets of 1,000 bytes, one each 100 us (80 Mbit/s) for 10 s. Of what passes the band for 8 Mbit/s, the band for 4 marks half.
TEST(PlaneMeter, EachBandHoldsItsRate) {
  auto table = std::make_unique<dp_meter[]>(DP_MAX_METERS);
  programmer::dataplane::Meters meters(table.get());
  using programmer::BandType;
  ASSERT_TRUE(meters.set(5, {false, {{BandType::drop, 8000, 80, 0}, {BandType::remark, 4000, 40, 1}}}));
  dp_meter &meter = table[meters.use(5) - 1U];
  std::array<unsigned, 3> verdicts{};
  for (__u64 us = 0; us < 10'000'000; us += 100) ++verdicts[dp_meter_packet(&meter, 1 + us * 1000, 1, 1000).type];
  EXPECT_NEAR(verdicts[DP_BAND_NONE], 5000 + 5, 3);
  EXPECT_NEAR(verdicts[DP_BAND_REMARK], 5000 + 5, 8);
  EXPECT_EQ(meter.packets, 100'000U);
  EXPECT_EQ(meter.band[0].packets, verdicts[DP_BAND_DROP]);
  EXPECT_EQ(meter.band[1].bytes, verdicts[DP_BAND_REMARK] * 1000U);
  // Another one that takes them over goes on with what is the same, and with what flows use until every record has been seen.
  programmer::dataplane::Meters next(table.get());
  const __u64 tat = meter.band[0].tat;
  EXPECT_EQ(&table[next.use(5) - 1U], &meter);
  ASSERT_TRUE(next.set(5, {false, {{BandType::drop, 8000, 80, 0}, {BandType::remark, 4000, 40, 1}}}));
  next.drop_inherited();
  EXPECT_EQ(meter.band[0].tat, tat);
  EXPECT_EQ(meter.packets, 100'000U);
  programmer::dataplane::Meters last(table.get());
  last.drop_inherited();
  EXPECT_EQ(std::pair(meter.id, meter.bands), std::pair(0U, 0U));
  const __u8 marks[][2] = {{10, 12}, {14, 14}, {38, 38},
                           {0, 0},   {46, 46}, {8, 8}};  // AF11, AF13, AF43; not of assured forwarding
  for (const auto &[before, after] : marks) EXPECT_EQ(dp_remark(before, 1), after);
}

}  // namespace
