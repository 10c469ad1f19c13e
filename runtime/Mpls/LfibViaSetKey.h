// The key of a via set in the label forwarding table: an opaque 64-bit id
// that the forwarding agent hands out, 0 for none. Stands in for the
// platform's MPLS library (docs/PLATFORM.md).
#ifndef MPLS_LFIBVIASETKEY_H
#define MPLS_LFIBVIASETKEY_H

#include <Kel/Hash.h>
#include <Kel/Text.h>
#include <Kel/TypeDesc.h>
#include <Kel/Types.h>

#include <cstddef>
#include <iosfwd>
#include <string_view>

namespace Mpls {

class LfibViaSetKey {
 public:
  // A big-endian 64-bit word.
  static constexpr std::size_t wireSize = 8;

  constexpr LfibViaSetKey() noexcept = default;
  constexpr explicit LfibViaSetKey(Kel::U64 id) noexcept : id_(id) {}

  [[nodiscard]] constexpr Kel::U64 id() const noexcept { return id_; }
  void idIs(Kel::U64 id) noexcept { id_ = id; }

  // The id as an 8-byte word, finished.
  [[nodiscard]] constexpr Kel::U32 hash() const noexcept {
    Kel::OneAtATime h;
    h.addU64(id_);
    return h.finish();
  }

  [[nodiscard]] Kel::String stringValue() const;
  // Reads the whole of `text`; raises Kel::RangeException ("Invalid LfibViaSetKey" for
  // text left over) and keeps the old value on failure.
  void stringValueIs(std::string_view text);

  void toNetwork(Kel::U8* out) const noexcept;
  // Raises Kel::RangeException on truncation.
  [[nodiscard]] static LfibViaSetKey fromNetwork(Kel::U8 const* in, std::size_t avail);

  friend constexpr bool operator==(LfibViaSetKey a, LfibViaSetKey b) noexcept {
    return a.id_ == b.id_;
  }
  friend constexpr bool operator<(LfibViaSetKey a, LfibViaSetKey b) noexcept {
    return a.id_ < b.id_;
  }

 private:
  Kel::U64 id_ = 0;
};

constexpr std::string_view kelShortName(LfibViaSetKey const*) { return "LfibViaSetKey"; }

// The id in decimal.
void appendStrep(Kel::String& out, LfibViaSetKey const& v);
// Reads a decimal number up to 18446744073709551615; otherwise raises the
// U64 parser's error.
void sequenceToValue(Kel::TextIt& it, Kel::TextIt end, LfibViaSetKey* out);

std::ostream& operator<<(std::ostream& os, LfibViaSetKey const& v);

// The descriptor, for reflection.
extern Kel::TypeDesc const typeLfibViaSetKey;

}  // namespace Mpls

#endif  // MPLS_LFIBVIASETKEY_H
