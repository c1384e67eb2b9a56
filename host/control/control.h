// The control socket's server.
//
// Once per loop round the host calls serve(), which executes requests that have arrived, and commit(), which
// flushes their writes in one step; an answer is sent when the flush of its request is complete.
//
// Fair queueing: of the clients with requests, the one whose requests took the least time so far goes first,
// and a round ends after ClientLimits::round. So a client that uses less than its share is answered in the
// first round that finds its request, whatever others send. A request that has begun is completed.
#pragma once

#include <algorithm>
#include <deque>
#include <map>
#include <memory>
#include <optional>
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

  // Executes requests for the time of one round, but at least one. The rest waits for the next round, which
  // begins at once.
  void serve();
  // Flushes all pending writes, whoever made them, and answers the requests whose flush has completed. If the
  // disk fails, its error answers the requests that wrote stored rows.
  void commit();
  // Ends the round: writes the clients' queued output as far as their sockets accept it, and frees closed
  // clients.
  void send();

 private:
  // How a flush ended for stored and for volatile rows.
  struct Flushed {
    Statedb::Ticket stored;
    Statedb::Ticket volatile_;
  };
  static Flushed flush(Statedb::Store& store);
  // The answer to one request, which waits for the next commit, and then until its flush is complete.
  struct Reply {
    Zel::Value id{};
    Wrote wrote = Wrote::nothing;
    std::string text{};                       // empty: the request was a notification
    std::optional<Statedb::Ticket> ticket{};  // of its flush, where it wrote
    bool endsTransaction = false;             // is sent as soon as it is done

    // The answer's line, or its error where the flush has failed. REQUIRES: isDone().
    std::string outcome() const;
    bool isDone() const { return wrote == Wrote::nothing || (ticket && ticket->isDone()); }
  };
  // One line: the answer to a request, or to an array of them.
  struct Answer {
    std::shared_ptr<Connection> connection;
    std::vector<Reply> replies;
    bool isArray = false;

    bool isDone() const { return std::ranges::all_of(replies, &Reply::isDone); }
    std::size_t size() const;
  };
  struct Peer {
    Peer(Served& served, const std::shared_ptr<Connection>& connection);

    const std::shared_ptr<Connection> connection;
    Caller caller;
    // Processor seconds that its requests took, between what the client served last had used, so that pauses
    // earn nothing, and kMostDebt more.
    double used = 0;
    bool isWaiting = false;  // among the waiting
  };
  static constexpr double kMostDebt = 4e-3;
  using Waiting = std::multimap<double, Peer*>;  // by `used`, then by the order of arrival
  // Requests in one array, and bytes of their answers beyond which the rest is refused.
  static constexpr std::size_t kMostRequests = 100;
  static constexpr std::size_t kLongestAnswers = 1 << 20;
  // Bytes of held-back answers beyond which answer() commits early, and of answers that wait for their flush
  // beyond which their clients are not read.
  static constexpr std::size_t kWaitingLimit = 1 << 20;

  void accept(uv_stream_t* listener);
  // Why a new client is refused; empty where it is not.
  std::string refusalOf(const Connection& connection) const;
  void add(const std::shared_ptr<Connection>& connection);
  const Peer& largest() const;
  void onArrived(Connection& connection) override;
  void onLine(Connection& connection, std::string_view line) override;
  void onOversizedLine(Connection& connection) override;
  void onClosed(Connection& connection) override;
  void onHeld(std::ptrdiff_t more) override;

  void onMessage(Peer& peer, Zel::Value message);
  // Carries out the requests of an array, as if each stood alone.
  void onArray(Peer& peer, Zel::Value::List messages);
  // The client to be served next; end() if there is none.
  Waiting::iterator first();
  void wait(Peer& peer);
  // Serves one request.
  void serveOne(Peer& peer);
  void erase(const Connection* connection);
  // Lets the next round begin without waiting for events.
  void continueAtOnce();

  // `hasRoom`: whether the answer may be as long as it is.
  Reply replyTo(Peer& peer, Zel::Value message, bool hasRoom = true);
  static Reply errorReply(Caller& caller, const Zel::Value& id, const RpcError& error);
  // Returns the answer's text. Commits first if the method reads rows.
  std::string execute(Peer& peer, const Request& request);
  // Ends transactions that are open for too long, and wakes the loop for the next.
  void failLate();
  void answer(const std::shared_ptr<Connection>& connection, Reply reply);
  void answer(Answer answer);
  static void settle(std::vector<Reply>& replies, const Flushed& flushed);
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
  const UvHandle<uv_idle_t> again_;
  const UvHandle<uv_timer_t> late_;  // wakes the loop when a transaction has been open for too long
  std::map<const Connection*, std::unique_ptr<Peer>> peers_;
  Waiting waitingPeers_;                   // that have requests
  double usedBefore_ = 0;                  // what the peer that was served last had used before
  std::vector<Reply> array_;               // to the requests of an array, while it is carried out
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
