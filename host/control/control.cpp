#include "host/control/control.h"

#include <algorithm>
#include <cmath>

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
      resume_(made(loop, &uv_idle_init)),
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
      resume_(made(loop, &uv_idle_init)),
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

void Control::onLine(Connection& connection, std::string_view line) {
  Peer& peer = *peers_.at(&connection);
  const double began = Zel::System::currentTime();
  try {
    onMessage(peer, parseMessage(line));
  } catch (const RpcError& error) {
    answer(peer.connection, errorReply(peer.caller, {}, error));
  }
  share(peer, began);
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

void Control::share(Peer& peer, double began) {
  if (peer.used == 0) ++busy_;
  peer.used += std::max(Zel::System::currentTime() - began, 1e-9);
  if (peer.used > limits_.round / static_cast<double>(busyBefore_) || isHeldBack(*peer.connection))
    peer.connection->pause();
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

void Control::send(const Answer& answer) {
  std::string line;
  for (const Reply& reply : answer.replies)
    if (!reply.text.empty()) line += (line.empty() ? "" : ",") + reply.outcome();
  if (!line.empty()) answer.connection->send(answer.isArray ? '[' + line + ']' : line);
}

void Control::send() {
  for (auto& [connection, peer] : peers_) {
    peer->used = 0;
    peer->connection->flush();
  }
  for (const Connection* connection : std::exchange(closed_, {})) peers_.erase(connection);
  failLate();
  busyBefore_ = std::max<std::size_t>(std::exchange(busy_, 0), 1);
  resumeLater();
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
void Control::resumeLater() {
  const auto resumes = [this](const auto& each) {
    return each.second->connection->isPaused() && !isHeldBack(*each.first);
  };
  if (std::ranges::none_of(peers_, resumes)) return static_cast<void>(uv_idle_stop(resume_.get()));
  resume_->data = this;
  uv_idle_start(resume_.get(), [](uv_idle_t* handle) {
    Loop::guard(handle->loop, [&] { static_cast<Control*>(handle->data)->resume(); });
  });
}

void Control::resume() {
  for (auto& [connection, peer] : peers_)
    if (!isHeldBack(*connection)) peer->connection->resume();
}

}  // namespace Host
