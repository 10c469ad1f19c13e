// Deduplicated identifiers: the session, path and neighbor ids that the
// agent holds in many places at once are kept once each, in a handle that
// every holder shares, and held through a small value type that behaves
// like the identifier itself.
//
//   Kel::Ptr<RsvpSessionIdDedupTableReal> table = rsvpSessionIdDedupTableRealFactory();
//   RsvpSessionIdDeduped a(table->dedupFromValue(id));
//   RsvpSessionIdDeduped b(table->dedupFromAttrs(dstIp, tunnelId, extTunnelId));
//   // Equal ids: a.handle() == b.handle(), and a == b compares the ids.
//
// The machinery is written once, as templates over the identifier; each
// identifier gets its names below. The tables are entities of the model
// (<Rsvp/RsvpIdDedup.h>); the rules are in docs/DEDUP.md.
#ifndef RSVP_RSVPIDDEDUPED_H
#define RSVP_RSVPIDDEDUPED_H

#include <Kel/Assert.h>
#include <Kel/LogCodec.h>
#include <Kel/Ptr.h>
#include <Kel/RangeException.h>
#include <Kel/Text.h>
#include <Kel/TypeDesc.h>
#include <Orv/DedupHashTable.h>
#include <Rsvp/RsvpNeighborId.h>
#include <Rsvp/RsvpPathId.h>
#include <Rsvp/RsvpSessionId.h>

#include <concepts>
#include <memory>
#include <ostream>
#include <string_view>
#include <utility>

namespace Rsvp {

// The names of one identifier's handle and deduplicated value.
template <class Id>
struct RsvpIdDedupNames;
template <>
struct RsvpIdDedupNames<RsvpSessionId> {
  static constexpr std::string_view handle = "Rsvp::RsvpSessionIdHandle";
  static constexpr std::string_view deduped = "RsvpSessionIdDeduped";
};
template <>
struct RsvpIdDedupNames<RsvpPathId> {
  static constexpr std::string_view handle = "Rsvp::RsvpPathIdHandle";
  static constexpr std::string_view deduped = "RsvpPathIdDeduped";
};
template <>
struct RsvpIdDedupNames<RsvpNeighborId> {
  static constexpr std::string_view handle = "Rsvp::RsvpNeighborIdHandle";
  static constexpr std::string_view deduped = "RsvpNeighborIdDeduped";
};

// One identifier, shared by all who hold it. Fixed at construction; its
// hash is the identifier's. Handles of other identifier types may share a
// table: they are never equal to this one.
template <class Id>
class RsvpIdHandle final : public Orv::DedupHandle {
 public:
  using Value = Id;

  static constexpr Kel::TypeDesc kelType{RsvpIdDedupNames<Id>::handle, &Orv::typeDedupHandle, 1,
                                         Kel::TypeDesc::Parts{.kind = Kel::TypeKind::entity}};

  // A new handle of `value`, linked nowhere. Unnamed: a name would cost
  // every handle a string.
  [[nodiscard]] static Kel::Ptr<RsvpIdHandle> kelNew(Id const& value) {
    return Kel::Ptr<RsvpIdHandle>(new RsvpIdHandle(value));
  }

  // The base library's handle as this type; null stays null. A handle of
  // another type is a programming error ("castHandle").
  [[nodiscard]] static Kel::Ptr<RsvpIdHandle> fromDedupHandle(Kel::Ptr<Orv::DedupHandle> raw) {
    bool const castHandle = !raw || &raw->fwkType() == &kelType;
    KEL_ASSERT(castHandle);
    return Kel::Ptr<RsvpIdHandle>::adopt(static_cast<RsvpIdHandle*>(raw.release()));
  }

  [[nodiscard]] Id const& value() const noexcept { return value_; }
  [[nodiscard]] Kel::U32 hash() const { return value_.hash(); }

  [[nodiscard]] Kel::U32 dedupHash() const noexcept override { return value_.hash(); }
  [[nodiscard]] bool dedupEquals(Orv::DedupHandle const& other) const noexcept override {
    // The class is final: the descriptor tells the exact type.
    return &other.fwkType() == &kelType && static_cast<RsvpIdHandle const&>(other).value_ == value_;
  }
  [[nodiscard]] Kel::TypeDesc const& fwkType() const noexcept override { return kelType; }

 private:
  explicit RsvpIdHandle(Id const& value) : DedupHandle(Kel::Name()), value_(value) {}
  ~RsvpIdHandle() override = default;

  Id const value_;
};

using RsvpSessionIdHandle = RsvpIdHandle<RsvpSessionId>;
using RsvpPathIdHandle = RsvpIdHandle<RsvpPathId>;
using RsvpNeighborIdHandle = RsvpIdHandle<RsvpNeighborId>;

[[nodiscard]] inline Kel::Ptr<RsvpSessionIdHandle> rsvpSessionIdHandleFactory(
    RsvpSessionId const& value) {
  return RsvpSessionIdHandle::kelNew(value);
}
[[nodiscard]] inline Kel::Ptr<RsvpPathIdHandle> rsvpPathIdHandleFactory(RsvpPathId value) {
  return RsvpPathIdHandle::kelNew(value);
}
[[nodiscard]] inline Kel::Ptr<RsvpNeighborIdHandle> rsvpNeighborIdHandleFactory(
    RsvpNeighborId const& value) {
  return RsvpNeighborIdHandle::kelNew(value);
}

// A handle that no table knows, frozen so that it may cross threads like a
// linked one (the table freezes those).
template <class Id>
[[nodiscard]] Kel::Ptr<RsvpIdHandle<Id>> rsvpIdHandleUnlinked(Id const& value) {
  Kel::Ptr<RsvpIdHandle<Id>> h = RsvpIdHandle<Id>::kelNew(value);
  h->frozenIs();
  return h;
}

// What the dedup table entities of one identifier add to the generated
// class `Self`: the base library's table they deduplicate through, and the
// typed dedup. A table made by its factory owns a table of its own, so it
// works at once; dedupTableIs() may point it at a table shared with other
// holders, which must outlive every dedup through this one.
template <class Self, class Id>
class RsvpIdDedupTableOps {
 public:
  using Handle = RsvpIdHandle<Id>;

  [[nodiscard]] Orv::DedupHashTable* dedupTable() const noexcept { return table_; }
  // Dedups from now on through `table`; null stops deduplication (every
  // dedup answers a new handle of its own). The table owned from the start
  // goes when another is set; the handles linked there stay valid and are
  // never handed out again.
  void dedupTableIs(Orv::DedupHashTable* table) {
    static_cast<Self const*>(this)->assertMutable();
    if (table == table_) return;
    table_ = table;
    own_.reset();
  }

  // The live handle equal to `value`, or a new one, linked: a candidate is
  // made and offered to the table, and dropped when the table answers an
  // older handle. Const: the entity does not change, the table is shared.
  [[nodiscard]] Kel::Ptr<Handle> dedupFromValue(Id const& value) const {
    if (!table_) return rsvpIdHandleUnlinked(value);
    return Handle::fromDedupHandle(
        table_->dedup(Kel::Ptr<Orv::DedupHandle>(Handle::kelNew(value))));
  }
  // The same from the identifier's attributes, in declaration order; a
  // value out of range raises the identifier's own error.
  template <class... Attrs>
  requires std::constructible_from<Id, Attrs&&...>
  [[nodiscard]] Kel::Ptr<Handle> dedupFromAttrs(Attrs&&... attrs) const {
    return dedupFromValue(Id(std::forward<Attrs>(attrs)...));
  }

 private:
  std::unique_ptr<Orv::DedupHashTable> own_ = std::make_unique<Orv::DedupHashTable>();
  Orv::DedupHashTable* table_ = own_.get();
};

// A value holding a reference to an identifier's handle and behaving like
// the identifier: the value seen is the handle's, or the identifier's
// default when the handle is null, and equality, order, hash and the null
// test are those of the value seen. The string form is the identifier's,
// "NOHANDLE" for a null handle; parsing makes a handle that no table knows
// (equality is by value, so it equals a deduplicated one).
template <class Derived, class Id>
class RsvpIdDeduped {
 public:
  using Handle = RsvpIdHandle<Id>;
  using Value = Id;

  RsvpIdDeduped() noexcept = default;
  explicit RsvpIdDeduped(Kel::Ptr<Handle> handle) noexcept : handle_(std::move(handle)) {}

  [[nodiscard]] Kel::Ptr<Handle> const& handle() const noexcept { return handle_; }
  void handleIs(Kel::Ptr<Handle> handle) noexcept { handle_ = std::move(handle); }
  [[nodiscard]] Id const& value() const noexcept { return handle_ ? handle_->value() : kDefault; }

  [[nodiscard]] Kel::U32 hash() const { return value().hash(); }
  [[nodiscard]] bool operator!() const { return !handle_ || !handle_->value(); }
  // Equal handles answer at once; distinct ones may still hold equal ids
  // (from two tables, or parsed).
  [[nodiscard]] friend bool operator==(Derived const& a, Derived const& b) {
    return a.handle_ == b.handle_ || a.value() == b.value();
  }
  [[nodiscard]] friend bool operator<(Derived const& a, Derived const& b) {
    return a.value() < b.value();
  }

  [[nodiscard]] Kel::String stringValue() const {
    Kel::String out;
    appendStrep(out, self());
    return out;
  }
  // Reads the whole of `text`; any bad text raises Kel::RangeException
  // "Invalid <Type>" and leaves the value unchanged.
  void stringValueIs(std::string_view text) {
    Derived parsed;
    try {
      parsed = Kel::strepToValue<Derived>(text);
    } catch (Kel::RangeException const&) {
      throw Kel::RangeException("Invalid " + Kel::String(RsvpIdDedupNames<Id>::deduped));
    }
    *this = std::move(parsed);
  }

  friend std::ostream& operator<<(std::ostream& os, Derived const& v) {
    return os << v.stringValue();
  }

  static constexpr std::string_view kNoHandle = "NOHANDLE";

 private:
  static inline Id const kDefault{};

  [[nodiscard]] Derived const& self() const noexcept { return static_cast<Derived const&>(*this); }

  Kel::Ptr<Handle> handle_;
};

class RsvpSessionIdDeduped : public RsvpIdDeduped<RsvpSessionIdDeduped, RsvpSessionId> {
 public:
  using RsvpIdDeduped::RsvpIdDeduped;
  [[nodiscard]] decltype(auto) dstIp() const { return value().dstIp(); }
  [[nodiscard]] decltype(auto) tunnelId() const { return value().tunnelId(); }
  [[nodiscard]] decltype(auto) extTunnelId() const { return value().extTunnelId(); }
};

class RsvpPathIdDeduped : public RsvpIdDeduped<RsvpPathIdDeduped, RsvpPathId> {
 public:
  using RsvpIdDeduped::RsvpIdDeduped;
  [[nodiscard]] Kel::U32 lspId() const { return value().lspId(); }
};

class RsvpNeighborIdDeduped : public RsvpIdDeduped<RsvpNeighborIdDeduped, RsvpNeighborId> {
 public:
  using RsvpIdDeduped::RsvpIdDeduped;
  [[nodiscard]] decltype(auto) neighborIp() const { return value().neighborIp(); }
};

// The three deduplicated values.
template <class T>
concept RsvpIdDedupedType = std::derived_from<T, RsvpIdDeduped<T, typename T::Value>>;

// Namespace functions, not hidden friends: generated code calls them by
// their qualified names.
template <RsvpIdDedupedType T>
constexpr std::string_view kelShortName(T const*) {
  return RsvpIdDedupNames<typename T::Value>::deduped;
}
template <RsvpIdDedupedType T>
void appendStrep(Kel::String& out, T const& v) {
  if (!v.handle()) {
    out += T::kNoHandle;
    return;
  }
  appendStrep(out, v.handle()->value());
}
// "NOHANDLE" or the identifier's form; the identifier's parse errors pass
// through, so that a nested form names what was expected.
template <RsvpIdDedupedType T>
void sequenceToValue(Kel::TextIt& it, Kel::TextIt end, T* out) {
  if (Kel::acceptLiteral(it, end, T::kNoHandle)) {
    out->handleIs(nullptr);
    return;
  }
  typename T::Value id;
  sequenceToValue(it, end, &id);
  out->handleIs(rsvpIdHandleUnlinked(id));
}
// The attribute log: a byte that says whether there is a handle, then the
// identifier, so that a replica prints what the source prints.
template <RsvpIdDedupedType T>
void kelLogWrite(Kel::LogOut& out, T const& v) {
  out.u8(v.handle() ? 1 : 0);
  if (v.handle()) kelLogWrite(out, v.handle()->value());
}
template <RsvpIdDedupedType T>
void kelLogRead(Kel::LogIn& in, T* v) {
  Kel::U8 const present = in.u8();
  if (present > 1) {
    throw Kel::RangeException("Invalid " + Kel::String(kelShortName(v)) + " in attribute log");
  }
  if (!present) {
    v->handleIs(nullptr);
    return;
  }
  typename T::Value id;
  kelLogRead(in, &id);
  v->handleIs(rsvpIdHandleUnlinked(id));
}

// The descriptors, for reflection and for schemas that hold these values.
extern Kel::TypeDesc const typeRsvpSessionIdDeduped;
extern Kel::TypeDesc const typeRsvpPathIdDeduped;
extern Kel::TypeDesc const typeRsvpNeighborIdDeduped;

}  // namespace Rsvp

#endif  // RSVP_RSVPIDDEDUPED_H
