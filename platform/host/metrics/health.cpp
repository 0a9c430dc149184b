#include "host/metrics/health.h"

#include <utility>

#include "host/base/services.h"

namespace host::health {
namespace {

struct Named {
  Kind kind;
  const char *name;
  Check check;
};

std::vector<Named> g_checks;

}  // namespace

void add_check(Kind kind, const char *name, Check check) {
  if (g_checks.empty()) at_finish([] { g_checks.clear(); });
  g_checks.push_back({kind, name, std::move(check)});
}

std::vector<std::string> failing(Kind kind) {
  std::vector<std::string> found;
  for (const Named &one : g_checks) {
    if (one.kind != kind) continue;
    if (const std::string why = one.check(); !why.empty()) found.push_back(std::string(one.name) + ": " + why);
  }
  return found;
}

}  // namespace host::health
