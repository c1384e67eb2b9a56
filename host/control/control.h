// The control socket's server.
//
// Requests that arrive in one round of the loop are carried out as they come; the host then calls commit(),
// which makes what they wrote durable in one step and lets the answers go.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "host/control/listener.h"
#include "host/control/methods.h"
#include "host/io/connection.h"
#include "host/rpc/rpc.h"

namespace Host {

class Control final : private Connection::Owner {
 public:
  // Listens on the socket at once. All three must outlive the server.
  Control(Loop& loop, Listener& listener, Served& served);
  ~Control();
  Control(const Control&) = delete;
  Control& operator=(const Control&) = delete;

  // Makes everything that was written durable, whoever wrote it. Where the store can't, the requests that
  // wrote are answered with its error.
  void commit();
  // Hands what waits for the clients to the system, as far as it takes it.
  void send();

 private:
  struct Peer {
    Peer(Served& served, const std::shared_ptr<Connection>& connection);

    const std::shared_ptr<Connection> connection;
    Caller caller;
    std::size_t taken = 0;  // bytes of requests in this round
  };
  // An answer that waits for the next commit.
  struct Answer {
    std::shared_ptr<Connection> connection;
    Zel::Value id;
    bool wrote;
    std::string text;  // empty where the client wants none
  };
  // Bytes of requests that one client may have carried out in a round: what they cause reaches the others
  // before more.
  static constexpr std::size_t kTakenLimit = 256 << 10;
  // Bytes of answers that may wait for the end of the round.
  static constexpr std::size_t kWaitingLimit = 1 << 20;

  void accept(uv_stream_t* listener);
  void onLine(Connection& connection, std::string_view line) override;
  void onOversizedLine(Connection& connection) override;
  void onClosed(Connection& connection) override;

  // The answer's text. Commits first where the method needs to see what is durable.
  std::string carryOut(Peer& peer, const Request& request, bool& wrote);
  void answer(Answer answer);
  void release(const RpcError* failure);

  Served& served_;
  const Methods methods_;
  std::map<const Connection*, std::unique_ptr<Peer>> peers_;
  std::vector<const Connection*> closed_;  // their peers end with the round
  std::vector<Answer> answers_;
  std::size_t waiting_ = 0;  // bytes of `answers_`
};

}  // namespace Host
