#include "session/files/internal/Packets.h"

#include <cerrno>
#include <cstring>

#include <sys/socket.h>

namespace korimg::files {
namespace {

constexpr std::size_t kLongest = 1 << 16;  // bytes

/// Room for one descriptor beside a message.
union Control {
  cmsghdr header;
  char bytes[CMSG_SPACE(sizeof(int))];
};

}  // namespace

bool SendPacket(int socket, const nlohmann::json& json, int descriptor) {
  std::string text = json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
  iovec part{text.data(), text.size()};
  msghdr message{.msg_iov = &part, .msg_iovlen = 1};
  Control control{};
  if (descriptor >= 0) {
    message.msg_control = control.bytes;
    message.msg_controllen = sizeof control.bytes;
    control.header = {
        .cmsg_len = CMSG_LEN(sizeof descriptor), .cmsg_level = SOL_SOCKET, .cmsg_type = SCM_RIGHTS};
    std::memcpy(CMSG_DATA(&control.header), &descriptor, sizeof descriptor);
  }
  ssize_t sent;
  do {
    sent = sendmsg(socket, &message, MSG_NOSIGNAL);
  } while (sent < 0 && errno == EINTR);
  return sent == static_cast<ssize_t>(text.size());
}

std::optional<Packet> ReceivePacket(int socket) {
  std::string text(kLongest, '\0');
  iovec part{text.data(), text.size()};
  Control control{};
  msghdr message{.msg_iov = &part,
                 .msg_iovlen = 1,
                 .msg_control = control.bytes,
                 .msg_controllen = sizeof control.bytes};
  ssize_t got;
  do {
    got = recvmsg(socket, &message, MSG_CMSG_CLOEXEC);
  } while (got < 0 && errno == EINTR);
  Packet packet;
  if (const cmsghdr* header = CMSG_FIRSTHDR(&message);
      got >= 0 && header != nullptr && header->cmsg_type == SCM_RIGHTS) {
    int descriptor;
    std::memcpy(&descriptor, CMSG_DATA(header), sizeof descriptor);
    packet.descriptor = FileDescriptor(descriptor);
  }
  if (got <= 0) return std::nullopt;
  packet.json = nlohmann::json::parse(text.begin(), text.begin() + got, nullptr, false);
  if (!packet.json.is_object()) return std::nullopt;
  return packet;
}

}  // namespace korimg::files
