// Intrusive reference counting: `PtrInterface` carries the count and
// `Ptr<T>` holds one reference. Entities are owned this way; an entity lives
// while any `Ptr` refers to it.
//
//   Kel::Ptr<RsvpSpIdSet> set = RsvpSpIdSet::newRsvpSpIdSet("set");
//   Kel::Ptr<RsvpSpIdSet const> view = set;   // pointer to const shares the count
//
// Threads. Without KEL_THREAD_SAFE_PTR the count is a plain integer and
// every entity, with every pointer to it, belongs to one thread. With it
// (CMake option RSVP_THREAD_SAFE_PTR) the count is atomic, and:
// - An entity that is not frozen belongs to one thread at a time: only that
//   thread reads or changes it, registers notifiees with it, or copies and
//   drops pointers to it. A tree may move to another thread as a whole (with
//   its notifiees and the writer that publishes it), through something that
//   synchronises: a mutex, a locked queue, starting or joining a thread.
// - A frozen entity (Entity::frozenIs()) may be shared: any number of threads
//   may read it, copy and drop pointers to it, and refer to it from their own
//   trees, at once; the last pointer dropped destroys it, in whichever
//   thread. The thread it belonged to freezes it before handing it over, and
//   hands it over through something that synchronises. Share entities whose
//   parent is null or frozen: a message and what it holds.
// - The parent link is the one thing of a frozen entity that still changes:
//   an owner clears it when it goes. A thread that holds a frozen child
//   without its owner does not ask for its parent() or fullName().
// - A Kel::LogWriter that meets a frozen entity (its tree refers to it)
//   registers nothing with it: it holds a pointer and reads it when writing.
// - One Ptr variable is used by one thread at a time, like any object; the
//   threads share the entity, each through its own Ptr.
#ifndef KEL_PTR_H
#define KEL_PTR_H

#include <Kel/Assert.h>
#include <Kel/Types.h>

#include <cstddef>
#include <type_traits>
#include <utility>

#if KEL_THREAD_SAFE_PTR
#include <atomic>
#endif

namespace Kel {

// The reference count and, in its top bits, flags that a derived class may
// use (Orv::DedupHandle keeps its table state there, so that it changes
// atomically with the count). The count takes the low `countBits` bits: at
// most 2^28 - 1 references to one object at once.
class PtrInterface {
 public:
  static constexpr unsigned countBits = 28;
  static constexpr U32 countMask = (U32{1} << countBits) - 1;

  PtrInterface() = default;
  // The count belongs to the object, not to its value: copies start at zero.
  PtrInterface(PtrInterface const&) noexcept {}
  PtrInterface& operator=(PtrInterface const&) noexcept { return *this; }

  [[nodiscard]] U32 references() const noexcept { return word() & countMask; }

  // One add, whatever the flags: they sit above the count.
  void newRef() const noexcept {
#if KEL_THREAD_SAFE_PTR
    refCount_.fetch_add(1, std::memory_order_relaxed);
#else
    ++refCount_;
#endif
  }

  // Drops one reference; the last one destroys the object.
  void deleteRef() const noexcept {
    KEL_ASSERT(references() > 0 && "Reference count is already zero.");
#if KEL_THREAD_SAFE_PTR
    if ((refCount_.fetch_sub(1, std::memory_order_acq_rel) & countMask) == 1) onZeroReferences();
#else
    if ((--refCount_ & countMask) == 0) onZeroReferences();
#endif
  }

 protected:
  virtual ~PtrInterface() = default;
  // Called when the count reaches zero; destroys the object by default. A
  // derived class that keeps the object alive past this call must not let
  // anyone take a reference and drop it again unless it expects a second call.
  virtual void onZeroReferences() const noexcept { delete this; }

  // The flag bits above the count. Each changes with one atomic operation
  // in the thread-safe mode, so flags and count never overwrite each other.
  template <unsigned Pos>
  [[nodiscard]] bool refFlag() const noexcept {
    static_assert(Pos >= countBits && Pos < 32, "a flag lives above the count");
    return (word() >> Pos & 1u) != 0;
  }
  // Sets or clears the flag; answers whether it was set before.
  template <unsigned Pos>
  bool refFlagIs(bool on) const noexcept {
    static_assert(Pos >= countBits && Pos < 32, "a flag lives above the count");
    constexpr U32 bit = U32{1} << Pos;
#if KEL_THREAD_SAFE_PTR
    U32 const old = on ? refCount_.fetch_or(bit, std::memory_order_acq_rel)
                       : refCount_.fetch_and(~bit, std::memory_order_acq_rel);
#else
    U32 const old = refCount_;
    refCount_ = on ? old | bit : old & ~bit;
#endif
    return (old & bit) != 0;
  }
  // A field of `Width` flag bits from `Pos`.
  template <unsigned Pos, unsigned Width>
  [[nodiscard]] U32 refBits() const noexcept {
    static_assert(Pos >= countBits && Width > 0 && Pos + Width <= 32,
                  "a field lives above the count");
    return word() >> Pos & ((U32{1} << Width) - 1);
  }
  template <unsigned Pos, unsigned Width>
  void refBitsIs(U32 value) const noexcept {
    static_assert(Pos >= countBits && Width > 0 && Pos + Width <= 32,
                  "a field lives above the count");
    constexpr U32 mask = ((U32{1} << Width) - 1) << Pos;
    U32 const bits = value << Pos & mask;
#if KEL_THREAD_SAFE_PTR
    U32 old = refCount_.load(std::memory_order_relaxed);
    while (!refCount_.compare_exchange_weak(old, (old & ~mask) | bits, std::memory_order_acq_rel,
                                            std::memory_order_relaxed)) {
    }
#else
    refCount_ = (refCount_ & ~mask) | bits;
#endif
  }
  // Takes a reference unless the count is zero or a flag of `refusing` is
  // set, in one atomic step; answers whether it took one. This is how a
  // table that holds objects without counting them hands one out.
  [[nodiscard]] bool newRefUnless(U32 refusing) const noexcept {
#if KEL_THREAD_SAFE_PTR
    U32 old = refCount_.load(std::memory_order_relaxed);
    do {
      if ((old & countMask) == 0 || (old & refusing) != 0) return false;
    } while (!refCount_.compare_exchange_weak(old, old + 1, std::memory_order_acquire,
                                              std::memory_order_relaxed));
    return true;
#else
    if ((refCount_ & countMask) == 0 || (refCount_ & refusing) != 0) return false;
    ++refCount_;
    return true;
#endif
  }

 private:
  [[nodiscard]] U32 word() const noexcept {
#if KEL_THREAD_SAFE_PTR
    return refCount_.load(std::memory_order_relaxed);
#else
    return refCount_;
#endif
  }

#if KEL_THREAD_SAFE_PTR
  mutable std::atomic<U32> refCount_{0};
#else
  mutable U32 refCount_ = 0;
#endif
};

// One counted reference to a T (which may be const). Null by default.
template <class T>
class Ptr {
 public:
  constexpr Ptr() noexcept = default;
  constexpr Ptr(std::nullptr_t) noexcept {}  // NOLINT: implicit on purpose, like a raw pointer
  Ptr(T* p) noexcept : p_(p) {               // NOLINT: implicit on purpose
    if (p_) p_->newRef();
  }
  Ptr(Ptr const& o) noexcept : Ptr(o.p_) {}
  Ptr(Ptr&& o) noexcept : p_(std::exchange(o.p_, nullptr)) {}
  // From a pointer to a derived type, or from non-const to const.
  template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
  Ptr(Ptr<U> const& o) noexcept : Ptr(o.get()) {}  // NOLINT: implicit on purpose
  template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
  Ptr(Ptr<U>&& o) noexcept : p_(o.release()) {}  // NOLINT: implicit on purpose
  ~Ptr() {
    if (p_) p_->deleteRef();
  }

  Ptr& operator=(Ptr const& o) noexcept {
    Ptr(o).swap(*this);
    return *this;
  }
  Ptr& operator=(Ptr&& o) noexcept {
    Ptr(std::move(o)).swap(*this);
    return *this;
  }
  Ptr& operator=(T* p) noexcept {
    Ptr(p).swap(*this);
    return *this;
  }

  [[nodiscard]] T* get() const noexcept { return p_; }
  [[nodiscard]] T* operator->() const noexcept {
    KEL_ASSERT(p_ && "Dereferencing a null Kel::Ptr.");
    return p_;
  }
  [[nodiscard]] T& operator*() const noexcept {
    KEL_ASSERT(p_ && "Dereferencing a null Kel::Ptr.");
    return *p_;
  }
  explicit operator bool() const noexcept { return p_ != nullptr; }
  [[nodiscard]] bool operator!() const noexcept { return p_ == nullptr; }

  void swap(Ptr& o) noexcept { std::swap(p_, o.p_); }
  // Gives up the reference without dropping it; the caller now owns it.
  [[nodiscard]] T* release() noexcept { return std::exchange(p_, nullptr); }
  // Takes over a reference the caller already holds (from release() or
  // PtrInterface::newRefUnless()), without counting it again.
  [[nodiscard]] static Ptr adopt(T* p) noexcept {
    Ptr out;
    out.p_ = p;
    return out;
  }

 private:
  T* p_ = nullptr;
};

template <class T, class U>
bool operator==(Ptr<T> const& a, Ptr<U> const& b) noexcept {
  return a.get() == b.get();
}
template <class T>
bool operator==(Ptr<T> const& a, std::nullptr_t) noexcept {
  return !a;
}
template <class T, class U>
bool operator==(Ptr<T> const& a, U const* b) noexcept {
  return a.get() == b;
}

// Casts between pointers of the same hierarchy, keeping the count.
template <class T, class U>
Ptr<T> ptrStaticCast(Ptr<U> const& p) noexcept {
  return Ptr<T>(static_cast<T*>(p.get()));
}
template <class T, class U>
Ptr<T> ptrDynamicCast(Ptr<U> const& p) noexcept {
  return Ptr<T>(dynamic_cast<T*>(p.get()));
}
template <class T>
Ptr<std::remove_const_t<T>> ptrConstCast(Ptr<T> const& p) noexcept {
  return Ptr<std::remove_const_t<T>>(const_cast<std::remove_const_t<T>*>(p.get()));
}

}  // namespace Kel

#endif  // KEL_PTR_H
