// The control service: debug commands (ssat.h) and views on a unix socket, <run_dir>/<runtime name>.ctl (mode 0600; with
// control.group 0660, but "cmd" stays reserved for root and the process's user).
//
// A request is one JSON object on a line, its answer likewise:
//   {"call":"cmd","module":"ssc_kelim","command":"kelim_set_dbg","args":{"dbg_val":"0x83"}}
//       -> {"status":0,"result":0,"output":"what the handler printed"}
//   {"call":"view","name":"timings","args":{}}  -> {"status":0,"data":...}
//   {"call":"watch","name":"mom","args":{}}     -> {"status":0}, then one line per event until the client disconnects;
//                                                  {"missed":3} stands for as many lines that a slow reader did not get
//   {"call":"set","name":"log.level","value":"info"}  -> {"status":0}; for keys that can be set at run time
//   {"call":"list"}                             -> {"status":0,"modules":[...],"views":[...],"feeds":[...]}
//   an invalid request                          -> {"status":2,"error":"what was wrong and what is allowed"}
//   one that cannot be carried out now          -> {"status":1,"error":"why"}
// "result" is what the handler returned. All of it is served on the loop's thread, one request per client at a time; the next one
// is read once the answer is sent. Lines of more than 64 KiB, a 33rd client and clients that read nothing for a minute are
// rejected.
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

// An invalid request; the text says what is wrong and what is allowed.
struct Refusal : std::invalid_argument {
  using std::invalid_argument::invalid_argument;
};

// A view returns data of a host service. It may throw Refusal for an invalid request, or another exception, with a text for the
// caller, when data are not available.
using View = std::function<nlohmann::ordered_json(const nlohmann::json &args)>;

// A feed sends lines as events happen, until its result is released. `push` sends one line, unless the client is too far behind
// (`line` is then not called); it must not be called from inside the feed's own call. A feed may throw as views do.
using Push = std::function<void(const std::function<nlohmann::ordered_json()> &line)>;
using Feed = std::function<std::shared_ptr<void>(const nlohmann::json &args, Push push)>;

// Registers a view until the runtime is released; a later one of the same name replaces it. Without effect before qx_global_init.
void register_view(const std::string &name, View view);
void register_feed(const std::string &name, Feed feed);

// Registers a configuration key that may be set at run time, until the runtime is released; `set` gets allowed values only.
void register_setting(const std::string &key, std::function<void(const std::string &value)> set);

// The runtime's own calls. start() returns "" or the error.
std::string start(const Config &config, const std::string &runtime_name);
void stop();

}  // namespace host::control
