// Sends what this process publishes, or covers, to the host that keeps the state. Internal to UnixStore.
//
//     Outbox outbox({.durability = "volatile", .what = "published"}, output);
//     outbox.rows().write(changes);
//     outbox.send();   // until output.onSent(), later changes wait, one value an attribute
#pragma once

#include <deque>
#include <functional>
#include <string>
#include <string_view>

#include "host/store/publishedrows.h"
#include "platform/statedb/store/row.h"

namespace Host {

class Outbox {
 public:
  // The connection.
  class Output {
   public:
    using OnReply = std::function<void(const Zel::Value& reply)>;
    // `parameters` are a JSON text.
    virtual void request(const char* method, std::string_view parameters, OnReply onReply) = 0;
    virtual void report(const std::string& what) = 0;
    // The other side can't take anything now: to call retry() later.
    virtual void onPostponed() = 0;
    // It has answered a request.
    virtual void onAccepted() = 0;
    // It has answered all of what was under way.
    virtual void onSent(Outbox& outbox) = 0;

   protected:
    ~Output() = default;
  };
  struct Names {
    const char* durability;  // of its writes
    const char* what;        // "published", for messages
  };

  // `output` must outlive it.
  Outbox(const Names& names, Output& output) : names_(names), output_(output) {}

  PublishedRows& rows() { return rows_; }
  // Sends the changes that the other side does not have. REQUIRES: rows().canSend().
  void send();
  // Sends again what was postponed.
  void retry();
  // The connection is lost; everything is to be sent again.
  void lost();

 private:
  void sendParts();
  void onWritten(const Zel::Value& reply);
  void postpone(const std::string& why);
  void refusePart(const std::string& why);
  void dropValuesOf(Statedb::Path path);

  const Names names_;
  Output& output_;
  PublishedRows rows_;
  std::deque<Statedb::Changes>
      parts_;               // of what is under way: the first was sent, each waits for those before it
  bool waits_ = false;      // for retry()
  bool postponed_ = false;  // and reported so
};

}  // namespace Host
