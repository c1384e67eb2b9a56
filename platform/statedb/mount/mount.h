// Mounts: which paths of the state database an agent wants as entities in its process.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/zel/core/export.h"
#include "platform/zel/entity/entity.h"

namespace Statedb {

class EntityManager;

// The result of a mount group.
enum class MountStatus : std::uint8_t { success, failure };
inline constexpr MountStatus mountSuccess_ = MountStatus::success;
inline constexpr MountStatus mountFailure_ = MountStatus::failure;
ZEL_API std::ostream& operator<<(std::ostream& out, MountStatus status);

// One mount request, of one of these modes:
//
//   "r"   read only
//   "wi"  a directory that the agent may write into: what it writes is published, and stays when the agent's
//         process has ended, until a successor publishes: pins stay as they are
//   "we"  the same, but what was published ends with the process: for what is true only while somebody looks
//   "c"   read only, but for the covers that the agent puts over what others write
class ZEL_API Mount {
 public:
  Mount(const Zel::String& path, const Zel::String& typeName, const Zel::String& mode)
      : path_(path), typeName_(typeName), mode_(mode) {}
  const Zel::String& path() const { return path_; }
  const Zel::String& typeName() const { return typeName_; }
  const Zel::String& mode() const { return mode_; }
  // Whether what an agent writes under a mount of that mode is published.
  static bool publishes(std::string_view mode) { return mode == "wi" || mode == "we"; }

 private:
  Zel::String path_;
  Zel::String typeName_;
  Zel::String mode_;
};

// The base of an object that owns a mount group.
class ZEL_API Mounter : public Zel::Described<Mounter, Zel::Entity> {
 public:
  static constexpr auto attributes() { return std::tuple{}; }
  static const Zel::TypeNode& typeNode();

  // Ignored: a mounter keeps the name that it was made with.
  virtual void nameIsFromBackup(Zel::Name name);
  virtual Zel::Name name() const { return Entity::name(); }

  // Called once, in a later pass than doClose, when all mounts are complete or one has failed.
  virtual void doMountsComplete(MountStatus status, const Zel::Ptr<EntityManager>& entityManager) = 0;

 protected:
  explicit Mounter(Zel::Name name) : Described(name) {}
};

// A set of mounts that are completed together.
class ZEL_API MountGroup : public Zel::Reactor<MountGroup, Zel::PtrInterface> {
 public:
  static constexpr const char* kTypeName = "Statedb::MountGroup";

  MountGroup(const Zel::Ptr<EntityManager>& entityManager, const Zel::Ptr<Mounter>& mounter);
  ~MountGroup() override;

  // Adds a request. Throws RangeException if there is no such mode or the group is closed, and ValueError if
  // the path exceeds its limits.
  void doMount(const Mount& mount);
  // Closes the group and starts mounting. Ignores its arguments. The manager holds the group and the mounter
  // until it has called doMountsComplete. Throws RangeException if the group is closed already.
  void doClose(bool flag, const Zel::String& text, const double& time);

  const std::vector<Mount>& mounts() const { return mounts_; }
  bool closed() const { return closed_; }
  // One line for each failed mount: path, type found and type asked for.
  const std::vector<std::string>& failures() const { return failures_; }

 private:
  friend class Mounts;

  Zel::Ptr<EntityManager> entityManager_;  // until the group is complete
  Zel::Ptr<Mounter> mounter_;              // until the group is complete
  std::vector<Mount> mounts_;
  std::vector<std::string> failures_;
  bool closed_ = false;
};

}  // namespace Statedb

template <>
struct ZEL_API Zel::ValueTraits<Statedb::MountStatus> {
  static std::string typeName() { return "Statedb::MountStatus"; }
  static Value toValue(Statedb::MountStatus status);
  static Statedb::MountStatus fromValue(const Value& value);  // "success" or "failure"
};
