// The queue behind every queue attribute: entries in arrival order, each
// keyed by a U32 sequence number assigned on enqueue.
//
// Numbers run on for ever: after 4294967295 comes 0. They are compared in
// serial-number arithmetic (`seqAfter`): a comes after b when the distance
// from b to a, modulo 2^32, is below 2^31. The entries of a queue always lie
// within such a window measured from the head, so a queue of a router that
// runs for years keeps finding, deleting and replicating its entries across
// the wrap.
//
// Numbering (the model depends on it):
// - enq: into an empty queue the new number is the stored next number;
//   otherwise it is the stored next number if that comes after the tail's,
//   else the tail's plus one. The stored next number then becomes the new
//   number.
// - deq: unlinks the head. If it was also the tail the queue is empty and the
//   stored next number stays; otherwise the next number is raised to the
//   tail's plus one unless it already comes after the tail's. The removal is
//   counted.
// - del(seq): unlinks that entry and counts the removal; when entries remain
//   the next number is raised as for deq, so numbers never repeat while the
//   queue is not empty.
// Numbers present always come strictly later from head to tail.
//
// Complexity: enq, deq and the lookup of a number outside the queue's range
// are O(1); find and del of a number inside it walk from the head.
#ifndef KEL_QUEUE_H
#define KEL_QUEUE_H

#include <Kel/Types.h>

#include <memory>
#include <optional>
#include <utility>

namespace Kel {

// Whether sequence number `a` comes after `b` in serial-number arithmetic.
[[nodiscard]] constexpr bool seqAfter(U32 a, U32 b) noexcept {
  return a != b && a - b < 0x80000000u;
}

template <class V>
class Queue {
 public:
  struct Node {
    Node* next;
    U32 seq;
    V value;
  };

  // Walks the entries from head to tail; key() is the sequence number.
  class Iterator {
   public:
    Iterator() = default;
    [[nodiscard]] bool done() const noexcept { return node_ == nullptr; }
    [[nodiscard]] U32 key() const noexcept { return node_->seq; }
    [[nodiscard]] V& value() const noexcept { return node_->value; }
    Iterator& operator++() noexcept {
      node_ = node_->next;
      return *this;
    }
    bool operator==(Iterator const& o) const noexcept { return node_ == o.node_; }

   private:
    friend class Queue;
    explicit Iterator(Node* n) noexcept : node_(n) {}
    Node* node_ = nullptr;
  };

  Queue() = default;
  Queue(Queue const&) = delete;
  Queue& operator=(Queue const&) = delete;
  ~Queue() { clear(); }

  [[nodiscard]] std::size_t size() const noexcept { return s_ ? s_->size : 0; }
  [[nodiscard]] bool empty() const noexcept { return head() == nullptr; }
  [[nodiscard]] Node* head() const noexcept { return s_ ? s_->head : nullptr; }
  [[nodiscard]] Node* tail() const noexcept { return s_ ? s_->tail : nullptr; }
  [[nodiscard]] U32 nextSeq() const noexcept { return s_ ? s_->nextSeq : 0; }
  [[nodiscard]] U64 removals() const noexcept { return s_ ? s_->removals : 0; }

  [[nodiscard]] Iterator begin() const noexcept { return Iterator(head()); }
  [[nodiscard]] Iterator end() const noexcept { return Iterator(nullptr); }

  // Appends `value`; answers its sequence number.
  U32 enq(V value) {
    State& st = state();
    U32 seq = st.nextSeq;
    if (st.tail && !seqAfter(st.nextSeq, st.tail->seq)) seq = st.tail->seq + 1;
    st.nextSeq = seq;
    Node* n = new Node{nullptr, seq, std::move(value)};
    (st.tail ? st.tail->next : st.head) = n;
    st.tail = n;
    ++st.size;
    return seq;
  }

  // Appends `value` under the given number, as a replica does to follow its
  // source; refused (false) unless `seq` comes after the tail's number and
  // within 2^31 of the head's. The stored next number becomes `seq`, as
  // after an ordinary enqueue.
  bool enqAt(U32 seq, V value) {
    if (head() && !acceptsAt(seq)) return false;
    State& st = state();
    st.nextSeq = seq;
    Node* n = new Node{nullptr, seq, std::move(value)};
    (st.tail ? st.tail->next : st.head) = n;
    st.tail = n;
    ++st.size;
    return true;
  }

  // Removes the head; answers its number and value, or nothing when empty.
  std::optional<std::pair<U32, V>> deq() {
    Node* const n = head();
    if (!n) return std::nullopt;
    unlink(nullptr, n);
    std::optional<std::pair<U32, V>> out(std::in_place, n->seq, std::move(n->value));
    delete n;
    return out;
  }

  // Whether enqAt(seq, ...) would be accepted.
  [[nodiscard]] bool acceptsAt(U32 seq) const noexcept {
    Node const* const h = head();
    Node const* const t = tail();
    if (!h || !t) return true;
    U32 const at = seq - h->seq;
    return at > t->seq - h->seq && at < 0x80000000u;
  }

  [[nodiscard]] Node* find(U32 seq) const noexcept {
    Node* const h = head();
    Node* const t = tail();
    if (!h || !t) return nullptr;
    if (seq == t->seq) return t;
    // Distances from the head increase from head to tail.
    U32 const at = seq - h->seq;
    if (at > t->seq - h->seq) return nullptr;
    for (Node* n = h; n; n = n->next) {
      U32 const here = n->seq - h->seq;
      if (here >= at) return here == at ? n : nullptr;
    }
    return nullptr;
  }

  // Removes the entry numbered `seq`; answers whether there was one.
  bool del(U32 seq) {
    Node* const h = head();
    Node* const t = tail();
    if (!h || !t) return false;
    U32 const at = seq - h->seq;
    if (at > t->seq - h->seq) return false;
    U32 const base = h->seq;
    Node* prev = nullptr;
    for (Node* n = h; n; prev = n, n = n->next) {
      U32 const here = n->seq - base;
      if (here < at) continue;
      if (here > at) return false;
      unlink(prev, n);
      delete n;
      return true;
    }
    return false;
  }

  // Sets the number the next enqueue into this empty queue takes (a queue
  // that starts where another left off); refused (false) when not empty.
  bool nextSeqIs(U32 seq) {
    if (head()) return false;
    if (seq != nextSeq()) state().nextSeq = seq;
    return true;
  }

  // Restores the stored next number of a queue that a replica follows:
  // accepted (true) when the queue is empty, or when `seq` is the tail's
  // number or comes after it within 2^31 of the head's, the only numbers the
  // operations above leave there.
  bool nextSeqRestore(U32 seq) {
    if (head() && seq != tail()->seq && !acceptsAt(seq)) return false;
    if (seq != nextSeq()) state().nextSeq = seq;
    return true;
  }

  // Drops every entry without counting removals or touching the numbering.
  void clear() noexcept {
    if (!s_) return;
    for (Node* n = s_->head; n;) {
      Node* const next = n->next;
      delete n;
      n = next;
    }
    s_->head = s_->tail = nullptr;
    s_->size = 0;
  }

 private:
  // Most queues of a router's state stay empty and unnumbered for ever: they
  // hold one pointer until first used.
  struct State {
    Node* head = nullptr;
    Node* tail = nullptr;
    std::size_t size = 0;
    U32 nextSeq = 0;
    U64 removals = 0;
  };

  State& state() {
    if (!s_) s_ = std::make_unique<State>();
    return *s_;
  }

  void unlink(Node* prev, Node* n) noexcept {
    State& st = *s_;
    U32 const lastSeq = st.tail->seq;
    (prev ? prev->next : st.head) = n->next;
    if (st.tail == n) st.tail = prev;
    --st.size;
    ++st.removals;
    if (st.head && !seqAfter(st.nextSeq, lastSeq)) st.nextSeq = lastSeq + 1;
  }

  std::unique_ptr<State> s_;
};

}  // namespace Kel

#endif  // KEL_QUEUE_H
