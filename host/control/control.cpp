#include "host/control/control.h"

#include <algorithm>
#include <cmath>
#include <ctime>

#include "host/io/starterror.h"
#include "platform/zel/notify/activity.h"

namespace Host {

Control::Peer::Peer(Served& served, const std::shared_ptr<Connection>& theConnection)
    : connection(theConnection),
      caller(served, theConnection->peerPid(),
             [raw = theConnection.get()](const std::string& line) { raw->send(line); }) {}

namespace {

template <class Handle>
UvHandle<Handle> made(Loop& loop, int (*init)(uv_loop_t*, Handle*)) {
  UvHandle<Handle> handle(new Handle);
  init(loop.uv(), handle.get());
  return handle;
}

}  // namespace

Control::Control(Loop& loop, Listener& listener, Served& served, const ClientLimits& limits)
    : served_(served),
      methods_(served),
      limits_(limits),
      again_(made(loop, &uv_idle_init)),
      late_(made(loop, &uv_timer_init)) {
  listener.start([this](uv_stream_t* stream) { accept(stream); });
}

namespace {

UvHandle<uv_pipe_t> opened(Loop& loop, int client) {
  UvHandle<uv_pipe_t> pipe(new uv_pipe_t);
  uv_pipe_init(loop.uv(), pipe.get(), 0);
  if (const int result = uv_pipe_open(pipe.get(), client); result != 0)
    throw StartError("client " + std::to_string(client) + ": no open socket: " + uv_strerror(result));
  return pipe;
}

}  // namespace

Control::Control(Loop& loop, int client, Served& served)
    : served_(served),
      methods_(served),
      stopped_(&loop),
      again_(made(loop, &uv_idle_init)),
      late_(made(loop, &uv_timer_init)) {
  Connection::Owner& owner = *this;
  add(std::make_shared<Connection>(opened(loop, client), owner));
}

Control::~Control() {
  for (auto& [connection, peer] : peers_) peer->connection->close();
}

void Control::accept(uv_stream_t* listener) {
  const auto connection = Connection::accept(listener, *this);
  if (!connection) return;
  const std::string refusal = refusalOf(*connection);
  if (refusal.empty()) return add(connection);
  connection->refuse(errorText({}, RpcError(RpcCode::refused, refusal)));
}

std::string Control::refusalOf(const Connection& connection) const {
  if (served_.clients >= limits_.clients)
    return "the host serves " + std::to_string(limits_.clients) +
           " clients at most (--max-clients), and has as many; end one, or try again later";
  if (connection.descriptor() >= limits_.descriptors)
    return "the host keeps the file descriptors that are left, from number " +
           std::to_string(limits_.descriptors) +
           " on, for itself; end a client, or raise its limit of open files (LimitNOFILE=)";
  return {};
}

void Control::add(const std::shared_ptr<Connection>& connection) {
  peers_.emplace(connection.get(), std::make_unique<Peer>(served_, connection));
  ++served_.clients;
}

void Control::onClosed(Connection& connection) {
  closed_.push_back(&connection);
  peers_.at(&connection)->caller.withdraw();
  --served_.clients;
  if (stopped_) stopped_->stop();
}

void Control::onHeld(std::ptrdiff_t more) {
  memory_ += static_cast<std::size_t>(more);
  while (more > 0 && memory_ > limits_.memory) {
    const Peer& peer = largest();
    const std::size_t held = peer.connection->held();
    if (memory_ - held <= limits_.memory) return;
    disconnections_.add("a client (pid " + std::to_string(peer.caller.pid) + ") is disconnected: it held " +
                        std::to_string(held) +
                        " bytes of unread answers and unfinished messages, the most of " +
                        std::to_string(served_.clients) + " clients, which hold " + std::to_string(memory_));
    peer.connection->close();
  }
}

const Control::Peer& Control::largest() const {
  const auto held = [](const auto& each) { return each.first->held(); };
  return *std::ranges::max_element(peers_, {}, held)->second;
}

void Control::onArrived(Connection& connection) {
  Peer& peer = *peers_.at(&connection);
  if (!std::exchange(peer.isWaiting, true)) wait(peer);
}

void Control::wait(Peer& peer) {
  peer.used = std::clamp(peer.used, usedBefore_, usedBefore_ + kMostDebt);
  waitingPeers_.emplace(peer.used, &peer);
}

Control::Waiting::iterator Control::first() {
  return std::ranges::find_if(waitingPeers_,
                              [this](const auto& each) { return !isHeldBack(*each.second->connection); });
}

void Control::serve() {
  const double end = Zel::System::currentTime() + limits_.round;
  do {
    const auto next = first();
    if (next == waitingPeers_.end()) return;
    Peer& peer = *next->second;
    usedBefore_ = std::max(usedBefore_, next->first);
    waitingPeers_.erase(next);
    serveOne(peer);
  } while (Zel::System::currentTime() < end);
}

namespace {

// Processor seconds of this thread. A client pays neither for a wait for the disk nor for other processes.
double processorTime() {
  timespec time{};
  ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

}  // namespace

void Control::serveOne(Peer& peer) {
  const double began = processorTime();
  peer.isWaiting = peer.connection->deliver();
  peer.used += processorTime() - began;
  if (peer.isWaiting) wait(peer);
}

void Control::onLine(Connection& connection, std::string_view line) {
  Peer& peer = *peers_.at(&connection);
  try {
    onMessage(peer, parseMessage(line));
  } catch (const RpcError& error) {
    answer(peer.connection, errorReply(peer.caller, {}, error));
  }
}

void Control::onMessage(Peer& peer, Zel::Value message) {
  if (auto* messages = message.as<Zel::Value::List>()) return onArray(peer, std::move(*messages));
  answer(peer.connection, replyTo(peer, std::move(message)));
}

void Control::onArray(Peer& peer, Zel::Value::List messages) {
  if (messages.empty() || messages.size() > kMostRequests)
    throw RpcError(RpcCode::invalidRequest, "found an array of " + std::to_string(messages.size()) +
                                                " requests, expected 1 to " + std::to_string(kMostRequests));
  std::size_t bytes = 0;
  for (Zel::Value& message : messages) {
    array_.push_back(replyTo(peer, std::move(message), bytes <= kLongestAnswers));
    bytes += array_.back().text.size();
  }
  answer({peer.connection, std::exchange(array_, {}), true});
}

Control::Reply Control::replyTo(Peer& peer, Zel::Value message, bool hasRoom) {
  Request request;
  Reply reply;
  peer.caller.wrote = Wrote::nothing;
  try {
    request.read(std::move(message));
    if (!hasRoom)
      throw refusedFor({"the answers of this array have more than " + std::to_string(kLongestAnswers) +
                        " bytes; send the requests that are left in another one"});
    reply.text = execute(peer, request);
    reply.wrote = peer.caller.wrote;
    reply.endsTransaction = request.method == "commit";
    reply.id = std::move(request.id);
  } catch (const RpcError& error) {
    reply = errorReply(peer.caller, request.id, error);
  }
  if (!request.answered) reply.text.clear();
  return reply;
}

Control::Reply Control::errorReply(Caller& caller, const Zel::Value& id, const RpcError& error) {
  caller.transaction.fail(error.what());
  return {.text = errorText(id, error)};
}

std::string Control::execute(Peer& peer, const Request& request) {
  const auto& method = Methods::find(request.method);
  if (method.sees) commit();
  try {
    return resultText(request.id, methods_.run(method, request.parameters, peer.caller));
  } catch (const RpcError&) {
    throw;
  } catch (const Zel::HandlerFault&) {
    throw;
  } catch (const std::exception& error) {
    throw RpcError(RpcCode::internal, request.method + ": " + error.what());
  }
}

void Control::onOversizedLine(Connection& connection) {
  const RpcError error(RpcCode::parse, "a message is longer than " + std::to_string(Lines::kLimit) +
                                           " bytes; send less at a time");
  Peer& peer = *peers_.at(&connection);
  answer(peer.connection, errorReply(peer.caller, {}, error));
}

void Control::answer(const std::shared_ptr<Connection>& connection, Reply reply) {
  Answer one{connection, {}};
  one.replies.push_back(std::move(reply));
  answer(std::move(one));
}

// Answers keep the order of the requests: once one waits for the commit, all later ones do.
void Control::answer(Answer answer) {
  if (answers_.empty() && committed_.empty() && answer.isDone()) return send(answer);
  waiting_ += answer.size();
  answers_.push_back(std::move(answer));
  if (waiting_ > kWaitingLimit) commit();
}

Control::Flushed Control::flush(Statedb::Store& store) {
  try {
    const Statedb::Ticket ticket = store.flush();
    return {ticket, ticket};
  } catch (const Statedb::NotStoredError& error) {
    return {Statedb::Ticket::failed(error.what()), {}};
  } catch (const Statedb::StoreError& error) {
    const auto ticket = Statedb::Ticket::failed(error.what());
    return {ticket, ticket};
  }
}

void Control::commit() {
  const Flushed flushed = flush(served_.store);
  release();
  waiting_ = 0;
  settle(array_, flushed);
  for (Answer& answer : std::exchange(answers_, {})) {
    settle(answer.replies, flushed);
    sendOrHold(std::move(answer));
  }
}

void Control::settle(std::vector<Reply>& replies, const Flushed& flushed) {
  for (Reply& reply : replies)
    if (reply.wrote != Wrote::nothing && !reply.ticket)
      reply.ticket = reply.wrote == Wrote::storedRows ? flushed.stored : flushed.volatile_;
}

// Keeps the order of the answers of each connection.
void Control::sendOrHold(Answer&& answer) {
  if (answer.isDone() && !held_.contains(answer.connection.get())) return send(answer);
  ++held_[answer.connection.get()];
  heldBytes_ += answer.size();
  committed_.push_back(std::move(answer));
}

// Tickets complete in the order of their flushes, so the first that is not done holds the rest back.
void Control::release() {
  for (; !committed_.empty() && committed_.front().isDone(); committed_.pop_front()) {
    const Answer& answer = committed_.front();
    send(answer);
    heldBytes_ -= answer.size();
    if (const auto held = held_.find(answer.connection.get()); --held->second == 0) held_.erase(held);
  }
}

std::size_t Control::Answer::size() const {
  std::size_t bytes = 0;
  for (const Reply& reply : replies) bytes += reply.text.size();
  return bytes;
}

std::string Control::Reply::outcome() const {
  const std::string failure = ticket ? ticket->failure() : std::string();
  if (failure.empty()) return text;
  const bool isRefused = ticket->kind() == Statedb::Ticket::Kind::refused;
  return errorText(id, isRefused ? refusedFor({failure}) : RpcError(RpcCode::store, failure));
}

// The agents take about as long for a large transaction as the store, so its answer does not wait for the end
// of the round. The requests that follow it do, and see what the agents have made of it.
void Control::send(const Answer& answer) {
  std::string line;
  for (const Reply& reply : answer.replies)
    if (!reply.text.empty()) line += (line.empty() ? "" : ",") + reply.outcome();
  if (!line.empty()) answer.connection->send(answer.isArray ? '[' + line + ']' : line);
  if (std::ranges::any_of(answer.replies, &Reply::endsTransaction)) answer.connection->flush();
}

void Control::send() {
  for (auto& [connection, peer] : peers_) peer->connection->flush();
  for (const Connection* connection : std::exchange(closed_, {})) erase(connection);
  failLate();
  continueAtOnce();
}

void Control::erase(const Connection* connection) {
  const auto gone = peers_.find(connection);
  if (gone->second->isWaiting)
    std::erase_if(waitingPeers_, [&](const auto& each) { return each.second == gone->second.get(); });
  peers_.erase(gone);
}

void Control::failLate() {
  served_.transactions.failLate(Zel::System::currentTime());
  const double seconds = served_.transactions.nextLate() - Zel::System::currentTime();
  if (std::isinf(seconds)) return static_cast<void>(uv_timer_stop(late_.get()));
  const auto milliseconds = static_cast<std::uint64_t>(std::max(seconds, 0.0) * 1e3) + 1;
  uv_timer_start(
      late_.get(), [](uv_timer_t*) {}, milliseconds, 0);  // the turn that follows calls this
}

// An idle handle keeps the loop from waiting for events.
void Control::continueAtOnce() {
  if (first() == waitingPeers_.end())
    uv_idle_stop(again_.get());
  else
    uv_idle_start(again_.get(), [](uv_idle_t*) {});
}

}  // namespace Host
