// The id of a tunnel in the forwarding agent's tunnel table: a 32-bit index,
// 0 for none. Stands in for the platform's tunnel library, where TunnelTable
// is the table's own scope (docs/PLATFORM.md); here it is a namespace.
#ifndef TUNNEL_TUNNELID_H
#define TUNNEL_TUNNELID_H

#include <Kel/Hash.h>
#include <Kel/Text.h>
#include <Kel/TypeDesc.h>
#include <Kel/Types.h>

#include <cstddef>
#include <iosfwd>
#include <string_view>

namespace Tunnel::TunnelTable {

class TunnelId {
 public:
  // A big-endian 32-bit word.
  static constexpr std::size_t wireSize = 4;

  constexpr TunnelId() noexcept = default;
  constexpr explicit TunnelId(Kel::U32 index) noexcept : index_(index) {}

  [[nodiscard]] constexpr Kel::U32 index() const noexcept { return index_; }
  void indexIs(Kel::U32 index) noexcept { index_ = index; }

  // The index as a 4-byte word, finished.
  [[nodiscard]] constexpr Kel::U32 hash() const noexcept {
    Kel::OneAtATime h;
    h.addU32(index_);
    return h.finish();
  }

  [[nodiscard]] Kel::String stringValue() const;
  // Reads the whole of `text`; raises Kel::RangeException ("Invalid TunnelId" for
  // text left over) and keeps the old value on failure.
  void stringValueIs(std::string_view text);

  void toNetwork(Kel::U8* out) const noexcept;
  // Raises Kel::RangeException on truncation.
  [[nodiscard]] static TunnelId fromNetwork(Kel::U8 const* in, std::size_t avail);

  friend constexpr bool operator==(TunnelId a, TunnelId b) noexcept { return a.index_ == b.index_; }
  friend constexpr bool operator<(TunnelId a, TunnelId b) noexcept { return a.index_ < b.index_; }

 private:
  Kel::U32 index_ = 0;
};

constexpr std::string_view kelShortName(TunnelId const*) { return "TunnelId"; }

// The index in decimal.
void appendStrep(Kel::String& out, TunnelId const& v);
// Reads a decimal number up to 4294967295; otherwise raises the U32 parser's
// error.
void sequenceToValue(Kel::TextIt& it, Kel::TextIt end, TunnelId* out);

std::ostream& operator<<(std::ostream& os, TunnelId const& v);

// The descriptor, for reflection.
extern Kel::TypeDesc const typeTunnelId;

}  // namespace Tunnel::TunnelTable

#endif  // TUNNEL_TUNNELID_H
