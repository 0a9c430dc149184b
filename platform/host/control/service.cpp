#include "host/control/control.h"

#include <grp.h>

#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>

#include "host/base/loop.h"
#include "host/config/config.h"
#include "host/control/client.h"
#include "host/control/commands.h"
#include "host/control/server.h"
#include "host/control/status.h"
#include "host/log/log.h"
#include "host/timing/timing.h"

namespace host::control {
namespace {

using nlohmann::json;
using Answer = nlohmann::ordered_json;  // keeps the order of fields, for readers

constexpr int kDeepest = 16;  // nesting levels of a request

std::map<std::string, View, std::less<>> g_views;
std::map<std::string, Feed, std::less<>> g_feeds;
std::map<std::string, std::function<void(const std::string &)>, std::less<>> g_settings;
std::unique_ptr<LineServer> g_server;

template <typename Map>
std::string names(const Map &map) {
  std::string text;
  for (const auto &[name, value] : map) text += (text.empty() ? "" : ", ") + std::string(name);
  return text;
}

// The one of `registered` that a request names.
template <typename Map>
const auto &named(const Map &registered, const char *kind, const std::string &name) {
  const auto found = registered.find(name);
  if (found == registered.end())
    throw Refusal(std::string("unknown ") + kind + " \"" + name + "\"; allowed: " + names(registered));
  return found->second;
}

// Output of handlers may hold any bytes: invalid UTF-8 is shown as U+FFFD.
std::string text_of(const Answer &value) {
  return value.dump(-1, ' ', false, Answer::error_handler_t::replace);
}

using Reply = LineServer::Reply;

Reply call_command_line(const json &request, const LineServer::Push &) {
  return {text_of(call_command(request)), nullptr};
}

Reply call_view(const json &request, const LineServer::Push &) {
  const View &view = named(g_views, "view", request.value("name", ""));
  return {text_of({{"status", 0}, {"data", view(request.value("args", json::object()))}}), nullptr};
}

Reply call_feed(const json &request, const LineServer::Push &push) {
  const Feed &feed = named(g_feeds, "feed", request.value("name", ""));
  const Push push_json = [push](const auto &line) { push([&] { return text_of(line()); }); };
  auto stream = feed(request.value("args", json::object()), push_json);
  return {text_of({{"status", 0}}), std::move(stream)};
}

Reply set(const json &request, const LineServer::Push &) {
  const std::string key = request.value("name", ""), value = request.value("value", "");
  const auto &change = named(g_settings, "setting", key);
  if (const std::string why = config_check(key, value); !why.empty()) throw Refusal(why);
  change(value);
  config_noted(key, value, "kelimctl");
  return {text_of({{"status", 0}}), nullptr};
}

Answer config_view() {
  Answer values = Answer::array();
  for (const auto &[key, value, source] : config_values()) values.push_back({{"key", key}, {"value", value}, {"from", source}});
  return {{"file", config().file}, {"keys", std::move(values)}};
}

template <typename Map>
json keys(const Map &map) {
  json keys = json::array();
  for (const auto &[key, value] : map) keys.push_back(key);
  return keys;
}

Reply list(const json &, const LineServer::Push &) {
  return {text_of({{"status", 0}, {"modules", list_commands()}, {"views", keys(g_views)}, {"feeds", keys(g_feeds)}}), nullptr};
}

struct Call {
  Reply (*answer)(const json &request, const LineServer::Push &push);
  bool changes_things = false;  // or may change them
};
const std::map<std::string, Call, std::less<>> kCalls = {
    {"cmd", {call_command_line, true}}, {"list", {list}}, {"set", {set, true}}, {"view", {call_view}}, {"watch", {call_feed}}};

Reply answer(const json &request, LineServer::Access access, const LineServer::Push &push) {
  if (!request.is_object()) throw Refusal("a request is one JSON object on a line, such as {\"call\":\"list\"}");
  const Call &call = named(kCalls, "call", request.value("call", ""));
  if (call.changes_things && access != LineServer::Access::owner)
    throw std::runtime_error("commands are for the process's user and root; members of control.group may ask for views");
  return call.answer(request, push);
}

std::string refuse(const std::string &why) {
  return text_of({{"status", 2}, {"error", why}});
}

std::string fail(const std::string &why) {
  return text_of({{"status", 1}, {"error", why}});
}

// Copying or showing a value uses stack in proportion to its depth.
json parse(const std::string &line) {
  const auto check = [](int depth, json::parse_event_t, const json &) {
    if (depth > kDeepest) throw Refusal("the request is nested deeper than " + std::to_string(kDeepest) + " levels");
    return true;
  };
  return json::parse(line, check, false);
}

Reply answer_line(const std::string &line, LineServer::Access access, const LineServer::Push &push) {
  try {
    return answer(parse(line), access, push);
  } catch (const Refusal &e) {
    return {refuse(e.what()), nullptr};
  } catch (const json::exception &e) {  // members of the wrong type
    return {refuse(e.what()), nullptr};
  } catch (const std::exception &e) {
    return {fail(e.what()), nullptr};
  }
}

std::optional<gid_t> group_of(const std::string &name) {
  const group *found = name.empty() ? nullptr : getgrnam(name.c_str());
  return found ? std::optional(found->gr_gid) : std::nullopt;
}

std::string missed(std::size_t lines) {
  return text_of({{"missed", lines}});
}

}  // namespace

void register_view(const std::string &name, View view) {
  if (loop_base()) g_views[name] = std::move(view);
}

void register_feed(const std::string &name, Feed feed) {
  if (loop_base()) g_feeds[name] = std::move(feed);
}

void register_setting(const std::string &key, std::function<void(const std::string &value)> set_it) {
  g_settings[key] = std::move(set_it);
}

std::string start(const Config &config, const std::string &runtime_name) {
  register_view("timings", [](const json &) { return timing::view(); });
  register_view("config", [](const json &) { return config_view(); });
  start_status();
  register_setting("log.level", [](const std::string &value) {
    log::set_level(value);
    log::info("the log level is {}, set by an operator", value);
  });
  if (!config.control.enabled) return "";
  const std::string &name = config.control.group;
  const auto group = group_of(name);
  if (!name.empty() && !group) return "control.group: there is no group \"" + name + "\"";
  g_server = std::make_unique<LineServer>(LineServer::Words{answer_line, refuse, fail, missed}, group);
  return g_server->listen(socket_path(config.run_dir, runtime_name));
}

void stop() {
  g_server.reset();
  g_views.clear();
  g_feeds.clear();
  g_settings.clear();
  stop_status();
  clear_commands();
}

}  // namespace host::control
