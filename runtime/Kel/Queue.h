// The queue behind every queue attribute: entries in arrival order, each
// keyed by a U32 sequence number assigned on enqueue.
//
// Numbering (the model depends on it):
// - enq: into an empty queue the new number is the stored next number;
//   otherwise it is the stored next number if that is greater than the
//   tail's, else the tail's plus one. The stored next number then becomes
//   the new number.
// - deq: unlinks the head. If it was also the tail the queue is empty and the
//   stored next number stays; otherwise the next number is raised to the
//   tail's plus one unless already greater. The removal is counted.
// - del(seq): unlinks that entry and counts the removal; when entries remain
//   the next number is raised as for deq, so numbers never repeat while the
//   queue is not empty.
// Numbers present always increase strictly from head to tail.
#ifndef KEL_QUEUE_H
#define KEL_QUEUE_H

#include <Kel/Types.h>

#include <optional>
#include <utility>

namespace Kel {

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

  [[nodiscard]] std::size_t size() const noexcept { return size_; }
  [[nodiscard]] bool empty() const noexcept { return head_ == nullptr; }
  [[nodiscard]] Node* head() const noexcept { return head_; }
  [[nodiscard]] Node* tail() const noexcept { return tail_; }
  [[nodiscard]] U32 nextSeq() const noexcept { return nextSeq_; }
  [[nodiscard]] U64 removals() const noexcept { return removals_; }

  [[nodiscard]] Iterator begin() const noexcept { return Iterator(head_); }
  [[nodiscard]] Iterator end() const noexcept { return Iterator(nullptr); }

  // Appends `value`; answers its sequence number.
  U32 enq(V value) {
    U32 seq = nextSeq_;
    if (tail_ && !(nextSeq_ > tail_->seq)) seq = tail_->seq + 1;
    nextSeq_ = seq;
    Node* n = new Node{nullptr, seq, std::move(value)};
    (tail_ ? tail_->next : head_) = n;
    tail_ = n;
    ++size_;
    return seq;
  }

  // Appends `value` under the given number, as a replica does to follow its
  // source; refused (false) unless `seq` is above the tail's number. The
  // stored next number becomes `seq`, as after an ordinary enqueue.
  bool enqAt(U32 seq, V value) {
    if (tail_ && !(seq > tail_->seq)) return false;
    nextSeq_ = seq;
    Node* n = new Node{nullptr, seq, std::move(value)};
    (tail_ ? tail_->next : head_) = n;
    tail_ = n;
    ++size_;
    return true;
  }

  // Removes the head; answers its number and value, or nothing when empty.
  std::optional<std::pair<U32, V>> deq() {
    if (!head_) return std::nullopt;
    Node* const n = head_;
    unlink(nullptr, n);
    std::optional<std::pair<U32, V>> out(std::in_place, n->seq, std::move(n->value));
    delete n;
    return out;
  }

  [[nodiscard]] Node* find(U32 seq) const noexcept {
    for (Node* n = head_; n && n->seq <= seq; n = n->next) {
      if (n->seq == seq) return n;
    }
    return nullptr;
  }

  // Removes the entry numbered `seq`; answers whether there was one.
  bool del(U32 seq) {
    Node* prev = nullptr;
    for (Node* n = head_; n && n->seq <= seq; prev = n, n = n->next) {
      if (n->seq == seq) {
        unlink(prev, n);
        delete n;
        return true;
      }
    }
    return false;
  }

  // Drops every entry without counting removals or touching the numbering.
  void clear() noexcept {
    for (Node* n = head_; n;) {
      Node* const next = n->next;
      delete n;
      n = next;
    }
    head_ = tail_ = nullptr;
    size_ = 0;
  }

 private:
  void unlink(Node* prev, Node* n) noexcept {
    U32 const lastSeq = tail_->seq;
    (prev ? prev->next : head_) = n->next;
    if (tail_ == n) tail_ = prev;
    --size_;
    ++removals_;
    if (head_ && !(nextSeq_ > lastSeq)) nextSeq_ = lastSeq + 1;
  }

  Node* head_ = nullptr;
  Node* tail_ = nullptr;
  std::size_t size_ = 0;
  U32 nextSeq_ = 0;
  U64 removals_ = 0;
};

}  // namespace Kel

#endif  // KEL_QUEUE_H
