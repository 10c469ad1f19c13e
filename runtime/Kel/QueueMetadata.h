// The bookkeeping record of a queue: the number at its head, the number the
// next enqueue starts from and how many entries it holds. Every queue
// attribute `x` of an entity answers it as `xMetadata()`, under the name
// `XMetadata`; it is read from the queue itself, so the queue operations
// keep it exact and a replica that follows the queue has the same record.
//
// When the queue is empty, `head` is the next number: the number an enqueue
// takes.
#ifndef KEL_QUEUEMETADATA_H
#define KEL_QUEUEMETADATA_H

#include <Kel/Hash.h>
#include <Kel/Queue.h>
#include <Kel/Text.h>
#include <Kel/TypeDesc.h>
#include <Kel/Types.h>

#include <cstddef>
#include <iosfwd>
#include <string_view>

namespace Kel {

class QueueMetadata {
 public:
  // Three big-endian 32-bit words: head, next, count.
  static constexpr std::size_t wireSize = 12;

  constexpr QueueMetadata() noexcept = default;
  constexpr QueueMetadata(U32 head, U32 next, U32 count) noexcept
      : head_(head), next_(next), count_(count) {}

  template <class V>
  [[nodiscard]] static QueueMetadata of(Queue<V> const& q) noexcept {
    auto const* h = q.head();
    return QueueMetadata(h ? h->seq : q.nextSeq(), q.nextSeq(), static_cast<U32>(q.size()));
  }

  [[nodiscard]] constexpr U32 head() const noexcept { return head_; }
  [[nodiscard]] constexpr U32 next() const noexcept { return next_; }
  [[nodiscard]] constexpr U32 count() const noexcept { return count_; }

  [[nodiscard]] U32 hash() const noexcept {
    OneAtATime h;
    h.addU32(head_);
    h.addU32(next_);
    h.addU32(count_);
    return h.finish();
  }

  void toNetwork(U8* out) const noexcept;
  // Raises Kel::RangeException on truncation.
  [[nodiscard]] static QueueMetadata fromNetwork(U8 const* in, std::size_t avail);

  friend constexpr bool operator==(QueueMetadata const&, QueueMetadata const&) noexcept = default;
  friend constexpr bool operator<(QueueMetadata const& a, QueueMetadata const& b) noexcept {
    if (a.head_ != b.head_) return a.head_ < b.head_;
    if (a.next_ != b.next_) return a.next_ < b.next_;
    return a.count_ < b.count_;
  }

 private:
  U32 head_ = 0;
  U32 next_ = 0;
  U32 count_ = 0;
};

constexpr std::string_view kelShortName(QueueMetadata const*) { return "QueueMetadata"; }

// "Value('Kel::QueueMetadata', ** {'head': 0, 'next': 0, 'count': 0})"
void appendStrep(String& out, QueueMetadata const& v);
void sequenceToValue(TextIt& it, TextIt end, QueueMetadata* out);
std::ostream& operator<<(std::ostream& os, QueueMetadata const& v);

extern TypeDesc const typeQueueMetadata;

}  // namespace Kel

#endif  // KEL_QUEUEMETADATA_H
