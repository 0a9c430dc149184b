#include "host/of_ss/agent/inbox.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <memory>
#include <utility>

namespace host::of_ss {
namespace {

using Length = std::uint32_t;  // precedes each message

constexpr std::size_t kBound = 64u << 20;      // bytes; about 2.4 million flow results
constexpr std::size_t kKeptRoom = 256u << 10;  // bytes of the buffers kept after a burst
constexpr auto kRunLimit = std::chrono::seconds(3);

}  // namespace

Inbox::Inbox() : fd_(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {}

Inbox::~Inbox() {
  ::close(fd_);
}

// Not to be called with the mutex held: the openflow thread, which wakes at once, would wait for it.
void Inbox::wake() {
  const std::uint64_t one = 1;
  [[maybe_unused]] const auto written = ::write(fd_, &one, sizeof one);
}

bool Inbox::put(Bytes message) {
  const auto length = static_cast<Length>(message.size());
  const Bytes frame = std::as_bytes(std::span(&length, 1));
  Lock lock(mutex_);
  if (filling_.size() + frame.size() + message.size() > kBound) return false;
  filling_.insert(filling_.end(), frame.begin(), frame.end());
  filling_.insert(filling_.end(), message.begin(), message.end());
  const bool asleep = !std::exchange(woken_, true);
  lock.unlock();
  if (asleep) wake();
  return true;
}

void Inbox::post(std::function<void()> work) {
  {
    const Lock lock(mutex_);
    work_.push_back(std::move(work));
  }
  nudge();
}

bool Inbox::run(std::function<void()> work) {
  struct Job {
    Mutex mutex;
    std::condition_variable done;
    bool ran KELIM_GUARDED_BY(mutex) = false;
    bool abandoned KELIM_GUARDED_BY(mutex) = false;
  };
  const auto job = std::make_shared<Job>();
  post([job, work = std::move(work)] {
    const Lock lock(job->mutex);
    if (job->abandoned) return;
    work();
    job->ran = true;
    job->done.notify_one();
  });
  Lock lock(job->mutex);
  lock.wait_for(job->done, kRunLimit, [&job]() KELIM_REQUIRES(job->mutex) { return job->ran; });
  job->abandoned = true;
  return job->ran;
}

void Inbox::nudge() {
  Lock lock(mutex_);
  const bool asleep = !std::exchange(woken_, true);
  lock.unlock();
  if (asleep) wake();
}

void Inbox::clear() {
  take();
}

Inbox::Taken Inbox::take() {
  std::uint64_t count;
  [[maybe_unused]] const auto read = ::read(fd_, &count, sizeof count);
  taken_.clear();
  if (taken_.capacity() > kKeptRoom) taken_.shrink_to_fit();
  const Lock lock(mutex_);
  woken_ = false;
  std::swap(taken_, filling_);
  return {taken_, std::exchange(work_, {})};
}

Bytes Inbox::Taken::next_message() {
  if (framed.empty()) return {};
  Length length;
  std::memcpy(&length, framed.data(), sizeof length);
  const Bytes message = framed.subspan(sizeof length, length);
  framed = framed.subspan(sizeof length + length);
  return message;
}

}  // namespace host::of_ss
