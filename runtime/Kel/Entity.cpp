#include <Kel/Entity.h>

#include <Kel/Assert.h>
#include <Kel/AttrLog.h>

#include <algorithm>

namespace Kel {

NotifieeBase::~NotifieeBase() {
  if (notifier_) notifier_->notifieeRemove(this);
}

void NotifieeBase::notifierBaseIs(Entity const* e) {
  if (e == notifier_) return;
  if (notifier_) notifier_->notifieeRemove(this);
  notifier_ = nullptr;
  if (e && !e->frozen()) {  // a frozen entity never changes, so it takes no notifiees
    e->notifieeAdd(this);
    notifier_ = e;
  }
}

Entity::~Entity() {
  notifieesDetach();
  // A list kept for a dispatch in progress goes with the entity.
  if (notifiees_ != 0) listFree();
  nameDrop();
}

void Entity::notifieesDetach() const noexcept {
  if (notifiees_ & kOne) {
    one()->notifier_ = nullptr;
    notifiees_ = 0;
    return;
  }
  if (notifiees_ == 0) return;
  NotifieeList& list = *this->list();
  for (U32 i = 0; i < list.count; ++i) {
    NotifieeBase*& n = list.at(i);
    if (n) n->notifier_ = nullptr;
    n = nullptr;
  }
  list.live = 0;
  // Within a notification the list stays until the dispatch ends.
  if (list.dispatching == 0) listFree();
}

void Entity::listFree() const noexcept {
  delete list();
  notifiees_ = 0;
}

void Entity::frozenIs() {
  // Iterative: a chain of references may be long.
  std::vector<Entity*> todo{this};
  while (!todo.empty()) {
    Entity* const e = todo.back();
    todo.pop_back();
    if (e->frozen_) continue;
    // A log writer that follows the entity through its state adapter finds
    // its record through the entity's notifiees, which freezing detaches:
    // it keeps the record elsewhere from now on.
    if (e->notifiees_ != 0) LogWriter::entityFreezing(*e);
    e->frozen_ = true;
    e->notifieesDetach();
    TypeDesc const& type = e->fwkType();
    type.forEachAttr([&](KelAttr const& a) {
      if (!a.type || a.type->kind() != TypeKind::entity) return;
      if (a.kind == AttrKind::child || a.kind == AttrKind::ref) {
        Ptr<Entity const> held;
        if (type.attributeOp(&held, e, &a, attrOpRead) == attrDone && held) {
          todo.push_back(const_cast<Entity*>(held.get()));
        }
      } else if (isCollection(a.kind)) {
        std::unique_ptr<GenericIter> it;
        if (type.attributeOp(&it, e, &a, attrOpIterate) != attrDone) return;
        for (; !it->done(); it->next()) {
          if (Entity const* held = it->entity()) todo.push_back(const_cast<Entity*>(held));
        }
      }
    });
  }
}

void Entity::frozenMutated() const noexcept {
  String const text = "Entity " + fullName() + " is frozen and cannot change";
  assertFailed(text.c_str(), __FILE__, __LINE__);
}

Name Entity::name() const {
  switch (nameSource_) {
    case NameSource::key: return keyText();
    case NameSource::type: {
      std::string_view const full = fwkType().name();
      std::size_t const colons = full.rfind("::");
      return Name(colons == std::string_view::npos ? full : full.substr(colons + 2));
    }
    case NameSource::literal: return Name(nameData_.literal);
    case NameSource::stored: break;
  }
  return nameData_.stored ? *nameData_.stored : Name();
}

void Entity::nameStoredIs(Name name) {
  Name* const fresh = name.empty() ? nullptr : new Name(std::move(name));
  nameDrop();
  nameSource_ = NameSource::stored;
  nameData_.stored = fresh;
}

void Entity::nameDrop() noexcept {
  if (nameSource_ == NameSource::stored) delete nameData_.stored;
  nameData_.stored = nullptr;
}

String Entity::fullName() const {
  std::vector<Entity const*> chain;
  for (Entity const* e = this; e; e = e->parent_) chain.push_back(e);
  String out;
  for (auto it = chain.rbegin(); it != chain.rend(); ++it) {
    if (!out.empty() || it != chain.rbegin()) out += '/';
    out += (*it)->name();
  }
  return out;
}

std::vector<NotifieeBase*> Entity::notifieeList() const {
  std::vector<NotifieeBase*> out;
  if (notifiees_ & kOne) {
    out.push_back(one());
  } else if (notifiees_ != 0) {
    NotifieeList const& list = *this->list();
    for (U32 i = 0; i < list.count; ++i) {
      if (NotifieeBase* const n = const_cast<NotifieeList&>(list).at(i)) out.push_back(n);
    }
  }
  return out;
}

void Entity::NotifieeList::push(NotifieeBase* n) {
  if (count < kFew) {
    few[count] = n;
  } else {
    more.push_back(n);
  }
  ++count;
}

void Entity::NotifieeList::eraseAt(U32 i) noexcept {
  for (; i + 1 < count; ++i) at(i) = at(i + 1);
  --count;
  if (count >= kFew) {
    more.pop_back();
  } else {
    few[count] = nullptr;
  }
}

void Entity::NotifieeList::eraseNulls() noexcept {
  U32 kept = 0;
  for (U32 i = 0; i < count; ++i) {
    if (NotifieeBase* const n = at(i)) at(kept++) = n;
  }
  for (U32 i = kept; i < kFew && i < count; ++i) few[i] = nullptr;
  more.resize(kept > kFew ? kept - kFew : 0);
  count = kept;
}

void Entity::notifieeAdd(NotifieeBase* n) const {
  if (notifiees_ == 0) {
    notifiees_ = reinterpret_cast<std::uintptr_t>(n) | kOne;
    return;
  }
  if (notifiees_ & kOne) {
    // A second one: from now on a list, the first one first.
    auto list = std::make_unique<NotifieeList>();
    list->push(one());
    list->live = 1;
    notifiees_ = reinterpret_cast<std::uintptr_t>(list.release());
  }
  list()->push(n);
  ++list()->live;
}

void Entity::notifieeRemove(NotifieeBase* n) const {
  if (notifiees_ & kOne) {
    if (one() == n) notifiees_ = 0;
    return;
  }
  if (notifiees_ == 0) return;
  NotifieeList& list = *this->list();
  U32 i = 0;
  while (i < list.count && list.at(i) != n) ++i;
  if (i == list.count) return;
  --list.live;
  if (list.dispatching > 0) {
    list.at(i) = nullptr;  // positions stay put until the dispatch ends
  } else {
    list.eraseAt(i);
    if (list.count == 0) listFree();
  }
}

Entity::Dispatch::Dispatch(Entity const* e) noexcept : KeepAlive(e) { ++e->list()->dispatching; }

Entity::Dispatch::~Dispatch() {
  NotifieeList& list = *e_->list();
  if (--list.dispatching != 0) return;
  if (list.count != list.live) list.eraseNulls();
  if (list.count == 0) e_->listFree();
}

}  // namespace Kel
