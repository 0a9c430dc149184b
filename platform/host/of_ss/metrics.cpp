#include "host/of_ss/metrics.h"

#include <map>
#include <string>

#include "host/metrics/metrics.h"
#include "host/of_ss/agent/agent.h"
#include "host/of_ss/stored/audit.h"

namespace host::of_ss {
namespace {

using metrics::Kind;
using metrics::Page;

constexpr metrics::Row<FlowCounters> kFlowRows[] = {
    {{"kelim_flows_added_total", Kind::counter, "Adds handed over for installation."}, &FlowCounters::added},
    {{"kelim_flows_unchanged_total", Kind::counter, "Adds of a flow that already was as requested."}, &FlowCounters::unchanged},
    {{"kelim_flows_installed_total", Kind::counter, "Flows, and changed forms of flows, decided as installed."},
     &FlowCounters::decided},
    {{"kelim_flows_removed_total", Kind::counter, "Flows removed by a delete or a timeout."}, &FlowCounters::removed},
    {{"kelim_flows_failed_total", Kind::counter, "Flows that failed after they had been accepted."}, &FlowCounters::failed},
    {{"kelim_flows_given_up_total", Kind::counter, "Of these, the ones without an answer in time."}, &FlowCounters::timed_out},
    {{"kelim_flows_retried_total", Kind::counter, "Installed flows that failed later and were handed over again."},
     &FlowCounters::retried},
    {{"kelim_flows_changed_in_place_total", Kind::counter, "Changes in a full table, where the old form was deleted first."},
     &FlowCounters::changed_in_place},
    {{"kelim_own_barriers_total", Kind::counter, "Barriers that the agent itself added behind its hand-overs."},
     &FlowCounters::own_barriers},
    {{"kelim_lost_barriers_total", Kind::counter, "Barriers whose answer never came."}, &FlowCounters::lost_barriers},
    {{"kelim_duplicate_results_total", Kind::counter, "Results for flows already answered."}, &FlowCounters::duplicate_results},
    {{"kelim_synchronisations_total", Kind::counter, "Synchronisations, in which everything is handed over again."},
     &FlowCounters::replays},
};

void write_flows(Page &page, const Flows &flows) {
  const FlowTable &table = flows.table();
  page.begin({"kelim_flows", Kind::gauge, "Requested flows, by state: sent and not decided yet, or installed."});
  page.sample(table.sent(), {{"state", "sent"}});
  page.sample(table.size() - table.sent(), {{"state", "installed"}});
  page.single({"kelim_flow_capacity", Kind::gauge, "Capacity of the flow table; 0 while it is not known."}, flows.capacity());
  page.single({"kelim_undecided", Kind::gauge, "Calls handed over and not yet answered."}, flows.in_flight().outstanding());
  metrics::write_rows(page, kFlowRows, flows.counters());
  page.begin({"kelim_flow_install_seconds", Kind::histogram, "Time from the hand-over of an add to its installation."});
  page.histogram(flows.install_times());
  page.begin({"kelim_barrier_seconds", Kind::histogram, "Time from a controller's barrier to its answer."});
  page.histogram(flows.barrier_times());
}

void write_errors(Page &page, const metrics::Family &family, const ErrorCounts &counts) {
  page.begin(family);
  for (const auto &[error, count] : counts) page.sample(count, {{"error", error->name}});
}

void write_controllers(Page &page, const Agent &agent) {
  page.begin({"kelim_controllers", Kind::gauge, "Connected controllers, by endpoint of the configuration."});
  std::map<std::string, std::uint64_t> connected;
  for (const std::string &endpoint : agent.endpoints().names()) connected[endpoint] = 0;
  for (const Connection *connection : agent.of_switch().controllers.all()) ++connected[connection->peer().endpoint];
  for (const auto &[endpoint, count] : connected) page.sample(count, {{"endpoint", endpoint}});
  const auto traffic = agent.of_switch().controllers.traffic();
  const auto write = [&page, &traffic](const metrics::Family &family, std::uint64_t Traffic::*count) {
    page.begin(family);
    for (const auto &[endpoint, counts] : traffic) page.sample(counts.*count, {{"endpoint", endpoint}});
  };
  write({"kelim_controller_received_messages_total", Kind::counter, "Messages from controllers, by endpoint."},
        &Traffic::received);
  write({"kelim_controller_sent_messages_total", Kind::counter, "Messages to controllers, by endpoint."}, &Traffic::sent);
  write({"kelim_controller_sent_errors_total", Kind::counter, "Of these, the errors."}, &Traffic::errors);
  page.single({"kelim_controllers_turned_away_total", Kind::counter, "Connections beyond the limit."},
              agent.of_switch().controllers.turned_away());
}

constexpr metrics::Row<PacketCounters> kPacketRows[] = {
    {{"kelim_packets_in_total", Kind::counter, "Packets from the data plane for controllers."}, &PacketCounters::in},
    {{"kelim_packets_in_unwanted_total", Kind::counter, "Of these, the ones that no controller wanted."},
     &PacketCounters::in_unwanted},
    {{"kelim_packets_in_sent_total", Kind::counter, "PACKET_IN messages to controllers."}, &PacketCounters::in_sent},
    {{"kelim_packets_in_dropped_total", Kind::counter, "PACKET_IN messages not sent to a controller that does not read."},
     &PacketCounters::in_dropped},
    {{"kelim_packets_out_total", Kind::counter, "Packets from controllers handed to the data plane."}, &PacketCounters::out},
    {{"kelim_packets_out_refused_total", Kind::counter, "Packets from controllers refused for lack of a data plane."},
     &PacketCounters::out_refused},
    {{"kelim_packets_out_dropped_total", Kind::counter, "Packets from controllers dropped because the data plane was backed up."},
     &PacketCounters::out_full},
};

void write_agent(Page &page, const Agent &agent) {
  write_flows(page, agent.flows());
  page.single({"kelim_meters", Kind::gauge, "Requested meters."}, agent.of_switch().meters.all().size());
  write_errors(page, {"kelim_refusals_total", Kind::counter, "Refused requests, by OpenFlow error."},
               agent.of_switch().refusals.counts());
  write_errors(
      page, {"kelim_failures_total", Kind::counter, "Flow requests that failed after they had been accepted, by OpenFlow error."},
      agent.failure_counts());
  write_controllers(page, agent);
  metrics::write_rows(page, kPacketRows, agent.of_switch().packets.counters());
}

void write_audit(Page &page, const Audit &audit) {
  page.single({"kelim_audit_differences", Kind::gauge, "Differences between the requested state and the database."},
              audit.differences().size());
  page.single({"kelim_audit_looks_total", Kind::counter, "Undisturbed comparisons of the two."}, audit.counts().looks);
  page.single({"kelim_audit_repairs_total", Kind::counter, "Repairs of differences."}, audit.counts().repairs);
}

}  // namespace

void register_metrics(Agent *(*agent)(), const Audit *(*audit)()) {
  metrics::add_source([agent, audit](Page &page) {
    Agent *running = agent();
    const bool answered = running && running->run([&page](Agent &a) { write_agent(page, a); });
    page.single({"kelim_openflow_up", Kind::gauge, "1 if the OpenFlow agent runs and answers."}, answered);
    if (const Audit *looking = audit()) write_audit(page, *looking);
  });
}

}  // namespace host::of_ss
