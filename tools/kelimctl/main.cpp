// kelimctl: looks into a running daemon and steers it.
#include <sys/ioctl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <exception>
#include <functional>
#include <thread>

#include "host/config/config.h"
#include "host/control/client.h"
#include "host/mom/views.h"
#include "kelim_version.h"
#include "kelimctl/host_toml.h"
#include "kelimctl/views.h"
#include "kelimctl/words.h"

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

Exit status: 0 done, 1 failed, 2 wrong usage, 3 no such process, 4 cannot be told now (audit).
kelimctl COMMAND --help shows the options of a command and more examples.
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
  bool effective = false;
  bool watch = false;
  double interval = 2;  // seconds
  std::string output = "table";
  std::string level;  // of the log
  std::string type, key;
  int status = kDone;  // exit status
  std::string url;     // of the database; the configured one when empty
  bool keys = false;   // a watch shows keys without records
};

void print(const std::string &text) {
  std::fwrite(text.data(), 1, text.size(), stdout);
}

void show(const Choices &choices, const Json &data, std::string (*text)(const Json &, const Look &)) {
  print(choices.view.json ? data.dump(2) + "\n" : text(data, choices.look));
}

void show_once(Link &link, Choices &choices, const ViewCommand &view) {
  const Json data = view.data(link, choices.view);
  show(choices, data, view.text);
  if (view.status) choices.status = view.status(data);
}

std::string clock_text() {
  const std::time_t now = std::time(nullptr);
  char text[16];
  std::strftime(text, sizeof text, "%H:%M:%S", std::localtime(&now));
  return text;
}

// On a terminal each output replaces the one before; JSON output is one line each.
void watch_view(Link &link, Choices &choices, const ViewCommand &view) {
  std::signal(SIGINT, [](int) { _exit(kDone); });
  const bool terminal = isatty(STDOUT_FILENO);
  do {
    const Json data = view.data(link, choices.view);
    if (choices.view.json)
      print(data.dump() + "\n");
    else
      print((terminal ? "\033[H\033[2J" : "") + clock_text() + "  kelimctl " + view.name + "\n\n" +
            view.text(data, choices.look) + (terminal ? "" : "\n"));
    if (std::fflush(stdout) != 0) return;
    std::this_thread::sleep_for(std::chrono::duration<double>(choices.interval));
  } while (true);
}

void show_view(Link &link, Choices &choices, const ViewCommand &view) {
  choices.watch ? watch_view(link, choices, view) : show_once(link, choices, view);
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
      throw Problem(kUsage, "\"" + argument + "\": an argument must have the form ARG=VALUE");
    const std::string name = argument.substr(0, equals);
    if (parsed.contains(name)) throw Problem(kUsage, "argument " + name + " is given twice");
    parsed[name] = argument.substr(equals + 1);
  }
  return parsed;
}

void run_command(Link &link, const Choices &choices) {
  if (choices.list) return show(choices, link.request({{"call", "list"}}), modules_text);
  if (choices.command.empty())
    throw Problem(kUsage, "cmd needs MODULE COMMAND [ARG=VALUE...]; kelimctl cmd --list shows all commands");
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

// Prints one line of a watch; everything but changes goes to standard error. False once the output is closed.
bool show_change(const Choices &choices, const Json &line) {
  if (line.contains("live")) {
    std::fputs("Watching; Ctrl-C ends.\n", stderr);
  } else if (line.contains("missed")) {
    std::fprintf(stderr, "%s changes are missing: they came faster than they were read.\n", line["missed"].dump().c_str());
  } else {
    const Json change = host::mom::decode_change(line);
    print(choices.view.json ? change.dump() + "\n" : change_text(change, choices.keys, choices.look));
  }
  return std::fflush(stdout) == 0;
}

void watch_records(Database &database, const Choices &choices) {
  std::signal(SIGINT, [](int) { _exit(kDone); });  // loses nothing: each line is flushed before the next is awaited
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
      "# Configuration\n\nThe host platform reads one TOML file: `/etc/kelim/host.toml`, or what `KELIM_CONF` names. The key "
      "`section.key` belongs in\n"
      "the table `[section]`; every key can also be set by its environment variable, which wins. An unknown key or a bad value "
      "stops the\n"
      "start with the file (or variable), the key and the allowed values.\n\n`kelimctl config --markdown` prints this page.\n\n"
      "| key | variable | default | allowed | meaning |\n|---|---|---|---|---|\n";
  for (const host::ConfigKey &key : host::config_keys()) {
    const std::string fallback = key.fallback.empty() ? "" : "`" + key.fallback + "`";
    text += "| `" + key.name + "` | `" + key.variable + "` | " + fallback + " | " + key.allowed + " | " + key.help + " |\n";
  }
  return text;
}

// ---- the process's effective configuration

std::string effective_text(const Json &data, const Look &look) {
  return list_text(data.value("keys", Json::array()),
                   {{{"KEY"}, "key"}, {{"VALUE", false, true}, "value"}, {{"FROM", false, true}, "from"}}, "", look);
}

// Without a running process: the values of one started here.
Json effective_here() {
  if (const std::string error = host::config_load(); !error.empty()) throw Problem(kUsage, error);
  Json keys = Json::array();
  for (const auto &[key, value, source] : host::config_values())
    keys.push_back({{"key", key}, {"value", value}, {"from", source}});
  return {{"file", host::config().file}, {"keys", std::move(keys)}};
}

void show_effective(Link &link, const Choices &choices) {
  Json data;
  try {
    data = link.view("config");
  } catch (const Problem &problem) {
    if (problem.status != kNoProcess) throw;
    std::fputs("No process answers; one started here would have:\n", stderr);
    data = effective_here();
  }
  show(choices, data, effective_text);
}

void log_level(Link &link, const Choices &choices) {
  if (!choices.level.empty()) link.request({{"call", "set"}, {"name", "log.level"}, {"value", choices.level}});
  const Json process = link.view("status").value("process", Json::object());
  print(process.value("log_level", "") + "\n");
}

void show_config(const Choices &choices) {
  if (choices.view.json) return print(config_data().dump(2) + "\n");
  print(choices.toml ? host_toml() : choices.markdown ? config_markdown() : host::config_help());
}

// ---- the command line

// A user's own process takes precedence over the system's.
std::string run_dir_of(const std::string &process) {
  const std::string configured = host::config().run_dir;
  const auto is_there = [&](const std::string &dir) {
    return access(host::control::socket_path(dir, process).c_str(), F_OK) == 0;
  };
  const bool falls_back = configured == host::users_run_dir() && !is_there(configured) && is_there(host::kSystemRunDir);
  return falls_back ? host::kSystemRunDir : configured;
}

using Action = std::function<void(Link &)>;

void explain(CLI::App *command, const std::string &examples) {
  command->footer("\nExamples:\n" + examples);
}

void add_look(CLI::App *command, Choices &choices) {
  command->add_flag("--json", choices.view.json, "JSON data instead of a table");
  command->add_option("-o,--output", choices.output, "table, wide (every column, long lines) or json")
      ->check(CLI::IsMember({"table", "wide", "json"}))
      ->capture_default_str();
}

void add_filters(CLI::App *command, Choices &choices) {
  command->add_option("--cookie", choices.view.cookie, "only flows with this cookie, or COOKIE/MASK");
  command->add_option("--match", choices.view.match,
                      "only flows whose match has all of these terms, such as tcp,nw_dst=10.0.0.0/24");
  command->add_option("--state", choices.view.state, "only flows in this state: sent or installed")
      ->check(CLI::IsMember({"sent", "installed"}));
  command->add_option("--controller", choices.view.controller, "only flows last requested by a controller with this address");
}

void add_numbers(CLI::App *command, Choices &choices) {
  CLI::Option *number = command->add_option("NUMBER", choices.view.number, "index, cookie or transaction id, such as 17 or 0x17");
  CLI::Option *index = command->add_option("--index", choices.view.index, "the flow with this index (kelimctl flows)");
  CLI::Option *cookie = command->add_option("--cookie", choices.view.cookie, "flow-mods with this cookie");
  CLI::Option *xid = command->add_option("--xid", choices.view.xid, "requests with this transaction id");
  for (CLI::Option *one : {number, index, cookie, xid})
    for (CLI::Option *other : {number, index, cookie, xid})
      if (one != other) one->excludes(other);
}

void add_views(CLI::App &app, Choices &choices, Action &action) {
  for (const ViewCommand &view : view_commands()) {
    CLI::App *command = app.add_subcommand(view.name, view.help);
    explain(command, view.examples);
    add_look(command, choices);
    command->add_option("--limit", choices.view.limit, "maximum number of rows")->capture_default_str();
    command->add_flag("-w,--watch", choices.watch, "repeat until Ctrl-C");
    command->add_option("--interval", choices.interval, "seconds between repetitions")
        ->check(CLI::Range(0.1, 86400.0))
        ->capture_default_str();
    if (view.name == std::string("flows")) add_filters(command, choices);
    if (view.name == std::string("trace")) add_numbers(command, choices);
    if (view.name == std::string("capabilities"))
      command->add_flag("--markdown", choices.markdown, "as the tables of docs/openflow.md");
    command->callback([&] { action = [&](Link &link) { show_view(link, choices, view); }; });
  }
}

void add_log(CLI::App &app, Choices &choices, Action &action) {
  CLI::App *log = app.add_subcommand("log", "the log of the process");
  explain(log, "  kelimctl log level\n  kelimctl log level debug\n  kelimctl --process kelim-programmer log level info\n");
  log->require_subcommand(1);
  CLI::App *level =
      log->add_subcommand("level", "shows the least severe level that is logged, or sets it until the next reload or start");
  level->add_option("LEVEL", choices.level, "debug, info, warning, error or off");
  level->callback([&] { action = [&](Link &link) { log_level(link, choices); }; });
}

void add_cmd(CLI::App &app, Choices &choices, Action &action) {
  CLI::App *command = app.add_subcommand("cmd", "runs a debug command of the process");
  explain(command, "  kelimctl cmd --list\n  kelimctl cmd of_ss reload\n  kelimctl cmd ssc_kelim kelim_set_dbg dbg_val=0x3\n");
  command->add_option("MODULE", choices.module, "such as ssc_kelim");
  command->add_option("COMMAND", choices.command, "such as dump_ssc_ds_status");
  command->add_option("ARGUMENTS", choices.arguments, "ARG=VALUE for each argument of the command");
  command->add_flag("--list", choices.list, "shows every module and command");
  command->add_flag("--json", choices.view.json, "the whole answer as JSON");
  command->callback([&] { action = [&](Link &link) { run_command(link, choices); }; });
}

void configure_database(const Choices &choices) {
  std::string error = host::config_load();
  if (error.empty() && !choices.url.empty()) error = host::config_set("mom.url", choices.url);
  if (!error.empty()) throw Problem(kUsage, error);
}

void add_mom(CLI::App &app, Choices &choices, Action &action) {
  CLI::App *mom = app.add_subcommand("mom", "looks into the object database, directly in the Redis server if one is configured");
  explain(mom,
          "  kelimctl mom ls flow\n  kelimctl mom get flow 17:0\n  kelimctl mom watch flow_sta\n"
          "  kelimctl mom --url redis+unix:/run/redis.sock stats\n");
  mom->require_subcommand(1);
  mom->fallthrough();
  mom->add_flag("--json", choices.view.json, "JSON data instead of text");
  mom->add_option("--url", choices.url,
                  "the database, by default as configured (KELIM_MOM_URL, host.toml); embedded: asks the process");
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
  ls->add_option("--limit", choices.view.limit, "maximum number of keys")->capture_default_str();
  CLI::App *get = add("get", "one record", get_record);
  get->add_option("TYPE", choices.type, "such as flow")->required();
  get->add_option("KEY", choices.key, "the fields of its key, such as 17:0")->required();
  CLI::App *watch = add("watch", "every change as it happens", watch_records);
  watch->add_option("TYPE", choices.type, "such as flow; every type if omitted");
  watch->add_flag("--keys", choices.keys, "without the records");
  add("stats", "objects, bytes and subscribers of each record type", show_stats);
}

// The only command that needs no running process; --effective asks one if it answers.
void add_config(CLI::App &app, Choices &choices, Action &action, std::function<void()> &local) {
  CLI::App *command = app.add_subcommand("config", "every configuration key: variable, default, allowed values");
  command->add_flag("--json", choices.view.json, "JSON data instead of text");
  command->add_flag("--markdown", choices.markdown, "as docs/configuration.md");
  command->add_flag("--toml", choices.toml, "as a host.toml in which every key is commented out");
  command->add_flag("--effective", choices.effective, "the values in force in the process, and where they come from");
  explain(command,
          "  kelimctl config | less\n  kelimctl config --effective\n  kelimctl config --effective --json | jq '.keys[] | "
          "select(.from != \"default\")'\n");
  command->callback([&] {
    if (choices.effective)
      action = [&](Link &link) { show_effective(link, choices); };
    else
      local = [&] { show_config(choices); };
  });
}

std::size_t terminal_width() {
  winsize size{};
  return ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col >= 40 ? size.ws_col : Table::kWidth;
}

// Suggests the command that was probably meant.
void suggest(const CLI::App &app) {
  const CLI::App *deepest = &app;
  while (!deepest->get_subcommands().empty()) deepest = deepest->get_subcommands().front();
  std::vector<std::string> known;
  for (const CLI::App *command : deepest->get_subcommands({})) known.push_back(command->get_name());
  for (const std::string &word : app.remaining(true)) {
    const std::string meant = nearest(word, known);
    if (!meant.empty()) return static_cast<void>(std::fprintf(stderr, "Did you mean \"%s\"?\n", meant.c_str()));
  }
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
                 "run directory of the process, by default as the daemon finds it (KELIM_RUN_DIR, host.toml)");
  app.add_option("--process", choices.process, "the process to ask")->capture_default_str();
  add_views(app, choices, action);
  add_cmd(app, choices, action);
  add_mom(app, choices, action);
  add_config(app, choices, action, local);
  add_log(app, choices, action);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError &error) {
    const int status = app.exit(error);
    if (status != 0) suggest(app);
    return status == 0 ? kDone : kUsage;
  }
  choices.look = {.width = terminal_width(), .wide = choices.output == "wide", .markdown = choices.markdown};
  choices.view.json = choices.view.json || choices.output == "json";
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
