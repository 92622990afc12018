// Definition language:
//
//   namespace Controller;                       // C++ namespace of what follows (once, first)
//   replicate;                                  // attribute-log adapters for every entity type
//   include "platform/SystemId.h";              // extra header for the generated header
//   extern value Controller::SystemId;          // a type defined elsewhere (entity|value|enum)
//   enum PublishState { publishStateInvalid = 0; publishStateComplete = 1; }
//   value MounterName { serviceName : String; groupName : String; }
//   entity MountFilterSystem factory {          // `factory`: class-scope MountFilterSystemIs(name)
//     derived filterName : String;              // the entity's name; or `= "C++ expression"`
//     const kivcType : String;                  // constructor parameter, in declaration order
//     init remotePath : String;                 // constructor parameter with a notifying setter
//     mutable warm : bool;                      // value with a notifying setter
//     ref systemFilter : MountFilterSystem;     // Ptr; `ref x : const T` for a PtrConst
//     owner registry : MountsRegistry;          // raw pointer to the parent of that type
//     collection mountConfig : Name -> MountConfig;   // instantiating collection of entities
//     set includedSystem : String -> bool;      // value collection
//   }
//   entity MountsRegistry singleton { ... }     // class-scope MountsRegistryIs(params), unnamed
//
// Collection options, after the member type, in any order:
//   compare (b, a)            const parameters of the member in the order they are compared
//   key "a.serviceName()"     the key computed from the parameters (from `v` in a set); the
//                             mutator then takes no key
//   hint 4                    initial size of the map
//
// Builtin types: String, Name, bool, U32, U64, I32, Seconds; Ptr<T> and PtrConst<T> of entities.
// Comments run from "//" or "#" to the end of the line.

#include "kiv/kivc/Parser.h"

#include <algorithm>
#include <cctype>
#include <map>
#include <set>

namespace kivc {
namespace {

struct Token {
  enum Kind { ident, number, string, punct, end } kind;
  std::string text;
  Location at;
};

struct Builtin {
  char const* name;
  char const* cpp;
};
constexpr Builtin kBuiltins[] = {{"String", "Kiv::String"}, {"Name", "Kiv::Name"},      {"bool", "bool"},
                                 {"U32", "std::uint32_t"},  {"U64", "std::uint64_t"},   {"I32", "std::int32_t"},
                                 {"Seconds", "Kiv::Seconds"}};

class Parser {
 public:
  Parser(std::string const& file, std::string const& text, std::vector<Error>& errors)
      : file_(file), text_(text), errors_(errors) {
    tokenize();
  }

  Unit run() {
    unit_.file = file_;
    std::string base = file_.substr(file_.find_last_of('/') + 1);
    unit_.stem = base.substr(0, base.find('.'));
    while (peek().kind != Token::end && errors_.empty()) declaration();
    if (errors_.empty()) resolve();
    return errors_.empty() ? std::move(unit_) : Unit{};
  }

 private:
  // --- tokens ---
  void tokenize() {
    int line = 1, col = 1;
    std::size_t i = 0;
    auto advance = [&](std::size_t n) {
      for (std::size_t k = 0; k < n; ++k, ++i) {
        if (text_[i] == '\n') {
          ++line;
          col = 1;
        } else {
          ++col;
        }
      }
    };
    while (i < text_.size()) {
      char c = text_[i];
      if (std::isspace(static_cast<unsigned char>(c))) {
        advance(1);
        continue;
      }
      if (c == '#' || (c == '/' && i + 1 < text_.size() && text_[i + 1] == '/')) {
        while (i < text_.size() && text_[i] != '\n') advance(1);
        continue;
      }
      Location at{file_, line, col};
      if (std::isalpha(static_cast<unsigned char>(c)) || c == '_') {
        std::size_t j = i;
        while (j < text_.size() && (std::isalnum(static_cast<unsigned char>(text_[j])) || text_[j] == '_' ||
                                    (text_[j] == ':' && j + 1 < text_.size() && text_[j + 1] == ':' &&
                                     j + 2 < text_.size() && std::isalpha(static_cast<unsigned char>(text_[j + 2]))))) {
          j += text_[j] == ':' ? 2 : 1;
        }
        tokens_.push_back({Token::ident, text_.substr(i, j - i), at});
        advance(j - i);
      } else if (std::isdigit(static_cast<unsigned char>(c))) {
        std::size_t j = i;
        while (j < text_.size() && std::isdigit(static_cast<unsigned char>(text_[j]))) ++j;
        tokens_.push_back({Token::number, text_.substr(i, j - i), at});
        advance(j - i);
      } else if (c == '"') {
        std::size_t j = i + 1;
        std::string value;
        while (j < text_.size() && text_[j] != '"' && text_[j] != '\n') {
          if (text_[j] == '\\' && j + 1 < text_.size()) ++j;
          value += text_[j++];
        }
        if (j >= text_.size() || text_[j] != '"') {
          error(at, "string is not closed on its line");
          break;
        }
        tokens_.push_back({Token::string, value, at});
        advance(j + 1 - i);
      } else if (c == '-' && i + 1 < text_.size() && text_[i + 1] == '>') {
        tokens_.push_back({Token::punct, "->", at});
        advance(2);
      } else if (std::string("{};:=<>,()*").find(c) != std::string::npos) {
        tokens_.push_back({Token::punct, std::string(1, c), at});
        advance(1);
      } else {
        error(at, std::string("unexpected character '") + c + "'");
        break;
      }
    }
    // Pushed even after a lexical error: the parser peeks before it looks at the errors.
    tokens_.push_back({Token::end, "", Location{file_, line, col}});
  }

  Token const& peek() const { return tokens_[std::min(pos_, tokens_.size() - 1)]; }
  Token const& next() {
    Token const& t = peek();
    if (pos_ < tokens_.size() - 1) ++pos_;
    return t;
  }
  bool accept(std::string const& text) {
    if (peek().kind == Token::string || peek().text != text) return false;
    next();
    return true;
  }
  void error(Location const& at, std::string message) { errors_.push_back({at, std::move(message)}); }
  std::string describe(Token const& t) {
    switch (t.kind) {
      case Token::end:
        return "the end of the file";
      case Token::string:
        return "a string";
      default:
        return "'" + t.text + "'";
    }
  }
  bool expect(std::string const& text) {
    if (accept(text)) return true;
    if (errors_.empty()) error(peek().at, "expected '" + text + "' but found " + describe(peek()));
    return false;
  }
  std::string identifier(char const* what) {
    if (peek().kind != Token::ident) {
      if (errors_.empty()) error(peek().at, std::string("expected ") + what + " but found " + describe(peek()));
      return {};
    }
    return next().text;
  }

  // --- declarations ---
  void declaration() {
    Token const& t = peek();
    if (accept("namespace")) {
      if (!unit_.ns.empty() || !unit_.entities.empty() || !unit_.enums.empty() || !unit_.values.empty()) {
        error(t.at, "the namespace must be declared once, before any type");
        return;
      }
      unit_.ns = identifier("a namespace name");
      expect(";");
    } else if (accept("replicate")) {
      if (unit_.ns.empty()) {
        error(t.at, "declare the namespace before 'replicate'");
      } else if (unit_.replicate) {
        error(t.at, "replicate is declared twice");
      } else if (!unit_.entities.empty() || !unit_.enums.empty() || !unit_.values.empty()) {
        // Entities are checked against the adapters' reserved names as they are parsed.
        error(t.at, "replicate must come before any type");
      }
      unit_.replicate = true;
      expect(";");
    } else if (accept("include")) {
      if (peek().kind != Token::string) {
        error(peek().at, "expected a quoted header path after 'include'");
        return;
      }
      unit_.includes.push_back(next().text);
      expect(";");
    } else if (accept("extern")) {
      Token const& kind = next();
      TypeKind k = kind.text == "entity" ? TypeKind::entity
                   : kind.text == "value" ? TypeKind::value
                   : kind.text == "enum"  ? TypeKind::enumeration
                                          : TypeKind::builtin;
      if (k == TypeKind::builtin) {
        error(kind.at, "expected 'entity', 'value' or 'enum' after 'extern'");
        return;
      }
      std::string name = identifier("a qualified type name");
      if (name.find("::") == std::string::npos && errors_.empty()) {
        error(kind.at, "an extern type needs its namespace, as in Controller::SystemId");
        return;
      }
      unit_.externs.push_back({k, name});
      expect(";");
    } else if (accept("enum")) {
      enumeration(t.at);
    } else if (accept("value")) {
      value(t.at);
    } else if (accept("entity")) {
      entity(t.at);
    } else if (accept("unit")) {
      traceUnit(t.at);
    } else if (accept("machine")) {
      machine(t.at);
    } else {
      error(t.at,
            "expected 'namespace', 'replicate', 'include', 'extern', 'enum', 'value', 'entity', 'unit' or 'machine' "
            "but found " +
                describe(t));
    }
  }

  std::string quoted(char const* what) {
    if (peek().kind != Token::string || peek().text.empty()) {
      if (errors_.empty()) error(peek().at, std::string("expected ") + what + " but found " + describe(peek()));
      return {};
    }
    return next().text;
  }

  // unit "File.tin" trace variable "HandleName";
  void traceUnit(Location const& at) {
    if (unit_.trace && errors_.empty()) return error(at, "the unit is declared twice");
    if (!unit_.machines.empty() && errors_.empty()) return error(at, "the unit must be declared before any machine");
    TraceUnit u;
    u.file = quoted("the unit's file name in quotes");
    expect("trace");
    u.variable = identifier("the trace handle's variable name");
    u.handle = quoted("the trace handle's name in quotes");
    expect(";");
    unit_.trace = u;
  }

  void machine(Location const& at) {
    if (!unit_.trace && errors_.empty()) return error(at, "declare the unit (unit \"X.tin\" trace ...) before a machine");
    Machine m;
    m.at = at;
    m.name = identifier("a machine name");
    declareName(m.name, at, TypeKind::machine);
    m.header = quoted("the machine's header path in quotes");
    m.tracePrefix = m.name + "::";
    expect("{");
    std::set<std::string> names;
    auto member = [&](std::string const& name, Location const& where) {
      if (!names.insert(name).second && errors_.empty()) error(where, "member " + name + " of " + m.name + " is declared twice");
    };
    while (errors_.empty() && !accept("}")) {
      Token const& k = next();
      if (k.text == "param") {
        Param p;
        p.at = k.at;
        p.name = identifier("a parameter name");
        member(p.name, k.at);
        expect(":");
        p.type = typeRef();
        while (peek().kind == Token::ident && (peek().text == "valid" || peek().text == "uncompared")) {
          if (next().text == "valid") {
            p.valid = true;
          } else {
            p.compared = false;
          }
        }
        if (peek().text == "{" && peek().kind == Token::punct) {
          Watch w;
          w.at = k.at;
          w.name = p.name;
          w.target = p.type;
          watchBody(w, false);
          p.watch = std::move(w);
        } else {
          expect(";");
        }
        m.params.push_back(std::move(p));
      } else if (k.text == "owner") {
        if (!m.ownerName.empty() && errors_.empty()) return error(k.at, "machine " + m.name + " has one owner");
        m.ownerName = identifier("the owner's accessor name");
        member(m.ownerName, k.at);
        expect(":");
        m.ownerType = identifier("the owner's machine type");
        expect(";");
      } else if (k.text == "watch" || k.text == "watches") {
        Watch w;
        w.at = k.at;
        w.name = identifier("a watch name");
        member(w.name, k.at);
        expect(":");
        if (k.text == "watches") {
          w.key = typeRef();
          expect("->");
        }
        w.target = typeRef();
        if (k.text == "watch" && accept("->")) w.retargetHandler = identifier("a handler name");
        watchBody(w, k.text == "watches");
        m.watches.push_back(std::move(w));
      } else if (k.text == "children") {
        Children c;
        c.at = k.at;
        c.name = identifier("a collection name");
        member(c.name, k.at);
        expect(":");
        c.key = typeRef();
        expect("->");
        c.machine = identifier("a machine name");
        std::set<std::string> given;
        while (errors_.empty() && peek().kind == Token::ident &&
               (peek().text == "key" || peek().text == "check" || peek().text == "hint")) {
          Token const& o = next();
          if (!given.insert(o.text).second) return error(o.at, "option " + o.text + " is given twice");
          if (o.text == "key") {
            c.keyExpression = quoted("a quoted C++ expression after 'key'");
          } else if (o.text == "check") {
            expect("(");
            do {
              c.checked.push_back(identifier("a parameter name"));
            } while (errors_.empty() && accept(","));
            expect(")");
          } else {
            if (peek().kind != Token::number)
              return error(peek().at, "expected a number after 'hint' but found " + describe(peek()));
            c.sizeHint = static_cast<unsigned>(std::stoul(next().text));
          }
        }
        expect(";");
        m.children.push_back(std::move(c));
      } else if (k.text == "timer") {
        Timer t;
        t.at = k.at;
        t.name = identifier("a timer name");
        member(t.name, k.at);
        expect("->");
        t.handler = identifier("a handler name");
        expect(";");
        m.timers.push_back(std::move(t));
      } else if (k.text == "signature") {
        Signature s;
        s.at = k.at;
        s.returns = identifier("a return type");
        s.function = identifier("a function name");
        expect("(");
        if (!accept(")")) {
          do {
            s.params.push_back(typeRef());
          } while (errors_.empty() && accept(","));
          expect(")");
        }
        expect(";");
        m.signatures.push_back(std::move(s));
      } else if (k.text == "trace") {
        m.tracePrefix = quoted("the trace prefix in quotes");
        expect(";");
      } else {
        return error(k.at, "expected a machine member (param, owner, watch, watches, children, timer, signature, trace) "
                           "but found " + describe(k));
      }
    }
    unit_.machines.push_back(std::move(m));
  }

  // { on a -> h; on a(K) -> h; on a(*) -> h; state s : T [= "init"]; }
  void watchBody(Watch& w, bool keyed) {
    expect("{");
    while (errors_.empty() && !accept("}")) {
      Token const& k = next();
      if (k.text == "on") {
        On on;
        on.at = k.at;
        on.notification = identifier("a notification (an attribute name)");
        if (accept("(")) {
          if (accept("*")) {
            on.form = On::whole;
          } else {
            on.form = On::keyed;
            on.key = typeRef();
          }
          expect(")");
        }
        expect("->");
        on.handler = identifier("a handler name");
        expect(";");
        w.ons.push_back(std::move(on));
      } else if (k.text == "state" && keyed) {
        Watch::State st;
        st.name = identifier("a state name");
        expect(":");
        st.type = typeRef();
        if (accept("=")) st.initial = quoted("a quoted C++ expression after '='");
        expect(";");
        w.states.push_back(std::move(st));
      } else {
        return error(k.at, std::string("expected 'on'") + (keyed ? " or 'state'" : "") + " but found " + describe(k));
      }
    }
    if (w.ons.empty() && errors_.empty()) error(w.at, w.name + " watches no notification");
  }

  void declareName(std::string const& name, Location const& at, TypeKind kind) {
    if (unit_.ns.empty() && errors_.empty()) error(at, "declare the namespace before the first type");
    if (!declared_.emplace(name, kind).second && errors_.empty()) error(at, "type " + name + " is declared twice");
  }

  void enumeration(Location const& at) {
    Enum e{at, identifier("an enumeration name"), {}};
    declareName(e.name, at, TypeKind::enumeration);
    expect("{");
    std::set<unsigned> numbers;
    std::set<std::string> names;
    while (errors_.empty() && !accept("}")) {
      Token const& v = peek();
      std::string name = identifier("a value name");
      expect("=");
      if (peek().kind != Token::number) {
        if (errors_.empty()) error(peek().at, "expected the value's number but found " + describe(peek()));
        return;
      }
      unsigned number = static_cast<unsigned>(std::stoul(next().text));
      expect(";");
      if (!names.insert(name).second) error(v.at, "enumeration value " + name + " is declared twice");
      if (!numbers.insert(number).second) error(v.at, "number " + std::to_string(number) + " is used twice in " + e.name);
      e.values.push_back({name, number});
    }
    if (errors_.empty() && e.values.empty()) error(at, "enumeration " + e.name + " has no values");
    unit_.enums.push_back(std::move(e));
  }

  void value(Location const& at) {
    Value v{at, identifier("a value type name"), {}};
    declareName(v.name, at, TypeKind::value);
    expect("{");
    std::set<std::string> names;
    while (errors_.empty() && !accept("}")) {
      Token const& f = peek();
      std::string name = identifier("a field name");
      expect(":");
      TypeRef type = typeRef();
      expect(";");
      if (!names.insert(name).second) error(f.at, "field " + name + " is declared twice");
      v.fields.push_back({name, type});
      fieldAt_.push_back(f.at);
    }
    if (errors_.empty() && v.fields.empty()) error(at, "value type " + v.name + " has no fields");
    unit_.values.push_back(std::move(v));
  }

  void entity(Location const& at) {
    Entity e{at, identifier("an entity name"), false, false, {}};
    declareName(e.name, at, TypeKind::entity);
    if (accept("factory")) {
      e.factory = true;
    } else if (accept("singleton")) {
      e.singleton = true;
    }
    expect("{");
    std::set<std::string> names;
    while (errors_.empty() && !accept("}")) {
      Token const& k = next();
      Attribute a;
      a.at = k.at;
      if (k.text == "derived") {
        a.kind = AttrKind::derived;
      } else if (k.text == "const") {
        a.kind = AttrKind::constant;
      } else if (k.text == "init") {
        a.kind = AttrKind::initial;
      } else if (k.text == "mutable") {
        a.kind = AttrKind::value;
      } else if (k.text == "ref") {
        a.kind = AttrKind::reference;
      } else if (k.text == "owner") {
        a.kind = AttrKind::owner;
      } else if (k.text == "collection") {
        a.kind = AttrKind::collection;
      } else if (k.text == "set") {
        a.kind = AttrKind::valueCollection;
      } else {
        error(k.at, "expected an attribute kind (derived, const, init, mutable, ref, owner, collection, set) but found " + describe(k));
        return;
      }
      a.name = identifier("an attribute name");
      expect(":");
      if (a.kind == AttrKind::reference) {
        bool toConst = accept("const");
        std::string target = identifier("an entity name");
        a.type = TypeRef{target, TypeKind::entity, true, toConst, target, target};
      } else if (a.kind == AttrKind::owner) {
        std::string target = identifier("an entity name");
        a.type = TypeRef{target, TypeKind::entity, true, false, target, target};
      } else if (a.kind == AttrKind::collection || a.kind == AttrKind::valueCollection) {
        a.key = typeRef();
        expect("->");
        a.type = typeRef();
        collectionOptions(a);
      } else {
        a.type = typeRef();
      }
      if (a.kind == AttrKind::derived && accept("=")) {
        if (peek().kind != Token::string) {
          error(peek().at, "expected a quoted C++ expression after '='");
          return;
        }
        a.derivedExpression = next().text;
      }
      expect(";");
      if (!names.insert(a.name).second && errors_.empty()) error(a.at, "attribute " + a.name + " is declared twice");
      if ((reserved(a) || (unit_.replicate && replicationLocal(a))) && errors_.empty())
        error(a.at, "attribute name " + a.name + " is reserved by the framework or the generated code");
      e.attributes.push_back(std::move(a));
    }
    unsigned id = kFirstAttributeId;
    for (Attribute& a : e.attributes) a.id = id++;
    unit_.entities.push_back(std::move(e));
  }

  void collectionOptions(Attribute& a) {
    std::set<std::string> given;
    while (errors_.empty() && peek().kind == Token::ident &&
           (peek().text == "compare" || peek().text == "key" || peek().text == "hint")) {
      Token const& o = next();
      if (!given.insert(o.text).second) return error(o.at, "option " + o.text + " is given twice");
      if (o.text == "compare") {
        if (a.kind == AttrKind::valueCollection)
          return error(o.at, "a set has no constructor parameters to compare; 'compare' is for collections");
        expect("(");
        do {
          a.compareOrder.push_back(identifier("a const attribute name"));
        } while (errors_.empty() && accept(","));
        expect(")");
      } else if (o.text == "key") {
        if (peek().kind != Token::string || peek().text.empty())
          return error(peek().at, "expected a quoted C++ expression after 'key'");
        a.keyExpression = next().text;
      } else {
        if (peek().kind != Token::number)
          return error(peek().at, "expected a number after 'hint' but found " + describe(peek()));
        a.sizeHint = static_cast<unsigned>(std::stoul(next().text));
      }
    }
  }

  // Members every entity has; and, for constructor parameters, the names of the generated
  // mutators' locals.
  static bool reserved(Attribute const& a) {
    static std::set<std::string> const members = {"name", "fullName", "parent", "parentAttrName", "entity"};
    static std::set<std::string> const locals = {"k", "m", "existing"};
    bool parameter = a.kind == AttrKind::constant || a.kind == AttrKind::initial;
    return members.count(a.name) != 0 || (parameter && locals.count(a.name) != 0) ||
           (a.name.rfind("kiv", 0) == 0 && a.name != "kivType" && a.name != "kivcType");
  }

  // The adapters decode a member's constructor parameters into locals of their names, beside the
  // decoder.
  static bool replicationLocal(Attribute const& a) {
    return (a.kind == AttrKind::constant || a.kind == AttrKind::initial) && a.name == "d";
  }

  TypeRef typeRef() {
    std::string name = identifier("a type name");
    if (name == "Ptr" || name == "PtrConst") {
      expect("<");
      std::string target = identifier("an entity name");
      expect(">");
      return TypeRef{target, TypeKind::entity, true, name == "PtrConst", target, name + "<" + target + ">"};
    }
    return TypeRef{name, TypeKind::builtin, false, false, "", name};
  }

  // --- resolution and checks, once every name is known ---
  std::optional<TypeKind> kindOf(std::string const& name) const {
    if (auto it = declared_.find(name); it != declared_.end()) return it->second;
    for (ExternType const& x : unit_.externs)
      if (externMatches(x, name)) return x.kind;
    return std::nullopt;
  }
  std::string cppOf(std::string const& name) const {
    for (ExternType const& x : unit_.externs)
      if (externMatches(x, name) && !declared_.count(name)) return x.qualifiedName;
    return name;
  }
  // An extern type is named in full or by a trailing part of its qualified name
  // ("Controllerdb::Status" or "Status" for Controller::Controllerdb::Status).
  static bool externMatches(ExternType const& x, std::string const& name) {
    std::string const& q = x.qualifiedName;
    return q == name || (q.size() > name.size() + 2 && q.compare(q.size() - name.size(), name.size(), name) == 0 &&
                         q.compare(q.size() - name.size() - 2, 2, "::") == 0);
  }
  bool resolveType(TypeRef& t, Location const& at) {
    if (t.pointer) {
      auto k = kindOf(t.entity);
      if (k != TypeKind::entity) {
        error(at, "'" + t.entity + "' is not a known entity type");
        return false;
      }
      t.entity = cppOf(t.entity);
      t.cpp = std::string(t.pointerToConst ? "Kiv::PtrConst<" : "Kiv::Ptr<") + t.entity + ">";
      return true;
    }
    for (Builtin const& b : kBuiltins) {
      if (t.name == b.name) {
        t.cpp = b.cpp;
        t.kind = TypeKind::builtin;
        return true;
      }
    }
    auto k = kindOf(t.name);
    if (!k) {
      error(at, "unknown type '" + t.name + "'");
      return false;
    }
    t.kind = *k;
    t.cpp = cppOf(t.name);
    return true;
  }
  void resolve() {
    resolveTypes();
    if (errors_.empty()) resolveMachines();
  }
  void resolveTypes() {
    std::size_t fieldIndex = 0;
    for (Value& v : unit_.values) {
      for (ValueField& f : v.fields) {
        Location at = fieldAt_[fieldIndex++];
        if (!resolveType(f.type, at)) return;
        if (f.type.kind == TypeKind::entity)
          return error(at, "field " + f.name + " of value type " + v.name + " cannot hold an entity");
      }
    }
    for (Entity& e : unit_.entities) {
      for (Attribute& a : e.attributes) {
        if (!resolveType(a.type, a.at)) return;
        if (a.key && !resolveType(*a.key, a.at)) return;
        std::string where = "attribute " + a.name + " of " + e.name;
        bool entityValue = a.type.kind == TypeKind::entity && !a.type.pointer;
        switch (a.kind) {
          case AttrKind::derived:
            if (a.derivedExpression.empty() && a.type.name != "String" && a.type.name != "Name")
              return error(a.at, where + " derives from the entity's name, so its type must be String or Name");
            if (entityValue) return error(a.at, where + " cannot hold an entity by value; use Ptr<T> or PtrConst<T>");
            break;
          case AttrKind::constant:
          case AttrKind::value:
          case AttrKind::initial:
            if (entityValue) return error(a.at, where + " cannot hold an entity by value; use Ptr<T> or PtrConst<T>");
            break;
          case AttrKind::reference:
            break;
          case AttrKind::owner:
            a.type.cpp = a.type.entity + "*";
            break;
          case AttrKind::collection:
            if (a.type.kind != TypeKind::entity || a.type.pointer)
              return error(a.at, where + " is a collection, so its members must be an entity type");
            if (!declared_.count(a.type.name))
              return error(a.at, where + " holds " + a.type.name +
                                     ", which must be declared in this file so its constructor parameters are known");
            a.type.cpp = cppOf(a.type.name);
            a.type.entity = a.type.cpp;
            if (!checkCompareOrder(e, a)) return;
            [[fallthrough]];
          case AttrKind::valueCollection:
            if (a.kind == AttrKind::valueCollection && (a.type.kind == TypeKind::entity))
              return error(a.at, where + " is a set, so it holds plain values, not entities");
            if (!(a.key->name == "Name" || a.key->name == "String" || a.key->name == "U32" || a.key->name == "U64" ||
                  a.key->kind == TypeKind::value || a.key->kind == TypeKind::enumeration))
              return error(a.at, where + " has key type " + a.key->name +
                                     "; keys are Name, String, U32, U64, an enumeration or a value type");
            break;
        }
      }
    }
  }

  Machine const* machineNamed(std::string const& name) const {
    for (Machine const& m : unit_.machines)
      if (m.name == name) return &m;
    return nullptr;
  }

  bool resolveWatch(Watch& w, std::string const& where) {
    if (!resolveType(w.target, w.at)) return false;
    if (!w.target.pointer) return error(w.at, where + " must be a Ptr<T> or PtrConst<T> of an entity"), false;
    if (w.key && !resolveType(*w.key, w.at)) return false;
    for (On& on : w.ons)
      if (on.form == On::keyed && !resolveType(on.key, on.at)) return false;
    for (Watch::State& st : w.states)
      if (!resolveType(st.type, w.at)) return false;
    return true;
  }

  void resolveMachines() {
    for (Machine& m : unit_.machines) {
      for (Param& p : m.params) {
        if (!resolveType(p.type, p.at)) return;
        std::string const where = "parameter " + p.name + " of " + m.name;
        if (p.valid && !p.type.pointer) return error(p.at, where + " is not a pointer, so it cannot be 'valid'");
        if (p.watch && !resolveWatch(*p.watch, where)) return;
      }
      if (!m.ownerType.empty() && !machineNamed(m.ownerType))
        return error(m.at, "the owner of " + m.name + ", " + m.ownerType + ", is not a machine of this file");
      for (Watch& w : m.watches)
        if (!resolveWatch(w, "watch " + w.name + " of " + m.name)) return;
      for (Children& c : m.children) {
        std::string const where = "children " + c.name + " of " + m.name;
        if (!resolveType(c.key, c.at)) return;
        Machine const* child = machineNamed(c.machine);
        if (!child) return error(c.at, where + " holds " + c.machine + ", which is not a machine of this file");
        if (child->ownerType != m.name)
          return error(c.at, where + " holds " + c.machine + ", whose owner is not " + m.name);
        for (std::string const& name : c.checked) {
          auto it = std::find_if(child->params.begin(), child->params.end(), [&](Param const& p) { return p.name == name; });
          if (it == child->params.end() || !it->type.pointer)
            return error(c.at, where + " checks " + name + ", which is not a pointer parameter of " + c.machine);
        }
      }
      std::map<std::string, int> uses;
      for (Signature& s : m.signatures) {
        for (TypeRef& t : s.params)
          if (!resolveType(t, s.at)) return;
        ++uses[shortName(s.function)];
      }
      std::set<std::string> constants;
      for (Signature& s : m.signatures) {
        std::string f = shortName(s.function);
        f[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(f[0])));
        s.constant = "kivSig" + f + (uses[shortName(s.function)] > 1 ? std::to_string(s.params.size()) : "");
        if (!constants.insert(s.constant).second)
          return error(s.at, "signature " + s.function + " of " + m.name + " is declared twice");
      }
    }
  }

  static std::string shortName(std::string const& qualified) {
    std::size_t at = qualified.rfind("::");
    return at == std::string::npos ? qualified : qualified.substr(at + 2);
  }

  // Every const parameter of the member exactly once, and nothing else.
  bool checkCompareOrder(Entity const& e, Attribute const& a) {
    if (a.compareOrder.empty()) return true;
    Entity const* member = nullptr;
    for (Entity const& m : unit_.entities)
      if (m.name == a.type.name) member = &m;
    std::string const where = "attribute " + a.name + " of " + e.name;
    std::set<std::string> listed;
    for (std::string const& name : a.compareOrder) {
      auto it = std::find_if(member->attributes.begin(), member->attributes.end(),
                             [&](Attribute const& m) { return m.name == name; });
      if (it == member->attributes.end())
        return error(a.at, where + " compares " + name + ", which is not an attribute of " + member->name), false;
      if (it->kind != AttrKind::constant)
        return error(a.at, where + " compares " + name + ", which is not a const attribute of " + member->name), false;
      if (!listed.insert(name).second) return error(a.at, where + " compares " + name + " twice"), false;
    }
    for (Attribute const& m : member->attributes)
      if (m.kind == AttrKind::constant && !listed.count(m.name))
        return error(a.at, where + " leaves const attribute " + m.name + " of " + member->name + " out of its compare list"),
               false;
    return true;
  }

  std::string file_;
  std::string text_;
  std::vector<Error>& errors_;
  std::vector<Token> tokens_;
  std::size_t pos_ = 0;
  Unit unit_;
  std::map<std::string, TypeKind> declared_;
  std::vector<Location> fieldAt_;
};

}  // namespace

Unit parse(std::string const& file, std::string const& text, std::vector<Error>& errors) {
  return Parser(file, text, errors).run();
}

}  // namespace kivc
