// The control socket's server.
//
// Executes requests as they arrive. Once per loop round the host calls commit(), which flushes their writes
// in one step; an answer is sent when the flush of its request is complete.
#pragma once

#include <deque>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "host/control/clientlimits.h"
#include "host/control/listener.h"
#include "host/control/methods.h"
#include "host/control/sparselog.h"
#include "host/io/connection.h"
#include "host/rpc/rpc.h"

namespace Host {

class Control final : private Connection::Owner {
 public:
  // Starts listening. The first three arguments must outlive the server.
  Control(Loop& loop, Listener& listener, Served& served, const ClientLimits& limits);
  // Serves only the process at the other end of the connected socket `client`, which it closes at its end,
  // and stops the loop when that process is gone. Throws StartError if it is not such a socket.
  Control(Loop& loop, int client, Served& served);
  ~Control();
  Control(const Control&) = delete;
  Control& operator=(const Control&) = delete;

  // Flushes all pending writes, whoever made them, and answers the requests whose flush has completed. If the
  // disk fails, its error answers the requests that wrote stored rows.
  void commit();
  // Ends the round: writes the clients' queued output as far as their sockets accept it, and frees closed
  // clients.
  void send();

 private:
  struct Peer {
    Peer(Served& served, const std::shared_ptr<Connection>& connection);

    const std::shared_ptr<Connection> connection;
    Caller caller;
    double used = 0;  // seconds of this round
  };
  enum class Wrote : std::uint8_t { nothing, volatileRows, storedRows };
  // An answer held back until the next commit, and then until its flush is complete.
  struct Answer {
    std::shared_ptr<Connection> connection;
    Zel::Value id;
    Wrote wrote;
    std::string text;  // empty: the request was a notification
    Statedb::Ticket ticket{};
  };
  // Bytes of held-back answers beyond which answer() commits early, and of answers that wait for their flush
  // beyond which their clients are not read.
  static constexpr std::size_t kWaitingLimit = 1 << 20;

  void accept(uv_stream_t* listener);
  // Why a new client is refused; empty where it is not.
  std::string refusalOf(const Connection& connection) const;
  void add(const std::shared_ptr<Connection>& connection);
  const Peer& largest() const;
  void onLine(Connection& connection, std::string_view line) override;
  void onOversizedLine(Connection& connection) override;
  void onClosed(Connection& connection) override;
  void onHeld(std::ptrdiff_t more) override;

  // Pauses a client that used up its share of the round, or has too many answers waiting.
  void share(Peer& peer, double began);
  // Resumes the paused clients in the next round, which begins at once.
  void resumeLater();
  void resume();

  // Returns the answer's text. Commits first if the method reads rows.
  std::string execute(Peer& peer, const Request& request, Wrote& wrote);
  void answer(Answer answer);
  void sendOrHold(Answer&& answer);
  void release();
  static void send(const Answer& answer);
  bool isHeldBack(const Connection& connection) const {
    return heldBytes_ > kWaitingLimit && held_.contains(&connection);
  }

  Served& served_;
  const Methods methods_;
  const ClientLimits limits_{};
  Loop* const stopped_ = nullptr;  // by the end of a client
  const UvHandle<uv_idle_t> resume_;
  std::size_t busy_ = 0;        // clients that had requests in this round
  std::size_t busyBefore_ = 1;  // in the round before; at least 1
  std::map<const Connection*, std::unique_ptr<Peer>> peers_;
  std::vector<const Connection*> closed_;  // freed at the end of the round
  std::size_t memory_ = 0;                 // bytes that the connections hold
  SparseLog disconnections_{served_.report};
  std::vector<Answer> answers_;
  std::size_t waiting_ = 0;  // bytes of `answers_`
  std::deque<Answer>
      committed_;  // that wait for their tickets, or for an answer of their connection that does
  std::unordered_map<const Connection*, std::size_t> held_;  // how many of them each connection has
  std::size_t heldBytes_ = 0;                                // of `committed_`
};

}  // namespace Host
