#include <Kel/Entity.h>

#include <Kel/Assert.h>

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
  nameDrop();
}

void Entity::notifieesDetach() const noexcept {
  if (!list_) return;
  for (NotifieeBase*& n : list_->items) {
    if (n) n->notifier_ = nullptr;
    n = nullptr;
  }
  list_->live = 0;
  // Within a notification the list stays until the dispatch ends.
  if (list_->dispatching == 0) list_.reset();
}

void Entity::frozenIs() {
  // Iterative: a chain of references may be long.
  std::vector<Entity*> todo{this};
  while (!todo.empty()) {
    Entity* const e = todo.back();
    todo.pop_back();
    if (e->frozen_) continue;
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
  if (!list_) return out;
  for (NotifieeBase* n : list_->items) {
    if (n) out.push_back(n);
  }
  return out;
}

void Entity::notifieeAdd(NotifieeBase* n) const {
  if (!list_) list_ = std::make_unique<NotifieeList>();
  list_->items.push_back(n);
  ++list_->live;
}

void Entity::notifieeRemove(NotifieeBase* n) const {
  auto& items = list_->items;
  auto const it = std::find(items.begin(), items.end(), n);
  if (it == items.end()) return;
  --list_->live;
  if (list_->dispatching > 0) {
    *it = nullptr;  // positions stay put until the dispatch ends
  } else {
    items.erase(it);
  }
}

Entity::Dispatch::Dispatch(Entity const* e) noexcept : e_(e), kept_(e->references() > 0) {
  // An entity without references (being built or torn down) cannot be
  // released by a callback, and must not be deleted by this guard either.
  if (kept_) e_->newRef();
  ++e_->list_->dispatching;
}

Entity::Dispatch::~Dispatch() {
  auto& list = *e_->list_;
  if (--list.dispatching == 0 && list.items.size() != list.live) {
    std::erase(list.items, nullptr);
  }
  if (kept_) e_->deleteRef();
}

}  // namespace Kel
