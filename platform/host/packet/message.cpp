#include "host/packet/message.h"

#include <errno.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <cstring>

namespace host::packet {
namespace {

constexpr int kGone = -1, kFull = -14;

iovec part(Bytes bytes) {
  return {.iov_base = const_cast<std::byte *>(bytes.data()), .iov_len = bytes.size()};
}

}  // namespace

int put(int socket, const Head &head, Bytes actions, Bytes frame) {
  iovec parts[] = {part(std::as_bytes(std::span(&head, 1))), part(actions), part(frame)};
  msghdr message{};
  message.msg_iov = parts;
  message.msg_iovlen = std::size(parts);
  if (::sendmsg(socket, &message, MSG_DONTWAIT | MSG_NOSIGNAL) >= 0) return 0;
  return errno == EAGAIN || errno == ENOBUFS || errno == ENOMEM || errno == EINTR ? kFull : kGone;
}

Taken take(int socket, std::span<std::byte> buffer, Head &head, Bytes &actions, Bytes &frame) {
  const ssize_t length = ::recv(socket, buffer.data(), buffer.size(), MSG_DONTWAIT | MSG_TRUNC);
  if (length < 0 && (errno == EAGAIN || errno == EINTR)) return Taken::nothing;
  const auto size = static_cast<std::size_t>(length);
  if (length < 0 || size < sizeof head || size > buffer.size()) return Taken::gone;
  std::memcpy(&head, buffer.data(), sizeof head);
  if (head.actions > kMaxActions || size - sizeof head != std::size_t{head.actions} + head.frame) return Taken::gone;
  actions = buffer.subspan(sizeof head, head.actions);
  frame = buffer.subspan(sizeof head + head.actions, head.frame);
  return Taken::message;
}

bool is_trusted(int socket) {
  ucred peer{};
  socklen_t length = sizeof peer;
  return getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &length) == 0 && (peer.uid == geteuid() || peer.uid == 0);
}

std::string socket_path(const std::string &run_dir) {
  return run_dir + "/packets.sock";
}

}  // namespace host::packet
