#include <Kel/Entity.h>

#include <algorithm>

namespace Kel {

NotifieeBase::~NotifieeBase() {
  if (notifier_) notifier_->notifieeRemove(this);
}

void NotifieeBase::notifierBaseIs(Entity const* e) {
  if (e == notifier_) return;
  if (notifier_) notifier_->notifieeRemove(this);
  notifier_ = nullptr;
  if (e) {
    e->notifieeAdd(this);
    notifier_ = e;
  }
}

Entity::~Entity() {
  if (!list_) return;
  for (NotifieeBase* n : list_->items) {
    if (n) n->notifier_ = nullptr;
  }
}

String Entity::fullName() const {
  std::vector<Entity const*> chain;
  for (Entity const* e = this; e; e = e->parent_) chain.push_back(e);
  String out;
  for (auto it = chain.rbegin(); it != chain.rend(); ++it) {
    if (!out.empty() || it != chain.rbegin()) out += '/';
    out += (*it)->name_;
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
