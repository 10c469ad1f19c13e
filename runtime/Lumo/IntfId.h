// The name of a network interface ("eth0", "ge-0/0/1.100"), or the empty
// name for no interface. Names are limited to a safe character set so that
// they print and parse without quoting.
#ifndef LUMO_INTFID_H
#define LUMO_INTFID_H

#include <Kel/Hash.h>
#include <Kel/Text.h>
#include <Kel/Types.h>

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

  [[nodiscard]] static bool isNameChar(char c) noexcept;
  [[nodiscard]] Kel::String const& name() const noexcept { return name_; }
  [[nodiscard]] bool empty() const noexcept { return name_.empty(); }

  // One-at-a-time over the bytes of the name, finished.
  [[nodiscard]] Kel::U32 hash() const noexcept {
    Kel::OneAtATime h;
    h.addBytes(name_.data(), name_.size());
    return h.finish();
  }

  [[nodiscard]] Kel::String stringValue() const { return name_; }

  // A length byte, then the bytes of the name.
  [[nodiscard]] std::size_t wireSize() const noexcept { return 1 + name_.size(); }
  void toNetwork(Kel::U8* out) const noexcept;
  // Raises Kel::RangeException when fewer bytes are available than the length
  // byte announces, and "Invalid IntfId" on a character outside the set.
  [[nodiscard]] static IntfId fromNetwork(Kel::U8 const* in, std::size_t avail);

  friend bool operator==(IntfId const& a, IntfId const& b) noexcept { return a.name_ == b.name_; }
  // Byte-wise lexicographic, as std::string compares.
  friend bool operator<(IntfId const& a, IntfId const& b) noexcept { return a.name_ < b.name_; }

 private:
  friend void sequenceToValue(Kel::TextIt& it, Kel::TextIt end, IntfId* out);

  Kel::String name_;
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
