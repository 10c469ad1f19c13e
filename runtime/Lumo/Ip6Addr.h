// An IPv6 address: sixteen bytes in network order. Its hash is the address
// hash on which every hash of the model that holds an address is built.
#ifndef LUMO_IP6ADDR_H
#define LUMO_IP6ADDR_H

#include <Kel/Hash.h>
#include <Kel/Text.h>
#include <Kel/Types.h>
#include <Lumo/NetSupport.h>

#include <array>
#include <cstddef>
#include <cstring>
#include <iosfwd>
#include <string_view>
#include <type_traits>

namespace Lumo {

class Ip6Addr {
 public:
  using Bytes = std::array<Kel::U8, 16>;

  static constexpr std::size_t wireSize = 16;

  // The all-zero address "::".
  constexpr Ip6Addr() noexcept = default;
  constexpr explicit Ip6Addr(Bytes const& bytes) noexcept : bytes_(bytes) {}
  // Parses the whole text (full or compressed form, an optional trailing
  // dotted quad); anything else raises Kel::RangeException.
  explicit Ip6Addr(std::string_view text);

  [[nodiscard]] constexpr Bytes const& bytes() const noexcept { return bytes_; }

  // One-at-a-time over the sixteen bytes in memory order, finished.
  [[nodiscard]] Kel::U32 hash() const noexcept {
    Kel::OneAtATime h;
    h.addBytes(bytes_.data(), bytes_.size());
    return h.finish();
  }

  [[nodiscard]] Kel::String stringValue() const;

  void toNetwork(Kel::U8* out) const noexcept { std::memcpy(out, bytes_.data(), wireSize); }
  [[nodiscard]] static Ip6Addr fromNetwork(Kel::U8 const* in, std::size_t avail);

  friend bool operator==(Ip6Addr const& a, Ip6Addr const& b) noexcept {
    return std::memcmp(a.bytes_.data(), b.bytes_.data(), wireSize) == 0;
  }
  // Unsigned byte order, done as two big-endian words instead of a memcmp call.
  friend bool operator<(Ip6Addr const& a, Ip6Addr const& b) noexcept {
    Kel::U64 const ah = detail::loadBe64(a.bytes_.data());
    Kel::U64 const bh = detail::loadBe64(b.bytes_.data());
    if (ah != bh) return ah < bh;
    return detail::loadBe64(a.bytes_.data() + 8) < detail::loadBe64(b.bytes_.data() + 8);
  }

 private:
  Bytes bytes_{};
};

static_assert(sizeof(Ip6Addr) == Ip6Addr::wireSize);
static_assert(std::is_trivially_copyable_v<Ip6Addr>);

constexpr std::string_view kelShortName(Ip6Addr const*) { return "Ip6Addr"; }

// The canonical IPv6 form ("2001:db8::1", "::").
void appendStrep(Kel::String& out, Ip6Addr const& v);
// Reads the longest run of [0-9a-fA-F.:]; when it is no IPv6 address raises
// "Invalid Ip6Addr '<run>'" and leaves `it` and `*out` alone.
void sequenceToValue(Kel::TextIt& it, Kel::TextIt end, Ip6Addr* out);

std::ostream& operator<<(std::ostream& os, Ip6Addr const& v);

}  // namespace Lumo

#endif  // LUMO_IP6ADDR_H
