// The key of a path computed by the constrained shortest-path computation:
// the tunnel's source, its destination and its tunnel id. Stands in for the
// platform's CSPF library (docs/PLATFORM.md).
#ifndef CSPF_PATHKEY_H
#define CSPF_PATHKEY_H

#include <Kel/Hash.h>
#include <Kel/Text.h>
#include <Kel/TypeDesc.h>
#include <Kel/Types.h>
#include <Lumo/IpGenAddr.h>

#include <cstddef>
#include <iosfwd>
#include <string_view>

namespace Cspf {

class PathKey {
 public:
  // Both addresses in the attribute-log encoding of Lumo::IpGenAddr, then the
  // tunnel id as a big-endian 16-bit word.
  static constexpr std::size_t wireSize = 2 * Lumo::IpGenAddr::wireSize + 2;

  PathKey() noexcept = default;
  PathKey(Lumo::IpGenAddr const& src, Lumo::IpGenAddr const& dst, Kel::U16 tunnelId) noexcept
      : src_(src), dst_(dst), tunnelId_(tunnelId) {}

  [[nodiscard]] Lumo::IpGenAddr const& src() const noexcept { return src_; }
  [[nodiscard]] Lumo::IpGenAddr const& dst() const noexcept { return dst_; }
  [[nodiscard]] Kel::U16 tunnelId() const noexcept { return tunnelId_; }
  void srcIs(Lumo::IpGenAddr const& src) noexcept { src_ = src; }
  void dstIs(Lumo::IpGenAddr const& dst) noexcept { dst_ = dst; }
  void tunnelIdIs(Kel::U16 tunnelId) noexcept { tunnelId_ = tunnelId; }

  // The addresses' hashes as 4-byte words, then the tunnel id, finished.
  [[nodiscard]] Kel::U32 hash() const noexcept {
    Kel::OneAtATime h;
    h.addU32(src_.hash());
    h.addU32(dst_.hash());
    h.addU16(tunnelId_);
    return h.finish();
  }

  [[nodiscard]] Kel::String stringValue() const;
  // Reads the whole of `text`; raises Kel::RangeException ("Invalid PathKey" for
  // text left over) and keeps the old value on failure.
  void stringValueIs(std::string_view text);

  void toNetwork(Kel::U8* out) const noexcept;
  // Raises Kel::RangeException on truncation and on a bad address family.
  [[nodiscard]] static PathKey fromNetwork(Kel::U8 const* in, std::size_t avail);

  friend bool operator==(PathKey const& a, PathKey const& b) noexcept {
    return a.src_ == b.src_ && a.dst_ == b.dst_ && a.tunnelId_ == b.tunnelId_;
  }
  // Source, then destination, then tunnel id.
  friend bool operator<(PathKey const& a, PathKey const& b) noexcept {
    if (!(a.src_ == b.src_)) return a.src_ < b.src_;
    if (!(a.dst_ == b.dst_)) return a.dst_ < b.dst_;
    return a.tunnelId_ < b.tunnelId_;
  }

 private:
  Lumo::IpGenAddr src_;
  Lumo::IpGenAddr dst_;
  Kel::U16 tunnelId_ = 0;
};

constexpr std::string_view kelShortName(PathKey const*) { return "PathKey"; }

// "<src=10.0.0.1>_<dst=10.0.0.2>_<tunnelId=7>"; an unspecified address is empty.
void appendStrep(Kel::String& out, PathKey const& v);
// Reads that form; a bad field raises its own error naming the attribute.
void sequenceToValue(Kel::TextIt& it, Kel::TextIt end, PathKey* out);

std::ostream& operator<<(std::ostream& os, PathKey const& v);

// The descriptor, for reflection.
extern Kel::TypeDesc const typePathKey;

}  // namespace Cspf

#endif  // CSPF_PATHKEY_H
