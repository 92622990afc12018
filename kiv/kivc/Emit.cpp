// One emitter per attribute kind, each with hooks for the class declaration, the out-of-line
// definitions, the notifiee callbacks, the member data and the conformance traits.

#include "kiv/kivc/Emit.h"

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

char const* kindName(AttrKind k) {
  switch (k) {
    case AttrKind::derived:
      return "derived";
    case AttrKind::constant:
      return "constant";
    case AttrKind::value:
      return "value";
    case AttrKind::reference:
      return "reference";
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

std::vector<Attribute const*> constantsOf(Entity const& e) {
  std::vector<Attribute const*> out;
  for (Attribute const& a : e.attributes)
    if (a.kind == AttrKind::constant) out.push_back(&a);
  return out;
}

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
  std::string visit() const override {
    if (a_.kind == AttrKind::derived)
      return fillA("    v.derived(\"$x$\", $id$u, [](Type const& e) { return e.$x$(); });\n");
    int index = 0;
    for (Attribute const* c : constantsOf(e_)) {
      if (c == &a_) break;
      ++index;
    }
    return fill(fillA("    v.constant(\"$x$\", $id$u, $index$, [](Type const& e) { return e.$x$(); });\n"),
                {{"index", std::to_string(index)}});
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

class CollectionEmitterBase : public AttrEmitter {
 public:
  using AttrEmitter::AttrEmitter;
  std::string callbacks() const override {
    return fillA(
        "    virtual void on$X$($keyParam$) {}\n"
        "    virtual void on$X$() {}\n"
        "    virtual void on$X$kivImmediate() {}\n");
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
        "        [](Type const& e) { return e.$x$Size(); }, [](Type& e, $keyParam$ k) { e.$x$Notify(k); });\n");
  }
};

// Instantiating collections: own their member entities.
class CollectionEmitter : public CollectionEmitterBase {
 public:
  CollectionEmitter(Unit const& u, Entity const& e, Attribute const& a) : CollectionEmitterBase(u, e, a) {
    member_ = findEntity(u, a.type.name);
    if (!member_) throw std::logic_error("collection member type not in unit");
    for (Attribute const* c : constantsOf(*member_)) {
      params_ += ", " + param(c->type) + " " + c->name;
      args_ += ", " + c->name;
      checks_ += "(\"" + c->name + "\", " + c->name + ", (*existing)->" + c->name + "())";
    }
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
  Kiv::Ptr<$type$> $x$Is($keyParam$ k$params$);
)"),
                {{"params", params_}}) +
           commonDeclaration("Kiv::Ptr<" + a_.type.cpp + ">");
  }
  std::string definition() const override {
    std::string check = checks_.empty() ? std::string()
                                        : "    Kiv::ReinstantiationCheck(Kiv::entitySubject(Kiv::nameOf(k)))" + checks_ + ";\n";
    return fill(fillA(R"(Kiv::Ptr<$type$> $T$::$x$Is($keyParam$ k$params$) {
  if (Kiv::Ptr<$type$> const* existing = $x$_.find(k)) {
$check$    return *existing;
  }
  kivCheckWritable("$x$");
  Kiv::keyCheck(k, "$ns$::$T$::$x$");
  Kiv::Ptr<$type$> m(new $type$(Kiv::EntityInit{Kiv::nameOf(k), this, Kiv::Name("$x$")}$args$));
  $x$_.insert(k, m);
  kivNotify<Callbacks>([&](Callbacks* n) { n->on$X$(k); });
  return m;
}

)"),
                {{"params", params_}, {"args", args_}, {"check", check}}) +
           commonDefinition("Kiv::Ptr<" + a_.type.cpp + ">", "  removed->kivParentIs(nullptr);\n");
  }
  std::string member() const override { return fillA("  $X$Map $x$_;\n"); }
  std::string destructorPart() const override {
    return fillA("  for (auto it = $x$_.begin(); it; ++it) it.value()->kivParentIs(nullptr);\n");
  }
  std::string visit() const override {
    std::string names, sampled;
    int i = 0;
    for (Attribute const* c : constantsOf(*member_)) {
      names += std::string(names.empty() ? "" : ", ") + "\"" + c->name + "\"";
      sampled += ", s.template get<" + c->type.cpp + ">(differ == " + std::to_string(i++) + " ? 1 : 0)";
    }
    return fill(fillA(R"(    v.template collection<$key$, $type$>("$x$", $id$u, std::vector<std::string>{$names$},
        [](Type& e, $keyParam$ k, auto& s, int differ) { (void)s; (void)differ; return e.$x$Is(k$sampled$); },
        [](Type& e, $keyParam$ k) { return e.$x$(k); },
)"),
                {{"names", names}, {"sampled", sampled}}) +
           commonVisitTail();
  }

 private:
  Entity const* member_;
  std::string params_, args_, checks_;
};

// Value collections: plain values by key; reading an absent key gives the default value.
class ValueCollectionEmitter : public CollectionEmitterBase {
 public:
  using CollectionEmitterBase::CollectionEmitterBase;
  std::string declaration() const override {
    return fillA(R"(  $type$ $x$($keyParam$ k) const {
    $type$ const* v = $x$_.find(k);
    return v ? *v : $type${};
  }
  void $x$Is($keyParam$ k, $param$ v);
)") + commonDeclaration(a_.type.cpp);
  }
  std::string definition() const override {
    return fillA(R"(void $T$::$x$Is($keyParam$ k, $param$ v) {
  kivCheckWritable("$x$");
  Kiv::keyCheck(k, "$ns$::$T$::$x$");
  auto [stored, inserted] = $x$_.insert(k, v);
  if (!inserted) {
    if (*stored == v) return;
    *stored = v;
  }
  kivNotify<Callbacks>([&](Callbacks* n) { n->on$X$(k); });
}

)") + commonDefinition(a_.type.cpp, "");
  }
  std::string member() const override { return fillA("  $X$Map $x$_;\n"); }
  std::string visit() const override {
    return fillA(R"(    v.template valueCollection<$key$, $type$>("$x$", $id$u,
        [](Type const& e, $keyParam$ k) { return e.$x$(k); }, [](Type& e, $keyParam$ k, $param$ x) { e.$x$Is(k, x); },
)") + commonVisitTail();
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
  std::string params, inits, accessors, members, hash, strep, parse, args;
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
  }
  Vars vars{{"V", v.name},   {"ns", u.ns},     {"params", params}, {"inits", inits},
            {"acc", accessors}, {"members", members}, {"hash", hash},   {"strep", strep},
            {"parse", parse}, {"args", args}, {"explicit", v.fields.size() == 1 ? "explicit " : ""}};
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

// --- entities ---

void emitEntity(Unit const& u, Entity const& e, Output& out) {
  std::vector<std::unique_ptr<AttrEmitter>> emitters;
  for (Attribute const& a : e.attributes) emitters.push_back(emitterFor(u, e, a));

  std::string ids, accessors, callbacks, members, definitions, recorder, visit, destructor, attrInfo;
  for (std::size_t i = 0; i < e.attributes.size(); ++i) {
    Attribute const& a = e.attributes[i];
    ids += "  static constexpr std::uint32_t kiv" + capitalized(a.name) + "AttrId = " + std::to_string(a.id) + ";\n";
    attrInfo += "    {" + std::to_string(a.id) + "u, \"" + a.name + "\", Kiv::AttrKind::" + kindName(a.kind) + "},\n";
    accessors += emitters[i]->declaration();
    callbacks += emitters[i]->callbacks();
    members += emitters[i]->member();
    definitions += emitters[i]->definition();
    recorder += emitters[i]->recorder();
    visit += emitters[i]->visit();
    destructor += emitters[i]->destructorPart();
  }
  std::string ctorParams, ctorInits, factoryArgs, makeArgs;
  for (Attribute const* c : constantsOf(e)) {
    ctorParams += ", " + param(c->type) + " " + c->name;
    ctorInits += ", " + c->name + "_(" + c->name + ")";
    factoryArgs += ", " + c->name;
    makeArgs += ", s.template get<" + c->type.cpp + ">(0)";
  }
  std::string const factoryDecl =
      e.factory ? fill("  // A free-standing instance, not held by a parent.\n"
                       "  static Kiv::Ptr<$T$> $T$Is(Kiv::Name const& name$params$);\n",
                       {{"T", e.name}, {"params", ctorParams}})
                : std::string();
  std::string const factoryDef =
      e.factory ? fill(R"(Kiv::Ptr<$T$> $T$::$T$Is(Kiv::Name const& name$params$) {
  Kiv::keyCheck(name, "$ns$::$T$");
  return Kiv::Ptr<$T$>(new $T$(Kiv::EntityInit{name, nullptr, Kiv::Name()}$args$));
}

)",
                       {{"T", e.name}, {"params", ctorParams}, {"args", factoryArgs}, {"ns", u.ns}})
                : std::string();
  bool creatable = constantsOf(e).empty();
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
            {"makeArgs", makeArgs}};

  out.header += fill(R"(class $T$ : public Kiv::Entity {
 public:
  static Kiv::TypeInfo const& kivTypeInfo();
  Kiv::TypeInfo const& kivType() const override { return kivTypeInfo(); }
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

 private:
$members$};

)",
                     vars);
  out.source += fill(R"(namespace {
$attrInfo$$createDef$}  // namespace

Kiv::TypeInfo const& $T$::kivTypeInfo() {
  static Kiv::TypeInfo const info{"$ns$::$T$", $create$, $attrs$};
  return info;
}

namespace {
bool const kiv$T$Registered = (Kiv::typeRegister($T$::kivTypeInfo()), true);
}  // namespace

$T$::$T$(Kiv::EntityInit const& kivInit$ctorParams$) : Kiv::Entity(kivInit)$ctorInits$ {}

$dtorDef$$factoryDef$$defs$)",
                     vars);
  // The template parameters below have names no declared type can take (a value V would hide V).
  out.testing += fill(R"~(template <>
struct Traits<$T$> {
  using Type = $T$;
  static constexpr char const* kTypeName = "$ns$::$T$";

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

  std::string after;
  Output body;
  for (Enum const& en : u.enums) emitEnum(u, en, body, after);
  for (Value const& v : u.values) emitValue(u, v, body, after);
  for (Entity const& e : u.entities) emitEntity(u, e, body);

  out.header = banner + "#pragma once\n\n#include <cstdint>\n#include <ostream>\n#include <string>\n#include <string_view>\n\n"
               "#include \"kiv/Generated.h\"\n" + includes + "\nnamespace " + u.ns + " {\n\n" + forward + "\n" +
               body.header + "}  // namespace " + u.ns + "\n\n" + after;
  out.source = banner + "\n#include \"" + u.stem + ".h\"\n\nnamespace " + u.ns + " {\n\n" + body.source +
               "}  // namespace " + u.ns + "\n";
  out.testing = banner + "#pragma once\n\n#include <string>\n#include <vector>\n\n#include \"" + u.stem +
                ".h\"\n\nnamespace " + u.ns + "::kivtesting {\n\ntemplate <class T>\nstruct Traits;\n\n" + body.testing +
                "}  // namespace " + u.ns + "::kivtesting\n";
  for (std::string const* text : {&out.header, &out.source, &out.testing}) {
    if (std::size_t at = text->find('$'); at != std::string::npos)
      throw std::logic_error("unfilled template variable in output: " + text->substr(at, 40));
  }
  return out;
}

}  // namespace kivc
