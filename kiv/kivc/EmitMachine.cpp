// State machine bases: for each `machine M` a class MBase that the hand-written M derives from.
// It stores the constructor parameters, builds the reactors that forward notifications to M's
// handlers, owns the child collections and the timers, and carries the trace and signature texts.
// The reactors call M through a downcast made at notification time, when M is complete; the
// generated source therefore includes the hand-written headers.

#include <stdexcept>

#include "kiv/kivc/EmitCommon.h"

namespace kivc {
namespace {

std::string constTarget(TypeRef const& t) { return "Kiv::PtrConst<" + t.entity + ">"; }

// How a type is spelt in a function's full signature, as the traces show it.
std::string signatureSpelling(Unit const& u, TypeRef const& t) {
  static std::pair<char const*, char const*> const builtins[] = {
      {"String", "Kiv::String"}, {"Name", "Kiv::Name"}, {"bool", "bool"},     {"U32", "unsigned int"},
      {"U64", "unsigned long"},  {"I32", "int"},        {"Seconds", "double"}};
  if (t.pointer) return std::string(t.pointerToConst ? "Kiv::PtrConst<" : "Kiv::Ptr<") + t.entity + ">";
  for (auto const& [name, spelling] : builtins)
    if (t.name == name && t.kind == TypeKind::builtin) return spelling;
  return t.cpp.find("::") == std::string::npos ? u.ns + "::" + t.cpp : t.cpp;
}

Machine const& machineNamed(Unit const& u, std::string const& name) {
  for (Machine const& m : u.machines)
    if (m.name == name) return m;
  throw std::logic_error("unknown machine " + name);
}

std::string reactorName(std::string const& name) { return "Kiv" + capitalized(name); }

// The reactor class of a watch, declared inside the base; its callbacks are defined in the source.
void reactorClass(Machine const& m, Watch const& w, bool keyed, std::string& h, std::string& s) {
  std::string const base = m.name + "Base";
  std::string const r = reactorName(w.name);
  std::string const notifiee = w.target.entity + "::NotifieeConst";
  h += "  class " + r + " : public " + notifiee + " {\n   public:\n";
  if (keyed) {
    h += "    " + r + "(" + param(*w.key) + " key, " + constTarget(w.target) + " const& target, " + base +
         "* owner)\n        : NotifieeConst(target), key_(key), owner_(owner) {}\n";
    h += "    " + param(*w.key) + " key() const { return key_; }\n";
    for (Watch::State const& st : w.states) {
      h += "    " + param(st.type) + " " + st.name + "() const { return " + st.name + "_; }\n";
      h += "    void " + st.name + "Is(" + param(st.type) + " v) { " + st.name + "_ = v; }\n";
    }
  } else {
    h += "    " + r + "(" + constTarget(w.target) + " const& target, " + base +
         "* owner) : NotifieeConst(target), owner_(owner) {}\n";
  }
  std::string const owner = "static_cast<" + m.name + "*>(owner_)";
  // A handler may drop a keyed reactor; it stays alive until its callback returns.
  std::string const keep = keyed ? "  Kiv::Ptr<" + r + "> self(this);\n" : "";
  std::string const first = keyed ? "key_" : "";
  auto args = [&](std::string const& more) {
    return first.empty() ? more : more.empty() ? first : first + ", " + more;
  };
  for (On const& on : w.ons) {
    std::string const n = capitalized(on.notification);
    switch (on.form) {
      case On::plain:
        h += "    void on" + n + "() override;\n";
        s += "void " + base + "::" + r + "::on" + n + "() {\n" + keep + "  " + owner + "->" + on.handler + "(" +
             args("") + ");\n}\n\n";
        break;
      case On::keyed:
        h += "    void on" + n + "(" + param(on.key) + " k) override;\n";
        s += "void " + base + "::" + r + "::on" + n + "(" + param(on.key) + " k) {\n" + keep + "  " + owner + "->" +
             on.handler + "(" + args("k") + ");\n}\n\n";
        break;
      case On::whole:
        h += "    void on" + n + "kivImmediate() override;\n";
        s += "void " + base + "::" + r + "::on" + n + "kivImmediate() {\n" + keep + "  " + owner + "->" + on.handler +
             "(" + args("") + ");\n}\n\n";
        break;
    }
  }
  h += "\n   private:\n";
  // Declared before the states: their initial values may be computed from key().
  if (keyed) h += "    " + w.key->cpp + " key_;\n";
  h += "    " + base + "* owner_;\n";
  for (Watch::State const& st : w.states)
    h += "    " + st.type.cpp + " " + st.name + "_" + (st.initial.empty() ? "{}" : " = " + st.initial) + ";\n";
  h += "  };\n";
}

void emitMachine(Unit const& u, Machine const& m, std::string& h, std::string& s) {
  std::string const base = m.name + "Base";
  std::string const qualified = u.ns + "::" + m.name;
  std::string pub, prot, priv, members, inits, ctorBody;

  // --- parameters ---
  std::string ctorParams, compared, comparedNames;
  for (Param const& p : m.params) {
    ctorParams += (ctorParams.empty() ? "" : ", ") + param(p.type) + " " + p.name;
    pub += "  " + param(p.type) + " " + p.name + "() const { return " + p.name + "_; }\n";
    members += "  " + p.type.cpp + " " + p.name + "_;\n";
    std::string value = p.name;
    if (p.valid) value = "Kiv::ValidPtr<" + p.type.entity + (p.type.pointerToConst ? " const" : "") + ">(" + p.name + ")";
    inits += "      " + p.name + "_(" + value + "),\n";
    if (p.compared) {
      compared += (compared.empty() ? "" : ", ") + p.name + "_";
      comparedNames += std::string(comparedNames.empty() ? "" : ", ") + "\"" + p.name + "\"";
    }
  }
  if (!m.ownerName.empty()) {
    ctorParams += (ctorParams.empty() ? "" : ", ") + m.ownerType + "* " + m.ownerName;
    pub += "  " + m.ownerType + "* " + m.ownerName + "() const { return " + m.ownerName + "_; }\n";
    members += "  " + m.ownerType + "* " + m.ownerName + "_;\n";
    inits += "      " + m.ownerName + "_(" + m.ownerName + "),\n";
  }
  if (!compared.empty() && !m.ownerName.empty()) {
    pub = "  // Compared, in this order, when the owner re-instantiates the machine under its key.\n"
          "  static constexpr std::array kivParamNames{" + comparedNames + "};\n"
          "  auto kivParams() const { return std::tie(" + compared + "); }\n\n" + pub;
  }

  // --- reactors on parameters and retargetable watches ---
  for (Param const& p : m.params) {
    if (!p.watch) continue;
    reactorClass(m, *p.watch, false, priv, s);
    std::string const r = reactorName(p.name);
    members += "  Kiv::Ptr<" + r + "> kiv" + capitalized(p.name) + "_;\n";
    inits += "      kiv" + capitalized(p.name) + "_(new " + r + "(" + p.name + "_, this)),\n";
  }
  for (Watch const& w : m.watches) {
    std::string const r = reactorName(w.name);
    if (w.key) {
      reactorClass(m, w, true, pub, s);
      std::string const k = param(*w.key);
      std::string const map = "Kiv::HashMap<" + w.key->cpp + ", Kiv::Ptr<" + r + ">>";
      pub += "  Kiv::Ptr<" + r + "> " + w.name + "(" + k + " key) const { return " + w.name + "_.get(key); }\n"
             "  std::size_t " + w.name + "Size() const { return " + w.name + "_.size(); }\n"
             "  " + map + "::ConstIterator " + w.name + "Iter() const { return " + w.name + "_.begin(); }\n"
             "  // Follows target under key; a reactor already following it is kept with its state.\n"
             "  Kiv::Ptr<" + r + "> " + w.name + "Is(" + k + " key, " + constTarget(w.target) + " const& target);\n"
             "  void " + w.name + "Del(" + k + " key);\n"
             "  void " + w.name + "DelAll();\n";
      members += "  " + map + " " + w.name + "_;\n";
      s += "Kiv::Ptr<" + base + "::" + r + "> " + base + "::" + w.name + "Is(" + k + " key, " + constTarget(w.target) +
           " const& target) {\n"
           "  if (Kiv::Ptr<" + r + "> const* r = " + w.name + "_.find(key); r && (*r)->notifier() == target) return *r;\n"
           "  Kiv::Ptr<" + r + "> r(new " + r + "(key, target, this));\n"
           "  Kiv::Ptr<" + r + "> replaced;\n"
           "  " + w.name + "_.erase(key, &replaced);\n"
           "  " + w.name + "_.insert(key, r);\n"
           "  return r;\n}\n\n"
           "void " + base + "::" + w.name + "Del(" + k + " key) {\n"
           "  Kiv::Ptr<" + r + "> gone;\n"
           "  " + w.name + "_.erase(key, &gone);\n}\n\n"
           "void " + base + "::" + w.name + "DelAll() {\n"
           "  while (!" + w.name + "_.empty()) " + w.name + "Del(" + w.name + "_.begin().key());\n}\n\n";
    } else {
      reactorClass(m, w, false, priv, s);
      std::string const t = w.target.cpp;
      pub += "  " + t + " const& " + w.name + "() const { return " + w.name + "_; }\n"
             "  // Follows target instead" + (w.retargetHandler.empty() ? "" : ", then calls " + w.retargetHandler + "()") +
             "; the same target changes nothing.\n"
             "  void " + w.name + "Is(" + t + " const& target);\n";
      members += "  " + t + " " + w.name + "_;\n  Kiv::Ptr<" + r + "> kiv" + capitalized(w.name) + "_;\n";
      inits += "      kiv" + capitalized(w.name) + "_(new " + r + "(nullptr, this)),\n";
      s += "void " + base + "::" + w.name + "Is(" + t + " const& target) {\n"
           "  if (target == " + w.name + "_) return;\n"
           "  " + w.name + "_ = target;\n"
           "  kiv" + capitalized(w.name) + "_->notifierIs(target);\n" +
           (w.retargetHandler.empty() ? "" : "  static_cast<" + m.name + "*>(this)->" + w.retargetHandler + "();\n") + "}\n\n";
    }
  }

  // --- timers ---
  for (Timer const& t : m.timers) {
    std::string const r = reactorName(t.name);
    priv += "  class " + r + " : public Kiv::Clock::NotifieeConst {\n   public:\n"
            "    " + r + "(Kiv::PtrConst<Kiv::Clock> const& clock, " + base + "* owner) : NotifieeConst(clock), owner_(owner) {}\n"
            "    void onTime() override;\n\n   private:\n    " + base + "* owner_;\n  };\n";
    s += "void " + base + "::" + r + "::onTime() { static_cast<" + m.name + "*>(owner_)->" + t.handler + "(); }\n\n";
    pub += "  Kiv::PtrConst<Kiv::Clock> " + t.name + "() const { return kiv" + capitalized(t.name) + "_->notifier(); }\n"
           "  // When the timer fires next; +infinity while it is not armed.\n"
           "  Kiv::Seconds " + t.name + "TimeMin() const { return kiv" + capitalized(t.name) + "_->timeMin(); }\n"
           "  // Arms the timer for absolute time t, or disarms it with +infinity.\n"
           "  void " + t.name + "TimeMinIs(Kiv::Seconds t) { kiv" + capitalized(t.name) + "_->timeMinIs(t); }\n";
    members += "  Kiv::Ptr<" + r + "> kiv" + capitalized(t.name) + "_;\n";
    inits += "      kiv" + capitalized(t.name) + "_(new " + r + "(Kiv::ActivityManagerConfig::instance()->clock(), this)),\n";
  }

  // --- child machines ---
  for (Children const& c : m.children) {
    Machine const& child = machineNamed(u, c.machine);
    std::string const k = param(c.key);
    std::string params, names, tuple;
    for (Param const& p : child.params) {
      params += (params.empty() ? "" : ", ") + param(p.type) + " " + p.name;
      names += (names.empty() ? "" : ", ") + p.name;
      if (p.compared) tuple += (tuple.empty() ? "" : ", ") + p.name;
    }
    std::string const keyed = c.keyExpression.empty() ? k + " key" + (params.empty() ? "" : ", ") : "";
    // Out of line: the child's type is complete only in the source.
    pub += "  Kiv::Ptr<" + c.machine + "> " + c.name + "(" + k + " key) const;\n"
           "  std::size_t " + c.name + "Size() const { return " + c.name + "_.size(); }\n"
           "  // Creates the child, or returns it when its compared parameters are equal; different ones throw.\n"
           "  Kiv::Ptr<" + c.machine + "> " + c.name + "Is(" + keyed + params + ");\n"
           "  // The child's doCleanup() runs before it goes.\n"
           "  void " + c.name + "Del(" + k + " key);\n"
           "  void " + c.name + "DelAll();\n";
    s += "Kiv::Ptr<" + c.machine + "> " + base + "::" + c.name + "(" + k + " key) const { return " + c.name +
         "_.get(key); }\n\nvoid " + base + "::" + c.name + "Del(" + k + " key) { " + c.name + "_.erase(key); }\n\nvoid " +
         base + "::" + c.name + "DelAll() { " + c.name + "_.clear(); }\n\n";
    members += "  Kiv::ChildMap<" + c.key.cpp + ", " + c.machine + "> " + c.name + "_;\n";
    if (c.sizeHint) inits += "      " + c.name + "_(" + std::to_string(c.sizeHint) + "),\n";
    // The mutator's own checks first, then the child constructor's, as a mutator that checks and
    // then constructs would refuse them.
    std::string body;
    for (std::string const& name : c.checked)
      body += "  Kiv::nullCheck(" + name + ", \"" + name + "\", \"" + qualified + "::" + c.name + "\");\n";
    for (Param const& p : child.params)
      if (p.valid) body += "  if (!" + p.name + ") Kiv::throwNullValidPtr();\n";
    std::string const key = c.keyExpression.empty() ? "key" : c.keyExpression;
    s += "Kiv::Ptr<" + c.machine + "> " + base + "::" + c.name + "Is(" + keyed + params + ") {\n" + body +
         "  return " + c.name + "_.instantiate(" + key + ", std::make_tuple(" + tuple + "), [&] {\n"
         "    return Kiv::Ptr<" + c.machine + ">(new " + c.machine + "(" + names + (names.empty() ? "" : ", ") +
         "static_cast<" + m.name + "*>(this)));\n  });\n}\n\n";
  }

  // --- texts ---
  std::string texts = "  static constexpr char const kivTracePrefix[] = \"" + m.tracePrefix + "\";\n"
                      "  static constexpr char const* kivTraceFile = " + u.trace->variable + "File;\n"
                      "  static Kiv::TraceHandle& kivTrace() { return " + u.trace->variable + "; }\n";
  for (Signature const& sig : m.signatures) {
    std::string params;
    for (TypeRef const& t : sig.params) params += (params.empty() ? "" : ", ") + signatureSpelling(u, t);
    texts += "  static constexpr char const " + sig.constant + "[] = \"" + sig.returns + " " + qualified + "::" +
             sig.function + "(" + params + ")\";\n";
  }

  if (!inits.empty()) inits = "\n    : " + inits.substr(6, inits.size() - 8) + " ";
  h += "class " + base + " : public Kiv::PtrInterface {\n public:\n" + texts + "\n" + pub;
  if (!priv.empty()) h += "\n private:\n" + priv;
  h += "\n protected:\n  " + std::string(ctorParams.find(',') == std::string::npos && !ctorParams.empty() ? "explicit " : "") +
       base + "(" + ctorParams + ");\n  ~" + base + "() override;\n\n" + members + "};\n\n";
  s += base + "::" + base + "(" + ctorParams + ")" + inits + "{}\n\n" + base + "::~" + base + "() = default;\n\n";
}

}  // namespace

void emitMachines(Unit const& u, std::string const& banner, std::string& header, std::string& source) {
  std::string h, s, forward, includes;
  for (Machine const& m : u.machines) {
    forward += "class " + m.name + ";\n";
    includes += "#include \"" + m.header + "\"\n";
    emitMachine(u, m, h, s);
  }
  header = banner + "#pragma once\n";
  source = banner;
  if (u.machines.empty()) return;
  std::string unitIncludes;
  for (std::string const& inc : u.includes) unitIncludes += "#include \"" + inc + "\"\n";
  if (!u.entities.empty() || !u.enums.empty() || !u.values.empty()) unitIncludes += "#include \"" + u.stem + ".h\"\n";
  header += "\n#include <array>\n#include <tuple>\n\n#include \"kiv/Machine.h\"\n" + unitIncludes + "\nnamespace " + u.ns +
            " {\n\n// The unit's traces: \"" + u.trace->handle + "\", file \"" + u.trace->file + "\".\nextern Kiv::TraceHandle " +
            u.trace->variable + ";\ninline constexpr char const " + u.trace->variable + "File[] = \"" + u.trace->file + "\";\n\n" + forward + "\n" + h + "}  // namespace " + u.ns + "\n";
  source += "\n#include \"" + u.stem + "Machines.h\"\n\n" + includes + "\nnamespace " + u.ns + " {\n\nKiv::TraceHandle " +
            u.trace->variable + "(\"" + u.trace->handle + "\");\n\n" + s + "}  // namespace " + u.ns + "\n";
}

}  // namespace kivc
