// Type descriptors: every type of the model, and every basic and network
// type, has one. It lists the type's attributes by descriptor (`KelAttr`) in
// declaration order and carries the generic operations through which tools
// (the state browser, the replica tests, the front ends) reach any type by
// name, without its typed accessors.
//
//   Kel::TypeDesc const& t = entity.fwkType();
//   for (Kel::KelAttr const& a : t.attrs()) { ... t.attributeOp(&out, &entity, &a, Kel::attrOpRead)
//   ... }
#ifndef KEL_TYPEDESC_H
#define KEL_TYPEDESC_H

#include <Kel/Ptr.h>
#include <Kel/Types.h>

#include <cstddef>
#include <memory>
#include <span>
#include <string_view>

namespace Kel {

class Entity;
class EnumDesc;
class LogIn;
class LogOut;
class LogDirtySink;
class LogStateAdapter;
class NotifieeBase;
class TypeDesc;
using TextIt = char const*;

enum class TypeKind : U8 { basic, enumeration, value, entity };

// What an attribute is; decides which operations it supports.
enum class AttrKind : U8 {
  plain,     // a value with getter and setter
  fixed,     // a value fixed at construction (key or constructor argument)
  constant,  // a constant of the type
  derived,   // a value computed by a hand-written getter
  child,     // an owned child entity
  ref,       // a pointer to a constant entity
  hashedMap,
  hashedSet,
  orderedMap,
  queue,
};

[[nodiscard]] constexpr bool isCollection(AttrKind k) noexcept {
  return k == AttrKind::hashedMap || k == AttrKind::hashedSet || k == AttrKind::orderedMap ||
         k == AttrKind::queue;
}

// The descriptor of one attribute. `index` counts from 2 in value types and
// from 258 in entities, in declaration order, a base class's attributes
// first.
struct KelAttr {
  std::string_view name;
  std::string_view typeName;  // "U32", "Lumo::IpGenAddr", "Rsvp::RsvpNeighborId"
  U32 index;
  AttrKind kind;
  TypeDesc const* type;     // the value's or element's type
  TypeDesc const* keyType;  // the key's type in a map or set, else null
  // The attribute-log identifier: declared in the schema, else the index;
  // 0 for an attribute the log does not carry.
  U32 logId = 0;
  // A map whose members are pointers to constant entities it does not own
  // (queues of entities and references always are).
  bool shared = false;
  // A plain value that the type's state adapter writes itself when the
  // readers make the entity anew (LogStateAdapter::handleAnnounceValues).
  bool typedAnnounce = false;
};

// Whether the members or target of `a` are entities held without being
// owned: references, queues of entities and shared maps.
[[nodiscard]] constexpr bool holdsShared(KelAttr const& a) noexcept;

// Status of a generic operation.
enum AttrStatus : int {
  attrDone = 0,         // done; any result stored through `result`
  attrUnsupported = 1,  // the attribute (or value) does not support this operation
  attrUnknown = 2,      // the attribute does not belong to this type
};

// Operation codes of `TypeDesc::attributeOp`. Values travel as pointers to
// objects of the attribute's C++ type; entities as Kel::Ptr<Kel::Entity const>.
enum AttrOp : U32 {
  attrOpRead = 1,         // *result = the attribute's value (constants included)
  attrOpWrite = 2,        // attribute = *arg1, checked like the setter
  attrOpIterate = 3,      // *(std::unique_ptr<GenericIter>*)result = iterator over a collection
  attrOpSize = 4,         // *(std::size_t*)result = members of a collection
  attrOpMemberRead = 5,   // *result = member under key *arg1 (status 1 when absent)
  attrOpMemberWrite = 6,  // collection: set member *arg1 (to *arg2 in a map of values); a map
                          // of owned entities answers the member in *result when given one
  attrOpMemberDel = 7,    // *(bool*)result = whether member *arg1 was there; removes it
  attrOpDelAll = 8,       // removes every member
  valueOpIsNull = 9,      // *(bool*)result = the whole value equals its default
  valueOpEqual = 10,      // *(bool*)result = the whole value equals *arg1
  valueOpLess = 11,       // *(bool*)result = the whole value is less than *arg1
  attrOpEnq = 12,         // queue: *(U32*)result = sequence number of *arg1, appended
  attrOpDeq = 13,         // queue: *result = the oldest element, removed (status 1 when empty)
  attrOpCheck = 14,       // raises what a write of *arg1 would raise; changes nothing
  attrOpEnqAt = 15,      // queue: appends *arg2 under number *arg1 (status 1 unless above the tail)
  attrOpCreate = 16,     // child slot: *(Ptr<Entity>*)result = the child, made if absent
                         // (status 1 when it needs constructor arguments)
  attrOpNextSeq = 17,    // queue: *(U32*)result = the number the next enqueue starts from
  attrOpNextSeqIs = 18,  // queue: that number becomes *arg1 (status 1 unless the queue is
                         // empty or *arg1 is the tail's number or after it)
  attrOpIsDefault = 19,  // plain: *(bool*)result = whether it holds the value a new entity has
  attrOpDefaultIs = 20,  // plain, not a constructor argument: back to that value
  attrOpPeek = 21,       // child slot or reference: *(Entity const**)result = the entity or
                         // null, taking no reference, so touching none of its memory
};

// Whether operation `op` changes the object; a frozen entity refuses it
// (Entity::assertMutable()).
[[nodiscard]] constexpr bool attrOpChanges(U32 op) noexcept {
  constexpr U32 changing = 1u << attrOpWrite | 1u << attrOpMemberWrite | 1u << attrOpMemberDel |
                           1u << attrOpDelAll | 1u << attrOpEnq | 1u << attrOpDeq |
                           1u << attrOpEnqAt | 1u << attrOpCreate | 1u << attrOpNextSeqIs |
                           1u << attrOpDefaultIs;
  return op < 32 && (changing >> op & 1u) != 0;
}

// A generic walk over one collection attribute of one entity.
class GenericIter {
 public:
  virtual ~GenericIter() = default;
  [[nodiscard]] virtual bool done() const = 0;
  virtual void next() = 0;
  // The current key: a pointer to the key type (a U32 sequence number in a
  // queue).
  [[nodiscard]] virtual void const* key() const = 0;
  // The current element: a pointer to the element type; a pointer to `true`
  // in a set; null in a collection of entities.
  [[nodiscard]] virtual void const* element() const = 0;
  // The current element of a collection of entities, else null.
  [[nodiscard]] virtual Entity const* entity() const = 0;
  // Deletes the current member (with notification) and steps on.
  virtual void delCurrent() = 0;
};

// Hears every change of an entity by attribute descriptor; `key` points to
// the member's key for collections and is null otherwise.
class GenericNotifiee {
 public:
  virtual ~GenericNotifiee() = default;
  virtual void onAttribute(Entity const& entity, KelAttr const& attr, void const* key) = 0;
};

// The generic value methods of a type.
struct ValueOps {
  std::size_t size;
  std::size_t align;
  void (*construct)(void* at);
  void (*copyConstruct)(void* at, void const* from);
  void (*destroy)(void* at);
  void (*assign)(void* to, void const* from);
  bool (*equal)(void const* a, void const* b);
  bool (*less)(void const* a, void const* b);  // null without operator<
  U32 (*hash)(void const* v);                  // null without hash()
  void (*appendStrep)(String& out, void const* v);
  void (*parse)(TextIt& it, TextIt end, void* out);
  void (*logWrite)(LogOut& out, void const* v);
  // Raises Kel::RangeException on truncation or a value out of range.
  void (*logRead)(LogIn& in, void* out);
};

using AttributeOpFn = int (*)(void* result, void* object, KelAttr const* attr, U32 op,
                              void const* arg1, void const* arg2);
// Constructs a value at `at` from pointers to its stored attributes in
// declaration order, with the range checks of the typed constructor.
using ConstructFromArgsFn = void (*)(void* at, void const* const* args);
using GenericNotifieeFn = std::unique_ptr<NotifieeBase> (*)(Entity const* entity,
                                                            GenericNotifiee* target);
// Makes a parentless entity from a name, or for a keyed type from the key's
// text (raising Kel::RangeException when it does not parse).
using CreateFn = Ptr<Entity> (*)(std::string_view nameOrKey);
// Makes a parentless entity from pointers to its constructor arguments (the
// attributes listed by ctorAttrs(), in that order), named as its factory
// names it.
using CreateWithArgsFn = Ptr<Entity> (*)(void const* const* args);
// Makes the attribute-log state adapter of an entity type, observing
// `entity`, at `at`: logStateAdapterBytes() bytes aligned as operator new
// aligns, which the caller frees after destroying the adapter. The writer
// keeps it in the allocation of its own record of the entity.
using LogStateAdapterFn = LogStateAdapter* (*)(void* at, Entity const& entity);
// The typed reading of one record into `entity` (false: left to the generic reader).
using LogDeserializeFn = bool (*)(Entity& entity, S32 id, LogIn& in);
// Reads and checks one record as LogDeserializeFn would, applying nothing.
using LogCheckFn = bool (*)(S32 id, LogIn& in);
// The end of a transaction (a frame) that changed attribute `id` of `entity`
// `count` times; `type` is the frame's kind. Answers whether a type of the
// chain knew the attribute.
using LogTransactionFn = bool (*)(Entity& entity, S32 id, U8 type, U32 count);

class TypeDesc {
 public:
  struct Parts {
    TypeKind kind = TypeKind::basic;
    ValueOps const* ops = nullptr;                    // values, enumerations and basic types
    std::span<KelAttr const> attrs = {};              // own attributes
    AttributeOpFn attributeOp = nullptr;              // value types and entities
    ConstructFromArgsFn constructFromArgs = nullptr;  // value types
    GenericNotifieeFn genericNotifiee = nullptr;      // entities
    CreateFn create = nullptr;                        // entities made from a name or key alone
    CreateWithArgsFn createWithArgs = nullptr;        // unnamed entities
    std::span<U32 const> ctorAttrs = {};              // indices of the constructor arguments
    U32 keyAttr = 0;                                  // index of the key, 0 when unkeyed
    LogStateAdapterFn logStateAdapter = nullptr;      // entities
    U32 logStateAdapterBytes = 0;                     // the adapter's size
    LogDeserializeFn logDeserialize = nullptr;        // entities
    LogCheckFn logCheck = nullptr;                    // entities
    LogTransactionFn logTransaction = nullptr;        // entities
    // Whether the transaction end does anything: the reader keeps the
    // bookkeeping of a frame's changed attributes only for such types.
    bool logTransactionSettles = false;
    EnumDesc const* enumDesc = nullptr;  // enumerations
    // Entities: the entity types of the model that derive from this one,
    // directly or not, so that the attribute-log reader can make the type a
    // shared entity really has where a base type is declared.
    std::span<TypeDesc const* const> derived = {};
  };

  // `depth` is the base's depth plus one (0 without a base); it is given, not
  // computed, because a constant expression may not test the address of
  // another static object under every compiler's sanitizers.
  constexpr TypeDesc(std::string_view qualifiedName, TypeDesc const* base, U32 depth) noexcept
      : name_(qualifiedName), base_(base), depth_(depth) {}
  constexpr TypeDesc(std::string_view qualifiedName, TypeDesc const* base, U32 depth,
                     Parts const& parts) noexcept
      : name_(qualifiedName), base_(base), depth_(depth), parts_(parts) {}

  [[nodiscard]] constexpr std::string_view name() const noexcept { return name_; }
  [[nodiscard]] constexpr TypeDesc const* base() const noexcept { return base_; }
  [[nodiscard]] constexpr U32 depth() const noexcept { return depth_; }
  [[nodiscard]] constexpr TypeKind kind() const noexcept { return parts_.kind; }
  [[nodiscard]] constexpr ValueOps const* ops() const noexcept { return parts_.ops; }
  [[nodiscard]] constexpr EnumDesc const* enumDesc() const noexcept { return parts_.enumDesc; }
  // This type's own attributes, in declaration order (see allAttrs()).
  [[nodiscard]] constexpr std::span<KelAttr const> attrs() const noexcept { return parts_.attrs; }
  [[nodiscard]] constexpr ConstructFromArgsFn constructFromArgs() const noexcept {
    return parts_.constructFromArgs;
  }
  [[nodiscard]] constexpr CreateFn create() const noexcept { return parts_.create; }
  [[nodiscard]] constexpr CreateWithArgsFn createWithArgs() const noexcept {
    return parts_.createWithArgs;
  }
  [[nodiscard]] constexpr std::span<U32 const> ctorAttrs() const noexcept {
    return parts_.ctorAttrs;
  }
  [[nodiscard]] constexpr U32 keyAttr() const noexcept { return parts_.keyAttr; }
  [[nodiscard]] constexpr LogStateAdapterFn logStateAdapter() const noexcept {
    return parts_.logStateAdapter;
  }
  [[nodiscard]] constexpr U32 logStateAdapterBytes() const noexcept {
    return parts_.logStateAdapterBytes;
  }
  [[nodiscard]] constexpr LogDeserializeFn logDeserialize() const noexcept {
    return parts_.logDeserialize;
  }
  [[nodiscard]] constexpr LogCheckFn logCheck() const noexcept { return parts_.logCheck; }
  [[nodiscard]] constexpr LogTransactionFn logTransaction() const noexcept {
    return parts_.logTransaction;
  }
  [[nodiscard]] constexpr bool logTransactionSettles() const noexcept {
    return parts_.logTransactionSettles && parts_.logTransaction != nullptr;
  }

  // This type if it has `qualifiedName`, else the derived type that has it, or null.
  [[nodiscard]] TypeDesc const* selfOrDerived(std::string_view qualifiedName) const noexcept {
    if (name_ == qualifiedName) return this;
    for (TypeDesc const* t : parts_.derived) {
      if (t->name() == qualifiedName) return t;
    }
    return nullptr;
  }

  // Whether this type is `other` or derives from it.
  [[nodiscard]] bool isA(TypeDesc const& other) const noexcept {
    for (TypeDesc const* t = this; t; t = t->base_) {
      if (t == &other) return true;
    }
    return false;
  }

  // The attribute with this name or index, searching the bases too; or null.
  [[nodiscard]] KelAttr const* attr(std::string_view name) const noexcept;
  [[nodiscard]] KelAttr const* attr(U32 index) const noexcept;
  // The attribute with this attribute-log identifier, searching the bases; or null.
  [[nodiscard]] KelAttr const* attrByLogId(U32 logId) const noexcept;
  // Every attribute, the bases' first.
  template <class F>
  void forEachAttr(F&& f) const {
    if (base_) base_->forEachAttr(f);
    for (KelAttr const& a : parts_.attrs) f(a);
  }

  // The generic operation on `object`: a pointer to a value of this type, or
  // for entities the `Kel::Entity*` of an entity of this type or a derived
  // one. `attr` null means the whole value. Answers an AttrStatus; raises
  // what the typed mutator raises (a range error, an immutable attribute).
  int attributeOp(void* result, void* object, KelAttr const* attr, U32 op,
                  void const* arg1 = nullptr, void const* arg2 = nullptr) const;

  // A notifiee that forwards every typed callback of `entity` to `target`.
  [[nodiscard]] std::unique_ptr<NotifieeBase> genericNotifiee(Entity const* entity,
                                                              GenericNotifiee* target) const;

 private:
  std::string_view name_;
  TypeDesc const* base_;
  U32 depth_;
  Parts parts_{};
};

constexpr bool holdsShared(KelAttr const& a) noexcept {
  return a.kind == AttrKind::ref || a.shared ||
         (a.kind == AttrKind::queue && a.type->kind() == TypeKind::entity);
}

}  // namespace Kel

#endif  // KEL_TYPEDESC_H
