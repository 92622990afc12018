// Attribute-log adapters (`replicate;`): T::KivNboAttrLogSa sends T's changes and applies the
// received ones. Each attribute kind that travels contributes its parts to the adapter class.

#include <algorithm>
#include <memory>
#include <stdexcept>

#include "kiv/kivc/EmitCommon.h"

namespace kivc {
namespace {

// A reference travels as its target's handle, everything else as a tagged value.
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

// Derived, const and owner attributes never flow, so they have none.
class AttrAdapter : public AttrText {
 public:
  using AttrText::AttrText;
  virtual ~AttrAdapter() = default;
  virtual void parts(AdapterParts& p) const = 0;
};

// mutable values, references and init: one value update per change.
class ValueAdapter : public AttrAdapter {
 public:
  using AttrAdapter::AttrAdapter;
  void parts(AdapterParts& p) const override {
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
};

class CollectionAdapterBase : public AttrAdapter {
 public:
  using AttrAdapter::AttrAdapter;

 protected:
  bool computed() const { return !a_.keyExpression.empty(); }
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

// Instantiating collections: a member travels with its constructor parameters and has its own
// child adapter.
class CollectionAdapter : public CollectionAdapterBase {
 public:
  using CollectionAdapterBase::CollectionAdapterBase;
  void parts(AdapterParts& p) const override {
    Entity const* member = findEntity(u_, a_.type.name);
    if (!member) throw std::logic_error("collection member type not in unit");
    std::string params, sendParams, decodeParams, sameConsts;
    for (Attribute const* c : ctorParamsOf(*member)) {
      params += ", " + c->name;
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
        computed() ? fill(fillA("        if (!($key$($expr$) == k)) d.fail(\"key does not match its member's parameters\");\n"),
                          {{"expr", a_.keyExpression}})
                   : "";
    std::string const args = computed() ? params.substr(std::min<std::size_t>(2, params.size())) : "k" + params;
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
};

// Value collections: entries travel whole.
class ValueCollectionAdapter : public CollectionAdapterBase {
 public:
  using CollectionAdapterBase::CollectionAdapterBase;
  void parts(AdapterParts& p) const override {
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
};

std::unique_ptr<AttrAdapter> adapterFor(Unit const& u, Entity const& e, Attribute const& a) {
  switch (a.kind) {
    case AttrKind::derived:
    case AttrKind::constant:
    case AttrKind::owner:
      return nullptr;
    case AttrKind::value:
    case AttrKind::reference:
    case AttrKind::initial:
      return std::make_unique<ValueAdapter>(u, e, a);
    case AttrKind::collection:
      return std::make_unique<CollectionAdapter>(u, e, a);
    case AttrKind::valueCollection:
      return std::make_unique<ValueCollectionAdapter>(u, e, a);
  }
  return nullptr;
}

}  // namespace

// T::KivNboAttrLogSa: the class goes after every entity class of the header, and all its
// definitions out of line, so that members' adapters may be declared in any order.
AdapterHooks emitAdapter(Unit const& u, Entity const& e, std::string& adapters) {
  AdapterParts p;
  for (Attribute const& a : e.attributes)
    if (std::unique_ptr<AttrAdapter> const adapter = adapterFor(u, e, a)) adapter->parts(p);
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
  adapters += fill(R"(// Replicates a $T$ over the attribute log (kiv/AttrLog.h).
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
  AdapterHooks hooks;
  hooks.defs = fill(R"($T$::KivNboAttrLogSa::KivNboAttrLogSa(Kiv::Ptr<$T$> const& e, Kiv::NboAttrLog::Adapter* parent, Kiv::NboAttrLog::Side& side)
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
  hooks.decl = "  // Its attribute-log adapter (defined after every entity class).\n  class KivNboAttrLogSa;\n";
  hooks.factoryDef = fill(R"(Kiv::NboAttrLog::Adapter* kivCreate$T$NboAttrLogSa(Kiv::Entity& e, Kiv::NboAttrLog::Side& side) {
  return new $T$::KivNboAttrLogSa(Kiv::Ptr<$T$>(static_cast<$T$*>(&e)), nullptr, side);
}
)",
                          {{"T", e.name}});
  hooks.factory = ", &kivCreate" + e.name + "NboAttrLogSa";
  return hooks;
}

}  // namespace kivc
