// The control socket's server.
//
// Requests that arrive in one round of the loop are carried out as they come; the host then calls commit(),
// which flushes what they wrote in one step; answers go when their flush is complete.
#pragma once

#include <deque>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
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

  // Flushes the store, and answers the requests whose flush has completed. Where the store fails, the
  // requests that wrote are answered with its error.
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
  // An answer that waits for the next commit, and then for its flush to complete.
  struct Answer {
    std::shared_ptr<Connection> connection;
    Zel::Value id;
    bool wrote;
    std::string text;  // empty where the client wants none
    Statedb::Ticket ticket{};
  };
  // Bytes of requests that one client may have carried out in a round: what they cause reaches the others
  // before more.
  static constexpr std::size_t kTakenLimit = 256 << 10;
  // Bytes of answers that may wait for the end of the round, and of those that may wait for the store: beyond
  // that, the clients whose answers wait are not read.
  static constexpr std::size_t kWaitingLimit = 1 << 20;

  void accept(uv_stream_t* listener);
  void onLine(Connection& connection, std::string_view line) override;
  void onOversizedLine(Connection& connection) override;
  void onClosed(Connection& connection) override;

  // The answer's text. Commits first where the method needs to see what is durable.
  std::string carryOut(Peer& peer, const Request& request, bool& wrote);
  void answer(Answer answer);
  void sendOrHold(Answer&& answer);
  void release();
  static void send(const Answer& answer);
  bool isHeldBack(const Connection& connection) const {
    return heldBytes_ > kWaitingLimit && held_.contains(&connection);
  }

  Served& served_;
  const Methods methods_;
  std::map<const Connection*, std::unique_ptr<Peer>> peers_;
  std::vector<const Connection*> closed_;  // their peers end with the round
  std::vector<Answer> answers_;
  std::size_t waiting_ = 0;  // bytes of `answers_`
  std::deque<Answer>
      committed_;  // that wait for their tickets, or for an answer of their connection that does
  std::unordered_map<const Connection*, std::size_t> held_;  // how many of them each connection has
  std::size_t heldBytes_ = 0;                                // of `committed_`
};

}  // namespace Host
