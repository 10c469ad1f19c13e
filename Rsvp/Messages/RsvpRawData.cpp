// Raw byte buffers. Misuse is traced on the RsvpRawData facility with lines
// that begin "ERROR: " (level 0) and answered by false; the copies trace
// their arguments at level 8 and the bytes at level 9.
#include <Rsvp/RsvpRawData.h>
#include <Rsvp/RsvpTrace.h>

#include <algorithm>
#include <cstring>
#include <iomanip>
#include <limits>

namespace Rsvp {

namespace {

// The bytes in hexadecimal, for the trace.
std::string hex(Kel::U8 const* p, std::size_t n) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string out;
  out.reserve(2 * n);
  for (std::size_t i = 0; i < n; ++i) {
    out += kDigits[p[i] >> 4];
    out += kDigits[p[i] & 0xf];
  }
  return out;
}

}  // namespace

Kel::U16 RsvpRawData::size() const { return size_; }

Kel::U8 const* RsvpRawData::data() const noexcept { return data_.get(); }

bool RsvpRawData::copyFrom(Kel::U8 const* src, Kel::U16 len) {
  RSVP_TRACE(rawDataTrace(), 8, "copyFrom len=" << len << " ptr=" << static_cast<void const*>(src));
  if (src == nullptr) {
    RSVP_TRACE(rawDataTrace(), 0, "ERROR: Cannot copy from null source");
    return false;
  }
  // A source inside this buffer stays valid until the copy is made.
  std::unique_ptr<Kel::U8[]> fresh;
  if (len != 0) {
    fresh = std::make_unique<Kel::U8[]>(len);  // zero-filled, then overwritten
    std::memcpy(fresh.get(), src, len);
  }
  deleteData();
  data_ = std::move(fresh);
  size_ = len;
  RSVP_TRACE(rawDataTrace(), 9, "copyFrom data=" << hex(data_.get(), size_));
  return true;
}

bool RsvpRawData::copyTo(Kel::U8* dst, Kel::U16 len) const {
  RSVP_TRACE(rawDataTrace(), 8,
             "copyTo len=" << len << " ptr=" << static_cast<void const*>(dst) << " size=" << size_);
  if (dst == nullptr) {
    RSVP_TRACE(rawDataTrace(), 0, "ERROR: Cannot copy to null destination");
    return false;
  }
  if (len == 0) {
    RSVP_TRACE(rawDataTrace(), 0, "ERROR: Cannot copy 0 bytes");
    return false;
  }
  if (size_ == 0) {
    RSVP_TRACE(rawDataTrace(), 0, "ERROR: Cannot copy empty data");
    return false;
  }
  std::size_t const n = std::min<std::size_t>(size_, len);
  std::memcpy(dst, data_.get(), n);
  RSVP_TRACE(rawDataTrace(), 9, "copyTo data=" << hex(data_.get(), n));
  return true;
}

Kel::String RsvpRawData::stringValue() const {
  return size_ == 0 ? Kel::String()
                    : Kel::String(reinterpret_cast<char const*>(data_.get()), size_);
}

void RsvpRawData::stringValueIs(std::string_view text) {
  if (text.size() > std::numeric_limits<Kel::U16>::max()) {
    RSVP_TRACE(rawDataTrace(), 0, "ERROR: Cannot copy more than 65535 bytes");
    return;
  }
  // The text's bytes, or any valid pointer for an empty text.
  auto const* src = text.empty() ? reinterpret_cast<Kel::U8 const*>("")
                                 : reinterpret_cast<Kel::U8 const*>(text.data());
  copyFrom(src, static_cast<Kel::U16>(text.size()));
}

bool RsvpRawData::equal(Kel::Ptr<RsvpRawData const> const& other) const {
  if (!other) return false;
  if (size_ != other->size_) return false;
  return size_ == 0 || std::memcmp(data_.get(), other->data_.get(), size_) == 0;
}

void RsvpRawData::deleteData() {
  data_.reset();
  size_ = 0;
}

}  // namespace Rsvp
