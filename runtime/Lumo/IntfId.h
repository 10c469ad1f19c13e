// The name of a network interface ("eth0", "ge-0/0/1.100"), or the empty
// name for no interface. Names are limited to a safe character set so that
// they print and parse without quoting.
#ifndef LUMO_INTFID_H
#define LUMO_INTFID_H

#include <Kel/Hash.h>
#include <Kel/Text.h>
#include <Kel/Types.h>

#include <atomic>
#include <cstddef>
#include <iosfwd>
#include <string_view>

namespace Lumo {

class IntfId {
 public:
  // The length byte caps a name at 255 bytes.
  static constexpr std::size_t maxSize = 255;

  // No interface.
  IntfId() noexcept = default;
  // Raises Kel::RangeException "Invalid IntfId" unless `name` is at most 255
  // bytes of [A-Za-z0-9/._:-].
  explicit IntfId(std::string_view name);
  IntfId(IntfId const& o) noexcept : rec_(o.rec_) { hold(rec_); }
  IntfId(IntfId&& o) noexcept : rec_(o.rec_) { o.rec_ = nullptr; }
  IntfId& operator=(IntfId const& o) noexcept {
    hold(o.rec_);
    release(rec_);
    rec_ = o.rec_;
    return *this;
  }
  IntfId& operator=(IntfId&& o) noexcept {
    if (this != &o) {
      release(rec_);
      rec_ = o.rec_;
      o.rec_ = nullptr;
    }
    return *this;
  }
  ~IntfId() { release(rec_); }

  [[nodiscard]] static bool isNameChar(char c) noexcept;
  [[nodiscard]] Kel::String const& name() const noexcept { return rec_ ? rec_->name : emptyName(); }
  [[nodiscard]] bool empty() const noexcept { return rec_ == nullptr; }

  // One-at-a-time over the bytes of the name, finished.
  [[nodiscard]] Kel::U32 hash() const noexcept { return rec_ ? rec_->hash : emptyHash(); }

  [[nodiscard]] Kel::String stringValue() const { return name(); }

  // A length byte, then the bytes of the name.
  [[nodiscard]] std::size_t wireSize() const noexcept { return 1 + name().size(); }
  void toNetwork(Kel::U8* out) const noexcept;
  // Raises Kel::RangeException when fewer bytes are available than the length
  // byte announces, and "Invalid IntfId" on a character outside the set.
  [[nodiscard]] static IntfId fromNetwork(Kel::U8 const* in, std::size_t avail);

  // Names are interned: equal names share one record.
  friend bool operator==(IntfId const& a, IntfId const& b) noexcept { return a.rec_ == b.rec_; }
  // Byte-wise lexicographic, as std::string compares.
  friend bool operator<(IntfId const& a, IntfId const& b) noexcept {
    return a.rec_ != b.rec_ && a.name() < b.name();
  }

  // How many distinct names are interned in the process (for tests).
  [[nodiscard]] static std::size_t internedCount() noexcept;

 private:
  friend void sequenceToValue(Kel::TextIt& it, Kel::TextIt end, IntfId* out);

  // A router has a few hundred interfaces and holds their names in every
  // message and state block: each name is kept once in the process, counted
  // by the values that hold it, and freed with the last of them.
  struct Rec {
    std::atomic<Kel::U32> refs;
    Kel::U32 hash;
    Kel::String name;
  };

  static Kel::String const& emptyName() noexcept;
  static Kel::U32 emptyHash() noexcept;
  // The record of a valid, nonempty name, counted once for the caller.
  static Rec* intern(std::string_view name);
  static void hold(Rec* r) noexcept {
    if (r) r->refs.fetch_add(1, std::memory_order_relaxed);
  }
  static void release(Rec* r) noexcept {
    if (!r) return;
    // Counts above one drop without the table's lock; the last one drops
    // under it, so that a name found in the table is never freed meanwhile.
    Kel::U32 n = r->refs.load(std::memory_order_relaxed);
    while (n > 1) {
      if (r->refs.compare_exchange_weak(n, n - 1, std::memory_order_acq_rel)) return;
    }
    releaseLast(r);
  }
  static void releaseLast(Rec* r) noexcept;

  Rec* rec_ = nullptr;  // null: the empty name
};

constexpr std::string_view kelShortName(IntfId const*) { return "IntfId"; }

// The name itself, possibly empty.
void appendStrep(Kel::String& out, IntfId const& v);
// Reads the longest run of name characters, which may be empty. A run
// longer than 255 bytes raises "Invalid IntfId" and leaves `it` and `*out` alone.
void sequenceToValue(Kel::TextIt& it, Kel::TextIt end, IntfId* out);

std::ostream& operator<<(std::ostream& os, IntfId const& v);

}  // namespace Lumo

#endif  // LUMO_INTFID_H
