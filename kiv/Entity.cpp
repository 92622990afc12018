// Entities, directories, the type registry and reactor binding.

#include "kiv/Entity.h"

#include <algorithm>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "kiv/Dir.h"
#include "kiv/Reactor.h"

namespace Kiv {

// --- NotifierList / NotifieeBase ---

void NotifierList::die() {
  if (Block* b = block())
    for (Frame* f = b->frames; f; f = f->outer) f->alive = false;
  // Reference-counted owners unbind everyone when their last reference goes; an owner that dies
  // otherwise must have let its reactors go first.
  KIV_DEBUG_ASSERT(bound() == 0 && "a notifier died with reactors bound to it");
  unbindAll();
  release();
}

void NotifierList::release() {
  if (Block* b = block()) poolRelease(b, bytesOf(b->capacity));
  bits_ = 0;
}

void NotifierList::add(NotifieeBase* n) {
  if (bits_ == 0) {
    n->slot_ = 0;
    bits_ = reinterpret_cast<std::uintptr_t>(n) | kSingle;
    return;
  }
  Block* b = block();
  if (!b || b->size == b->capacity) {
    // 3, 7, 15... reactors: blocks of whole pool classes.
    std::uint32_t const capacity = b ? b->capacity * 2 + 1 : 3;
    auto* grown = static_cast<Block*>(poolAllocate(bytesOf(capacity)));
    if (b) {
      *grown = *b;
      std::copy_n(b->v(), b->size, grown->v());
      poolRelease(b, bytesOf(b->capacity));
    } else {
      NotifieeBase* first = single();
      *grown = Block{nullptr, 1, 0, 0, first->registered_ ? 0u : 1u};
      grown->v()[0] = first;
    }
    grown->capacity = capacity;
    bits_ = reinterpret_cast<std::uintptr_t>(grown);
    b = grown;
  }
  n->slot_ = b->size;
  b->v()[b->size++] = n;
  if (!n->registered_) ++b->idle;
}

void NotifierList::remove(NotifieeBase* n) {
  KIV_DEBUG_ASSERT(contains(n));
  Block* b = block();
  if (!b) {
    bits_ = 0;
    return;
  }
  if (!n->registered_) --b->idle;
  b->v()[n->slot_] = nullptr;
  ++b->nulls;
  if (b->frames) return;  // a walk indexes the list: compacted when the outermost one is over
  while (b->size != 0 && !b->v()[b->size - 1]) {
    --b->size;
    --b->nulls;
  }
  if (b->size == 0) {
    release();
  } else if (b->nulls * 2 > b->size) {
    compact();
  } else {
    fit();
  }
}

bool NotifierList::contains(NotifieeBase const* n) const {
  if (bits_ & kSingle) return single() == n;
  Block const* b = block();
  return b && n->slot_ < b->size && const_cast<Block*>(b)->v()[n->slot_] == n;
}

void NotifierList::compact() {
  Block* b = block();
  NotifieeBase** v = b->v();
  std::uint32_t kept = 0;
  for (std::uint32_t i = 0; i < b->size; ++i) {
    if (!v[i]) continue;
    v[kept] = v[i];
    v[kept]->slot_ = kept;
    ++kept;
  }
  b->size = kept;
  b->nulls = 0;
  if (kept == 0) {
    release();
    return;
  }
  fit();
}

void NotifierList::fit() {
  Block* b = block();
  if (b->size == 1) {
    NotifieeBase* n = b->v()[0];
    release();
    bits_ = reinterpret_cast<std::uintptr_t>(n) | kSingle;
    return;
  }
  std::uint32_t capacity = b->capacity;
  while (capacity > 3 && b->size * 4 <= capacity) capacity = (capacity - 1) / 2;
  if (capacity == b->capacity) return;
  auto* smaller = static_cast<Block*>(poolAllocate(bytesOf(capacity)));
  *smaller = *b;
  smaller->capacity = capacity;
  std::copy_n(b->v(), b->size, smaller->v());
  poolRelease(b, bytesOf(b->capacity));
  bits_ = reinterpret_cast<std::uintptr_t>(smaller);
}

void NotifierList::zeroReferences() {
  forEach([](NotifieeBase* n) { n->onZeroReferences(); });
  unbindAll();
}

void NotifierList::unbindAll() {
  auto unbind = [](NotifieeBase* n) {
    n->kivUnbinding();
    n->notifierBase_ = nullptr;
    n->kivNotifierGone();
  };
  if (NotifieeBase* n = single()) {
    bits_ = 0;
    unbind(n);
    return;
  }
  Block* b = block();
  if (!b) return;
  if (b->frames) {
    // A walk further up the stack still indexes the list (the notifier outlives the zero when
    // it is resurrected or its deletion deferred): empty the slots but keep their places.
    std::vector<NotifieeBase*> bound(b->v(), b->v() + b->size);
    std::fill_n(b->v(), b->size, nullptr);
    b->nulls = b->size;
    b->idle = 0;
    for (NotifieeBase* n : bound)
      if (n) unbind(n);
    return;
  }
  // The reactors' callbacks may bind new ones: they start a list of their own.
  bits_ = 0;
  struct Releaser {
    Block* b;
    ~Releaser() { poolRelease(b, bytesOf(b->capacity)); }
  } const releaser{b};
  for (std::uint32_t i = 0; i < b->size; ++i)
    if (NotifieeBase* n = b->v()[i]) unbind(n);
}

void CountedNotifier::zeroReferencesIs(bool z) {
  PtrInterface::zeroReferencesIs(z);
  // Most notifiers have no reactor when they go; a teardown releases millions of them.
  if (z && kivNotifiees().bound() != 0) kivNotifiees().zeroReferences();
}

NotifieeBase::~NotifieeBase() {
  if (notifierBase_) notifierBase_->kivNotifiees().remove(this);
}

void NotifieeBase::kivBind(Notifier* n) {
  if (notifierBase_) {
    kivUnbinding();
    notifierBase_->kivNotifiees().remove(this);
  }
  notifierBase_ = n;
  if (notifierBase_) notifierBase_->kivNotifiees().add(this);
}

void NotifieeBase::isRegisteredNotifieeIs(bool r) {
  if (r == registered_) return;
  if (!notifierBase_) {
    registered_ = r;
    return;
  }
  // Re-registering appends: a reactor is not told of a change already in progress.
  NotifierList& list = notifierBase_->kivNotifiees();
  list.remove(this);
  registered_ = r;
  list.add(this);
}

void NotifieeBase::hasNotificationActiveIs(bool a) {
  if (a && active_) throwInternalException("entity reactor is already active");
  active_ = a;
}

// --- type registry ---

namespace {
std::map<std::string, TypeInfo const*, std::less<>>& types() {
  static std::map<std::string, TypeInfo const*, std::less<>> registry;
  return registry;
}
}  // namespace

void typeRegister(TypeInfo const& type) { types()[type.name] = &type; }

TypeInfo const* typeNamed(std::string_view name) {
  auto& t = types();
  auto it = t.find(name);
  if (it != t.end()) return it->second;
  if (name == Dir::kivTypeInfo().name) return &Dir::kivTypeInfo();
  return nullptr;
}

void keyCheck(String const& key, char const* attr) {
  if (key.empty()) throwRangeException(std::string("empty key for ") + attr + " not allowed");
}

// --- Entity ---

Entity::Entity(EntityInit const& init)
    : name_(init.name),
      parent_(reinterpret_cast<std::uintptr_t>(init.parent) | (init.parent && init.parent->kivReadOnly() ? kReadOnly : 0)),
      parentAttrName_(init.parentAttrName) {}

String Entity::fullName() const {
  Entity const* p = parent();
  if (!p) return name_;
  std::string path = p->fullName().stdString();
  path += '/';
  path += name_.view();
  return String(path);
}

std::string Entity::kivStrep() const {
  return std::string("<") + kivEntityType().name + " " + fullName().stdString() + ">";
}

void Entity::throwReadOnly(char const* attr) const {
  throwInternalException(std::string("write-update from readonly proxy: ") + kivEntityType().name + "::" + attr +
                         " of " + fullName().stdString());
}

// --- Dir ---

namespace {
Ptr<Entity> createDir(EntityInit const& init) { return Ptr<Entity>(new Dir(init)); }
}  // namespace

TypeInfo const& Dir::kivTypeInfo() {
  static TypeInfo const info{"Kiv::Dir", &createDir, nullptr, 0};
  return info;
}

Dir::~Dir() {
  for (auto it = members_.begin(); it; ++it) it.value()->kivParentIs(nullptr);
}

Ptr<Dir> Dir::DirIs(Name const& name) { return Ptr<Dir>(new Dir(EntityInit{name, nullptr, Name()})); }

Ptr<Entity> Dir::entryIs(Name const& name, std::string_view typeName) {
  if (Ptr<Entity> const* existing = members_.find(name)) {
    ReinstantiationCheck(entitySubject(name))("typeName", std::string(typeName), std::string((*existing)->kivEntityType().name));
    return *existing;
  }
  kivCheckWritable("entityPtr");
  keyCheck(name, "Kiv::Dir::entityPtr");
  TypeInfo const* type = typeNamed(typeName);
  if (!type) throwRangeException("unknown type name " + std::string(typeName));
  if (!type->create) throwRangeException("type " + std::string(typeName) + " cannot be created by name");
  static Name const attrName("entityPtr");  // one string for every member
  Ptr<Entity> member = type->create(EntityInit{name, this, attrName});
  members_.insert(name, member);
  kivNotify<Callbacks>([&](Callbacks* n) { n->onEntityPtr(name); });
  return member;
}

void Dir::entityPtrDel(Name const& name) {
  kivCheckWritable("entityPtr");
  Ptr<Entity> member;
  if (!members_.erase(name, &member)) return;
  member->kivParentIs(nullptr);
  kivNotify<Callbacks>([&](Callbacks* n) { n->onEntityPtr(name); });
}

void Dir::entityPtrDelAll() {
  for (auto it = members_.begin(); it; ++it) entityPtrDel(Name(it.key()));
}

void Dir::entityPtrNotify(Name const& name) {
  kivNotify<Callbacks>([&](Callbacks* n) { n->onEntityPtr(name); });
}

void Dir::entityPtrNotify() {
  kivNotify<Callbacks>([](Callbacks* n) {
    n->onEntityPtrkivImmediate();
    n->onEntityPtr();
  });
}

Ptr<Entity> Dir::entityAtPath(std::string_view path) {
  Ptr<Entity> at(this);
  while (!path.empty()) {
    std::size_t slash = path.find('/');
    std::string_view component = path.substr(0, slash);
    path = slash == std::string_view::npos ? std::string_view() : path.substr(slash + 1);
    if (component.empty()) continue;
    Ptr<Dir> dir = entityCast<Dir>(at);
    if (!dir) return nullptr;
    at = dir->entityPtr(Name(component));
    if (!at) return nullptr;
  }
  return at;
}

}  // namespace Kiv
