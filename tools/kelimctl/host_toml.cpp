#include "kelimctl/host_toml.h"

#include "host/config/config.h"
#include "kelimctl/table.h"

namespace kelimctl {
namespace {

constexpr char kHead[] =
    "# Configuration of ssc_kelim and kelim-programmer. A commented-out key has the value shown. Every key can also be set by\n"
    "# its environment variable, KELIM_<SECTION>_<KEY>, which wins. `systemctl reload ssc_kelim` applies changed controllers "
    "and\n"
    "# certificates, and says which other changes need a restart.\n";

constexpr char kPorts[] = "#[[ports]]\n#ifx = 1\n#name = \"eth1\"\n#phyid = 101\n#type = \"ethernet\"\n";

std::string comment(const std::string &text) {
  std::string lines;
  for (std::string line : wrap(text, 120)) {
    line.erase(line.find_last_not_of(' ') + 1);
    lines += "# " + line + '\n';
  }
  return lines;
}

}  // namespace

std::string host_toml() {
  std::string text = kHead, section;
  for (const host::ConfigKey &key : host::config_keys()) {
    const std::size_t dot = key.name.find('.');
    const std::string of = dot == std::string::npos ? "" : key.name.substr(0, dot);
    if (of != section && !of.empty()) text += "\n[" + of + "]\n";
    section = of;
    text += '\n' + comment(key.help) + comment("Allowed: " + key.allowed);
    text += key.toml.empty() ? kPorts : '#' + key.name.substr(dot + 1) + " = " + key.toml + '\n';
  }
  return text;
}

}  // namespace kelimctl
