// Applies a meter to a packet. Plain C, the same source in the kernel and in user space.
//
// Each band is a virtual schedule (generic cell rate algorithm): one word holds the time until which the traffic has used up the
// rate, and a packet that arrives earlier than that by more than the burst exceeds it. No locks: processors that collide try
// again.
#pragma once

#include "parse.h"

enum { DP_METER_TRIES = 8 };

struct dp_verdict {
  __u32 type;  // DP_BAND_*, of the fastest band that the packet exceeds
  __u32 precedence;
};

struct dp_charge {
  struct dp_band *band;
  __u64 now;
  __u64 cost;  // ns
  __u32 exceeded;
};

static long dp_charge_step(__u32 i, void *context) {
  struct dp_charge *charge = (struct dp_charge *)context;
  const __u64 tat = *(volatile __u64 *)&charge->band->tat;
  const __u64 from = tat > charge->now ? tat : charge->now;
  (void)i;
  charge->exceeded = from - charge->now > charge->band->burst;
  if (charge->exceeded) return 1;
  return __sync_val_compare_and_swap(&charge->band->tat, tat, from + charge->cost) == tat;
}

DP_INLINE void dp_add(__u64 *to, __u64 number) {
  __sync_fetch_and_add(to, number);
}

// True if `units` (bytes or packets) conform to the band, which is then charged for them.
DP_INLINE int dp_conforms(struct dp_band *band, __u64 now, __u64 units) {
  struct dp_charge charge;
  charge.band = band;
  charge.now = now;
  charge.cost = (units * band->cost) >> DP_COST_SHIFT;
  charge.exceeded = 0;
  dp_loop(DP_METER_TRIES, dp_charge_step, &charge);
  return !charge.exceeded;
}

struct dp_metering {
  struct dp_meter *meter;
  __u64 now;
  __u32 packets;
  __u32 bytes;
  struct dp_verdict verdict;
};

static long dp_meter_step(__u32 i, void *context) {
  struct dp_metering *metering = (struct dp_metering *)context;
  struct dp_meter *meter = metering->meter;
  if (i >= DP_MAX_BANDS || i >= meter->bands) return 1;
  struct dp_band *band = &meter->band[i];
  const int conforms = dp_conforms(band, metering->now, meter->counts_packets ? metering->packets : metering->bytes);
  if (conforms || metering->verdict.type != DP_BAND_NONE) return 0;
  metering->verdict.type = band->type;
  metering->verdict.precedence = band->precedence;
  dp_add(&band->packets, metering->packets);
  dp_add(&band->bytes, metering->bytes);
  return 0;
}

DP_INLINE struct dp_verdict dp_meter_packet(struct dp_meter *meter, __u64 now, __u32 packets, __u32 bytes) {
  struct dp_metering metering;
  __builtin_memset(&metering, 0, sizeof metering);
  metering.meter = meter;
  metering.now = now;
  metering.packets = packets;
  metering.bytes = bytes;
  dp_add(&meter->packets, packets);
  dp_add(&meter->bytes, bytes);
  dp_loop(DP_MAX_BANDS, dp_meter_step, &metering);
  return metering.verdict;
}

// Raises the drop precedence of an assured-forwarding DSCP (RFC 2597: 8 * class + 2 * precedence); other values stay as they are.
DP_INLINE __u8 dp_remark(__u8 dscp, __u32 by) {
  const __u8 class_of = dscp >> 3, precedence = (dscp >> 1) & 3;
  if (class_of < 1 || class_of > 4 || precedence == 0 || (dscp & 1) != 0) return dscp;
  const __u32 raised = precedence + by > 3 ? 3 : precedence + by;
  return (__u8)(class_of << 3 | raised << 1);
}
