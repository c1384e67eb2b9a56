// The control socket's server.
//
// Executes requests as they arrive. Once per loop round the host calls commit(), which makes their writes
// durable in one step and releases the answers that waited for it.
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
  // Starts listening. All three arguments must outlive the server.
  Control(Loop& loop, Listener& listener, Served& served);
  ~Control();
  Control(const Control&) = delete;
  Control& operator=(const Control&) = delete;

  // Commits all pending writes, whoever made them. If the store fails, its error answers the requests that
  // wrote.
  void commit();
  // Ends the round: writes the clients' queued output as far as their sockets accept it, resumes paused
  // clients, and frees closed ones.
  void send();

 private:
  struct Peer {
    Peer(Served& served, const std::shared_ptr<Connection>& connection);

    const std::shared_ptr<Connection> connection;
    Caller caller;
    std::size_t taken = 0;  // bytes of requests in this round
  };
  // An answer held back until the next commit.
  struct Answer {
    std::shared_ptr<Connection> connection;
    Zel::Value id;
    bool wrote;
    std::string text;  // empty: the request was a notification
  };
  // Bytes of requests executed per client and round. A client beyond it is paused until send(), so that a
  // flood of requests doesn't delay the other clients' output.
  static constexpr std::size_t kTakenLimit = 256 << 10;
  // Bytes of held-back answers beyond which answer() commits early.
  static constexpr std::size_t kWaitingLimit = 1 << 20;

  void accept(uv_stream_t* listener);
  void onLine(Connection& connection, std::string_view line) override;
  void onOversizedLine(Connection& connection) override;
  void onClosed(Connection& connection) override;

  // Returns the answer's text. Commits first if the method reads rows.
  std::string execute(Peer& peer, const Request& request, bool& wrote);
  void answer(Answer answer);
  void release(const RpcError* failure);

  Served& served_;
  const Methods methods_;
  std::map<const Connection*, std::unique_ptr<Peer>> peers_;
  std::vector<const Connection*> closed_;  // freed at the end of the round
  std::vector<Answer> answers_;
  std::size_t waiting_ = 0;  // bytes of `answers_`
};

}  // namespace Host
