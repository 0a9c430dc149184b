// The control service: debug commands (ssat.h) and views on a unix socket, <run_dir>/<runtime name>.ctl (mode 0600; with
// control.group 0660, and "cmd" is not for those who are neither root nor the user of the process).
//
// A request is one JSON object on a line, its answer likewise:
//   {"call":"cmd","module":"ssc_kelim","command":"kelim_set_dbg","args":{"dbg_val":"0x83"}}
//       -> {"status":0,"result":0,"output":"what the handler printed"}
//   {"call":"view","name":"timings","args":{}}  -> {"status":0,"data":...}
//   {"call":"watch","name":"mom","args":{}}     -> {"status":0}, then a line for everything that happens, until the client goes;
//                                                  {"missed":3} stands for as many lines that a slow reader did not get
//   {"call":"set","name":"log.level","value":"info"}  -> {"status":0}; of the keys that the process takes over while it runs
//   {"call":"list"}                             -> {"status":0,"modules":[...],"views":[...],"feeds":[...]}
//   a request that is wrong                     -> {"status":2,"error":"what was wrong and what is allowed"}
//   one that cannot be carried out now          -> {"status":1,"error":"why"}
// "result" is what the handler returned. All of it is served on the loop's thread, one request of a client at a time; the next
// one is read when the answer has gone out. Lines of more than 64 KiB, more than 32 clients and clients that take nothing for a
// minute are turned away.
//
// Threads: the loop's.
#pragma once

#include <functional>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <stdexcept>
#include <string>

namespace host {
struct Config;
}

namespace host::control {

// A request that is wrong; the text says what is, and what is allowed.
struct Refusal : std::invalid_argument {
  using std::invalid_argument::invalid_argument;
};

// A view gives data of a host service. It may throw: Refusal for a wrong request, anything else, with a text for the caller, when
// there are no data.
using View = std::function<nlohmann::ordered_json(const nlohmann::json &args)>;

// A feed gives lines as things happen, until what it returned is released. `push` sends one, unless the client is too far behind
// to get it (then `line` is not made); never from inside the feed's own call. It may throw as views do.
using Push = std::function<void(const std::function<nlohmann::ordered_json()> &line)>;
using Feed = std::function<std::shared_ptr<void>(const nlohmann::json &args, Push push)>;

// Registers a view until the runtime is released; a later one of the same name takes its place. Without effect before
// qx_global_init.
void register_view(const std::string &name, View view);
void register_feed(const std::string &name, Feed feed);

// Registers a key of the configuration that may be set while the process runs, for as long; `set` gets values that are allowed.
void register_setting(const std::string &key, std::function<void(const std::string &value)> set);

// The runtime's own calls. "" or the error.
std::string start(const Config &config, const std::string &runtime_name);
void stop();

}  // namespace host::control
