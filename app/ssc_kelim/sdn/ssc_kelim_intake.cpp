#include "ssc_kelim/sdn/ssc_kelim_intake.h"

#include <algorithm>
#include <cstring>
#include <span>
#include <utility>

#include "kelim/common/kelim_debug.h"
#include "southbound.h"
#include "southbound_view.h"
#include "ssc_kelim/sdn/handler_run.h"
#include "ssc_kelim/sdn/intake_run.h"
#include "ssc_kelim/sdn/ssc_kelim_data_sync.h"
#include "ssc_kelim/sdn/ssc_kelim_msg_to_ssd.h"
#include "ssc_kelim/sdn/ssc_kelim_replies.h"
#include "ssc_kelim/sdn/ssc_kelim_requests.h"
#include "ssc_kelim/sdn/ssc_sdn_main_list.h"

// Main list, intakes and initialisation log under one source path.
#undef SDN_LOG_SOURCE
#define SDN_LOG_SOURCE "app/ssc_kelim/sdn/ssc_kelim_init.cpp"

namespace {

using intake_run::Copy;
using intake_run::counters_of;
using intake_run::Intake;
using intake_run::needs_msg;
using intake_run::Request;
using intake_run::take_in;

// ---- parts of the rows

std::span<const std::byte> bytes(const Request &request) {
  return {static_cast<const std::byte *>(request.msg), request.msg ? request.len : 0};
}

std::uint16_t own_length(const Request &request) {
  return southbound::read<std::uint16_t>(bytes(request), southbound::kLen);
}

// True if the message is long enough for the fields that intake and handler read.
bool has(const Request &request, std::size_t fields_end) {
  return request.len >= fields_end;
}

// True if, in addition, the message's own length agrees with the length given.
bool fits(const Request &request, std::size_t fields_end) {
  return has(request, fields_end) && own_length(request) == request.len;
}

constexpr std::size_t kFlowFieldsEnd = southbound::kFlowOxm;
constexpr std::size_t kMeterFieldsEnd = southbound::kMeterBands;

// A job of two blocks: the message's length and a copy of it.
template <typename Job>
constexpr Copy kJobCopy = {
    .make = [](const Request &request) -> void * {
      auto *job = static_cast<Job *>(ssc_sdn_malloc(sizeof(Job), request.intake.name, __LINE__));
      if (!job) return nullptr;
      *job = {request.len, ssc_sdn_malloc(request.len, request.intake.name, __LINE__)};
      if (!job->msg) {
        ssc_sdn_free(job);
        return nullptr;
      }
      std::memcpy(job->msg, request.msg, request.len);
      return job;
    },
    .release =
        [](void *data) {
          ssc_sdn_free(static_cast<Job *>(data)->msg);
          ssc_sdn_free(data);
        },
};

// The message itself, zero-filled up to the length that its handler always reads.
template <std::size_t AtLeast>
constexpr Copy kPlainCopy = {
    .make =
        [](const Request &request) {
          return ssc_sdn_malloc(std::max<std::size_t>(request.len, AtLeast), request.intake.name, __LINE__);
        },
    .fill =
        [](const Request &request, void *data) {
          std::memcpy(data, request.msg, request.len);
          if (request.len < AtLeast) std::memset(static_cast<std::byte *>(data) + request.len, 0, AtLeast - request.len);
        },
};

std::uint16_t type_of(const Request &request) {
  return southbound::read<std::uint16_t>(bytes(request), southbound::kType);
}

// One byte: 1 packet start, 0 packet end.
constexpr Copy kPacketSignalCopy = {
    .make = [](const Request &request) { return ssc_sdn_malloc(1, request.intake.name, __LINE__); },
    .fill = [](const Request &request,
               void *data) { *static_cast<std::uint8_t *>(data) = type_of(request) == southbound::kPktStart; },
    .no_memory = "malloc fail.",
};

void log_from_pi(const Request &request) {
  SDN_VER_AS(request.intake.name, "FROM PI");
}

void log_enter(const Request &request) {
  SDN_VER_AS(request.intake.name, "enter, vsd_id: %d, msg: %p, len :%d", static_cast<int>(request.vsd_id), request.msg,
             static_cast<int>(request.len));
}

void log_request(const Request &request) {
  SDN_VER_AS(request.intake.name, "vsd_id: %d, msg: %p, len: %d", static_cast<int>(request.vsd_id), request.msg,
             static_cast<int>(request.len));
}

std::uint64_t flow_index(const Request &request) {
  return southbound::read<std::uint64_t>(bytes(request), southbound::kFlowIndex);
}

void dump_match(const Request &request) {
  if (!kelim::kVer.enabled()) return;
  const auto match = bytes(request).subspan(southbound::kFlowMatchType);
  const std::size_t wanted = southbound::read<std::uint16_t>(bytes(request), southbound::kFlowMatchLen) + std::size_t{4};
  ssc_sdn_dbg_msg(match.data(), static_cast<std::int64_t>(std::min(wanted, match.size())));
}

// ---- the rows

constexpr Intake kAddFlow = {
    .name = "ssc_sdn_add_flow_msg",
    .handler = ssc_sdn_add_flow_handler,
    .counters = counters_of(SDN_OPT_FLOW_ADD),
    .timing = SDN_TIME_ADD_FLOW,
    .arrived = log_from_pi,
    .check = [](const Request &request) -> std::int32_t {
      if (const std::int32_t code = needs_msg(request); code != 0 || fits(request, kFlowFieldsEnd)) return code;
      SDN_ERROR_AS(request.intake.name, "invalid flow length! (para_len = %d, flow header length = %d)",
                   static_cast<int>(request.len), own_length(request));
      return QX_INVALID;
    },
    .accepted =
        [](const Request &request) {
          SDN_DS_AS(request.intake.name, "add flow:%lu.", flow_index(request));
          SDN_VER_AS(request.intake.name, "[sdn_flow_oprate]: add flow index: %lu).", flow_index(request));
          SDN_VER_AS(request.intake.name, "[ADD] msg: ");
          dump_match(request);
          log_enter(request);
        },
    .copy = &kJobCopy<ssc_sdn_flow_job>,
    .failed = [](const Request &request,
                 std::int32_t code) { sdn_send_flow_ret_val_2_proxy(request.vsd_id, flow_index(request), code); },
    .hand_over_fault = &kelim::kError,
    .done = "leave",
};

// Deliberate: a delete is never answered, whatever its outcome.
constexpr Intake kDelFlow = {
    .name = "ssc_sdn_del_flow_msg",
    .handler = ssc_sdn_del_flow_handler,
    .counters = counters_of(SDN_OPT_FLOW_DEL),
    .timing = SDN_TIME_DEL_FLOW,
    .arrived = log_from_pi,
    .check = [](const Request &request) -> std::int32_t {
      if (const std::int32_t code = needs_msg(request); code != 0 || fits(request, kFlowFieldsEnd)) return code;
      SDN_ERROR_AS(request.intake.name, "invalid flow length!(para_len = %d, flow header length = %d)",
                   static_cast<int>(request.len), own_length(request));
      return QX_INVALID;
    },
    .accepted =
        [](const Request &request) {
          SDN_VER_AS(request.intake.name, "[sdn_flow_oprate]:del flow index: %lu).", flow_index(request));
          SDN_VER_AS(request.intake.name, "[DEL] msg: ");
          dump_match(request);
          log_enter(request);
        },
    .copy = &kJobCopy<ssc_sdn_flow_job>,
    .done = "leave",
};

std::int32_t check_meter(const Request &request) {
  if (const std::int32_t code = needs_msg(request); code != 0 || fits(request, kMeterFieldsEnd)) return code;
  SDN_ERROR_AS(request.intake.name, "invalid meter length! (para_len = %d, meter header length = %d)",
               static_cast<int>(request.len), own_length(request));
  return QX_INVALID;
}

void reply_meter(const Request &request, std::int32_t code) {
  sdn_send_meter_ret_val_2_proxy(request.vsd_id, southbound::read<std::uint32_t>(bytes(request), southbound::kMeterId), code);
}

// Deliberate: failed adds have no separate counter; the replies to them are counted, and only a missing message gets none.
constexpr Intake kAddMeter = {
    .name = "ssc_sdn_add_meter_msg",
    .handler = ssc_sdn_add_meter_handler,
    .counters = {.received = SDN_OPT_METER_ADD + SDN_OPT_RECEIVED},
    .timing = SDN_TIME_ADD_METER,
    .arrived = log_from_pi,
    .check =
        [](const Request &request) {
          const std::int32_t code = check_meter(request);
          if (code != 0 && request.msg) reply_meter(request, code);
          return code;
        },
    .accepted =
        [](const Request &request) {
          SDN_VER_AS(request.intake.name, "[ADD] msg: ");
          log_enter(request);
        },
    .copy = &kJobCopy<ssc_sdn_meter_job>,
    .failed = reply_meter,
    .hand_over_fault = &kelim::kError,
    .done = "leave",
};

constexpr Intake kDelMeter = {
    .name = "ssc_sdn_del_meter_msg",
    .handler = ssc_sdn_del_meter_handler,
    .counters = counters_of(SDN_OPT_METER_DEL),
    .timing = SDN_TIME_DEL_METER,
    .arrived = log_from_pi,
    .check = check_meter,
    .accepted =
        [](const Request &request) {
          SDN_VER_AS(request.intake.name, "[DEL] msg: ");
          log_enter(request);
        },
    .copy = &kJobCopy<ssc_sdn_meter_job>,
    .done = "leave",
};

// Open and close messages differ in their counters only.
constexpr Intake connection_intake(const char *name, libss_pthrd_handler handler, sdn_opt_group group, sdn_time_slot timing) {
  return {
      .name = name,
      .handler = handler,
      .counters = counters_of(group),
      .timing = timing,
      .arrived = log_from_pi,
      .accepted = log_request,
      .copy = &kPlainCopy<southbound::kHeaderLen>,
      .done = "leave",
  };
}
constexpr Intake kEnable = connection_intake("ssc_sdn_enable_msg", ssc_sdn_enable_msg_handler, SDN_OPT_ENABLE, SDN_TIME_ENABLE);
constexpr Intake kDisable =
    connection_intake("ssc_sdn_disable_msg", ssc_sdn_disable_msg_handler, SDN_OPT_DISABLE, SDN_TIME_DISABLE);

// Refused barriers are traced under the barrier switch only.
constexpr Intake kBarrier = {
    .name = "ssc_sdn_barrier_msg",
    .handler = ssc_sdn_add_barrier_handler,
    .counters = counters_of(SDN_OPT_BARRIER),
    .copy = &kPlainCopy<southbound::kBarrierLen>,
    .fault = &kelim::kBarrier,
    .hand_over_fault = &kelim::kBarrier,
};

constexpr Intake kDelAllFlow = {
    .name = "ssc_sdn_del_all_flow",
    .handler = ssc_sdn_del_all_flow_handler,
    .counters = counters_of(SDN_OPT_DEL_ALL_FLOW),
    .timing = SDN_TIME_DEL_ALL_FLOW,
    .arrived = log_from_pi,
};

constexpr Intake kDelAll = {
    .name = "ssc_sdn_del_all_msg",
    .handler = ssc_sdn_del_all_handler,
    .counters = counters_of(SDN_OPT_DEL_ALL),
    .arrived =
        [](const Request &request) {
          log_from_pi(request);
          SDN_DS_AS(request.intake.name, "sdn del_all_msg vsd:%d.", static_cast<int>(request.vsd_id));
        },
    .check = nullptr,
};

constexpr Intake kDsStart = {
    .name = "ssc_sdn_ds_recv_start_sig",
    .handler = ssc_sdn_ds_recv_start_handler,
    .counters = counters_of(SDN_OPT_DS_START),
    .timing = SDN_TIME_DS_START,
    .arrived =
        [](const Request &request) { SDN_VER_AS(request.intake.name, "FROM PI, length is %d", static_cast<int>(request.len)); },
    .accepted = [](const Request &request) { SDN_VER_AS(request.intake.name, "Data is %p", request.msg); },
    .done = "LEAVE",
};

constexpr Intake kDsEnd = {
    .name = "ssc_sdn_ds_recv_end_sig",
    .handler = ssc_sdn_ds_recv_end_handler,
    .counters = counters_of(SDN_OPT_DS_END),
    .timing = SDN_TIME_DS_END,
    .arrived = log_from_pi,
    .done = "LEAVE",
};

constexpr Intake kStatistic = {
    .name = "ssc_sdn_statistic_msg",
    .handler = ssc_sdn_get_statistic_val_handler,
    .counters = counters_of(SDN_OPT_STATISTIC),
    .timing = SDN_TIME_STATISTIC,
    .check = [](const Request &request) -> std::int32_t {
      if (const std::int32_t code = needs_msg(request); code != 0 || fits(request, southbound::kStatRequestLen)) return code;
      SDN_ERROR_AS(request.intake.name, "invalid sdn statistic msg  length! (para_len = %d, statistic msg header length = %d)",
                   static_cast<int>(request.len), own_length(request));
      return QX_INVALID;
    },
    .copy = &kPlainCopy<southbound::kStatRequestLen>,
    .hand_over_fault = &kelim::kError,
};

constexpr Intake kFlowCountConfig = {
    .name = "ssc_sdn_flowcnt_cfg_sig",
    .handler = ssc_sdn_flowcnt_cfg_handler,
    // A message of another type is refused by the handler.
    .check = [](const Request &request) -> std::int32_t {
      if (const std::int32_t code = needs_msg(request); code != 0) return code;
      if (type_of(request) != southbound::kFlowCountConfig || has(request, southbound::kCountLen)) return 0;
      SDN_ERROR_AS(request.intake.name, "invalid flow count config length! (para_len = %d, shortest = %d)",
                   static_cast<int>(request.len), static_cast<int>(southbound::kCountLen));
      return QX_INVALID;
    },
    .copy = &kPlainCopy<southbound::kHeaderLen>,
    .hand_over_fault = &kelim::kError,
};

std::int32_t check_onc(const Request &request) {
  if (const std::int32_t code = needs_msg(request); code != 0 || has(request, southbound::kOncLen)) return code;
  SDN_ERROR_AS(request.intake.name, "invalid onc length! (para_len = %d, shortest = %d)", static_cast<int>(request.len),
               static_cast<int>(southbound::kOncLen));
  return QX_INVALID;
}

constexpr Intake onc_intake(const char *name, libss_pthrd_handler handler, sdn_opt_group group) {
  return {
      .name = name,
      .handler = handler,
      .counters = counters_of(group),
      .arrived = log_from_pi,
      .check = check_onc,
      .accepted = log_request,
      .copy = &kPlainCopy<southbound::kOncLen>,
      .done = "leave",
  };
}
constexpr Intake kAddOnc = onc_intake("ssc_sdn_add_onc_msg", ssc_sdn_add_onc_handler, SDN_OPT_ONC_ADD);
constexpr Intake kDelOnc = onc_intake("ssc_sdn_del_onc_msg", ssc_sdn_del_onc_handler, SDN_OPT_ONC_DEL);

// Deliberate: a signal that cannot be queued counts as a failed delete-all; operators look for it there.
constexpr Intake kPacketSignal = {
    .name = "ssc_sdn_pkt_start_msg",
    .handler = ssc_sdn_pkt_start_handler,
    .check = [](const Request &request) -> std::int32_t {
      const std::uint16_t type = type_of(request);
      if (type == southbound::kPktStart || type == southbound::kPktEnd) return 0;
      SDN_ERROR_AS(request.intake.name, "ss_head type is %u then will return fail\n", type);
      return QX_NOT_POSTED;
    },
    .copy = &kPacketSignalCopy,
    .failed =
        [](const Request &, std::int32_t code) {
          if (code == QX_NOT_POSTED) ++sdn_opt_cnt[SDN_OPT_DEL_ALL + SDN_OPT_FAILED];
        },
    .hand_over_fault = &kelim::kError,
};

}  // namespace

std::int32_t ssc_sdn_add_flow_msg(std::uint32_t vsd_id, const void *msg, std::uint32_t len) {
  return take_in(kAddFlow, vsd_id, msg, len);
}
std::int32_t ssc_sdn_del_flow_msg(std::uint32_t vsd_id, const void *msg, std::uint32_t len) {
  return take_in(kDelFlow, vsd_id, msg, len);
}
std::int32_t ssc_sdn_add_meter_msg(std::uint32_t vsd_id, const void *msg, std::uint32_t len) {
  return take_in(kAddMeter, vsd_id, msg, len);
}
std::int32_t ssc_sdn_del_meter_msg(std::uint32_t vsd_id, const void *msg, std::uint32_t len) {
  return take_in(kDelMeter, vsd_id, msg, len);
}
std::int32_t ssc_sdn_enable_msg(std::int32_t vsd_id, const void *msg, std::uint32_t len) {
  return take_in(kEnable, static_cast<std::uint32_t>(vsd_id), msg, len);
}
std::int32_t ssc_sdn_disable_msg(std::int32_t vsd_id, const void *msg, std::uint32_t len) {
  return take_in(kDisable, static_cast<std::uint32_t>(vsd_id), msg, len);
}
std::int32_t ssc_sdn_barrier_msg(std::uint32_t vsd_id, const void *msg, std::uint32_t len) {
  return take_in(kBarrier, vsd_id, msg, len);
}
std::int32_t ssc_sdn_del_all_flow(std::uint32_t vsd_id, const void *msg, std::uint32_t len) {
  return take_in(kDelAllFlow, vsd_id, msg, len);
}
std::int32_t ssc_sdn_del_all_msg(std::uint32_t vsd_id, const void *msg, std::uint32_t len) {
  return take_in(kDelAll, vsd_id, msg, len);
}
std::int32_t ssc_sdn_ds_recv_start_sig(std::uint32_t vsd_id, const void *msg, std::uint32_t len) {
  return take_in(kDsStart, vsd_id, msg, len);
}
std::int32_t ssc_sdn_ds_recv_end_sig(std::uint32_t vsd_id, const void *msg, std::uint32_t len) {
  return take_in(kDsEnd, vsd_id, msg, len);
}
std::int32_t ssc_sdn_statistic_msg(std::uint32_t vsd_id, const void *msg, std::uint32_t len) {
  return take_in(kStatistic, vsd_id, msg, len);
}
std::int32_t ssc_sdn_flowcnt_cfg_sig(std::uint32_t vsd_id, const void *msg, std::uint32_t len) {
  return take_in(kFlowCountConfig, vsd_id, msg, len);
}
std::int32_t ssc_sdn_add_onc_msg(std::uint32_t vsd_id, const void *msg, std::uint32_t len) {
  return take_in(kAddOnc, vsd_id, msg, len);
}
std::int32_t ssc_sdn_del_onc_msg(std::uint32_t vsd_id, const void *msg, std::uint32_t len) {
  return take_in(kDelOnc, vsd_id, msg, len);
}
std::int32_t ssc_sdn_pkt_start_msg(std::uint32_t vsd_id, const void *msg, std::uint32_t len) {
  return take_in(kPacketSignal, vsd_id, msg, len);
}

void ssc_kelim_intake_reset_for_tests() {
  // The list would free a waiting job but not the job's message.
  libss_pthrd_tranv_node(ssc_sdn_mst, [](libss_pthrd_hdl *hdl) {
    for (const Intake *intake : {&kAddFlow, &kDelFlow, &kAddMeter, &kDelMeter})
      if (hdl->handler == intake->handler) intake->copy->release(std::exchange(hdl->data, nullptr));
  });
  libss_pthrd_destroy_mst(ssc_sdn_mst);
  ssc_sdn_main_pthrd_handler();
}
