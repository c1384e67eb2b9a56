// Publishes the facts of one source as entities.
#pragma once

#include <functional>
#include <map>
#include <string>

#include "facts/sink.h"
#include "platform/model/facts.h"
#include "platform/zel/entity/dir.h"

namespace Facts {

// The directory of a type of facts.
template <class Fact>
struct Published;

template <>
struct Published<LinkFact> {
  using Entity = Link;
  static constexpr const char* kSource = "links";
  static constexpr const char* kFolders[] = {"link"};
  static const char* folderOf(const LinkFact&) { return kFolders[0]; }
  static void write(const LinkFact& fact, Link& link);
};

template <>
struct Published<SensorFact> {
  using Entity = Sensor;
  static constexpr const char* kSource = "sensors";
  static constexpr const char* kFolders[] = {"fan", "temperature", "voltage", "current", "power"};  // by kind
  static const char* folderOf(const SensorFact& fact) { return kFolders[static_cast<int>(fact.kind)]; }
  static void write(const SensorFact& fact, Sensor& sensor);
};

template <>
struct Published<UnitFact> {
  using Entity = Unit;
  static constexpr const char* kSource = "units";
  static constexpr const char* kFolders[] = {"unit"};
  static const char* folderOf(const UnitFact&) { return kFolders[0]; }
  static void write(const UnitFact& fact, Unit& unit);
};

// A directory's entry of that type. One of another type, left by another version, is replaced.
template <class Entity>
Zel::Ptr<Entity> entryOf(Zel::Dir& dir, Zel::Name name) {
  const std::string type = Entity::typeNode().name().stdString();
  if (const auto there = Zel::dynamicPtrCast<Entity>(dir.entryIs(name, type))) return there;
  dir.entryDel(name);
  return Zel::dynamicPtrCast<Entity>(dir.entryIs(name, type));
}

template <class Fact>
class Directory final : public Sink<Fact> {
 public:
  using Failed = std::function<void(const std::string& error)>;

  // `facts` is the directory "facts". `report` is called with each error once, `ended` with each failure.
  Directory(Zel::Dir& facts, Failed report, Failed ended)
      : report_(std::move(report)),
        ended_(std::move(ended)),
        status_(entryOf<SourceStatus>(*entryOf<Zel::Dir>(facts, "source"), P::kSource)) {
    for (const char* folder : P::kFolders) dirs_[folder] = entryOf<Zel::Dir>(facts, folder);
    status_->workingIs(false);
  }

  void factIs(Zel::Name name, const Fact& fact) override {
    const auto dir = dirs_.at(P::folderOf(fact));
    there_[name] = dir;
    P::write(fact, *entryOf<typename P::Entity>(*dir, name));
    count();
  }
  void factDel(Zel::Name name) override {
    const auto found = there_.find(name);
    if (found == there_.end()) return;
    found->second->entryDel(name);
    there_.erase(found);
    count();
  }
  void complete() override {
    complete_ = true;
    for (const auto& [folder, dir] : dirs_)
      for (const auto& entry : dir->entries())
        if (!there_.contains(entry->name())) dir->entryDel(entry->name());
    count();
  }
  void errorIs(const std::string& error) override {
    status_->workingIs(complete_ && error.empty());
    if (status_->error().view() == error) return;
    status_->errorIs(error);
    if (!error.empty()) report_(std::string(P::kSource) + ": " + error);
  }
  void failed(const std::string& error) override {
    there_.clear();
    complete();
    complete_ = false;
    errorIs(error);
    ended_(error);
  }

 private:
  using P = Published<Fact>;

  void count() { status_->factsIs(static_cast<std::uint32_t>(there_.size())); }

  const Failed report_;
  const Failed ended_;
  const Zel::Ptr<SourceStatus> status_;
  std::map<std::string, Zel::Ptr<Zel::Dir>> dirs_;
  std::map<Zel::Name, Zel::Ptr<Zel::Dir>> there_;
  bool complete_ = false;
};

}  // namespace Facts
