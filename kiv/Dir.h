#pragma once
// A directory: an entity whose only content is a keyed collection of entities of any type.

#include "kiv/Entity.h"
#include "kiv/HashMap.h"

namespace Kiv {

class Dir : public Entity {
 public:
  using EntityMap = HashMap<Name, Ptr<Entity>>;

  static TypeInfo const& kivTypeInfo();
  TypeInfo const& kivEntityType() const override { return kivTypeInfo(); }

  // A free-standing directory, the root of a tree that the host hands to the system.
  static Ptr<Dir> DirIs(Name const& name);

  Ptr<Entity> entityPtr(Name const& name) { return lookup(name); }
  Ptr<Entity const> entityPtr(Name const& name) const { return lookup(name); }
  Ptr<Entity const> entry(Name const& name) const { return lookup(name); }
  Ptr<Entity> entityRef(Name const& name) { return lookup(name); }

  // Returns the member `name`, creating it as a `typeName` when absent. A member of another type
  // under that name is refused with the name-in-use exception naming _typeName.
  Ptr<Entity> entryIs(Name const& name, std::string_view typeName);
  template <class T>
  Ptr<T> entryIs(Name const& name) {
    return ptrStaticCast<T>(entryIs(name, T::kivTypeInfo().name));
  }
  Ptr<Dir> subdirIs(Name const& name) { return entryIs<Dir>(name); }

  void entityPtrDel(Name const& name);
  void entityPtrDelAll();
  void entityPtrNotify(Name const& name);
  // The whole-directory notification: onEntityPtrkivImmediate() and then onEntityPtr().
  void entityPtrNotify();
  std::size_t entityPtrs() const { return members_.size(); }
  EntityMap::Iterator entityPtrIter() { return members_.begin(); }
  EntityMap::ConstIterator entityPtrIter() const { return members_.begin(); }

  // The entity at `path` ("a/b/c", relative to this directory), or null; empty components are
  // skipped, so a leading or doubled '/' is harmless.
  Ptr<Entity> entityAtPath(std::string_view path);

  class Callbacks : public NotifieeBase {
   public:
    explicit Callbacks(bool active = true) : NotifieeBase(active) {}
    virtual void onEntityPtr(Name const&) {}
    virtual void onEntityPtr() {}
    virtual void onEntityPtrkivImmediate() {}
  };
  class Notifiee : public NotifieeOf<Dir, Callbacks> {
   public:
    using NotifieeOf::NotifieeOf;
  };
  class NotifieeConst : public NotifieeOf<Dir const, Callbacks> {
   public:
    using NotifieeOf::NotifieeOf;
  };

  explicit Dir(EntityInit const& init) : Entity(init) {}
  ~Dir() override;

 private:
  Ptr<Entity> lookup(Name const& name) const { return members_.get(name); }

  EntityMap members_;
};

}  // namespace Kiv
