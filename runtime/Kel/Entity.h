// Entities: reference-counted objects with a name, a parent and a list of
// observers (notifiees) that hear of every change of their attributes.
//
// Lifetime rules (tests/frame/EntityTest.cpp holds them):
// - An entity lives while a Ptr refers to it. Its owner's slot or collection
//   holds one such Ptr and sets the entity's parent; removal clears the
//   parent. When an owner is destroyed, the parents of its children are
//   cleared, so a child that lives on elsewhere never sees a dangling parent.
// - A notifiee registers with one entity at a time. Destroying the notifiee
//   unregisters it. Destroying the entity first detaches its notifiees: their
//   notifier becomes null, and they may be destroyed or reused later.
// - During a notification the entity keeps itself alive, so a callback may
//   drop the last other reference to it. A callback may unregister itself
//   or any other notifiee (even destroy it); a notifiee unregistered before
//   its turn is not called. A notifiee registered during a notification is
//   called from the next change on.
//
// Freezing (frozenIs()) makes an entity unable to change for good, with
// everything it owns or refers to. A frozen entity has no notifiees and
// takes none, so that any number of threads may read it at once; see
// docs/ENTITIES.md, "Threads".
#ifndef KEL_ENTITY_H
#define KEL_ENTITY_H

#include <Kel/Ptr.h>
#include <Kel/TypeDesc.h>
#include <Kel/Types.h>

#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

namespace Kel {

class Entity;
class LogDirtySink;

// The common base of every entity class's NotifieeConst and Notifiee.
class NotifieeBase {
 public:
  NotifieeBase(NotifieeBase const&) = delete;
  NotifieeBase& operator=(NotifieeBase const&) = delete;
  virtual ~NotifieeBase();

  // The entity observed, or null when not registered (or when the entity
  // has been destroyed).
  [[nodiscard]] Entity const* notifierBase() const noexcept { return notifier_; }

 protected:
  // `depth` is the depth of the entity class that the notifiee observes:
  // it hears of the attributes of that class and of its bases.
  explicit NotifieeBase(U32 depth) noexcept : depth_(depth) {}
  // Of a log writer's state adapter, once the writer has placed it: the
  // writer's record of the entity, which hears what changed.
  [[nodiscard]] LogDirtySink* logDirtySink() const noexcept {
    return reinterpret_cast<LogDirtySink*>(const_cast<char*>(reinterpret_cast<char const*>(this)) +
                                           logRecordOffset_);
  }
  // Unregisters from the current entity, if any, and registers with `e`.
  void notifierBaseIs(Entity const* e);

 private:
  friend class Entity;
  friend class LogWriter;
  Entity const* notifier_ = nullptr;
  U32 depth_;
  // Of a log writer's state adapter: the distance in bytes from this
  // notifiee to the writer's record of the entity, which lies after it in
  // one allocation; 0 for every other notifiee. (In the padding after
  // depth_: no notifiee grows.)
  U32 logRecordOffset_ = 0;
};

class LogWriter;
class LogSink;

// The observer masks of Entity::kelNboAttrLogSaIs(): a stream follows every
// attribute of the tree, or it is removed.
inline constexpr U32 logObserveNone = 0;
inline constexpr U32 logObserveAll = ~U32{0};

class Entity : public PtrInterface {
 public:
  Entity(Entity const&) = delete;
  Entity& operator=(Entity const&) = delete;

  // How an entity keeps its name. Most entities of a router's state are
  // named after their key or their type: they spell the name only when
  // asked, instead of holding a string each.
  enum class NameSource : U8 {
    stored,   // the name given, kept on the heap (none when empty)
    literal,  // a string of the program, as a slot names its child
    key,      // the text of the entity's key
    type,     // the type's name without its namespace
  };
  [[nodiscard]] Name name() const;
  // The entity whose slot or collection holds this one, or null.
  [[nodiscard]] Entity* parent() const noexcept { return parent_; }
  // The names from the root down to this entity, joined by "/".
  [[nodiscard]] String fullName() const;
  [[nodiscard]] virtual TypeDesc const& fwkType() const noexcept = 0;
  // Whether the type is restored from a backup of the attribute log; no
  // type of this model is.
  [[nodiscard]] virtual bool hasBackupSupport() const noexcept { return false; }

  // The registered notifiees, in the order they are called.
  [[nodiscard]] std::vector<NotifieeBase*> notifieeList() const;
  [[nodiscard]] bool hasNotifiees() const noexcept {
    return (notifiees_ & kOne) != 0 || (notifiees_ != 0 && list()->live > 0);
  }

  // Asks for the first notifiee's memory, and the line after it, ahead of a
  // change that will call it: on a large tree an entity's observer lies
  // elsewhere on the heap, and a change would wait for it. (The log's
  // observer is followed by the writer's record of the entity.)
  void notifieesPrefetch() const noexcept {
    if (notifiees_ > kOne) {
      auto const* const at = reinterpret_cast<char const*>(notifiees_ & ~kOne);
      Kel::prefetch(at);
      Kel::prefetch(at + 64);
    }
  }

  // Whether the entity is frozen: it cannot change any more, and any number
  // of threads may read it at once.
  [[nodiscard]] bool frozen() const noexcept { return frozen_; }
  // Freezes the entity for good, and with it every entity that it owns
  // (children, members of maps) or refers to (references, queues of
  // entities), and so on from those. Each entity frozen loses its notifiees,
  // as when it is destroyed: their notifier becomes null. From then on every
  // mutator of the entity, typed or through reflection, stops the program
  // (assertMutable()), and registering a notifiee with it leaves the
  // notifiee unregistered. Freezing a frozen entity does nothing.
  void frozenIs();
  // Stops the program with "Entity <fullName> is frozen and cannot change"
  // when the entity is frozen. Every generated mutator calls it first; so
  // should a hand-written one.
  void assertMutable() const noexcept {
    if (frozen_) [[unlikely]]
      frozenMutated();
  }

  // A replica rebuilt from an attribute log takes the name of the entity it
  // mirrors.
  void nameIsFromBackup(Name name) {
    assertMutable();
    nameStoredIs(std::move(name));
  }

  // Mounts the entity as the root of an attribute log, its stream `number`
  // going to `stream`: the stream gets a snapshot of the tree, then its
  // changes at each flush() of the answered writer, which is the entity's
  // one Kel::LogWriter for all its streams. A call with a number already in
  // use replaces that stream (the new one starts with a snapshot).
  // `observerMask` logObserveAll follows every attribute; logObserveNone
  // removes stream `number` (and answers null once none is left, the writer
  // gone). The mount holds the entity: a mounted tree lives until its last
  // stream is removed. Any other mask, or a null stream to add, raises
  // Kel::RangeException ("Unsupported attribute-log observer mask 0x…",
  // "Null attribute-log stream") and changes nothing.
  LogWriter* kelNboAttrLogSaIs(U32 observerMask, U32 number, std::unique_ptr<LogSink> stream);
  // The writer of the entity's mount, or null when it is not mounted.
  [[nodiscard]] LogWriter* kelNboAttrLogSa() const;

  // For the framework: the owner sets and clears the parent. A frozen
  // entity's parent is cleared too, when its owner lets it go.
  void parentIs(Entity* parent) noexcept { parent_ = parent; }
  // For the framework: a factory that made the entity without a name says
  // where the name comes from
  // (key or type), or names it with a string that outlives it.
  void nameSourceIs(NameSource source) noexcept {
    nameDrop();
    nameSource_ = source;
  }
  void nameLiteralIs(char const* literal) noexcept {
    nameDrop();
    nameSource_ = NameSource::literal;
    nameData_.literal = literal;
  }

 protected:
  explicit Entity(Name name) { nameStoredIs(std::move(name)); }
  ~Entity() override;

  // The text of the entity's key, for a keyed type.
  [[nodiscard]] virtual Name keyText() const { return {}; }

  // Calls `f(notifiee)` for every notifiee that observes a class at `depth`
  // or deeper (that is, that knows the attribute being changed), in list
  // order. Cheap when nobody listens.
  template <class F>
  void notify(U32 depth, F&& f) const {
    if (notifiees_ == 0) return;
    if (notifiees_ & kOne) {
      // The common case, one notifiee: no list to walk, nothing to keep in
      // place. Removing it during the call just clears the word; one added
      // during the call makes a list and hears the next change.
      NotifieeBase* const nb = one();
      if (nb->depth_ < depth) return;
      KeepAlive const guard(this);
      f(nb);
      return;
    }
    if (list()->live == 0) return;
    Dispatch const guard(this);
    NotifieeList& l = *list();
    U32 const n = l.count;
    for (U32 i = 0; i < n; ++i) {
      NotifieeBase* const nb = l.at(i);
      if (nb && nb->depth_ >= depth) f(nb);
    }
  }

 private:
  friend class NotifieeBase;
  friend class LogWriter;  // finds its records through the notifiees

  struct NotifieeList {
    // The notifiees in order, null where one left during a dispatch: the
    // first two in the list itself, the others after them. One allocation,
    // one cache line.
    static constexpr U32 kFew = 2;
    NotifieeBase* few[kFew] = {};
    std::vector<NotifieeBase*> more;
    U32 count = 0;
    U32 live = 0;
    U32 dispatching = 0;

    [[nodiscard]] NotifieeBase*& at(U32 i) noexcept { return i < kFew ? few[i] : more[i - kFew]; }
    void push(NotifieeBase* n);
    void eraseAt(U32 i) noexcept;  // keeps the order of the others
    void eraseNulls() noexcept;
  };

  // Keeps the entity alive during a notification: a callback may drop the
  // last other reference to it.
  class KeepAlive {
   public:
    explicit KeepAlive(Entity const* e) noexcept : e_(e), kept_(e->references() > 0) {
      // An entity without references (being built or torn down) cannot be
      // released by a callback, and must not be deleted by this guard either.
      if (kept_) e_->newRef();
    }
    ~KeepAlive() {
      if (kept_) e_->deleteRef();
    }
    KeepAlive(KeepAlive const&) = delete;
    KeepAlive& operator=(KeepAlive const&) = delete;

   protected:
    Entity const* e_;

   private:
    bool kept_;
  };

  // Also keeps the list's positions stable during a notification, and
  // compacts the list when the outermost one ends.
  class Dispatch : KeepAlive {
   public:
    explicit Dispatch(Entity const* e) noexcept;
    ~Dispatch();
  };

  // The notifiees: none (0), one (its address with kOne set), or a list
  // (its address). One pointer per entity, and no allocation for the one
  // notifiee most observed entities have.
  static constexpr std::uintptr_t kOne = 1;
  [[nodiscard]] NotifieeBase* one() const noexcept {
    return reinterpret_cast<NotifieeBase*>(notifiees_ & ~kOne);
  }
  [[nodiscard]] NotifieeList* list() const noexcept {
    return reinterpret_cast<NotifieeList*>(notifiees_);
  }
  void listFree() const noexcept;

  void notifieeAdd(NotifieeBase* n) const;
  void notifieeRemove(NotifieeBase* n) const;
  // Detaches every notifiee, as the destructor does.
  void notifieesDetach() const noexcept;
  [[noreturn, gnu::cold]] void frozenMutated() const noexcept;

  bool frozen_ = false;  // first: these fit in the padding after the count
  NameSource nameSource_ = NameSource::stored;
  void nameStoredIs(Name name);
  void nameDrop() noexcept;
  // One pointer, whatever the source: most entities never spell their name.
  union {
    Name* stored;         // NameSource::stored; null for no name
    char const* literal;  // NameSource::literal
  } nameData_{nullptr};
  Entity* parent_ = nullptr;
  mutable std::uintptr_t notifiees_ = 0;
};

}  // namespace Kel

#endif  // KEL_ENTITY_H
