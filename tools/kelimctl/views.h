// What kelimctl shows: each command asks the process for data and makes a text of it, or hands the data on as JSON.
#pragma once

#include <string>
#include <vector>

#include "kelimctl/link.h"

namespace kelimctl {

struct ViewOptions {
  bool json = false;
  std::size_t limit = 1000;  // rows of the long lists
};

// One view: how its data are got, and how they look.
struct ViewCommand {
  const char *name;
  const char *help;
  Json (*data)(Link &link, const ViewOptions &options);
  std::string (*text)(const Json &data);
};

const std::vector<ViewCommand> &view_commands();

// ---- the object database

Json database_list(Link &link, const std::string &type, const ViewOptions &options);
std::string database_list_text(const Json &data);
Json database_get(Link &link, const std::string &type, const std::string &key);
std::string records_text(const Json &data);
Json database_stats(Link &link);
std::string database_stats_text(const Json &data);

}  // namespace kelimctl
