#include "host/control/commands.h"

#include <algorithm>
#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <string>

#include "host/base/loop.h"
#include "host/control/capture.h"
#include "host/control/control.h"
#include "host/control/format.h"
#include "host/fault/fault.h"
#include "ssat.h"

namespace host::control {
namespace {

using nlohmann::json;

struct Command {
  std::string format;
  std::vector<Argument> arguments;
  ssat_handler handler;
};

using Module = std::map<std::string, Command, std::less<>>;

std::map<std::string, Module, std::less<>> g_modules;

template <typename Map>
std::string names(const Map &map) {
  std::string text;
  for (const auto &[name, value] : map) text += (text.empty() ? "" : ", ") + name;
  return text.empty() ? "none" : text;
}

std::string text_of(const json &request, const char *key) {
  const auto it = request.find(key);
  return it != request.end() && it->is_string() ? it->get<std::string>() : "";
}

template <typename Map>
auto &find(Map &map, const json &request, const char *what) {
  const std::string name = text_of(request, what);
  const auto it = map.find(name);
  if (it == map.end()) throw Refusal("unknown " + std::string(what) + " \"" + name + "\"; allowed: " + names(map));
  return it->second;
}

std::string usage(const json &request, const Command &command) {
  std::string text = "; usage: " + text_of(request, "module") + " " + text_of(request, "command");
  for (const Argument &a : command.arguments) text += " " + a.name + "=" + (a.kind == 'x' ? "%x" : "%d");
  return text;
}

std::int64_t value_of(const json &request, const Command &command, const Argument &argument, const json &given) {
  const auto it = given.find(argument.name);
  if (it == given.end()) throw Refusal("argument " + argument.name + " is missing" + usage(request, command));
  const std::string text = it->is_string() ? it->get<std::string>() : it->dump();
  const auto value = parse_value(argument, text);
  if (!value) throw Refusal("argument " + argument.name + "=" + text + " is not " + describe(argument) + usage(request, command));
  return *value;
}

std::vector<std::int64_t> values_of(const json &request, const Command &command) {
  const json given = request.value("args", json::object());
  if (!given.is_object()) throw Refusal("args is not an object" + usage(request, command));
  for (const auto &item : given.items()) {
    const auto named = [&](const Argument &a) { return a.name == item.key(); };
    if (std::none_of(command.arguments.begin(), command.arguments.end(), named))
      throw Refusal("unknown argument " + item.key() + usage(request, command));
  }
  std::vector<std::int64_t> values;
  for (const Argument &argument : command.arguments) values.push_back(value_of(request, command, argument, given));
  return values;
}

}  // namespace

json call_command(const json &request) {
  const Command &command = find(find(g_modules, request, "module"), request, "command");
  const std::vector<std::int64_t> values = values_of(request, command);
  int rv = 0;
  Captured output = capture_stdout([&] { rv = command.handler(values.data(), static_cast<std::uint32_t>(values.size())); });
  json answer = {{"status", 0}, {"result", rv}, {"output", std::move(output.text)}};
  if (output.cut) answer["cut"] = true;
  return answer;
}

json list_commands() {
  json modules = json::array();
  for (const auto &[name, module] : g_modules) {
    json commands = json::array();
    for (const auto &[command_name, command] : module) commands.push_back({{"name", command_name}, {"format", command.format}});
    modules.push_back({{"name", name}, {"commands", std::move(commands)}});
  }
  return modules;
}

void clear_commands() {
  g_modules.clear();
}

}  // namespace host::control

extern "C" {

int ssat_lib_init(qx_global *global, const char *name) {
  if (!global || !name || *name == '\0') return QX_INVALID;
  if (const int rv = host::fault::check(host::fault::Point::ssat_init)) return rv;
  host::assert_loop_thread();
  host::control::g_modules.try_emplace(name);
  return 0;
}

int ssat_reg_mod_cmd(const char *module, const char *command, const char *format, ssat_handler handler) {
  using namespace host::control;
  if (!module || !command || *command == '\0' || !format || !handler) return QX_INVALID;
  if (const int rv = host::fault::check(host::fault::Point::ssat_reg)) return rv;
  host::assert_loop_thread();
  const auto it = g_modules.find(module);
  if (it == g_modules.end()) return QX_NOT_FOUND;
  auto arguments = parse_format(format);
  if (!arguments) return QX_INVALID;
  return it->second.try_emplace(command, Command{format, std::move(*arguments), handler}).second ? QX_OK : QX_INVALID;
}
}
