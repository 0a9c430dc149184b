// kelimctl trace: shows what happened to a flow or a request, step by step.
#include <fmt/format.h>

#include <ctime>

#include "kelimctl/views.h"

namespace kelimctl {
namespace {

std::string clock_text(std::int64_t at_us) {
  const auto seconds = static_cast<std::time_t>(at_us / 1'000'000);
  char text[16];
  std::strftime(text, sizeof text, "%H:%M:%S", std::localtime(&seconds));
  return fmt::format("{}.{:06}", text, at_us % 1'000'000);
}

// "flow 3: FLOW_MOD add of 127.0.0.1, xid 7, cookie 0x17, at 04:10:15.123456"
std::string title(const Json &story, const std::string &asked, std::int64_t begin_us) {
  const std::string kind = cell(story, "kind");
  std::string text = (kind == "index" ? "flow" : kind) + " " + asked;
  if (const Json request = story.value("request", Json()); !request.is_null()) {
    text += ": " + cell(request, "name") + " of " + cell(request, "controller");
    for (const char *number : {"xid", "cookie"})
      if (kind != number && !request.value(number, Json()).is_null())
        text += fmt::format(", {} {}", number, cell(request, number));
  }
  return text + ", at " + clock_text(begin_us) + "\n";
}

std::string reach_text(const Json &data) {
  const Json since = data.value("since_us", Json());
  return "the trace, which goes back to " +
         (since.is_null() ? "the start of the process" : clock_text(since.get<std::int64_t>()) + "; what is older is forgotten");
}

// Times since the first event, and since the one before.
Json rows_of(const Json &story, std::int64_t begin_us) {
  Json rows = Json::array();
  std::int64_t before = begin_us;
  for (const Json &event : story.value("events", Json::array())) {
    const std::int64_t at = event.value("at_us", begin_us);
    rows.push_back({{"at", at - begin_us}, {"step", at - before}, {"text", event.value("text", "")}});
    before = at;
  }
  return rows;
}

std::string story_text(const Json &story, const Json &data, const Look &look) {
  const Json events = story.value("events", Json::array());
  const std::int64_t begin_us = events.empty() ? 0 : events.front().value("at_us", std::int64_t{0});
  std::string text = title(story, data.value("asked", ""), begin_us);
  text += list_text(rows_of(story, begin_us),
                    {{{"AT us", true}, "at"}, {{"STEP us", true}, "step"}, {{"EVENT", false, true}, "text"}}, "", look);
  if (!story.value("whole", true)) text += "It began before " + reach_text(data) + ".\n";
  if (const std::size_t total = story.value("total", events.size()); total > events.size())
    text += fmt::format("{} of {} events shown; --limit gives more\n", events.size(), total);
  return text;
}

}  // namespace

Json trace_data(Link &link, const ViewOptions &options) {
  Json args = {{"limit", options.limit}};
  std::string asked;
  for (const auto &[name, value] : {std::pair("number", options.number), std::pair("index", options.index),
                                    std::pair("cookie", options.cookie), std::pair("xid", options.xid)}) {
    if (value.empty()) continue;
    args[name] = value;
    asked = value;
  }
  Json data = link.view("trace", args);
  data["asked"] = asked;
  return data;
}

std::string trace_text(const Json &data, const Look &look) {
  const Json stories = data.value("stories", Json::array());
  if (stories.empty())
    return fmt::format("Nothing about {} is in {}. The newest flow has index {}.\n", data.value("asked", ""), reach_text(data),
                       cell(data, "newest_index"));
  std::string text;
  for (const Json &story : stories) text += (text.empty() ? "" : "\n") + story_text(story, data, look);
  if (const std::size_t total = data.value("total", stories.size()); total > stories.size())
    text += fmt::format("\nThe newest {} of {} shown.\n", stories.size(), total);
  return text;
}

int trace_status(const Json &data) {
  return data.value("stories", Json::array()).empty() ? kFailed : kDone;
}

}  // namespace kelimctl
