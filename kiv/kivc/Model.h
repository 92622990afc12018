#pragma once
// The typed model of a definition file: what the parser builds and the emitters read.

#include <optional>
#include <string>
#include <vector>

namespace kivc {

struct Location {
  std::string file;
  int line = 0;
  int column = 0;
};

// A diagnostic: "file:line:column: error: sentence".
struct Error {
  Location at;
  std::string message;
};

enum class TypeKind { builtin, enumeration, value, entity, machine };

// A type as written in an attribute: a builtin, a declared enumeration or value, an entity, or a
// pointer to an entity (Ptr<T> or PtrConst<T>).
struct TypeRef {
  std::string cpp;  // the C++ spelling
  TypeKind kind = TypeKind::builtin;
  bool pointer = false;
  bool pointerToConst = false;
  std::string entity;  // for pointers: the pointee's C++ name
  std::string name;    // as written, for messages and samples ("String", "U32", "MountState")
};

// `initial` is an `init` attribute: a value or reference that is also a constructor parameter.
enum class AttrKind { derived, constant, value, reference, initial, owner, collection, valueCollection };

struct Attribute {
  Location at;
  AttrKind kind;
  std::string name;
  TypeRef type;                    // the value type; for collections the member or value type
  std::optional<TypeRef> key;      // collections only
  std::string derivedExpression;   // derived only; empty means the entity's name
  // Collection options: the const parameters in the order they are compared (empty means
  // declaration order), the key as a C++ expression over the parameters (empty means a key
  // argument) and the initial size of the map (0 means none).
  std::vector<std::string> compareOrder;
  std::string keyExpression;
  unsigned sizeHint = 0;
  unsigned id = 0;
};

struct Entity {
  Location at;
  std::string name;
  bool factory = false;
  bool singleton = false;
  std::vector<Attribute> attributes;
};

struct EnumValue {
  std::string name;
  unsigned number;
};

struct Enum {
  Location at;
  std::string name;
  std::vector<EnumValue> values;
};

struct ValueField {
  std::string name;
  TypeRef type;
};

struct Value {
  Location at;
  std::string name;
  std::vector<ValueField> fields;
};

struct ExternType {
  TypeKind kind;
  std::string qualifiedName;  // "Controller::SystemId"
};

// --- state machines ---

// One notification of a watched object and the handler it calls: `on a -> h` (onA() calls h()),
// `on a(K) -> h` (onA(k) calls h(k)) and `on a(*) -> h` (the whole-collection onAkivImmediate()
// calls h()). In a keyed watch the handler gets the watch's key first.
struct On {
  Location at;
  std::string notification;
  enum Form { plain, keyed, whole } form = plain;
  TypeRef key;  // keyed only
  std::string handler;
};

// A reactor on a constructor parameter (`param x : T { on ...; }`), on a retargetable member
// (`watch x : T [-> h] { ... }`), or one reactor per key (`watches x : K -> T { ... }`).
struct Watch {
  Location at;
  std::string name;
  TypeRef target;               // Ptr<T> or PtrConst<T>
  std::optional<TypeRef> key;   // watches only
  std::string retargetHandler;  // watch only: called after xIs() changed the target
  std::vector<On> ons;
  struct State {
    std::string name;
    TypeRef type;
    std::string initial;  // C++ expression; empty means value-initialised
  };
  std::vector<State> states;  // watches only: per-reactor fields
};

struct Param {
  Location at;
  std::string name;
  TypeRef type;
  bool valid = false;      // null refused with "null ValidPtr"
  bool compared = true;    // part of the re-instantiation check
  std::optional<Watch> watch;
};

// Owned child machines, keyed; created by xIs(params...) with the child's parameters.
struct Children {
  Location at;
  std::string name;
  TypeRef key;
  std::string machine;
  std::string keyExpression;         // over the parameters; empty means a key argument
  std::vector<std::string> checked;  // parameters refused when null, with the mutator's text
  unsigned sizeHint = 0;
};

struct Timer {
  Location at;
  std::string name;
  std::string handler;
};

// A function's full signature, for the traces that begin with it.
struct Signature {
  Location at;
  std::string returns;
  std::string function;  // may be qualified by a nested class: "KivX::handleY"
  std::vector<TypeRef> params;
  std::string constant;  // filled by the parser: kivSig<Function>[<arity>]
};

struct Machine {
  Location at;
  std::string name;
  std::string header;  // the hand-written class's header, for the generated source
  std::vector<Param> params;
  std::string ownerName, ownerType;  // the parent machine, a raw pointer; empty when none
  std::vector<Watch> watches;        // `watch` and `watches`, in declaration order
  std::vector<Children> children;
  std::vector<Timer> timers;
  std::vector<Signature> signatures;
  std::string tracePrefix;  // "ServiceMountConfigSm::" unless given
};

// The source unit machines trace under: `unit "X.tin" trace variable "HandleName";`
struct TraceUnit {
  std::string file;
  std::string variable;
  std::string handle;
};

struct Unit {
  std::string file;
  std::string stem;  // output file name without extension
  std::string ns;    // "Controller" or "Controller::Heartbeat"
  bool replicate = false;  // every entity type gets an attribute-log adapter
  std::vector<std::string> includes;
  std::vector<ExternType> externs;
  std::vector<Enum> enums;
  std::vector<Value> values;
  std::vector<Entity> entities;
  std::optional<TraceUnit> trace;
  std::vector<Machine> machines;
};

inline constexpr unsigned kFirstAttributeId = 258;

}  // namespace kivc
