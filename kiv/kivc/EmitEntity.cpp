// Entity classes: one emitter per attribute kind, each with hooks for the class declaration, the
// out-of-line definitions, the notifiee callbacks, the member data and the conformance traits.

#include <algorithm>
#include <memory>
#include <stdexcept>
#include <vector>

#include "kiv/kivc/EmitCommon.h"

namespace kivc {
namespace {

// The kind reflection reports: an init attribute behaves as a value or a reference once made.
char const* kindName(Attribute const& a) {
  switch (a.kind) {
    case AttrKind::derived:
      return "derived";
    case AttrKind::constant:
      return "constant";
    case AttrKind::value:
      return "value";
    case AttrKind::reference:
      return "reference";
    case AttrKind::initial:
      return a.type.pointer ? "reference" : "value";
    case AttrKind::owner:
      return "owner";
    case AttrKind::collection:
      return "collection";
    case AttrKind::valueCollection:
      return "valueCollection";
  }
  return "";
}

int ctorParamIndex(Entity const& e, Attribute const& a) {
  std::vector<Attribute const*> const params = ctorParamsOf(e);
  return static_cast<int>(std::find(params.begin(), params.end(), &a) - params.begin());
}

// The member's const parameters in the order its collection compares them.
std::vector<Attribute const*> comparedOf(Entity const& member, Attribute const& collection) {
  std::vector<Attribute const*> out;
  if (collection.compareOrder.empty()) {
    for (Attribute const& a : member.attributes)
      if (a.kind == AttrKind::constant) out.push_back(&a);
    return out;
  }
  for (std::string const& name : collection.compareOrder)
    for (Attribute const& a : member.attributes)
      if (a.name == name) out.push_back(&a);
  return out;
}

std::string joined(std::vector<std::string> const& parts, char const* separator) {
  std::string out;
  for (std::string const& p : parts) out += (out.empty() ? "" : separator) + p;
  return out;
}

class AttrEmitter : public AttrText {
 public:
  using AttrText::AttrText;
  virtual ~AttrEmitter() = default;
  virtual std::string declaration() const = 0;
  virtual std::string definition() const { return {}; }
  virtual std::string callbacks() const { return {}; }
  virtual std::string recorder() const { return {}; }
  virtual std::string member() const { return {}; }
  virtual std::string visit() const = 0;
  virtual std::string destructorPart() const { return {}; }
  // The constructor's member initializer, with its leading comma.
  virtual std::string initializer() const { return {}; }
};

// derived and constant: read-only, never notified.
class ReadOnlyEmitter : public AttrEmitter {
 public:
  using AttrEmitter::AttrEmitter;
  std::string declaration() const override {
    if (a_.kind == AttrKind::constant) return fillA("  $param$ $x$() const { return $x$_; }\n");
    if (!a_.derivedExpression.empty())
      return fill("  $type$ $x$() const { return $expr$; }\n",
                  {{"type", a_.type.cpp}, {"x", a_.name}, {"expr", a_.derivedExpression}});
    return fillA("  $type$ $x$() const { return $type$(name()); }\n");
  }
  std::string member() const override {
    return a_.kind == AttrKind::constant ? fillA("  $type$ $x$_;\n") : std::string();
  }
  std::string initializer() const override {
    return a_.kind == AttrKind::constant ? fillA(", $x$_($x$)") : std::string();
  }
  std::string visit() const override {
    // Whether it has an expression: only one without is the entity's name.
    if (a_.kind == AttrKind::derived)
      return fill(fillA("    v.derived(\"$x$\", $id$u, $computed$, [](Type const& e) { return e.$x$(); });\n"),
                  {{"computed", a_.derivedExpression.empty() ? "false" : "true"}});
    return fill(fillA("    v.constant(\"$x$\", $id$u, $index$, [](Type const& e) { return e.$x$(); });\n"),
                {{"index", std::to_string(ctorParamIndex(e_, a_))}});
  }
};

// mutable values and references: a setter that notifies on a real change.
class ValueEmitter : public AttrEmitter {
 public:
  using AttrEmitter::AttrEmitter;
  std::string declaration() const override {
    return fillA(
        "  $param$ $x$() const { return $x$_; }\n"
        "  void $x$Is($param$ v);\n");
  }
  std::string definition() const override {
    return fillA(R"(void $T$::$x$Is($param$ v) {
  kivCheckWritable("$x$");
  if ($x$_ == v) return;
  $x$_ = v;
  kivNotify<Callbacks>([](Callbacks* n) { n->on$X$(); });
}

)");
  }
  std::string callbacks() const override { return fillA("    virtual void on$X$() {}\n"); }
  std::string recorder() const override { return fillA("    void on$X$() override { calls.push_back(\"$x$\"); }\n"); }
  std::string member() const override { return fillA("  $type$ $x$_{};\n"); }
  std::string visit() const override {
    if (a_.kind == AttrKind::reference)
      return fill(fillA(
                      "    v.template reference<$target$, $isConst$>(\"$x$\", $id$u, [](Type const& e) { return e.$x$(); },\n"
                      "        [](Type& e, $type$ const& p) { e.$x$Is(p); });\n"),
                  {{"target", a_.type.entity}, {"isConst", a_.type.pointerToConst ? "true" : "false"}});
    return fillA(
        "    v.template value<$type$>(\"$x$\", $id$u, [](Type const& e) { return e.$x$(); },\n"
        "        [](Type& e, $param$ x) { e.$x$Is(x); });\n");
  }
};

// init: a value or reference that is also a constructor parameter.
class InitEmitter : public ValueEmitter {
 public:
  using ValueEmitter::ValueEmitter;
  std::string initializer() const override { return fillA(", $x$_($x$)"); }
  std::string visit() const override {
    return fill(fillA("    v.template initial<$type$>(\"$x$\", $id$u, $index$, [](Type const& e) { return e.$x$(); },\n"
                      "        [](Type& e, $param$ x) { e.$x$Is(x); });\n"),
                {{"index", std::to_string(ctorParamIndex(e_, a_))}});
  }
};

// owner: a raw pointer to the parent, which the parent clears when it lets the member go.
class OwnerEmitter : public AttrEmitter {
 public:
  using AttrEmitter::AttrEmitter;
  std::string declaration() const override {
    return fillA(
        "  $type$ $x$() const { return $x$_; }\n"
        "  void $x$Is($type$ v) { $x$_ = v; }\n");
  }
  std::string member() const override { return fillA("  $type$ $x$_;\n"); }
  std::string initializer() const override {
    return fill(fillA(", $x$_(Kiv::ownerOf<$target$>(kivInit))"), {{"target", a_.type.entity}});
  }
  std::string visit() const override {
    return fill(fillA("    v.template owner<$target$>(\"$x$\", $id$u, [](Type const& e) { return e.$x$(); },\n"
                      "        [](Type& e, $type$ p) { e.$x$Is(p); });\n"),
                {{"target", a_.type.entity}});
  }
};

class CollectionEmitterBase : public AttrEmitter {
 public:
  using AttrEmitter::AttrEmitter;
  std::string callbacks() const override {
    return fillA(
        "    virtual void on$X$($keyParam$) {}\n"
        "    virtual void on$X$() {}\n"
        "    virtual void on$X$kivImmediate() {}\n");
  }
  std::string member() const override {
    if (!a_.sizeHint) return fillA("  $X$Map $x$_;\n");
    return fill(fillA("  $X$Map $x$_{$hint$};\n"), {{"hint", std::to_string(a_.sizeHint)}});
  }
  std::string recorder() const override {
    return fillA(
        "    void on$X$($keyParam$ k) override { calls.push_back(\"$x$(\" + Kiv::strep(k) + \")\"); }\n"
        "    void on$X$() override { calls.push_back(\"$x$()\"); }\n"
        "    void on$X$kivImmediate() override { calls.push_back(\"$x$!\"); }\n");
  }

 protected:
  std::string commonDeclaration(std::string const& stored) const {
    return fill(fillA(R"(  using $X$Map = Kiv::HashMap<$key$, $stored$>;
  using $X$Iterator = $X$Map::Iterator;
  using $X$ConstIterator = $X$Map::ConstIterator;
  void $x$Del($keyParam$ k);
  void $x$Del($X$Iterator const& it);
  void $x$DelAll();
  void $x$Notify($keyParam$ k);
  // A whole-collection notification: on$X$kivImmediate() and then on$X$() of every notifiee.
  void $x$Notify();
  std::size_t $x$Size() const { return $x$_.size(); }
  $X$Iterator $x$Iter() { return $x$_.begin(); }
  $X$ConstIterator $x$Iter() const { return $x$_.begin(); }
)"),
                {{"stored", stored}});
  }
  std::string commonDefinition(std::string const& stored, std::string const& unlink) const {
    return fill(fillA(R"(void $T$::$x$Del($keyParam$ k) {
  kivCheckWritable("$x$");
  $key$ const key = k;  // k may refer into the collection
  $stored$ removed;
  if (!$x$_.erase(key, &removed)) return;
$unlink$  kivNotify<Callbacks>([&](Callbacks* n) { n->on$X$(key); });
}

void $T$::$x$Del($X$Iterator const& it) {
  kivCheckWritable("$x$");
  if (!it.live()) return;  // its member was erased already
  $key$ const key = it.key();
  $stored$ removed;
  $x$_.erase(it, &removed);
$unlink$  kivNotify<Callbacks>([&](Callbacks* n) { n->on$X$(key); });
}

void $T$::$x$DelAll() {
  for ($X$Iterator it = $x$_.begin(); it; ++it) $x$Del(it);
}

void $T$::$x$Notify($keyParam$ k) {
  kivNotify<Callbacks>([&](Callbacks* n) { n->on$X$(k); });
}

void $T$::$x$Notify() {
  kivNotify<Callbacks>([](Callbacks* n) {
    n->on$X$kivImmediate();
    n->on$X$();
  });
}

)"),
                {{"stored", stored}, {"unlink", unlink}});
  }
  std::string commonVisitTail() const {
    return fillA(
        "        [](Type& e, $keyParam$ k) { e.$x$Del(k); }, [](Type& e) { e.$x$DelAll(); },\n"
        "        [](Type const& e) { return e.$x$Size(); }, [](Type& e, $keyParam$ k) { e.$x$Notify(k); },\n"
        "        [](Type const& e, auto&& f) { for (auto it = e.$x$Iter(); it; ++it) f(it.key(), it.value()); });\n");
  }
};

// Instantiating collections: own their member entities.
class CollectionEmitter : public CollectionEmitterBase {
 public:
  CollectionEmitter(Unit const& u, Entity const& e, Attribute const& a) : CollectionEmitterBase(u, e, a) {
    member_ = findEntity(u, a.type.name);
    if (!member_) throw std::logic_error("collection member type not in unit");
    std::vector<Attribute const*> const compared = comparedOf(*member_, a);
    std::vector<std::string> params, sampled;
    int inits = 0;
    for (Attribute const* c : ctorParamsOf(*member_)) {
      params.push_back(param(c->type) + " " + c->name);
      args_ += ", " + c->name;
      // The conformance samples pick each parameter's variant from one bit of `differ`: the
      // compared ones first, in their order, then the init ones.
      std::size_t bit = compared.size() + inits;
      if (c->kind == AttrKind::initial) {
        ++inits;
        applies_ += "    m->" + c->name + "Is(" + c->name + ");\n";
        initialNames_.push_back("\"" + c->name + "\"");
      } else {
        bit = static_cast<std::size_t>(std::find(compared.begin(), compared.end(), c) - compared.begin());
      }
      std::string const sample = "s.template get<" + c->type.cpp + ">(differ >> " + std::to_string(bit) + " & 1)";
      sampled.push_back(sample);
      keyLocals_ += "          [[maybe_unused]] " + c->type.cpp + " const " + c->name + " = " + sample + ";\n";
    }
    for (Attribute const* c : compared) {
      checks_ += "(\"" + c->name + "\", " + c->name + ", (*existing)->" + c->name + "())";
      comparedNames_.push_back("\"" + c->name + "\"");
    }
    computed_ = !a.keyExpression.empty();
    if (!computed_) params.insert(params.begin(), param(*a.key) + " k");
    signature_ = joined(params, ", ");
    sampled_ = joined(sampled, ", ");
    // Only owners of this entity's type point here.
    for (Attribute const& o : member_->attributes)
      if (o.kind == AttrKind::owner && o.type.entity == e.name) owners_.push_back(o.name);
  }
  std::string declaration() const override {
    return fill(fillA(R"(  Kiv::Ptr<$type$> $x$($keyParam$ k) {
    Kiv::Ptr<$type$> const* m = $x$_.find(k);
    return m ? *m : nullptr;
  }
  Kiv::PtrConst<$type$> $x$($keyParam$ k) const {
    Kiv::Ptr<$type$> const* m = $x$_.find(k);
    return m ? Kiv::PtrConst<$type$>(*m) : nullptr;
  }
  Kiv::Ptr<$type$> $x$Is($signature$);
)"),
                {{"signature", signature_}}) +
           commonDeclaration("Kiv::Ptr<" + a_.type.cpp + ">");
  }
  std::string definition() const override {
    std::string const check =
        checks_.empty() ? std::string()
                        : "    Kiv::ReinstantiationCheck(Kiv::entitySubject(Kiv::nameOf(k)))" + checks_ + ";\n";
    std::string const found =
        applies_.empty() ? "    return *existing;\n"
                         : fill("    Kiv::Ptr<$type$> const m = *existing;  // a setter's reactor may remove it\n"
                                "$applies$    return m;\n",
                                {{"type", a_.type.cpp}, {"applies", applies_}});
    std::string const computeKey = computed_ ? "  " + a_.key->cpp + " const k(" + a_.keyExpression + ");\n" : "";
    return fill(fillA(R"(Kiv::Ptr<$type$> $T$::$x$Is($signature$) {
$computeKey$  if (Kiv::Ptr<$type$> const* existing = $x$_.find(k)) {
$check$$found$  }
  kivCheckWritable("$x$");
  Kiv::keyCheck(k, "$ns$::$T$::$x$");
  static Kiv::Name const attrName("$x$");  // one string for every member
  Kiv::Ptr<$type$> m(new $type$(Kiv::EntityInit{Kiv::nameOf(k), this, attrName}$args$));
  $x$_.insert(k, m);
  kivNotify<Callbacks>([&](Callbacks* n) { n->on$X$(k); });
  return m;
}

)"),
                {{"signature", signature_},
                 {"args", args_},
                 {"check", check},
                 {"found", found},
                 {"computeKey", computeKey}}) +
           commonDefinition("Kiv::Ptr<" + a_.type.cpp + ">", unlink("  removed->"));
  }
  std::string destructorPart() const override {
    if (owners_.empty()) return fillA("  for (auto it = $x$_.begin(); it; ++it) it.value()->kivParentIs(nullptr);\n");
    return fill(fillA("  for (auto it = $x$_.begin(); it; ++it) {\n$unlink$  }\n"),
                {{"unlink", unlink("    it.value()->")}});
  }
  std::string visit() const override {
    // create(e, k, s, differ) and keyOf(s, k, differ); a computed key ignores k.
    std::string const create = computed_ ? R"(        [](Type& e, $keyParam$, auto& s, unsigned differ) {
          (void)s;
          (void)differ;
          return e.$x$Is($args$);
        },
        [](auto& s, $keyParam$, unsigned differ) -> $key$ {
          (void)s;
          (void)differ;
$keyLocals$          return $key$($expr$);
        },
)"
                                         : R"(        [](Type& e, $keyParam$ k, auto& s, unsigned differ) { (void)s; (void)differ; return e.$x$Is($args$); },
        [](auto&, $keyParam$ k, unsigned) -> $key$ { return k; },
)";
    std::string const args = computed_ ? sampled_ : sampled_.empty() ? "k" : "k, " + sampled_;
    return fill(fillA(R"(    v.template collection<$key$, $type$>("$x$", $id$u, std::vector<std::string>{$compared$},
        std::vector<std::string>{$initial$},
$create$        [](Type& e, $keyParam$ k) { return e.$x$(k); },
)"),
                {{"compared", joined(comparedNames_, ", ")},
                 {"initial", joined(initialNames_, ", ")},
                 {"create", fill(fillA(create), {{"args", args}, {"keyLocals", keyLocals_}, {"expr", a_.keyExpression}})}}) +
           commonVisitTail();
  }

 private:
  // A member let go: its owner pointers are cleared first, then its parent.
  std::string unlink(std::string const& member) const {
    std::string out;
    for (std::string const& o : owners_) out += member + o + "Is(nullptr);\n";
    return out + member + "kivParentIs(nullptr);\n";
  }

  Entity const* member_;
  bool computed_ = false;
  std::string signature_, args_, checks_, applies_, sampled_, keyLocals_;
  std::vector<std::string> comparedNames_, initialNames_, owners_;
};

// Value collections: plain values by key; reading an absent key gives the default value.
class ValueCollectionEmitter : public CollectionEmitterBase {
 public:
  using CollectionEmitterBase::CollectionEmitterBase;
  std::string declaration() const override {
    return fill(fillA(R"(  $type$ $x$($keyParam$ k) const { return $x$_.get(k); }
  void $x$Is($signature$);
)"),
                {{"signature", signature()}}) +
           commonDeclaration(a_.type.cpp);
  }
  std::string definition() const override {
    std::string const computeKey = computed() ? "  " + a_.key->cpp + " const k(" + a_.keyExpression + ");\n" : "";
    return fill(fillA(R"(void $T$::$x$Is($signature$) {
  kivCheckWritable("$x$");
$computeKey$  Kiv::keyCheck(k, "$ns$::$T$::$x$");
  auto [stored, inserted] = $x$_.insert(k, v);
  if (!inserted) {
    if (*stored == v) return;
    *stored = v;
  }
  kivNotify<Callbacks>([&](Callbacks* n) { n->on$X$(k); });
}

)"),
                {{"signature", signature()}, {"computeKey", computeKey}}) +
           commonDefinition(a_.type.cpp, "");
  }
  std::string visit() const override {
    if (computed())
      return fill(fillA(R"(    v.template valueCollection<$key$, $type$>("$x$", $id$u,
        [](Type const& e, $keyParam$ k) { return e.$x$(k); }, [](Type& e, $keyParam$, $param$ x) { e.$x$Is(x); },
        []($keyParam$, $param$ v) -> $key$ { return $key$($expr$); },
)"),
                  {{"expr", a_.keyExpression}}) +
             commonVisitTail();
    return fillA(R"(    v.template valueCollection<$key$, $type$>("$x$", $id$u,
        [](Type const& e, $keyParam$ k) { return e.$x$(k); }, [](Type& e, $keyParam$ k, $param$ x) { e.$x$Is(k, x); },
        []($keyParam$ k, $param$) -> $key$ { return k; },
)") + commonVisitTail();
  }

 private:
  bool computed() const { return !a_.keyExpression.empty(); }
  std::string signature() const {
    return computed() ? param(a_.type) + " v" : param(*a_.key) + " k, " + param(a_.type) + " v";
  }
};

std::unique_ptr<AttrEmitter> emitterFor(Unit const& u, Entity const& e, Attribute const& a) {
  switch (a.kind) {
    case AttrKind::derived:
    case AttrKind::constant:
      return std::make_unique<ReadOnlyEmitter>(u, e, a);
    case AttrKind::value:
    case AttrKind::reference:
      return std::make_unique<ValueEmitter>(u, e, a);
    case AttrKind::initial:
      return std::make_unique<InitEmitter>(u, e, a);
    case AttrKind::owner:
      return std::make_unique<OwnerEmitter>(u, e, a);
    case AttrKind::collection:
      return std::make_unique<CollectionEmitter>(u, e, a);
    case AttrKind::valueCollection:
      return std::make_unique<ValueCollectionEmitter>(u, e, a);
  }
  return nullptr;
}

}  // namespace

void emitEntity(Unit const& u, Entity const& e, Output& out, std::string& adapters) {
  std::vector<std::unique_ptr<AttrEmitter>> emitters;
  for (Attribute const& a : e.attributes) emitters.push_back(emitterFor(u, e, a));

  std::string ids, accessors, callbacks, members, definitions, recorder, visit, destructor, attrInfo, ctorInits;
  for (std::size_t i = 0; i < e.attributes.size(); ++i) {
    Attribute const& a = e.attributes[i];
    ids += "  static constexpr std::uint32_t kiv" + capitalized(a.name) + "AttrId = " + std::to_string(a.id) + ";\n";
    attrInfo += "    {" + std::to_string(a.id) + "u, \"" + a.name + "\", Kiv::AttrKind::" + kindName(a) + "},\n";
    accessors += emitters[i]->declaration();
    callbacks += emitters[i]->callbacks();
    members += emitters[i]->member();
    definitions += emitters[i]->definition();
    recorder += emitters[i]->recorder();
    visit += emitters[i]->visit();
    destructor += emitters[i]->destructorPart();
    ctorInits += emitters[i]->initializer();
  }
  std::string ctorParams, factoryArgs, makeArgs;
  for (Attribute const* c : ctorParamsOf(e)) {
    ctorParams += ", " + param(c->type) + " " + c->name;
    factoryArgs += ", " + c->name;
    makeArgs += ", s.template get<" + c->type.cpp + ">(0)";
  }
  std::string factoryDecl, factoryDef;
  if (e.factory) {
    factoryDecl = fill("  // A free-standing instance, not held by a parent.\n"
                       "  static Kiv::Ptr<$T$> $T$Is(Kiv::Name const& name$params$);\n",
                       {{"T", e.name}, {"params", ctorParams}});
    factoryDef = fill(R"(Kiv::Ptr<$T$> $T$::$T$Is(Kiv::Name const& name$params$) {
  Kiv::keyCheck(name, "$ns$::$T$");
  return Kiv::Ptr<$T$>(new $T$(Kiv::EntityInit{name, nullptr, Kiv::Name()}$args$));
}

)",
                      {{"T", e.name}, {"params", ctorParams}, {"args", factoryArgs}, {"ns", u.ns}});
  } else if (e.singleton) {
    std::string const params = ctorParams.empty() ? "" : ctorParams.substr(2);
    factoryDecl = fill("  // A free-standing instance named by the empty name, not held by a parent.\n"
                       "  static Kiv::Ptr<$T$> $T$Is($params$);\n",
                       {{"T", e.name}, {"params", params}});
    factoryDef = fill(R"(Kiv::Ptr<$T$> $T$::$T$Is($params$) {
  return Kiv::Ptr<$T$>(new $T$(Kiv::EntityInit{Kiv::Name(), nullptr, Kiv::Name()}$args$));
}

)",
                      {{"T", e.name}, {"params", params}, {"args", factoryArgs}});
  }
  bool creatable = ctorParamsOf(e).empty();
  // Vars hold views: every substituted text needs a name that outlives them.
  std::string const dtorDecl = destructor.empty() ? "" : "  ~" + e.name + "() override;\n";
  std::string const dtorDef = destructor.empty() ? "" : e.name + "::~" + e.name + "() {\n" + destructor + "}\n\n";
  std::string const attrTable =
      attrInfo.empty() ? "" : "Kiv::AttrInfo const kiv" + e.name + "Attrs[] = {\n" + attrInfo + "};\n";
  std::string const attrs =
      attrInfo.empty() ? "nullptr, 0" : "kiv" + e.name + "Attrs, std::size(kiv" + e.name + "Attrs)";
  std::string const createDef = creatable ? "Kiv::Ptr<Kiv::Entity> kivCreate" + e.name +
                                                "(Kiv::EntityInit const& init) {\n  return Kiv::Ptr<Kiv::Entity>(new " +
                                                e.name + "(init));\n}\n"
                                          : "";
  std::string const create = creatable ? "&kivCreate" + e.name : "nullptr";
  AdapterHooks const adapter = u.replicate ? emitAdapter(u, e, adapters) : AdapterHooks();
  Vars vars{{"T", e.name},
            {"ns", u.ns},
            {"ids", ids},
            {"acc", accessors},
            {"cb", callbacks},
            {"members", members},
            {"defs", definitions},
            {"ctorParams", ctorParams},
            {"ctorInits", ctorInits},
            {"factoryDecl", factoryDecl},
            {"factoryDef", factoryDef},
            {"dtorDecl", dtorDecl},
            {"dtorDef", dtorDef},
            {"attrInfo", attrTable},
            {"attrs", attrs},
            {"createDef", createDef},
            {"create", create},
            {"recorder", recorder},
            {"visit", visit},
            {"makeArgs", makeArgs},
            {"adapterDecl", adapter.decl},
            {"adapterFactoryDef", adapter.factoryDef},
            {"adapterFactory", adapter.factory},
            {"adapterDefs", adapter.defs},
            {"replicated", u.replicate ? "true" : "false"}};

  out.header += fill(R"(class $T$ : public Kiv::Entity {
 public:
  static Kiv::TypeInfo const& kivTypeInfo();
  Kiv::TypeInfo const& kivEntityType() const override { return kivTypeInfo(); }
$ids$
$factoryDecl$  // Members are created by their parent's collection mutator, never by hand.
  explicit $T$(Kiv::EntityInit const& kivInit$ctorParams$);
$dtorDecl$
$acc$
  class Callbacks : public Kiv::NotifieeBase {
   public:
    explicit Callbacks(bool active = true) : Kiv::NotifieeBase(active) {}
$cb$  };
  class Notifiee : public Kiv::NotifieeOf<$T$, Callbacks> {
   public:
    using NotifieeOf::NotifieeOf;
  };
  class NotifieeConst : public Kiv::NotifieeOf<$T$ const, Callbacks> {
   public:
    using NotifieeOf::NotifieeOf;
  };
$adapterDecl$
 private:
$members$};

)",
                     vars);
  out.source += fill(R"(namespace {
$attrInfo$$createDef$$adapterFactoryDef$}  // namespace

Kiv::TypeInfo const& $T$::kivTypeInfo() {
  static Kiv::TypeInfo const info{"$ns$::$T$", $create$, $attrs$$adapterFactory$};
  return info;
}

namespace {
bool const kiv$T$Registered = (Kiv::typeRegister($T$::kivTypeInfo()), true);
}  // namespace

$T$::$T$(Kiv::EntityInit const& kivInit$ctorParams$) : Kiv::Entity(kivInit)$ctorInits$ {}

$dtorDef$$factoryDef$$defs$$adapterDefs$)",
                     vars);
  // The template parameters below have names no declared type can take (a value V would hide V).
  out.testing += fill(R"~(template <>
struct Traits<$T$> {
  using Type = $T$;
  static constexpr char const* kTypeName = "$ns$::$T$";
  // Whether the type has an attribute-log adapter.
  static constexpr bool kReplicated = $replicated$;

  // Records every callback: "x" for onX(), "x(k)" for onX(k), "x()" and "x!" for a collection's
  // keyless and immediate callbacks.
  class Recorder : public $T$::NotifieeConst {
   public:
    explicit Recorder(Kiv::PtrConst<$T$> const& n) : NotifieeConst(n) {}
    std::vector<std::string> calls;
$recorder$  };

  // A free-standing instance; s supplies sample values: s.template get<P>(variant).
  template <class KivSamples>
  static Kiv::Ptr<Type> make(Kiv::Name const& name, KivSamples& s) {
    (void)s;
    return Kiv::Ptr<Type>(new Type(Kiv::EntityInit{name, nullptr, Kiv::Name()}$makeArgs$));
  }

  template <class KivVisitor>
  static void visit(KivVisitor& v) {
    (void)v;
$visit$  }
};

)~",
                      vars);
}

}  // namespace kivc
