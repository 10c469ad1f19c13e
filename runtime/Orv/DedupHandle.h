// Deduplicated handles: immutable, reference-counted entities of which a
// DedupHashTable keeps one live handle per value, so that every holder of a
// value shares one object. Typed handles (an identifier's handle, holding the
// identifier with its hash) derive from DedupHandle.
//
//   Kel::Ptr<SessionIdHandle> h = table.dedup(Kel::Ptr<SessionIdHandle>(new SessionIdHandle(id)));
//
// See docs/DEDUP.md for the lifetime rules and the thread guarantees.
#ifndef ORV_DEDUPHANDLE_H
#define ORV_DEDUPHANDLE_H

#include <Kel/Entity.h>
#include <Kel/TypeDesc.h>
#include <Kel/Types.h>

#include <utility>

namespace Orv {

class DedupHandle;
class DedupHashTable;

// The table's link inside a handle. Written only under the table's lock.
struct DedupHook {
  DedupHandle* next = nullptr;      // the next handle of the bucket (chained layout)
  DedupHashTable* table = nullptr;  // the table linked into, null when not linked
  Kel::U32 rhash = 0;               // the bit-reversed dedupHash(), taken when linked

  [[nodiscard]] bool is_linked() const noexcept { return table != nullptr; }
};

// The descriptor of the base: an entity type without attributes. Typed
// handles answer their own from fwkType().
extern Kel::TypeDesc const typeDedupHandle;

// A value held once per table. The table does not keep a handle alive: when
// the last reference goes, the handle leaves its table and is destroyed, and
// a later dedup of an equal value links a new one. A handle's value must not
// change while it is linked (dedupHash() and dedupEquals() read it from any
// thread); the table freezes the entity when it links it.
//
// Handles are made with new and held by Kel::Ptr, like every entity.
// Destroying one that is still linked is a fatal error ("!hook.is_linked()").
class DedupHandle : public Kel::Entity {
 public:
  // Where a handle stands: never linked, linked, or gone from its table (by
  // release or by the table's destruction; it is never linked again).
  enum class DedupState : Kel::U8 { detached = 0, linked = 1, released = 2 };

  // Flag bits of the count word (the count takes the bits below 28): a
  // two-bit DedupState, whether onLifeTimeEnd() is wanted, and whether the
  // handle is on its way out of its table.
  static constexpr unsigned dedupHandleStateBitPos = 28;
  static constexpr unsigned haveLifeTimeNotifierBitPos = 30;
  static constexpr unsigned unlinkingBitPos = 31;
  static_assert(dedupHandleStateBitPos >= countBits);

  // The hash and equality of the values. Handles of several types may share
  // a table: dedupEquals() answers false for a handle of another type.
  [[nodiscard]] virtual Kel::U32 dedupHash() const noexcept = 0;
  [[nodiscard]] virtual bool dedupEquals(DedupHandle const& other) const noexcept = 0;

  [[nodiscard]] DedupState dedupState() const noexcept {
    return static_cast<DedupState>(refBits<dedupHandleStateBitPos, 2>());
  }
  // Set from the moment the last reference went until the handle is gone.
  [[nodiscard]] bool unlinking() const noexcept { return refFlag<unlinkingBitPos>(); }

  // Whether onLifeTimeEnd() is called when the last reference goes. Off by
  // default, so that handles that need no notice cost no call.
  [[nodiscard]] bool hasLifeTimeNotifier() const noexcept {
    return refFlag<haveLifeTimeNotifierBitPos>();
  }
  void hasLifeTimeNotifierIs(bool on) noexcept { refFlagIs<haveLifeTimeNotifierBitPos>(on); }

  [[nodiscard]] Kel::TypeDesc const& fwkType() const noexcept override { return typeDedupHandle; }

 protected:
  explicit DedupHandle(Kel::Name name) : Entity(std::move(name)) {}
  ~DedupHandle() override;

  // Called once when the last reference goes, if hasLifeTimeNotifier(), in
  // the thread that dropped it, while the handle is still linked but is no
  // longer handed out (a dedup of an equal value from here makes a new
  // handle). It may take a reference to the handle and drop it again; keeping
  // one is a fatal error.
  virtual void onLifeTimeEnd() const noexcept {}

 private:
  friend class DedupHashTable;

  void onZeroReferences() const noexcept final;
  // A reference unless the count is zero or the handle is being unlinked.
  [[nodiscard]] bool tryRef() const noexcept {
    return newRefUnless(Kel::U32{1} << unlinkingBitPos);
  }
  void dedupStateIs(DedupState s) const noexcept {
    refBitsIs<dedupHandleStateBitPos, 2>(static_cast<Kel::U32>(s));
  }

  mutable DedupHook hook_;
};

}  // namespace Orv

#endif  // ORV_DEDUPHANDLE_H
