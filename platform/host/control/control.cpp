#include "host/control/control.h"

#include <map>
#include <memory>
#include <nlohmann/json.hpp>

#include "host/config/config.h"
#include "host/control/client.h"
#include "host/control/commands.h"
#include "host/control/server.h"
#include "host/runtime/loop.h"
#include "host/timing/timing.h"

namespace host::control {
namespace {

using nlohmann::json;

std::map<std::string, View, std::less<>> g_views;
std::unique_ptr<LineServer> g_server;

template <typename Map>
std::string names(const Map &map) {
  std::string text;
  for (const auto &[name, value] : map) text += (text.empty() ? "" : ", ") + std::string(name);
  return text;
}

json call_view(const json &request) {
  const std::string name = request.value("name", "");
  const auto view = g_views.find(name);
  if (view == g_views.end()) throw Refusal("unknown view \"" + name + "\"; allowed: " + names(g_views));
  return {{"status", 0}, {"data", view->second(request.value("args", json::object()))}};
}

json list(const json &) {
  json views = json::array();
  for (const auto &[name, view] : g_views) views.push_back(name);
  return {{"status", 0}, {"modules", list_commands()}, {"views", std::move(views)}};
}

const std::map<std::string, json (*)(const json &), std::less<>> kCalls = {
    {"cmd", call_command}, {"list", list}, {"view", call_view}};

json answer(const json &request) {
  if (!request.is_object()) throw Refusal("a request is one JSON object on a line, such as {\"call\":\"list\"}");
  const std::string name = request.value("call", "");
  const auto call = kCalls.find(name);
  if (call == kCalls.end()) throw Refusal("unknown call \"" + name + "\"; allowed: " + names(kCalls));
  return call->second(request);
}

// Output of handlers may hold any bytes: what is no UTF-8 is shown as U+FFFD.
std::string text_of(const json &value) {
  return value.dump(-1, ' ', false, json::error_handler_t::replace);
}

std::string refuse(const std::string &why) {
  return text_of({{"status", 2}, {"error", why}});
}

std::string answer_line(const std::string &line) {
  try {
    return text_of(answer(json::parse(line, nullptr, false)));
  } catch (const std::exception &e) {  // refusals, members of the wrong type, memory
    return refuse(e.what());
  }
}

}  // namespace

void register_view(const std::string &name, View view) {
  if (loop_base() != nullptr) g_views[name] = std::move(view);
}

std::string start(const Config &config, const std::string &runtime_name) {
  register_view("timings", [](const json &) { return timing::view(); });
  if (!config.control.enabled) return "";
  g_server = std::make_unique<LineServer>(answer_line, refuse);
  return g_server->listen(socket_path(config.run_dir, runtime_name));
}

void stop() {
  g_server.reset();
  g_views.clear();
  clear_commands();
}

}  // namespace host::control
