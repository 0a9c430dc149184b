// kelimctl: looks into a running daemon and steers it.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <exception>
#include <functional>

#include "host/config/config.h"
#include "host/control/client.h"
#include "host/mom/views.h"
#include "kelim_version.h"
#include "kelimctl/host_toml.h"
#include "kelimctl/views.h"

namespace kelimctl {
namespace {

constexpr char kExamples[] = R"(
Examples:
  kelimctl status
  kelimctl flows
  kelimctl flows --json | jq '.flows[] | select(.answer != "INSTALLED")'
  kelimctl cmd --list
  kelimctl cmd ssc_kelim dump_ssc_sdn_msg_queue
  kelimctl cmd ssc_kelim kelim_set_dbg dbg_val=0x3
  kelimctl mom ls flow
  kelimctl mom get flow 17:0
  kelimctl mom watch flow_sta
  kelimctl mom --url redis+unix:/run/redis.sock stats
  kelimctl config

Exit status: 0 done, 1 failed, 2 wrong usage, 3 no such process.
)";

struct Choices {
  std::string run_dir;
  std::string process = "ssc_kelim";
  ViewOptions view;
  Look look;
  std::string module, command;
  std::vector<std::string> arguments;
  bool list = false;
  bool markdown = false;
  bool toml = false;
  std::string type, key;
  int status = kDone;  // of the exit
  std::string url;     // of the database; the configured one when empty
  bool keys = false;   // of a watch: no records
};

void print(const std::string &text) {
  std::fwrite(text.data(), 1, text.size(), stdout);
}

void show(const Choices &choices, const Json &data, std::string (*text)(const Json &, const Look &)) {
  print(choices.view.json ? data.dump(2) + "\n" : text(data, choices.look));
}

void show_view(Link &link, Choices &choices, const ViewCommand &view) {
  const Json data = view.data(link, choices.view);
  show(choices, data, view.text);
  if (view.status) choices.status = view.status(data);
}

// ---- debug commands

std::string modules_text(const Json &answer, const Look &) {
  std::string text;
  for (const Json &module : answer.value("modules", Json::array())) {
    for (const Json &command : module.value("commands", Json::array())) {
      const std::string format = command.value("format", "");
      text += module.value("name", "") + " " + command.value("name", "") +
              (format.empty() || format == "nil" ? "" : "  (" + format + ")") + "\n";
    }
  }
  return text;
}

Json parse_arguments(const std::vector<std::string> &arguments) {
  Json parsed = Json::object();
  for (const std::string &argument : arguments) {
    const std::size_t equals = argument.find('=');
    if (equals == std::string::npos || equals == 0)
      throw Problem(kUsage, "\"" + argument + "\": arguments are given as ARG=VALUE");
    const std::string name = argument.substr(0, equals);
    if (parsed.contains(name)) throw Problem(kUsage, "argument " + name + " is given twice");
    parsed[name] = argument.substr(equals + 1);
  }
  return parsed;
}

void run_command(Link &link, const Choices &choices) {
  if (choices.list) return show(choices, link.request({{"call", "list"}}), modules_text);
  if (choices.command.empty())
    throw Problem(kUsage, "cmd wants MODULE COMMAND [ARG=VALUE...]; kelimctl cmd --list shows what there is");
  const Json answer = link.request(
      {{"call", "cmd"}, {"module", choices.module}, {"command", choices.command}, {"args", parse_arguments(choices.arguments)}});
  show(choices, answer, [](const Json &data, const Look &) { return data.value("output", ""); });
  if (const int result = answer.value("result", 0); result != 0) {
    throw Problem(kFailed, choices.command + " returned " + std::to_string(result));
  }
}

// ---- the object database

void list_records(Database &database, const Choices &choices) {
  if (choices.type.empty()) return show(choices, database_stats(database), database_stats_text);
  show(choices, database_list(database, choices.type, choices.view), database_list_text);
}

void get_record(Database &database, const Choices &choices) {
  const Json data = database_get(database, choices.type, choices.key);
  if (data.value("total", 0) == 0) throw Problem(kFailed, "no object " + choices.type + " " + choices.key);
  show(choices, data, records_text);
}

void show_stats(Database &database, const Choices &choices) {
  show(choices, database_stats(database), database_stats_text);
}

// One line of a watch; what is no change goes to standard error. False when nobody reads any more.
bool show_change(const Choices &choices, const Json &line) {
  if (line.contains("live")) {
    std::fputs("Watching; Ctrl-C ends.\n", stderr);
  } else if (line.contains("missed")) {
    std::fprintf(stderr, "%s changes are missing: they came faster than they were read.\n", line["missed"].dump().c_str());
  } else {
    const Json change = mom::decode_change(line);
    print(choices.view.json ? change.dump() + "\n" : change_text(change, choices.keys, choices.look));
  }
  return std::fflush(stdout) == 0;
}

void watch_records(Database &database, const Choices &choices) {
  std::signal(SIGINT, [](int) { _exit(kDone); });  // every line is out when the next is waited for
  database.watch(watch_arguments(choices.type), [&](const Json &line) { return show_change(choices, line); });
}

// ---- configuration

Json config_data() {
  Json keys = Json::array();
  for (const host::ConfigKey &key : host::config_keys())
    keys.push_back(
        {{"key", key.name}, {"variable", key.variable}, {"default", key.fallback}, {"allowed", key.allowed}, {"help", key.help}});
  return {{"keys", keys}};
}

std::string config_markdown() {
  std::string text =
      "# Configuration\n\nThe host platform reads one TOML file: `/etc/kelim/host.toml`, or what `KELIM_CONF` names. A key "
      "`section.key` stands in\n"
      "the table `[section]`; every key can also be set by its environment variable, which wins. An unknown key or a bad value "
      "stops the\n"
      "start with the file (or variable), the key and what is allowed.\n\nThis page is what `kelimctl config --markdown` "
      "prints.\n\n"
      "| key | variable | default | allowed | meaning |\n|---|---|---|---|---|\n";
  for (const host::ConfigKey &key : host::config_keys()) {
    const std::string fallback = key.fallback.empty() ? "" : "`" + key.fallback + "`";
    text += "| `" + key.name + "` | `" + key.variable + "` | " + fallback + " | " + key.allowed + " | " + key.help + " |\n";
  }
  return text;
}

void show_config(const Choices &choices) {
  if (choices.view.json) return print(config_data().dump(2) + "\n");
  print(choices.toml ? host_toml() : choices.markdown ? config_markdown() : host::config_help());
}

// ---- the command line

// A user's own process comes before that of the machine.
std::string run_dir_of(const std::string &process) {
  const std::string configured = host::config().run_dir;
  const auto is_there = [&](const std::string &dir) {
    return access(host::control::socket_path(dir, process).c_str(), F_OK) == 0;
  };
  const bool falls_back = configured == host::users_run_dir() && !is_there(configured) && is_there(host::kSystemRunDir);
  return falls_back ? host::kSystemRunDir : configured;
}

using Action = std::function<void(Link &)>;

void add_views(CLI::App &app, Choices &choices, Action &action) {
  for (const ViewCommand &view : view_commands()) {
    CLI::App *command = app.add_subcommand(view.name, view.help);
    command->add_flag("--json", choices.view.json, "the data instead of a table");
    command->add_option("--limit", choices.view.limit, "rows at most")->capture_default_str();
    command->callback([&] { action = [&](Link &link) { show_view(link, choices, view); }; });
  }
}

void add_cmd(CLI::App &app, Choices &choices, Action &action) {
  CLI::App *command = app.add_subcommand("cmd", "runs a debug command of the process");
  command->add_option("MODULE", choices.module, "such as ssc_kelim");
  command->add_option("COMMAND", choices.command, "such as dump_ssc_ds_status");
  command->add_option("ARGUMENTS", choices.arguments, "ARG=VALUE, each that the command has");
  command->add_flag("--list", choices.list, "shows every module and command");
  command->add_flag("--json", choices.view.json, "the whole answer");
  command->callback([&] { action = [&](Link &link) { run_command(link, choices); }; });
}

void configure_database(const Choices &choices) {
  std::string error = host::config_load();
  if (error.empty() && !choices.url.empty()) error = host::config_set("mom.url", choices.url);
  if (!error.empty()) throw Problem(kUsage, error);
}

void add_mom(CLI::App &app, Choices &choices, Action &action) {
  CLI::App *mom = app.add_subcommand("mom", "looks into the object database: the Redis server itself where one is configured");
  mom->require_subcommand(1);
  mom->fallthrough();
  mom->add_flag("--json", choices.view.json, "the data instead of text");
  mom->add_option("--url", choices.url,
                  "the database, otherwise as configured (KELIM_MOM_URL, host.toml); embedded: asks the process");
  const auto add = [&](const char *name, const char *help, void (*work)(Database &, const Choices &)) {
    CLI::App *command = mom->add_subcommand(name, help);
    command->callback([&choices, &action, work] {
      action = [&choices, work](Link &link) {
        configure_database(choices);
        work(*open_database(link), choices);
      };
    });
    return command;
  };
  CLI::App *ls = add("ls", "the record types, or the keys of one", list_records);
  ls->add_option("TYPE", choices.type, "such as flow");
  ls->add_option("--limit", choices.view.limit, "keys at most")->capture_default_str();
  CLI::App *get = add("get", "one record", get_record);
  get->add_option("TYPE", choices.type, "such as flow")->required();
  get->add_option("KEY", choices.key, "the fields of its key, such as 17:0")->required();
  CLI::App *watch = add("watch", "every change as it happens", watch_records);
  watch->add_option("TYPE", choices.type, "such as flow; otherwise every type");
  watch->add_flag("--keys", choices.keys, "without the records");
  add("stats", "objects, bytes and subscribers of each record type", show_stats);
}

// The one command that needs no running process.
void add_config(CLI::App &app, Choices &choices, std::function<void()> &local) {
  CLI::App *command = app.add_subcommand("config", "every configuration key: variable, default, what is allowed");
  command->add_flag("--json", choices.view.json, "the data instead of text");
  command->add_flag("--markdown", choices.markdown, "as docs/configuration.md");
  command->add_flag("--toml", choices.toml, "as a host.toml in which every key is commented out");
  command->callback([&] { local = [&] { show_config(choices); }; });
}

int run(int argc, char **argv) {
  Choices choices;
  Action action;
  std::function<void()> local;
  CLI::App app("Looks into a running daemon and steers it.");
  app.footer(kExamples);
  app.set_help_all_flag("--help-all", "Print the help of every subcommand too");
  app.set_version_flag("--version", "kelimctl " KELIM_VERSION);
  app.require_subcommand(0, 1);
  app.fallthrough();
  app.add_option("--run-dir", choices.run_dir,
                 "run directory of the process, otherwise as the daemon finds it (KELIM_RUN_DIR, host.toml)");
  app.add_option("--process", choices.process, "which process")->capture_default_str();
  add_views(app, choices, action);
  add_cmd(app, choices, action);
  add_mom(app, choices, action);
  add_config(app, choices, local);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError &error) {
    return app.exit(error) == 0 ? kDone : kUsage;
  }
  if (local) {
    local();
    return kDone;
  }
  if (!action) {
    std::fputs(app.help().c_str(), stderr);
    return kUsage;
  }
  try {
    if (choices.run_dir.empty()) {
      if (const std::string error = host::config_load(); !error.empty()) throw Problem(kUsage, error);
      choices.run_dir = run_dir_of(choices.process);
    }
    Link link(choices.run_dir, choices.process);
    action(link);
  } catch (const Problem &problem) {
    std::fflush(stdout);
    std::fprintf(stderr, "kelimctl: %s\n", problem.what());
    return problem.status;
  }
  return choices.status;
}

}  // namespace
}  // namespace kelimctl

int main(int argc, char **argv) {
  try {
    return kelimctl::run(argc, argv);
  } catch (const std::exception &error) {
    std::fprintf(stderr, "kelimctl: %s\n", error.what());
    return kelimctl::kFailed;
  }
}
