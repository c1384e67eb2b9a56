#include "facts/netlink.h"

#include <netlink/netlink.h>

#include <cstdlib>
#include <new>

namespace Facts {

namespace {

void check(int result, const char* doing) {
  if (result < 0) throw SourceError(std::string("netlink, ") + doing + ": " + nl_geterror(result));
}

}  // namespace

NetlinkMessage owned(nl_msg* message) {
  if (!message) throw std::bad_alloc();
  return NetlinkMessage(message);
}

NetlinkSocket::NetlinkSocket(int protocol) : socket_(nl_socket_alloc()) {
  if (!socket_) throw std::bad_alloc();
  check(nl_connect(socket_.get(), protocol), "connecting");
}

void NetlinkSocket::join(int group) {
  check(nl_socket_add_membership(socket_.get(), group), "joining a group");
}

void NetlinkSocket::nonBlockingIs() { check(nl_socket_set_nonblocking(socket_.get()), "setting up"); }

void NetlinkSocket::receiveBufferIs(int bytes) {
  check(nl_socket_set_buffer_size(socket_.get(), bytes, 0), "setting the buffer");
}

std::uint32_t NetlinkSocket::send(nl_msg& message) {
  nl_socket_disable_auto_ack(socket_.get());
  check(nl_send_auto(socket_.get(), &message), "sending");
  return nlmsg_hdr(&message)->nlmsg_seq;
}

NetlinkSocket::Received NetlinkSocket::receive(const std::function<void(nlmsghdr&)>& handler) {
  sockaddr_nl from{};
  unsigned char* bytes = nullptr;
  int left = nl_recv(socket_.get(), &from, &bytes, nullptr);
  const std::unique_ptr<unsigned char, decltype(&std::free)> kept(bytes, &std::free);
  if (left == -NLE_AGAIN) return Received::nothing;
  if (left == -NLE_NOMEM) return Received::lost;
  check(left, "receiving");
  if (left == 0) throw SourceError("netlink, receiving: the socket is closed");
  if (from.nl_pid != 0) return Received::messages;  // another process wrote it
  for (auto* each = reinterpret_cast<nlmsghdr*>(bytes); nlmsg_ok(each, left); each = nlmsg_next(each, &left))
    handler(*each);
  return Received::messages;
}

int errorOf(const nlmsghdr& message) {
  if (message.nlmsg_type != NLMSG_ERROR || message.nlmsg_len < NLMSG_LENGTH(sizeof(nlmsgerr))) return 0;
  return -static_cast<const nlmsgerr*>(NLMSG_DATA(&message))->error;
}

}  // namespace Facts
