#include "host/of_ss/trace_view.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <nlohmann/json.hpp>
#include <set>
#include <unordered_map>

#include "host/base/clock.h"
#include "host/config/text.h"
#include "host/control/control.h"
#include "host/of_ss/agent/agent.h"
#include "host/of_ss/desired/results.h"
#include "host/of_ss/loop_trace.h"
#include "host/of_ss/wire/message_names.h"
#include "s_policy_kelim.pb-c.h"

namespace host::of_ss {
namespace {

using nlohmann::json;
using Event = TraceEvent;
using Names = std::map<std::uint32_t, std::string>;

constexpr std::size_t kStoriesShown = 20;  // the newest of each kind

// ---- words

std::string error_text(const Event &event, const Names &) {
  const auto *found = std::ranges::find(err::kAll, event.detail, [](const Error *error) { return error_number(*error); });
  return found == std::end(err::kAll) ? fmt::format("{}/{}", event.detail >> 16, event.detail & 0xffff) : (*found)->name;
}

std::string status_text(const Event &event, const Names &) {
  const auto *value = protobuf_c_enum_descriptor_get_value(&s_policy_kelim__status_e__descriptor, static_cast<int>(event.detail));
  const std::string name = value ? value->name : std::to_string(event.detail);
  return name.starts_with("STATUS_") ? name.substr(7) : name;
}

std::string controller_text(const Event &event, const Names &controllers) {
  const auto known = controllers.find(event.detail);
  return known == controllers.end() ? "a controller" : known->second;
}

std::string reason_text(const Event &event, const Names &) {
  return event.detail == kIdleTimeout   ? "idle timeout"
         : event.detail == kHardTimeout ? "hard timeout"
         : event.detail == kGroupDelete ? "its group was deleted"
                                        : "as asked";
}

std::string result_text(const Event &event, const Names &) {
  return (event.detail & ~kUndecided) == southbound::kResultResource ? "out of resources" : "failed";
}

std::string number_text(const Event &event, const Names &) {
  return std::to_string(static_cast<std::int32_t>(event.detail));
}

struct StepRow {
  const char *name, *text;
  std::string (*detail)(const Event &event, const Names &controllers) = number_text;
};

// In the order of Step.
constexpr StepRow kSteps[] = {
    {"received", "{request} received from {detail}", controller_text},
    {"from_bundle", "{request} of a bundle carried out"},
    {"refused", "refused: {detail}", error_text},
    {"carried_out", "carried out at once"},
    {"error_sent", "error sent to the controller: {detail}", error_text},
    {"barrier_handed", "handed to the daemon, behind undecided requests"},
    {"barrier_answered", "BARRIER_REPLY sent to the controller"},
    {"unchanged", "flow {flow} exists already and stays"},
    {"handed_over", "flow {flow} handed to the daemon"},
    {"made_room", "flow {flow} withdrawn from the full table to make room for its new form"},
    {"replaced", "flow {flow} withdrawn: its new form is installed"},
    {"removed", "flow {flow} deleted ({detail}), handed to the daemon", reason_text},
    {"result", "the daemon reports flow {flow}: {detail}", result_text},
    {"installed", "flow {flow} is decided: installed"},
    {"failed", "flow {flow} is decided: {detail}", error_text},
    {"given_up", "flow {flow} given up: no answer in time"},
    {"tried_again", "flow {flow} failed after it had been installed: tried again under a new index"},
    {"written", "record of flow {flow} written to database {detail}"},
    {"not_written", "record of flow {flow} refused by the database ({detail})"},
    {"erased", "record of flow {flow} deleted from database {detail}"},
    {"answered", "programming service on flow {flow}: {detail}", status_text},
    {"answer_erased", "programming service on flow {flow}: answer withdrawn"},
};
static_assert(std::size(kSteps) == static_cast<std::size_t>(Step::answer_erased) + 1);

const StepRow &row_of(const Event &event) {
  return kSteps[static_cast<std::size_t>(event.step)];
}

bool is_begin(const Event &event) {
  return event.step == Step::received || event.step == Step::from_bundle;
}

bool is_of_flow(const Event &event) {
  return event.step >= kFirstOfFlow;
}

std::string request_text(const Event &event) {
  const std::string command = command_name(event.type, event.command);
  return message_name(event.type) + (command.empty() ? "" : " " + command);
}

std::string text_of(const Event &event, const Names &controllers) {
  const StepRow &row = row_of(event);
  return fmt::format(fmt::runtime(row.text), fmt::arg("request", request_text(event)), fmt::arg("flow", event.subject),
                     fmt::arg("detail", row.detail(event, controllers)));
}

// ---- order

// The loop reads its clock less often than events occur, so consequences of a hand-over are moved behind it.
void put_behind_hand_over(std::vector<Event> &records, const std::vector<Event> &requests) {
  std::unordered_map<std::uint64_t, std::int64_t> added, withdrawn;
  for (const Event &event : requests) {
    if (event.step == Step::handed_over) added[event.subject] = event.at_ns;
    if (event.step == Step::made_room || event.step == Step::replaced || event.step == Step::removed)
      withdrawn[event.subject] = event.at_ns;
  }
  for (Event &event : records) {
    const auto &handed = event.step == Step::erased || event.step == Step::answer_erased ? withdrawn : added;
    if (const auto at = handed.find(event.subject); at != handed.end()) event.at_ns = std::max(event.at_ns, at->second);
  }
}

std::vector<Event> in_order(TraceSnapshot &snapshot) {
  put_behind_hand_over(snapshot.records, snapshot.requests);
  std::vector<Event> all = std::move(snapshot.requests);
  all.insert(all.end(), snapshot.records.begin(), snapshot.records.end());
  std::ranges::stable_sort(all, {}, &Event::at_ns);
  return all;
}

// The context for the words and times of a story.
struct StoryContext {
  const Names &controllers;
  std::size_t limit;
  // The time since 1970 at which the host clock was 0.
  std::chrono::nanoseconds clock_began = std::chrono::system_clock::now().time_since_epoch() - clock::now();

  std::int64_t wall_us(std::int64_t at_ns) const { return (clock_began.count() + at_ns) / 1000; }
};

// ---- stories

// The history of one flow, or of one request and the flows that it touched, from then on.
struct Story {
  std::optional<std::uint64_t> flow;
  std::set<std::uint32_t> requests = {};
  std::vector<const Event *> events = {};
  const Event *begin = nullptr;
  bool whole = false;
};

void tell(Story &story, const std::vector<Event> &all) {
  std::set<std::uint64_t> touched;
  if (story.flow) {
    touched.insert(*story.flow);
    for (const Event &event : all)
      if (is_of_flow(event) && event.subject == *story.flow && event.request) story.requests.insert(event.request);
  }
  for (const Event &event : all) {
    const bool asked = event.request && story.requests.contains(event.request);
    if (asked && is_of_flow(event) && !story.flow) touched.insert(event.subject);
    if (is_of_flow(event) ? !touched.contains(event.subject) : !asked) continue;
    story.events.push_back(&event);
    story.whole |= story.flow ? event.step == Step::handed_over : is_begin(event);
    if (is_begin(event) && !story.begin) story.begin = &event;
  }
}

std::vector<Story> stories_of_flow(const std::vector<Event> &all, std::uint64_t index) {
  Story story{.flow = index};
  tell(story, all);
  return story.events.empty() ? std::vector<Story>{} : std::vector<Story>{std::move(story)};
}

// The newest requests that match.
template <typename Fits>
std::vector<Story> stories_of_requests(const std::vector<Event> &all, Fits &&fits, std::size_t &total) {
  std::set<std::uint32_t> seen;
  std::vector<Story> stories;
  for (auto event = all.rbegin(); event != all.rend(); ++event) {
    if (!event->request || !fits(*event) || !seen.insert(event->request).second) continue;
    ++total;
    if (stories.size() < kStoriesShown) stories.push_back({.flow = {}, .requests = {event->request}});
  }
  std::ranges::reverse(stories);
  for (Story &story : stories) tell(story, all);
  return stories;
}

bool has_xid(const Event &event) {
  return is_begin(event) || event.step == Step::error_sent || event.step == Step::barrier_answered;
}

json request_json(const Event *begin, const Names &controllers) {
  if (!begin) return nullptr;
  json shown = {{"name", request_text(*begin)},
                {"xid", begin->xid},
                {"controller", controller_text(*begin, controllers)},
                {"cookie", nullptr}};
  if (begin->type == kFlowModMsg) shown["cookie"] = fmt::format("0x{:x}", begin->subject);
  return shown;
}

json story_json(const Story &story, const char *kind, const StoryContext &context) {
  json events = json::array();
  for (const Event *event : story.events) {
    if (events.size() == context.limit) break;
    events.push_back({{"at_us", context.wall_us(event->at_ns)},
                      {"step", row_of(*event).name},
                      {"text", text_of(*event, context.controllers)}});
    if (is_of_flow(*event)) events.back()["flow"] = event->subject;
  }
  return {{"kind", kind},
          {"request", request_json(story.begin, context.controllers)},
          {"whole", story.whole},
          {"events", std::move(events)},
          {"total", story.events.size()}};
}

std::uint64_t number_in(const json &value, const std::string &name) {
  const auto number = value.is_string() ? any_number(value.get<std::string>()) : std::nullopt;
  if (!number) throw control::Refusal(name + " takes a number, decimal or hexadecimal behind 0x");
  return *number;
}

}  // namespace

TraceQuestion trace_question(const json &args) {
  TraceQuestion question{.index = {}, .cookie = {}, .xid = {}, .limit = args.value("limit", std::size_t{1000})};
  const std::pair<const char *, std::vector<std::optional<std::uint64_t> *>> names[] = {
      {"number", {&question.index, &question.cookie, &question.xid}},
      {"index", {&question.index}},
      {"cookie", {&question.cookie}},
      {"xid", {&question.xid}}};
  int given = 0;
  for (const auto &[name, asked] : names) {
    if (!args.contains(name)) continue;
    for (auto *one : asked) *one = number_in(args.at(name), name);
    ++given;
  }
  if (given != 1) throw control::Refusal("trace takes one number: of a flow's index, a cookie or a transaction id (xid)");
  return question;
}

TraceSnapshot trace_snapshot(const Agent &agent) {
  const EventRing &requests = agent.of_switch().trace.ring(), &records = loop_trace::ring();
  TraceSnapshot snapshot{.requests = requests.events(),
                         .records = records.events(),
                         .newest_index = agent.flows().table().newest_index(),
                         .controllers = {}};
  for (const Event &event : snapshot.requests)
    if (is_begin(event) && event.detail)
      snapshot.controllers.try_emplace(event.detail,
                                       agent.of_switch().controllers.address(static_cast<std::uint16_t>(event.detail)));
  if (requests.has_forgotten()) snapshot.since_ns = snapshot.requests.front().at_ns;
  if (records.has_forgotten()) snapshot.since_ns = std::max(snapshot.since_ns, snapshot.records.front().at_ns);
  return snapshot;
}

json trace_view(const TraceQuestion &question, TraceSnapshot &snapshot) {
  const std::vector<Event> all = in_order(snapshot);
  const StoryContext context{snapshot.controllers, question.limit};
  json stories = json::array();
  std::size_t total = 0;
  const auto add = [&](const char *kind, const std::vector<Story> &found) {
    for (const Story &story : found) stories.push_back(story_json(story, kind, context));
  };
  if (question.index) {
    const auto found = stories_of_flow(all, *question.index);
    total += found.size();
    add("index", found);
  }
  const auto has_cookie = [&](const Event &e) { return is_begin(e) && e.type == kFlowModMsg && e.subject == question.cookie; };
  if (question.cookie) add("cookie", stories_of_requests(all, has_cookie, total));
  const auto has_this_xid = [&](const Event &e) { return has_xid(e) && e.xid == question.xid; };
  if (question.xid) add("xid", stories_of_requests(all, has_this_xid, total));
  return {{"stories", std::move(stories)},
          {"total", total},
          {"newest_index", snapshot.newest_index},
          {"since_us", snapshot.since_ns ? json(context.wall_us(snapshot.since_ns)) : json()}};
}

}  // namespace host::of_ss
