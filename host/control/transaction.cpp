#include "host/control/transaction.h"

#include <limits>

#include "host/rpc/rpc.h"
#include "platform/zel/core/assert.h"

namespace Host {

namespace {

const Zel::TypeNode* knownType(std::string_view name) {
  const auto known = Zel::Name::existing(name);
  return known && !known->empty() ? Zel::typeNode(*known) : nullptr;
}

// Bytes of one block of memory, with what the allocator needs for it.
constexpr std::size_t kBlock = 16;

std::size_t heldBy(const std::string& text) {
  const bool isInPlace = text.capacity() <= std::string().capacity();
  return isInPlace ? 0 : text.capacity() + kBlock;
}

// Bytes that the value holds beside itself.
struct Held {
  std::size_t operator()(const std::string& text) const { return heldBy(text); }
  std::size_t operator()(const Zel::Value::List& list) const {
    std::size_t bytes = kBlock;
    for (const Zel::Value& each : list) bytes += sizeof each + each.visit(*this);
    return bytes;
  }
  std::size_t operator()(const Zel::Value::Fields& fields) const {
    std::size_t bytes = 3 * kBlock + Zel::Value::kLargestStruct + sizeof fields;
    for (const auto& field : fields) bytes += sizeof field + heldBy(field.first) + field.second.visit(*this);
    return bytes;
  }
  template <class T>
  std::size_t operator()(const T&) const {
    return 0;
  }
};

}  // namespace

GatheredChange::GatheredChange(const RequestedChange& change)
    : kind(change.kind),
      existing(change.existing),
      type(knownType(change.type)),
      path(change.path),
      name(change.kind == Statedb::Change::Kind::unset ? change.attribute
           : type                                      ? ""
                                                       : change.type) {
  if (change.attributes) attributes = *change.attributes;
}

RequestedChange GatheredChange::requested() const {
  const bool isUnset = kind == Statedb::Change::Kind::unset;
  return {.kind = kind,
          .path = path,
          .type = type      ? type->name().view()
                  : isUnset ? std::string_view()
                            : name,
          .attribute = isUnset ? name : std::string_view(),
          .existing = existing,
          .attributes = attributes.as<Zel::Value::Fields>()};
}

std::size_t GatheredChange::held() const {
  return sizeof *this + heldBy(path) + heldBy(name) + attributes.visit(Held());
}

void Transactions::failLate(double now) {
  while (nextLate() <= now)
    open_.front()->fail("the transaction was open for more than " +
                        std::to_string(static_cast<int>(kLongest)) + " s; begin again");
}

double Transactions::nextLate() const {
  return open_.empty() ? std::numeric_limits<double>::infinity() : open_.front()->open_->began + kLongest;
}

void Transaction::begin(Statedb::Durability durability, double now) {
  if (open_) throw refusedFor({"begin: this connection has a transaction open; commit it, or roll it back"});
  open_.emplace(Open{durability, now});
  all_.open_.push_back(this);
}

void Transaction::expectSound() const {
  if (!open_->failure.empty()) throw refusedFor({open_->failure});
}

std::size_t Transaction::gather(const Zel::Value::List& changes) {
  ZEL_REQUIRE(isOpen(), changes.size());
  expectSound();
  for (std::size_t i = 0; i < changes.size() && open_->failure.empty(); ++i) {
    try {
      add(changes[i]);
    } catch (const Zel::ValueError& error) {
      fail("'changes'[" + std::to_string(i) + "]: " + error.what());
    }
  }
  expectSound();
  return open_->changes.size();
}

void Transaction::add(const Zel::Value& change) {
  open_->changes.emplace_back(requestedChange(change));
  const std::size_t held = open_->changes.back().held();
  open_->held += held;
  all_.held_ += held;
  if (open_->changes.size() > Transactions::kMostChanges)
    fail("a transaction has at most " + std::to_string(Transactions::kMostChanges) +
         " changes; commit them in several");
  else if (all_.held_ > Transactions::kMostHeld)
    fail("the transaction holds " + std::to_string(open_->held >> 20) +
         " MiB; all that are open hold at most " + std::to_string(Transactions::kMostHeld >> 20) +
         "; commit less at a time, or try again later");
}

Transaction::Gathered Transaction::end() {
  if (!open_) throw refusedFor({"commit: this connection has no transaction; begin one"});
  Gathered gathered{open_->durability, std::move(open_->changes)};
  const std::string failure = open_->failure;
  rollback();
  if (!failure.empty()) throw refusedFor({failure});
  return gathered;
}

void Transaction::rollback() {
  if (!open_) return;
  drop();
  open_.reset();
}

void Transaction::fail(const std::string& why) {
  if (!open_ || !open_->failure.empty()) return;
  drop();
  open_->failure = why;
}

// Returns its memory, and takes it from those that can be late.
void Transaction::drop() {
  open_->changes.clear();
  all_.held_ -= std::exchange(open_->held, 0);
  std::erase(all_.open_, this);
}

}  // namespace Host
