// Reflection support: the generic value methods of any type built from its
// typed functions, the descriptors of the basic types, a holder for a value
// of a type known only by descriptor, and the whole-value operations.
#ifndef KEL_REFLECT_H
#define KEL_REFLECT_H

#include <Kel/Exception.h>
#include <Kel/Hash.h>
#include <Kel/HashTable.h>
#include <Kel/LogCodec.h>
#include <Kel/Ptr.h>
#include <Kel/Text.h>
#include <Kel/TypeDesc.h>
#include <Kel/Types.h>

#include <memory>
#include <new>
#include <type_traits>
#include <utility>

namespace Kel {

namespace reflect_internal {

template <class T>
U32 hashOf(T const& v) {
  OneAtATime h;
  if constexpr (std::is_same_v<T, bool>) {
    h.addBool(v);
  } else if constexpr (std::is_same_v<T, F32>) {
    h.addF32(v);
  } else if constexpr (std::is_same_v<T, F64>) {
    h.addF64(v);
  } else if constexpr (std::is_same_v<T, String>) {
    h.addBytes(v.data(), v.size());
  } else if constexpr (std::is_enum_v<T>) {
    h.addU32(static_cast<U32>(v));
  } else if constexpr (sizeof(T) == 1) {
    h.addU8(static_cast<U8>(v));
  } else if constexpr (sizeof(T) == 2) {
    h.addU16(static_cast<U16>(v));
  } else if constexpr (sizeof(T) == 4) {
    h.addU32(static_cast<U32>(v));
  } else {
    h.addU64(static_cast<U64>(v));
  }
  return h.finish();
}

template <class T>
constexpr auto lessFn() {
  if constexpr (requires(T const& a) { a < a; }) {
    return +[](void const* a, void const* b) {
      return *static_cast<T const*>(a) < *static_cast<T const*>(b);
    };
  } else {
    return static_cast<bool (*)(void const*, void const*)>(nullptr);
  }
}

template <class T>
constexpr auto hashFn() {
  if constexpr (requires(T const& a) { a.hash(); }) {
    return +[](void const* v) { return static_cast<T const*>(v)->hash(); };
  } else if constexpr (std::is_class_v<T> && !std::is_same_v<T, String>) {
    return static_cast<U32 (*)(void const*)>(nullptr);
  } else {
    return +[](void const* v) { return hashOf(*static_cast<T const*>(v)); };
  }
}

}  // namespace reflect_internal

// The generic value methods of T, from its typed functions (found by
// argument-dependent lookup, or in Kel for the basic types).
template <class T>
inline constexpr ValueOps valueOpsOf{
    sizeof(T),
    alignof(T),
    [](void* at) { ::new (at) T(); },
    [](void* at, void const* from) { ::new (at) T(*static_cast<T const*>(from)); },
    [](void* at) { static_cast<T*>(at)->~T(); },
    [](void* to, void const* from) { *static_cast<T*>(to) = *static_cast<T const*>(from); },
    [](void const* a, void const* b) {
      return *static_cast<T const*>(a) == *static_cast<T const*>(b);
    },
    reflect_internal::lessFn<T>(),
    reflect_internal::hashFn<T>(),
    [](String& out, void const* v) { appendStrep(out, *static_cast<T const*>(v)); },
    [](TextIt& it, TextIt end, void* out) { sequenceToValue(it, end, static_cast<T*>(out)); },
    [](LogOut& out, void const* v) { kelLogWrite(out, *static_cast<T const*>(v)); },
    [](LogIn& in, void* out) { kelLogRead(in, static_cast<T*>(out)); },
};

// The parts of the descriptor of a type written by hand (the basic types,
// network types, platform seams): a basic type with T's value methods.
template <class T>
constexpr TypeDesc::Parts basicTypeParts() {
  TypeDesc::Parts p;
  p.kind = TypeKind::basic;
  p.ops = &valueOpsOf<T>;
  return p;
}

// Descriptors of the basic types.
extern TypeDesc const typeU8, typeU16, typeU32, typeU64, typeS8, typeS16, typeS32, typeS64;
extern TypeDesc const typeBool, typeF32, typeF64, typeSeconds, typeString, typeName;

// The whole-value operations (9, 10, 11) of any type with value methods.
int valueOp(TypeDesc const& type, void* result, void const* object, U32 op, void const* arg);

template <class T>
struct IsPtr : std::false_type {};
template <class T>
struct IsPtr<Ptr<T>> : std::true_type {};

// The generic walk over one of the framework's containers (HashTable,
// OrderedMap, Queue). `del(key)` removes a member through the owner's typed
// mutator, with notification. A callback run by that deletion must not
// remove other members of the collection being walked.
template <class Container, class Del>
class CollectionIter final : public GenericIter {
  using It = typename Container::Iterator;
  using Key = std::remove_cvref_t<decltype(std::declval<It const&>().key())>;
  using Elem = std::remove_cvref_t<decltype(std::declval<It const&>().value())>;

 public:
  CollectionIter(Container const& c, Del del) : it_(c.begin()), del_(std::move(del)) { load(); }

  [[nodiscard]] bool done() const override { return it_.done(); }
  void next() override {
    ++it_;
    load();
  }
  [[nodiscard]] void const* key() const override { return &key_; }
  [[nodiscard]] void const* element() const override {
    if constexpr (std::is_same_v<Elem, NoValue>) {
      static constexpr bool kPresent = true;
      return &kPresent;
    } else if constexpr (IsPtr<Elem>::value) {
      return nullptr;
    } else {
      return &it_.value();
    }
  }
  [[nodiscard]] Entity const* entity() const override {
    if constexpr (IsPtr<Elem>::value) {
      return it_.value().get();
    } else {
      return nullptr;
    }
  }
  void delCurrent() override {
    Key const k = key_;
    next();
    del_(k);
  }

 private:
  void load() {
    if (!it_.done()) key_ = it_.key();
  }

  It it_;
  Key key_{};
  Del del_;
};

template <class Container, class Del>
std::unique_ptr<GenericIter> collectionIter(Container const& c, Del del) {
  return std::make_unique<CollectionIter<Container, Del>>(c, std::move(del));
}

// A value of a type known only by its descriptor. Values of up to 64 bytes
// live inside the object; larger ones on the heap. A type without value
// methods (an entity type) raises Kel::NoValueMethodsException.
class GenericValue {
 public:
  explicit GenericValue(TypeDesc const& type);
  GenericValue(GenericValue const&) = delete;
  GenericValue& operator=(GenericValue const&) = delete;
  ~GenericValue();

  [[nodiscard]] TypeDesc const& type() const noexcept { return *type_; }
  [[nodiscard]] void* get() noexcept { return data_; }
  [[nodiscard]] void const* get() const noexcept { return data_; }
  [[nodiscard]] String strep() const;
  // Parses the whole of `text` into the value; raises Kel::RangeException.
  void strepIs(std::string_view text);

 private:
  static constexpr std::size_t kInline = 64;
  [[nodiscard]] bool inlined() const noexcept { return data_ == inline_; }

  TypeDesc const* type_;
  void* data_;
  alignas(16) unsigned char inline_[kInline];
};

}  // namespace Kel

#endif  // KEL_REFLECT_H
