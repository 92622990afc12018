#pragma once
// Internal to the compiler: what the emitters (Emit*.cpp) share. Nothing outside kiv/kivc includes
// it; the compiler's interface is Emit.h.

#include <string>
#include <string_view>
#include <vector>

#include "kiv/kivc/Emit.h"
#include "kiv/kivc/Template.h"

namespace kivc {

std::string capitalized(std::string s);
// A parameter of type t: by value or by const reference.
std::string param(TypeRef const& t);
Entity const* findEntity(Unit const& u, std::string const& name);
// Constructor parameters: the const and init attributes in declaration order.
std::vector<Attribute const*> ctorParamsOf(Entity const& e);

// An attribute's template substitutions, shared by its entity and adapter emitters.
class AttrText {
 public:
  AttrText(Unit const& u, Entity const& e, Attribute const& a)
      : u_(u), e_(e), a_(a), n_{e.name, a.name, capitalized(a.name), std::to_string(a.id)} {}

 protected:
  struct Names {
    std::string T;   // the entity class
    std::string x;   // attribute
    std::string X;   // capitalised
    std::string id;  // identifier as text
  };
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

// Each emitter appends its declarations to out.header, its definitions to out.source, its
// conformance traits to out.testing and what must follow the namespace to `after`.
void emitEnum(Unit const& u, Enum const& en, Output& out, std::string& after);
void emitValue(Unit const& u, Value const& v, Output& out, std::string& after);
// Adapter classes go to `adapters`, after every entity class of the header.
void emitEntity(Unit const& u, Entity const& e, Output& out, std::string& adapters);

// What an entity's class and type info need of its attribute-log adapter.
struct AdapterHooks {
  std::string decl;        // the nested class's forward declaration
  std::string factoryDef;  // the factory a demuxer uses for a root of the type
  std::string factory;     // its entry in the type info, with its leading comma
  std::string defs;        // the adapter's out-of-line definitions
};
AdapterHooks emitAdapter(Unit const& u, Entity const& e, std::string& adapters);

}  // namespace kivc
