// Netlink sockets, on libnl.
//
// libnl's own receiving loop calls back from C, which exceptions must not cross, and hides lost messages; so
// this reads datagram by datagram.
#pragma once

#include <netlink/msg.h>
#include <netlink/socket.h>

#include <functional>
#include <memory>
#include <string>

#include "facts/sink.h"

namespace Facts {

struct FreeNetlink {
  void operator()(nl_sock* socket) const { nl_socket_free(socket); }
  void operator()(nl_msg* message) const { nlmsg_free(message); }
};
using NetlinkMessage = std::unique_ptr<nl_msg, FreeNetlink>;

// Throws std::bad_alloc where libnl returned null.
NetlinkMessage owned(nl_msg* message);

class NetlinkSocket {
 public:
  static constexpr int kDatagrams = 64;  // to receive in one pass, at most

  // Connects to the kernel's `protocol`. Throws SourceError.
  explicit NetlinkSocket(int protocol);

  int fd() const { return nl_socket_get_fd(socket_.get()); }
  nl_sock* get() const { return socket_.get(); }
  // All throw SourceError.
  void join(int group);
  void nonBlockingIs();
  void receiveBufferIs(int bytes);
  // Returns the request's sequence number.
  std::uint32_t send(nl_msg& message);

  // Reads one datagram of the kernel and calls `handler` with each message in it. Messages are lost where the
  // receive buffer was full. Throws SourceError on any other error.
  enum class Received { nothing, messages, lost };
  Received receive(const std::function<void(nlmsghdr&)>& handler);

 private:
  const std::unique_ptr<nl_sock, FreeNetlink> socket_;
};

// The error code of an NLMSG_ERROR message, as errno; 0 where it is none.
int errorOf(const nlmsghdr& message);

}  // namespace Facts
