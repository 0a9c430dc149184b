#include "host/base/reload.h"

#include <algorithm>
#include <utility>

#include "host/base/services.h"
#include "host/config/config.h"
#include "host/log/log.h"

namespace host {
namespace {

std::vector<Reloadable> g_services;

bool is_taken_over(std::string_view key) {
  return std::ranges::any_of(g_services, [key](const Reloadable &s) { return std::ranges::find(s.keys, key) != s.keys.end(); });
}

// The changed keys that no service applies, in words; "" for none.
std::string waiting_for_a_start(const Config &fresh) {
  std::string names;
  for (const std::string &key : config_changes(config(), fresh))
    if (!is_taken_over(key)) names += (names.empty() ? "" : ", ") + key;
  return names.empty() ? "" : "changed, but in force only after a restart: " + names;
}

}  // namespace

void at_reload(Reloadable service) {
  if (g_services.empty()) at_finish([] { g_services.clear(); });
  g_services.push_back(std::move(service));
}

int reload(std::vector<std::string> *lines) {
  int rv = 0;
  bool told = false;
  const auto tell = [&](bool good, const std::string &text) {
    if (text.empty()) return;
    if (good)
      log::info("reload: {}", text);
    else
      log::error("reload: {}", text);
    if (lines) lines->push_back(text);
    told = true;
  };
  Config fresh;
  if (const std::string error = config_reread(fresh); !error.empty()) {
    tell(false, error + "; nothing is changed");
    return QX_INVALID;
  }
  for (const Reloadable &service : g_services) {
    const Reloaded outcome = service.take(fresh);
    tell(outcome.done, outcome.text);
    if (outcome.done)
      config_taken_over(service.keys);
    else
      rv = QX_FAILED;
  }
  tell(true, waiting_for_a_start(fresh));
  if (!told) tell(true, runtime_name() + " has nothing to reload");
  return rv;
}

}  // namespace host
