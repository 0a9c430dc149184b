// kelimctl status: answers an operator's first questions on one screen.
#include <fmt/format.h>

#include "kelimctl/views.h"

namespace kelimctl {
namespace {

constexpr std::size_t kIndent = 16;  // of the text behind a label

std::string duration(double seconds) {
  const auto s = static_cast<std::uint64_t>(seconds);
  const std::string clock = fmt::format("{:02}:{:02}:{:02}", s / 3600 % 24, s / 60 % 60, s % 60);
  return s < 86400 ? clock : fmt::format("{} d {}", s / 86400, clock);
}

// Lines of a label with a text wrapped behind it.
class Screen {
 public:
  explicit Screen(const Look &look) : width_(look.wide ? Table::kNoLimit : std::max<std::size_t>(look.width, 40) - kIndent) {}

  void line(const std::string &label, const std::string &what) {
    std::string before = label;
    for (std::string piece : wrap(what, width_)) {
      piece.erase(piece.find_last_not_of(' ') + 1);
      before.resize(kIndent, ' ');
      text_ += before + piece + '\n';
      before.clear();
    }
  }
  std::string text() && { return std::move(text_); }

 private:
  std::size_t width_;
  std::string text_;
};

std::string of_capacity(const Json &part, const char *number, const char *capacity) {
  const auto held = part.value(number, std::uint64_t{0}), room = part.value(capacity, std::uint64_t{0});
  return room == 0 ? std::to_string(held) : fmt::format("{} of {}", held, room);
}

void process(Screen &screen, const Json &part) {
  screen.line(cell(part, "name"), fmt::format("{}, process {}, up {}", cell(part, "version"), cell(part, "pid"),
                                              duration(part.value("uptime_s", 0.0))));
  const std::string file = part.value("configuration", "");
  screen.line("configuration", (file.empty() ? "no file" : file) + ", run directory " + cell(part, "run_dir") + ", log level " +
                                   cell(part, "log_level"));
  if (const std::string metrics = part.value("metrics", ""); !metrics.empty()) screen.line("metrics", metrics);
  if (part.value("ready", false)) return screen.line("ready", "yes");
  std::string waits;
  for (const Json &why : part.value("waits_for", Json::array())) waits += "; " + why.get<std::string>();
  screen.line("ready", "no" + waits);
}

void database(Screen &screen, const Json &part) {
  const Json client = part.value("client", Json::object());
  screen.line("role", cell(part, "role"));
  const std::string error = part.value("error", "");
  screen.line("database", fmt::format("{}, databases {} connected{}", cell(part, "url"),
                                      client.value("connected", Json::array()).dump(), error.empty() ? "" : "; " + error));
  screen.line("", fmt::format("{} writes in flight, {} refused, {} values skipped", cell(part, "in_flight"),
                              cell(client, "refused_writes"), client.value("skipped", Json::object()).size()));
}

std::string roles(const Json &counts) {
  std::uint64_t total = 0;
  std::string text;
  for (const auto &[role, count] : counts.items()) {
    total += count.get<std::uint64_t>();
    text += (text.empty() ? "" : ", ") + count.dump() + " " + role;
  }
  return std::to_string(total) + " connected" + (text.empty() ? "" : " (" + text + ")");
}

void openflow(Screen &screen, const Json &part) {
  screen.line("datapath", cell(part, "datapath_id"));
  screen.line("controllers", roles(part.value("controllers", Json::object())));
  for (const Json &endpoint : part.value("endpoints", Json::array())) {
    const std::string error = endpoint.value("error", "");
    screen.line("", cell(endpoint, "endpoint") + " " + cell(endpoint, "state") + (error.empty() ? "" : ": " + error));
  }
  screen.line("flows", fmt::format("{}, {} undecided", of_capacity(part, "flows", "capacity"), cell(part, "undecided")));
  screen.line("meters", of_capacity(part, "meters", "meter_capacity"));
  screen.line("errors", fmt::format("{} requests refused, {} flows failed later", cell(part, "refused"), cell(part, "failed")));
  for (const Json &one : part.value("last_refusals", Json::array()))
    screen.line(
        "", fmt::format("{} s ago {} of {} (xid {}): {}, {}: {}", decimals(one, "age_s"), cell(one, "request"), cell(one, "peer"),
                        cell(one, "xid"), cell(one, "error"), cell(one, "field"), cell(one, "reason")));
  for (const Json &one : part.value("last_failures", Json::array()))
    screen.line("", fmt::format("flow {} ({}) failed: {}", cell(one, "index"), cell(one, "match"), cell(one, "error")));
}

void audit(Screen &screen, const Json &part) {
  if (part.value("looks", 0) == 0) return screen.line("audit", "has not looked yet");
  const auto differences = part.value("differences", std::uint64_t{0});
  screen.line("audit", fmt::format("{}, looked {} s ago",
                                   differences == 0 ? "the database holds what was asked for"
                                                    : std::to_string(differences) + " differences (kelimctl audit shows them)",
                                   decimals(part, "age_s")));
}

void programmer(Screen &screen, const Json &part) {
  screen.line("programmer",
              fmt::format("{} flows and {} meters in the target, {} answers pending", of_capacity(part, "flows", "size"),
                          cell(part, "meters"), part.value("waiting", std::uint64_t{0}) + part.value("owed", std::uint64_t{0})));
  screen.line("", fmt::format("{} answered installed, {} failed, {} out of resources", cell(part, "installed"),
                              cell(part, "failed"), cell(part, "resource")));
}

struct Part {
  const char *name;
  void (*show)(Screen &screen, const Json &part);
};
constexpr Part kParts[] = {
    {"process", process}, {"database", database}, {"openflow", openflow}, {"audit", audit}, {"programmer", programmer}};

}  // namespace

Json status_data(Link &link, const ViewOptions &) {
  return link.view("status");
}

std::string status_text(const Json &data, const Look &look) {
  Screen screen(look);
  for (const auto &[name, show] : kParts) {
    const auto part = data.find(name);
    if (part == data.end()) continue;
    if (part->size() == 1 && part->contains("error"))
      screen.line(name, cell(*part, "error"));
    else
      show(screen, *part);
  }
  return std::move(screen).text();
}

}  // namespace kelimctl
