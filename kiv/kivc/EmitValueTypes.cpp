// Enumerations and value types: declarations, text forms and, for values, the attribute-log form.

#include "kiv/kivc/EmitCommon.h"

namespace kivc {

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

}  // namespace kivc
