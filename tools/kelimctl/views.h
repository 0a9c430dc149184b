// The views of kelimctl: each command asks the process for data and renders it as text or prints it as JSON.
#pragma once

#include <string>
#include <vector>

#include "kelimctl/database.h"
#include "kelimctl/link.h"
#include "kelimctl/rows.h"

namespace kelimctl {

struct ViewOptions {
  bool json = false;
  std::size_t limit = 1000;  // maximum number of rows in long lists
  // Filters of the flows; empty means all.
  std::string cookie, match, state, controller;
  // The subject of a trace: one of these, or the cookie.
  std::string number, index, xid;

  bool filters() const { return !cookie.empty() || !match.empty() || !state.empty() || !controller.empty(); }
};

// One view: how to get its data and how to render them.
struct ViewCommand {
  const char *name;
  const char *help;
  Json (*data)(Link &link, const ViewOptions &options);
  std::string (*text)(const Json &data, const Look &look);
  const char *examples;
  int (*status)(const Json &data) = nullptr;  // exit status; null: always kDone
};

const std::vector<ViewCommand> &view_commands();

Json status_data(Link &link, const ViewOptions &options);
std::string status_text(const Json &data, const Look &look);

Json capabilities_data(Link &link, const ViewOptions &options);
std::string capabilities_text(const Json &data, const Look &look);

Json trace_data(Link &link, const ViewOptions &options);
std::string trace_text(const Json &data, const Look &look);
int trace_status(const Json &data);

// ---- the object database

Json database_list(Database &database, const std::string &type, const ViewOptions &options);
std::string database_list_text(const Json &data, const Look &look);
Json database_get(Database &database, const std::string &type, const std::string &key);
std::string records_text(const Json &data, const Look &look);
Json database_stats(Database &database);
std::string database_stats_text(const Json &data, const Look &look);

// The arguments of a watch; every type if `type` is empty.
Json watch_arguments(const std::string &type);
// A decoded change: its line, and the record below it unless only `keys` are wanted.
std::string change_text(const Json &change, bool keys, const Look &look);

}  // namespace kelimctl
