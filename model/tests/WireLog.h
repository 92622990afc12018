#pragma once
// Reads captured attribute-log bytes back into frames, naming the entity type behind each handle,
// so tests can say what travelled.

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "MountInterfaceTesting.h"
#include "kiv/AttrLogCodec.h"
#include "kiv/Entity.h"
#include "model/tests/ConformanceSuite.h"
#include "model/tests/ModelTrees.h"

namespace wirelog {

struct Frame {
  Kiv::NboAttrLog::Op op{};
  std::uint64_t handle = 0;
  std::uint32_t id = 0;
  Kiv::TypeInfo const* type = nullptr;  // of the entity the frame is about
  std::string key;                      // member frames: the member's name
  std::uint64_t child = 0;              // member frames: the member's handle
};

// The member type of each entity collection, by (owner type, attribute id).
class MemberTypes {
 public:
  MemberTypes() { add(modeltrees::AllTypes{}); }
  Kiv::TypeInfo const* of(Kiv::TypeInfo const* owner, std::uint32_t id) const {
    auto it = types_.find({owner, id});
    return it == types_.end() ? nullptr : it->second;
  }

 private:
  template <class T>
  struct Collect : kivconformance::detail::Ignore {
    explicit Collect(MemberTypes& members) : m(members) {}
    MemberTypes& m;
    template <class K, class M>
    void collection(char const*, std::uint32_t id, std::vector<std::string> const&, std::vector<std::string> const&,
                    auto, auto, auto, auto, auto, auto, auto, auto) {
      m.types_[{&T::kivTypeInfo(), id}] = &M::kivTypeInfo();
    }
  };
  template <class... T>
  void add(modeltrees::TypeList<T...>) {
    (..., [&] {
      Collect<T> c(*this);
      Controller::kivtesting::Traits<T>::visit(c);
    }());
  }
  std::map<std::pair<Kiv::TypeInfo const*, std::uint32_t>, Kiv::TypeInfo const*> types_;
};

// Frames of one connection's byte stream, from its start (handles are per connection).
class Reader {
 public:
  std::vector<Frame> read(std::vector<std::uint8_t> const& bytes) {
    using Kiv::NboAttrLog::Op;
    std::vector<Frame> frames;
    Kiv::NboAttrLog::Decoder stream(bytes.data(), bytes.size());
    while (stream.left() > 0) {
      auto const n = static_cast<std::size_t>(stream.varint());
      std::string_view const payload = stream.bytes(n);
      Kiv::NboAttrLog::Decoder d(reinterpret_cast<std::uint8_t const*>(payload.data()), payload.size());
      Frame f;
      f.op = static_cast<Op>(d.byte());
      switch (f.op) {
        case Op::root: {
          f.handle = d.varint();
          Kiv::Name const name = d.value<Kiv::Name>();
          f.type = Kiv::typeNamed(d.value<Kiv::String>().view());
          f.key = name.stdString();
          types_[f.handle] = f.type;
          break;
        }
        case Op::value:
        case Op::entry:
        case Op::del:
        case Op::member:
          f.handle = d.varint();
          f.id = static_cast<std::uint32_t>(d.varint());
          f.type = types_[f.handle];
          if (f.op == Op::member) {
            f.key = d.value<Kiv::Name>().stdString();
            f.child = d.varint();
            types_[f.child] = members_.of(f.type, f.id);
          }
          break;
        default:
          break;
      }
      frames.push_back(f);
    }
    return frames;
  }

 private:
  MemberTypes members_;
  std::map<std::uint64_t, Kiv::TypeInfo const*> types_;
};

inline Kiv::AttrInfo const* attrOf(Frame const& f) {
  if (!f.type) return nullptr;
  for (std::size_t i = 0; i < f.type->attrCount; ++i)
    if (f.type->attrs[i].id == f.id) return &f.type->attrs[i];
  return nullptr;
}

}  // namespace wirelog
