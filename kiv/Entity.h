#pragma once
// Entities: typed, reference-counted objects in a tree, each held by its parent's collection.

#include <cstdint>
#include <string>
#include <type_traits>
#include <string_view>
#include <vector>

#include "kiv/Notifiee.h"
#include "kiv/String.h"

namespace Kiv {

class Entity;
namespace NboAttrLog {
class Adapter;
class Side;
}  // namespace NboAttrLog

// What a parent hands a member it creates.
struct EntityInit {
  Name name;
  Entity* parent = nullptr;
  Name parentAttrName;
};

// An `init` attribute is listed as a value or a reference; `owner` is a raw back pointer to the
// parent, never notified.
enum class AttrKind { derived, constant, value, reference, collection, valueCollection, owner };

// An attribute of a declared type. Identifiers start at 258 in declaration order; those below
// belong to the framework.
inline constexpr std::uint32_t kFirstAttrId = 258;

struct AttrInfo {
  std::uint32_t id;
  char const* name;
  AttrKind kind;
};

// A declared type, registered by name so that directories can create members by type name.
struct TypeInfo {
  char const* name;
  // Null for types that need constructor parameters beyond the name.
  Ptr<Entity> (*create)(EntityInit const&);
  AttrInfo const* attrs = nullptr;
  std::size_t attrCount = 0;
  // The attribute-log adapter of a root entity of this type (kiv/AttrLog.h); null for types that
  // do not replicate. The caller owns the result through Adapter::kivObject().
  NboAttrLog::Adapter* (*attrLogAdapter)(Entity&, NboAttrLog::Side&) = nullptr;
};

void typeRegister(TypeInfo const& type);
TypeInfo const* typeNamed(std::string_view name);

class Entity : public CountedNotifier {
 public:
  Name const& name() const { return name_; }
  Entity* parent() const { return reinterpret_cast<Entity*>(parent_ & ~kReadOnly); }
  Name const& parentAttrName() const { return parentAttrName_; }
  // The path of names from the root of the tree, joined by '/'.
  String fullName() const;
  // The type object. Not called kivType: entity types use that name for an attribute.
  virtual TypeInfo const& kivEntityType() const = 0;

  // A read-only replica refuses local writes; members created under it inherit the flag.
  bool kivReadOnly() const { return parent_ & kReadOnly; }
  void kivReadOnlyIs(bool r) { parent_ = (parent_ & ~kReadOnly) | (r ? kReadOnly : 0); }

  std::string kivStrep() const override;

  // Used by collection mutators when they unlink a member.
  void kivParentIs(Entity* p) { parent_ = reinterpret_cast<std::uintptr_t>(p) | (parent_ & kReadOnly); }

 protected:
  explicit Entity(EntityInit const& init);
  ~Entity() override = default;

  void kivCheckWritable(char const* attr) const {
    if ((parent_ & kReadOnly) && replicaWriteDepth == 0) [[unlikely]]
      throwReadOnly(attr);
  }
  [[noreturn]] void throwReadOnly(char const* attr) const;

  template <class Callbacks, class F>
  void kivNotify(F&& f) const {
    kivNotifiees().forEach([&](NotifieeBase* n) { f(static_cast<Callbacks*>(n)); });
  }

 private:
  friend class ReplicaWriteScope;
  static inline thread_local int replicaWriteDepth = 0;
  Name name_;
  // The parent, with the read-only flag in its low bit: a flag of its own would round every
  // entity up by 8 bytes.
  static constexpr std::uintptr_t kReadOnly = 1;
  std::uintptr_t parent_;
  Name parentAttrName_;
};

// Lets the replication layer apply incoming updates to read-only replicas through the ordinary
// setters, so local reactors see exactly what a local change would produce.
class ReplicaWriteScope {
 public:
  ReplicaWriteScope() { ++Entity::replicaWriteDepth; }
  ~ReplicaWriteScope() { --Entity::replicaWriteDepth; }
  ReplicaWriteScope(ReplicaWriteScope const&) = delete;
  ReplicaWriteScope& operator=(ReplicaWriteScope const&) = delete;
};

// Type-checked down-cast: null when `p` is null or not exactly of type T.
template <class T, class U>
Ptr<T> entityCast(Ptr<U> const& p) {
  if (!p || &p->kivEntityType() != &std::remove_const_t<T>::kivTypeInfo()) return nullptr;
  return Ptr<T>(static_cast<T*>(p.ptr()));
}

// Keys of entity and string collections must be non-empty.
void keyCheck(String const& key, char const* attr);
inline void keyCheck(Name const& key, char const* attr) { keyCheck(static_cast<String const&>(key), attr); }
template <class K>
  requires std::is_arithmetic_v<K> || std::is_enum_v<K>
void keyCheck(K, char const*) {}
template <class K>
  requires(!std::is_arithmetic_v<K> && !std::is_enum_v<K>)
void keyCheck(K const& key, char const* attr) {
  if (!key) throwRangeException(std::string("invalid key for ") + attr);
}

}  // namespace Kiv
