#include "kelimctl/link.h"

#include <errno.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kelimctl {
namespace {

std::string user_name(uid_t id) {
  const passwd *found = getpwuid(id);
  return found ? found->pw_name : std::to_string(id);
}

std::string group_name(gid_t id) {
  const group *found = getgrgid(id);
  return found ? found->gr_name : std::to_string(id);
}

// Names those who may use the socket, or a run directory that is closed to the caller.
std::string who_may(const std::string &path, const std::string &run_dir) {
  struct stat file {};
  const bool seen = stat(path.c_str(), &file) == 0;
  const std::string owner = seen || stat(run_dir.c_str(), &file) == 0 ? "user " + user_name(file.st_uid) : "that user";
  if (seen && (file.st_mode & S_IWGRP) != 0)
    return owner + " and root may ask it, and members of group " + group_name(file.st_gid) + " for views.";
  return owner + " and root may ask it; control.group in its configuration lets members of a group ask for views.";
}

}  // namespace

void Link::connect() {
  if (client_.fd() >= 0) return;
  const std::string path = host::control::socket_path(run_dir_, process_);
  const std::string why = client_.connect(path);
  if (why.empty()) return;
  if (access(path.c_str(), W_OK) != 0 && errno == EACCES)
    throw Problem(kFailed, process_ + " runs as another user (" + why + "): " + who_may(path, run_dir_));
  throw Problem(
      kNoProcess,
      "No " + process_ + " answers (" + why +
          ").\nStart it with `make run`, or with `systemctl start ssc_kelim` if it is installed. For a run directory other "
          "than " +
          run_dir_ + " use --run-dir or KELIM_RUN_DIR.");
}

Json Link::request(const Json &call) {
  connect();
  std::string line;
  if (const std::string why = client_.request(call.dump(), &line); !why.empty()) throw Problem(kFailed, process_ + ": " + why);
  Json answer = parse(line);
  if (const int status = answer.value("status", 1); status != 0)
    throw Problem(status == kUsage ? kUsage : kFailed, answer.value("error", "refused without a reason"));
  return answer;
}

Json Link::parse(const std::string &line) const {
  Json answer = Json::parse(line, nullptr, false);
  if (answer.is_discarded()) throw Problem(kFailed, process_ + " gave an answer that is not JSON");
  return answer;
}

void Link::watch(const std::string &name, const Json &args, const std::function<bool(const Json &line)> &each) {
  request({{"call", "watch"}, {"name", name}, {"args", args}});
  std::string line;
  do {
    if (const std::string why = client_.receive(&line); !why.empty()) throw Problem(kFailed, process_ + ": " + why);
  } while (each(parse(line)));
}

Json Link::view(const std::string &name, const Json &args) {
  return request({{"call", "view"}, {"name", name}, {"args", args}}).value("data", Json());
}

}  // namespace kelimctl
