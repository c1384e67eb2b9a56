// Sends the entities of files while those are still read, so that host and client parse at the same time.
//
//   Upload upload([&]() -> Client& { return context.client(); }, sent);
//   const Configuration configuration(sources, [&](const auto& entry) { upload.add(entry); });
//   if (!upload.finish()) client.write(all of it);
//
// All in one transaction: nothing is stored before finish().
#pragma once

#include <exception>
#include <functional>
#include <optional>
#include <string>
#include <unordered_set>
#include <vector>

#include "ctl/client.h"
#include "ctl/configuration.h"

namespace Ctl {

class Upload {
 public:
  // `connect` is called before something is sent.
  Upload(std::function<Client&()> connect, Client::Sent onSent)
      : connect_(std::move(connect)), onSent_(std::move(onSent)) {}

  // The entry must stay where it is. Throws ConnectionLost; a refusal waits until finish().
  void add(const Configuration::Entry& entry);
  // Stores what was added, and returns true. Returns false if nothing was stored and the caller must write
  // all of it: it is little, or an entity came long after one under it. Throws Refusal.
  bool finish();

 private:
  void send();
  // Whether an entity of the part is above one that was sent.
  bool isLate() const;
  void giveUp();

  const std::function<Client&()> connect_;
  const Client::Sent onSent_;
  std::vector<const Configuration::Entry*> part_;  // to be sent next
  std::size_t bytes_ = 0;                          // of the part, about
  std::unordered_set<std::string> above_;          // paths above those that were sent
  std::optional<Client::Transfer> transfer_;
  bool hasGivenUp_ = false;
  std::exception_ptr refusal_;
};

}  // namespace Ctl
