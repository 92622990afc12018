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

enum class TypeKind { builtin, enumeration, value, entity };

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
};

inline constexpr unsigned kFirstAttributeId = 258;

}  // namespace kivc
