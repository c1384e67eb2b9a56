#include "facts/timer.h"

namespace Facts {

Poll::Poll(double interval) : interval_(interval), timer_(Zel::allocate<Timer>([this] { run(); })) {}

void Poll::wantedIs(Client& client, bool wanted) {
  if (!wanted)
    clients_.erase(&client);
  else if (clients_.insert(&client).second && clients_.size() == 1)
    timer_->timeMinIs(Zel::System::currentTime() + interval_);
  if (clients_.empty()) timer_->timeMinIs(Zel::Clock::kNever);
}

void Poll::run() {
  timer_->timeMinIs(Zel::System::currentTime() + interval_);
  for (Client* client : std::set<Client*>(clients_))
    if (clients_.contains(client)) client->onPoll();
}

}  // namespace Facts
