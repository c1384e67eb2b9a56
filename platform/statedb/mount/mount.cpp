#include "platform/statedb/mount/mount.h"

#include <ostream>

#include "platform/statedb/mount/entitymanager.h"
#include "platform/zel/entity/pathwalker.h"

namespace Statedb {

std::ostream& operator<<(std::ostream& out, MountStatus status) {
  return out << (status == mountSuccess_ ? "success" : "failure");
}

const Zel::TypeNode& Mounter::typeNode() {
  static const Zel::TypeNode type = describe("Statedb::Mounter");
  return type;
}

void Mounter::nameIsFromBackup(Zel::Name) {}

MountGroup::MountGroup(const Zel::Ptr<EntityManager>& entityManager, const Zel::Ptr<Mounter>& mounter)
    : entityManager_(entityManager), mounter_(mounter) {}
MountGroup::~MountGroup() = default;

void MountGroup::doMount(const Mount& mount) {
  if (closed_)
    Zel::throwRangeException(
        ("mount of '" + mount.path().stdString() + "': the mount group is closed").c_str());
  if (mount.mode() != "r" && mount.mode() != "c" && !Mount::publishes(mount.mode().view()))
    Zel::throwRangeException(("mount of '" + mount.path().stdString() + "': mode '" +
                              mount.mode().stdString() + "' is none of \"r\", \"wi\", \"we\" and \"c\"")
                                 .c_str());
  Zel::PathWalker::check(mount.path().view());
  mounts_.push_back(mount);
}

void MountGroup::doClose(bool, const Zel::String&, const double&) {
  if (closed_) Zel::throwRangeException("the mount group is closed already");
  closed_ = true;
  entityManager_->close(Zel::Ptr<MountGroup>(this));
}

}  // namespace Statedb

Zel::Value Zel::ValueTraits<Statedb::MountStatus>::toValue(Statedb::MountStatus status) {
  return status == Statedb::mountSuccess_ ? "success" : "failure";
}

Statedb::MountStatus Zel::ValueTraits<Statedb::MountStatus>::fromValue(const Value& value) {
  const auto& text = detail::expect<std::string>(value, "\"success\" or \"failure\"");
  if (text == "success") return Statedb::mountSuccess_;
  if (text == "failure") return Statedb::mountFailure_;
  throwWrongKind(value, "\"success\" or \"failure\"");
}
