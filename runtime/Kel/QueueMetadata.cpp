#include <Kel/QueueMetadata.h>
#include <Kel/RangeException.h>
#include <Kel/Reflect.h>

#include <ostream>
#include <string>

namespace Kel {

namespace {

void storeBe32(U8* out, U32 v) noexcept {
  out[0] = static_cast<U8>(v >> 24);
  out[1] = static_cast<U8>(v >> 16);
  out[2] = static_cast<U8>(v >> 8);
  out[3] = static_cast<U8>(v);
}

U32 loadBe32(U8 const* in) noexcept {
  return (U32{in[0]} << 24) | (U32{in[1]} << 16) | (U32{in[2]} << 8) | U32{in[3]};
}

constexpr std::string_view kFields[] = {"{'head': ", ", 'next': ", ", 'count': "};

}  // namespace

void QueueMetadata::toNetwork(U8* out) const noexcept {
  storeBe32(out, head_);
  storeBe32(out + 4, next_);
  storeBe32(out + 8, count_);
}

QueueMetadata QueueMetadata::fromNetwork(U8 const* in, std::size_t avail) {
  if (avail < wireSize) {
    throw RangeException("Truncated QueueMetadata: 12 bytes needed, " + std::to_string(avail) +
                         " available");
  }
  return QueueMetadata(loadBe32(in), loadBe32(in + 4), loadBe32(in + 8));
}

void appendStrep(String& out, QueueMetadata const& v) {
  U32 const words[] = {v.head(), v.next(), v.count()};
  out += "Value('Kel::QueueMetadata', ** ";
  for (int i = 0; i < 3; ++i) {
    out += kFields[i];
    appendStrep(out, words[i]);
  }
  out += "})";
}

void sequenceToValue(TextIt& it, TextIt end, QueueMetadata* out) {
  static constexpr std::string_view kNames[] = {"head", "next", "count"};
  U32 words[3] = {};
  expectLiteral(it, end, "Value('Kel::QueueMetadata', ** ");
  for (int i = 0; i < 3; ++i) {
    expectLiteral(it, end, kFields[i]);
    parseNamed(kNames[i], [&] { sequenceToValue(it, end, &words[i]); });
  }
  expectLiteral(it, end, "})");
  *out = QueueMetadata(words[0], words[1], words[2]);
}

std::ostream& operator<<(std::ostream& os, QueueMetadata const& v) {
  String s;
  appendStrep(s, v);
  return os << s;
}

TypeDesc const typeQueueMetadata("Kel::QueueMetadata", nullptr, 0, basicTypeParts<QueueMetadata>());

}  // namespace Kel
