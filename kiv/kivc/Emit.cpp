// One emitter per attribute kind, each with hooks for the class declaration, the out-of-line
// definitions, the notifiee callbacks, the member data, the conformance traits and the
// attribute-log adapter.

#include "kiv/kivc/Emit.h"

#include <algorithm>
#include <memory>
#include <stdexcept>
#include <vector>

#include "kiv/kivc/Template.h"

namespace kivc {
namespace {

std::string capitalized(std::string s) {
  if (!s.empty()) s[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(s[0])));
  return s;
}

bool passByValue(TypeRef const& t) {
  return t.kind == TypeKind::enumeration || (t.kind == TypeKind::builtin && t.name != "String" && t.name != "Name");
}
std::string param(TypeRef const& t) { return passByValue(t) ? t.cpp : t.cpp + " const&"; }

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

Entity const* findEntity(Unit const& u, std::string const& name) {
  for (Entity const& e : u.entities)
    if (e.name == name) return &e;
  return nullptr;
}

// Constructor parameters: the const and init attributes in declaration order.
std::vector<Attribute const*> ctorParamsOf(Entity const& e) {
  std::vector<Attribute const*> out;
  for (Attribute const& a : e.attributes)
    if (a.kind == AttrKind::constant || a.kind == AttrKind::initial) out.push_back(&a);
  return out;
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

// Attribute-log adapters: a reference travels as its target's handle, everything else as a
// tagged value.
std::string decodeOf(TypeRef const& t) {
  if (t.pointer) return "kivResolve<" + t.entity + (t.pointerToConst ? " const" : "") + ">(d, d.reference())";
  return "d.value<" + t.cpp + ">()";
}

// The pieces of an entity's attribute-log adapter that each attribute contributes.
struct AdapterParts {
  std::string decl;       // members of the adapter class
  std::string dirty;      // its public dirty-key sets
  std::string children;   // its private child adapters
  std::string defs;       // out-of-line definitions
  std::string ctor;       // sending: the adapters of the members already there
  std::string flowOut;    // cases of handleAttrFlowOut's dispatch
  std::string remount;    // doRemountSelf: the attribute sent whole
  std::string clear;      // the dirty-key sets emptied
  std::string sendChild;  // kivSendChild: the child looked up among the members
  std::string apply;      // cases of handleAttrTransaction
  std::string unsent;     // handleRemountEnd: what the remount did not send, deleted
};

// Shared by the emitters: names derived from the attribute and its entity.
struct Names {
  std::string T;   // the entity class
  std::string x;   // attribute
  std::string X;   // capitalised
  std::string id;  // identifier as text
  std::string qualifiedAttr;
};

class AttrEmitter {
 public:
  AttrEmitter(Unit const& u, Entity const& e, Attribute const& a)
      : u_(u), e_(e), a_(a), n_{e.name, a.name, capitalized(a.name), std::to_string(a.id), e.name + "::" + a.name} {}
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
  // Derived, const and owner attributes never flow.
  virtual void adapter(AdapterParts&) const {}

 protected:
  std::string fillA(std::string_view tmpl) const {
    return fill(tmpl, {{"T", n_.T},
                       {"x", n_.x},
                       {"X", n_.X},
                       {"id", n_.id},
                       {"type", a_.type.cpp},
                       {"param", param(a_.type)},
                       {"key", a_.key ? a_.key->cpp : ""},
                       {"keyParam", a_.key ? param(*a_.key) : ""},
                       {"ns", u_.ns}});
  }
  Unit const& u_;
  Entity const& e_;
  Attribute const& a_;
  Names n_;
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
  void adapter(AdapterParts& p) const override {
    p.decl += fillA("  void on$X$() override;\n  bool kivHandle$X$Serialize();\n");
    std::string const send = fillA(a_.type.pointer ? "kivSendRef(kiv$X$AttrId, kivEntity().$x$().ptr())"
                                                   : "kivSendValue(kiv$X$AttrId, kivEntity().$x$())");
    p.defs += fill(fillA(R"(void $T$::KivNboAttrLogSa::on$X$() {
  if (!kivHandle$X$Serialize()) kivDirtyIs(kiv$X$AttrId);
}

bool $T$::KivNboAttrLogSa::kivHandle$X$Serialize() { return $send$; }

)"),
                   {{"send", send}});
    p.flowOut += fillA("      case kiv$X$AttrId:\n        return kivHandle$X$Serialize();\n");
    p.remount += fillA("  if (!kivHandle$X$Serialize()) kivDirtyIs(kiv$X$AttrId);\n");
    p.apply += fill(fillA(R"(    case kiv$X$AttrId: {
      if (op != Kiv::NboAttrLog::Op::value) break;
      $type$ const v = $decode$;
      d.end();
      Kiv::ReplicaWriteScope const w;
      kivEntity().$x$Is(v);
      return;
    }
)"),
                    {{"decode", decodeOf(a_.type)}});
  }
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
  // What entity collections and sets share in the adapter: a key sent alone (by `sing`, the
  // definition of kivHandle$X$SerializeSing) or marked dirty, the dirty keys sent together, and
  // every key sent by a remount. Entity collections also keep child adapters in step (`follow`).
  void commonAdapter(AdapterParts& p, std::string const& follow, std::string const& sing) const {
    p.decl += fillA(R"(  using Notifiee::on$X$;
  void on$X$($keyParam$ k) override;
  bool kivHandle$X$SerializeSing($keyParam$ k);
  bool kivHandle$X$SerializeColl();
)");
    p.dirty += fillA("  Kiv::HashMap<$key$, bool> KivKivIs$X$Dirty;\n");
    p.defs += fill(fillA(R"(void $T$::KivNboAttrLogSa::on$X$($keyParam$ k) {
$follow$  if (!kivHandle$X$SerializeSing(k)) kivDirtyIs(kiv$X$AttrId, KivKivIs$X$Dirty, k);
}

$sing$bool $T$::KivNboAttrLogSa::kivHandle$X$SerializeColl() {
  return Kiv::NboAttrLog::flowOutKeys(KivKivIs$X$Dirty, [this]($keyParam$ k) { return kivHandle$X$SerializeSing(k); });
}

)"),
                   {{"follow", follow}, {"sing", sing}});
    p.flowOut += fillA("      case kiv$X$AttrId:\n        return kivHandle$X$SerializeColl();\n");
    p.remount += fillA(R"(  for (auto it = kivEntity().$x$_.begin(); it; ++it)
    if (!kivHandle$X$SerializeSing(it.key())) kivDirtyIs(kiv$X$AttrId, KivKivIs$X$Dirty, it.key());
)");
    p.clear += fillA("  KivKivIs$X$Dirty.clear();\n");
  }
  // The receiver's part for op `del`, with what else goes with the key (`drop`).
  std::string applyDel(std::string const& drop) const {
    return fill(fillA(R"(      if (op == Kiv::NboAttrLog::Op::del) {
        $key$ const k = kivKey<$key$>(d, "$ns$::$T$::$x$");
        d.end();
        Kiv::ReplicaWriteScope const w;
        kivEntity().$x$Del(k);
$drop$        return;
      }
      break;
)"),
                {{"drop", drop}});
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
  void adapter(AdapterParts& p) const override {
    std::string sendParams, decodeParams, sameConsts;
    for (Attribute const* c : ctorParamsOf(*member_)) {
      sendParams += ", " + (c->type.pointer ? "Kiv::NboAttrLog::refParam(side(), m->" + c->name + "().ptr())"
                                            : "m->" + c->name + "()");
      decodeParams += "        " + c->type.cpp + " const " + c->name + " = " + decodeOf(c->type) + ";\n";
      if (c->kind == AttrKind::constant)
        sameConsts += (sameConsts.empty() ? "" : " && ") + ("kivOld->" + c->name + "() == " + c->name);
    }
    // A member whose const parameters differ is replaced, not refused as a local mutator would.
    std::string const replace =
        sameConsts.empty()
            ? std::string()
            : fill(fillA("        if (Kiv::Ptr<$type$> const kivOld = kivEntity().$x$(k);\n"
                         "            kivOld && !($same$))\n"
                         "          kivEntity().$x$Del(k);\n"),
                   {{"same", sameConsts}});
    std::string const checkKey =
        computed_ ? fill(fillA("        if (!($key$($expr$) == k)) d.fail(\"key does not match its member's parameters\");\n"),
                         {{"expr", a_.keyExpression}})
                  : "";
    std::string const args = computed_ ? args_.substr(std::min<std::size_t>(2, args_.size())) : "k" + args_;
    Vars const vars{{"sendParams", sendParams}, {"decodeParams", decodeParams}, {"replace", replace},
                    {"checkKey", checkKey},     {"args", args}};
    std::string const sing = fill(fillA(R"(bool $T$::KivNboAttrLogSa::kivHandle$X$SerializeSing($keyParam$ k) {
  Kiv::Ptr<$type$> const m = kivEntity().$x$(k);
  if (!m) return kivSendDel(kiv$X$AttrId, k);
  return kivSendMember(kiv$X$AttrId, k, *$x$NboAttrLogAdapterIs(k)$sendParams$);
}

)"),
                                  vars);
    commonAdapter(p, fillA("  $x$NboAttrLogAdapterIs(k);\n"), sing);
    p.decl += fillA(R"(  // The adapter of member k: made, replaced or dropped to follow the collection.
  Kiv::Ptr<$type$::KivNboAttrLogSa> $x$NboAttrLogAdapter($keyParam$ k) const;
  Kiv::Ptr<$type$::KivNboAttrLogSa> $x$NboAttrLogAdapterIs($keyParam$ k);
  void $x$NboAttrLogAdapterDel($keyParam$ k);
)");
    p.children += fillA("  Kiv::HashMap<$key$, Kiv::Ptr<$type$::KivNboAttrLogSa>> $x$NboAttrLogAdapter_;\n");
    p.defs += fillA(R"(Kiv::Ptr<$type$::KivNboAttrLogSa> $T$::KivNboAttrLogSa::$x$NboAttrLogAdapter($keyParam$ k) const {
  return $x$NboAttrLogAdapter_.get(k);
}

Kiv::Ptr<$type$::KivNboAttrLogSa> $T$::KivNboAttrLogSa::$x$NboAttrLogAdapterIs($keyParam$ k) {
  Kiv::Ptr<$type$> const m = kivEntity().$x$(k);
  if (!m) {
    $x$NboAttrLogAdapterDel(k);
    return nullptr;
  }
  Kiv::Ptr<$type$::KivNboAttrLogSa> const* held = $x$NboAttrLogAdapter_.find(k);
  if (held && &(*held)->entity() == m.ptr()) return *held;
  Kiv::Ptr<$type$::KivNboAttrLogSa> const a(new $type$::KivNboAttrLogSa(m, this, side()));
  $x$NboAttrLogAdapter_.assign(k, a);
  return a;
}

void $T$::KivNboAttrLogSa::$x$NboAttrLogAdapterDel($keyParam$ k) { $x$NboAttrLogAdapter_.erase(k); }

)");
    p.ctor += fillA("  for (auto it = e->$x$_.begin(); it; ++it) $x$NboAttrLogAdapterIs(it.key());\n");
    p.sendChild += fillA(R"(  if (auto k = Kiv::NboAttrLog::childKey($x$NboAttrLogAdapter_, child)) {
    if (!kivHandle$X$SerializeSing(*k)) return false;
    KivKivIs$X$Dirty.erase(*k);
    return true;
  }
)");
    // The decoded parameters are locals of their own names, for the key expression.
    p.apply += fill(fillA(R"(    case kiv$X$AttrId:
      if (op == Kiv::NboAttrLog::Op::member) {
        $key$ const k = kivKey<$key$>(d, "$ns$::$T$::$x$");
        std::uint64_t const kivHandle = d.varint();
        kivCheckNewHandle(d, kivHandle);
$decodeParams$$checkKey$        d.end();
        Kiv::ReplicaWriteScope const kivWrite;
$replace$        Kiv::Ptr<$type$> const m = kivEntity().$x$Is($args$);
        Kiv::Ptr<$type$::KivNboAttrLogSa> const kivChild(new $type$::KivNboAttrLogSa(m, this, this->side()));
        $x$NboAttrLogAdapter_.assign(k, kivChild);
        kivAdopt(*kivChild, kivHandle);
        if (kivRemounting()) KivKivIs$X$Dirty.assign(k, true);
        return;
      }
)"),
                    vars) +
               applyDel(fillA("        $x$NboAttrLogAdapterDel(k);\n"));
    p.unsent += fillA(R"(  for ($key$ const& k : Kiv::NboAttrLog::unsentKeys(kivEntity().$x$_, KivKivIs$X$Dirty)) {
    kivEntity().$x$Del(k);
    $x$NboAttrLogAdapterDel(k);
  }
)");
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
  void adapter(AdapterParts& p) const override {
    // Read from the map: x(k) cannot tell an absent key from a stored default value.
    commonAdapter(p, "", fillA(R"(bool $T$::KivNboAttrLogSa::kivHandle$X$SerializeSing($keyParam$ k) {
  $type$ const* v = kivEntity().$x$_.find(k);
  return v ? kivSendEntry(kiv$X$AttrId, k, *v) : kivSendDel(kiv$X$AttrId, k);
}

)"));
    std::string const checkKey =
        computed() ? fill(fillA("        if (!($key$($expr$) == k)) d.fail(\"key does not match its value\");\n"),
                          {{"expr", a_.keyExpression}})
                   : "";
    p.apply += fill(fillA(R"(    case kiv$X$AttrId:
      if (op == Kiv::NboAttrLog::Op::entry) {
        $key$ const k = kivKey<$key$>(d, "$ns$::$T$::$x$");
        $type$ const v = d.value<$type$>();
$checkKey$        d.end();
        Kiv::ReplicaWriteScope const w;
        kivEntity().$x$Is($args$);
        if (kivRemounting()) KivKivIs$X$Dirty.assign(k, true);
        return;
      }
)"),
                    {{"checkKey", checkKey}, {"args", computed() ? "v" : "k, v"}}) +
               applyDel("");
    p.unsent += fillA(
        "  for ($key$ const& k : Kiv::NboAttrLog::unsentKeys(kivEntity().$x$_, KivKivIs$X$Dirty)) kivEntity().$x$Del(k);\n");
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

// --- enumerations ---

void emitEnum(Unit const& u, Enum const& en, Output& out, std::string& after) {
  std::string values, cases, names;
  for (EnumValue const& v : en.values) {
    values += "  " + v.name + " = " + std::to_string(v.number) + ",\n";
    cases += "    case " + v.name + ":\n      return \"" + v.name + "\";\n";
    names += "  if (name == \"" + v.name + "\") return " + v.name + ";\n";
  }
  Vars vars{{"E", en.name}, {"ns", u.ns}, {"values", values}, {"cases", cases}, {"names", names}};
  out.header += fill(R"(enum $E$ : std::uint32_t {
$values$};
std::string valueToStrep($E$ v);
std::ostream& operator<<(std::ostream& os, $E$ v);
// Look-ups by number and by name; an unknown one throws the range exception.
$E$ $E$Instance(std::uint32_t number);
$E$ $E$Instance(std::string_view name);

)",
                     vars);
  out.source += fill(R"(std::string valueToStrep($E$ v) {
  switch (v) {
$cases$  }
  return std::to_string(static_cast<std::uint32_t>(v));
}

std::ostream& operator<<(std::ostream& os, $E$ v) { return os << valueToStrep(v); }

$E$ $E$Instance(std::uint32_t number) {
  $E$ v = static_cast<$E$>(number);
  if (valueToStrep(v) == std::to_string(number)) Kiv::throwRangeException("no $ns$::$E$ has number " + std::to_string(number));
  return v;
}

$E$ $E$Instance(std::string_view name) {
$names$  Kiv::throwRangeException("no $ns$::$E$ is named " + std::string(name));
}

)",
                     vars);
  after += fill(R"(template <>
inline $ns$::$E$ Kiv::sequenceToValue<$ns$::$E$>(std::string_view text) {
  return $ns$::$E$Instance(text);
}

)",
                vars);
}

// --- value types ---

void emitValue(Unit const& u, Value const& v, Output& out, std::string& after) {
  std::string params, inits, accessors, members, hash, strep, parse, args, encode, decode;
  for (std::size_t i = 0; i < v.fields.size(); ++i) {
    ValueField const& f = v.fields[i];
    std::string const fieldParam = param(f.type);  // Vars hold views: keep the text alive
    Vars fv{{"f", f.name}, {"type", f.type.cpp}, {"param", fieldParam}};
    params += (i ? ", " : "") + fill("$param$ $f$", fv);
    inits += (i ? ", " : "") + fill("$f$_($f$)", fv);
    accessors += fill("  $param$ $f$() const { return $f$_; }\n  void $f$Is($param$ v) { $f$_ = v; }\n", fv);
    members += fill("  $type$ $f$_{};\n", fv);
    // std::hash of a value type of this unit is specialised only after the header's classes.
    bool const local = f.type.kind == TypeKind::value && f.type.cpp.find("::") == std::string::npos;
    hash += (i ? " ^ " : "") + fill(local ? "$f$_.hash()" : "std::hash<$type$>()($f$_)", fv);
    std::string lead = i ? ", '" : "'";
    strep += fill("  s += \"$lead$$f$': \";\n  s += Kiv::fieldStrep(v.$f$());\n", {{"lead", lead}, {"f", f.name}});
    parse += fill("  r.expect(\"$lead$$f$': \");\n  $type$ $f$ = r.read<$type$>();\n",
                  {{"lead", lead}, {"f", f.name}, {"type", f.type.cpp}});
    args += (i ? ", " : "") + f.name;
    encode += fill("    e.value($f$_);\n", fv);
    decode += (i ? ", " : "") + fill("d.value<$type$>()", fv);
  }
  std::string const fieldCount = std::to_string(v.fields.size());
  Vars vars{{"V", v.name},   {"ns", u.ns},     {"params", params}, {"inits", inits},
            {"acc", accessors}, {"members", members}, {"hash", hash},   {"strep", strep},
            {"parse", parse}, {"args", args}, {"explicit", v.fields.size() == 1 ? "explicit " : ""},
            {"encode", encode}, {"decode", decode}, {"n", fieldCount}};
  out.header += fill(R"~(class $V$ {
 public:
  $V$() = default;
  $explicit$$V$($params$) : $inits$ {}
$acc$
  bool operator==($V$ const&) const = default;
  auto operator<=>($V$ const&) const = default;
  // True for the default value.
  bool operator!() const { return *this == $V$(); }
  std::size_t hash() const { return $hash$; }
  // Reads the fields of the text form; the caller has read its opening.
  static $V$ kivParse(Kiv::ValueTextReader& r);
  // The attribute-log form: a composite of the fields in order.
  void kivAttrLogEncode(Kiv::NboAttrLog::Encoder& e) const {
    e.composite($n$);
$encode$  }
  static $V$ kivAttrLogDecode(Kiv::NboAttrLog::Decoder& d) {
    d.composite($n$);
    return $V${$decode$};  // braces: the fields are read in order
  }

 private:
$members$};
// "Value('$ns$::$V$', ** {'field': <field>, ...})"
std::string valueToStrep($V$ const& v);
std::ostream& operator<<(std::ostream& os, $V$ const& v);

)~",
                     vars);
  out.source += fill(R"~(std::string valueToStrep($V$ const& v) {
  std::string s = "Value('$ns$::$V$', ** {";
$strep$  s += "})";
  return s;
}

std::ostream& operator<<(std::ostream& os, $V$ const& v) { return os << valueToStrep(v); }

$V$ $V$::kivParse(Kiv::ValueTextReader& r) {
  r.expect("Value('$ns$::$V$', ** {");
$parse$  r.expect("})");
  return $V$($args$);
}

)~",
                     vars);
  after += fill(R"~(template <>
struct std::hash<$ns$::$V$> {
  std::size_t operator()($ns$::$V$ const& v) const noexcept { return v.hash(); }
};
template <>
inline $ns$::$V$ Kiv::sequenceToValue<$ns$::$V$>(std::string_view text) {
  Kiv::ValueTextReader r(text);
  $ns$::$V$ v = $ns$::$V$::kivParse(r);
  r.end();
  return v;
}

)~",
                vars);
}

// --- attribute-log adapters ---

// T::KivNboAttrLogSa: the class, after every entity class of the header (`header`), and its
// definitions (`source`), all out of line so that members' adapters may be declared in any order.
void emitAdapter(Entity const& e, std::vector<std::unique_ptr<AttrEmitter>> const& emitters,
                 std::string& header, std::string& source) {
  AdapterParts p;
  for (auto const& emitter : emitters) emitter->adapter(p);
  bool const collections = !p.clear.empty();
  std::string const keyDirty =
      collections ? R"(  template <class K>
  void kivDirtyIs(std::uint32_t id, Kiv::HashMap<K, bool>& keys, K const& k) {
    keys.assign(k, true);
    kivDirtyIs(id);
  }
)"
                  : "";
  std::string const ctor = p.ctor.empty() ? " {}" : " {\n  if (!side.sending()) return;\n" + p.ctor + "}";
  std::string const dispatch =
      p.flowOut.empty() ? "[](std::uint32_t) { return true; }"
                        : "[this](std::uint32_t a) {\n    switch (a) {\n" + p.flowOut + "    }\n    return true;\n  }";
  std::string const apply = p.apply.empty() ? "" : "  switch (id) {\n" + p.apply + "  }\n";
  std::string const unsent = p.unsent.empty() ? "" : "  Kiv::ReplicaWriteScope const w;\n" + p.unsent;
  std::string const bits = std::to_string(e.attributes.size());
  Vars vars{{"T", e.name},
            {"decl", p.decl},
            {"dirty", p.dirty},
            {"children", p.children},
            {"keyDirty", keyDirty},
            {"bits", bits},
            {"defs", p.defs},
            {"ctor", ctor},
            {"dispatch", dispatch},
            {"remount", p.remount},
            {"clear", p.clear},
            {"child", p.sendChild.empty() ? "" : " child"},
            {"sendChild", p.sendChild},
            {"apply", apply},
            {"unsent", unsent}};
  header += fill(R"(// Replicates a $T$ over the attribute log (kiv/AttrLog.h).
class $T$::KivNboAttrLogSa : public $T$::Notifiee, public Kiv::NboAttrLog::Adapter {
 public:
  // Sending adapters are active reactors of their entity; receiving ones are silent.
  KivNboAttrLogSa(Kiv::Ptr<$T$> const& e, Kiv::NboAttrLog::Adapter* parent, Kiv::NboAttrLog::Side& side);
  ~KivNboAttrLogSa() override;
  Kiv::PtrInterface* kivObject() override { return this; }
  $T$& kivEntity() const { return static_cast<$T$&>(entity()); }

  // Sending: a change goes out at once, or stays dirty until the output has room.
$decl$  std::uint32_t handleAttrFlowOut(std::uint32_t id) override;
  void doRemountSelf() override;
  bool kivSendChild(Kiv::NboAttrLog::Adapter& child) override;

  // Receiving: an update is applied through the entity's mutators once its frame is read whole.
  void handleAttrTransaction(std::uint32_t id, Kiv::NboAttrLog::Op op, Kiv::NboAttrLog::Decoder& d) override;
  void handleRemountBegin() override;
  void handleRemountEnd() override;

  // One dirty bit per attribute (bit = id - 258) and one dirty-key set per collection; while a
  // remount is received, the sets hold the keys it has sent.
  std::bitset<$bits$> kivFlowOut;
$dirty$
 private:
  void kivDirtyIs(std::uint32_t id) {
    kivFlowOut.set(id - Kiv::kFirstAttrId);
    kivQueue();
  }
$keyDirty$$children$};

)",
                 vars);
  source += fill(R"($T$::KivNboAttrLogSa::KivNboAttrLogSa(Kiv::Ptr<$T$> const& e, Kiv::NboAttrLog::Adapter* parent, Kiv::NboAttrLog::Side& side)
    : Notifiee(e, side.sending()), Kiv::NboAttrLog::Adapter(*e, parent, side)$ctor$

$T$::KivNboAttrLogSa::~KivNboAttrLogSa() = default;

$defs$std::uint32_t $T$::KivNboAttrLogSa::handleAttrFlowOut(std::uint32_t id) {
  if (id < Kiv::kFirstAttrId) id = kivFrameworkFlowOut(id);
  if (id == 0) return 0;
  return Kiv::NboAttrLog::flowOutBits(kivFlowOut, id, $dispatch$);
}

void $T$::KivNboAttrLogSa::doRemountSelf() {
  kivFlowOut.reset();
$clear$  kivRemountBegin();
$remount$  kivRemountEnd();
}

bool $T$::KivNboAttrLogSa::kivSendChild(Kiv::NboAttrLog::Adapter&$child$) {
$sendChild$  return true;
}

void $T$::KivNboAttrLogSa::handleAttrTransaction(std::uint32_t id, Kiv::NboAttrLog::Op op, Kiv::NboAttrLog::Decoder& d) {
$apply$  kivRefuse(d, id, op);
}

void $T$::KivNboAttrLogSa::handleRemountBegin() {
$clear$  kivRemountingIs(true);
}

void $T$::KivNboAttrLogSa::handleRemountEnd() {
$unsent$$clear$  kivRemountingIs(false);
}

)",
                 vars);
}

// --- entities ---

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
  std::string adapterDecl, adapterFactoryDef, adapterFactory, adapterDefs;
  if (u.replicate) {
    emitAdapter(e, emitters, adapters, adapterDefs);
    adapterDecl = "  // Its attribute-log adapter (defined after every entity class).\n  class KivNboAttrLogSa;\n";
    adapterFactoryDef = fill(R"(Kiv::NboAttrLog::Adapter* kivCreate$T$NboAttrLogSa(Kiv::Entity& e, Kiv::NboAttrLog::Side& side) {
  return new $T$::KivNboAttrLogSa(Kiv::Ptr<$T$>(static_cast<$T$*>(&e)), nullptr, side);
}
)",
                             {{"T", e.name}});
    adapterFactory = ", &kivCreate" + e.name + "NboAttrLogSa";
  }
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
            {"adapterDecl", adapterDecl},
            {"adapterFactoryDef", adapterFactoryDef},
            {"adapterFactory", adapterFactory},
            {"adapterDefs", adapterDefs},
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

}  // namespace

Output emit(Unit const& u) {
  Output out;
  std::string const banner = "// Generated by kivc from " + u.file.substr(u.file.find_last_of('/') + 1) + ". Do not edit.\n";
  std::string includes;
  for (std::string const& inc : u.includes) includes += "#include \"" + inc + "\"\n";
  std::string forward;
  for (Entity const& e : u.entities) forward += "class " + e.name + ";\n";

  std::string after, adapters;
  Output body;
  for (Enum const& en : u.enums) emitEnum(u, en, body, after);
  for (Value const& v : u.values) emitValue(u, v, body, after);
  for (Entity const& e : u.entities) emitEntity(u, e, body, adapters);

  std::string const replication = u.replicate ? "#include \"kiv/AttrLogGenerated.h\"\n" : "";
  out.header = banner + "#pragma once\n\n#include <cstdint>\n#include <ostream>\n#include <string>\n#include <string_view>\n\n"
               "#include \"kiv/Generated.h\"\n" + replication + includes + "\nnamespace " + u.ns + " {\n\n" + forward +
               "\n" + body.header + adapters + "}  // namespace " + u.ns + "\n\n" + after;
  out.source = banner + "\n#include \"" + u.stem + ".h\"\n\nnamespace " + u.ns + " {\n\n" + body.source +
               "}  // namespace " + u.ns + "\n";
  out.testing = banner + "#pragma once\n\n#include <string>\n#include <vector>\n\n#include \"" + u.stem +
                ".h\"\n\nnamespace " + u.ns + "::kivtesting {\n\ntemplate <class T>\nstruct Traits;\n\n" + body.testing +
                "}  // namespace " + u.ns + "::kivtesting\n";
  emitMachines(u, banner, out.machinesHeader, out.machinesSource);
  for (std::string const* text : {&out.header, &out.source, &out.testing}) {
    if (std::size_t at = text->find('$'); at != std::string::npos)
      throw std::logic_error("unfilled template variable in output: " + text->substr(at, 40));
  }
  return out;
}

}  // namespace kivc
