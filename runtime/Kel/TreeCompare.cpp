#include <Kel/Reflect.h>
#include <Kel/TreeCompare.h>

#include <functional>
#include <memory>
#include <unordered_set>
#include <utility>

namespace Kel {

namespace {

class Comparer {
 public:
  String run(Entity const& a, Entity const& b) {
    entity(a, b);
    return std::move(diff_);
  }

 private:
  bool fail(Entity const& a, KelAttr const* attr, std::string_view what) {
    if (diff_.empty()) {
      diff_ = a.fullName();
      if (attr) {
        diff_ += '.';
        diff_ += attr->name;
      }
      diff_ += ": ";
      diff_ += what;
    }
    return false;
  }

  static Entity* mut(Entity const& e) noexcept { return const_cast<Entity*>(&e); }

  bool entity(Entity const& a, Entity const& b) {
    if (&a.fwkType() != &b.fwkType()) return fail(a, nullptr, "type differs");
    if (a.name() != b.name()) return fail(a, nullptr, "name differs");
    bool same = true;
    a.fwkType().forEachAttr([&](KelAttr const& attr) {
      if (same) same = this->attr(a, b, attr);
    });
    return same;
  }

  // Owned children are met once; what references and shared members point
  // at may be met again, or close a cycle, so each pair is compared once.
  bool pointees(Entity const& a, KelAttr const& attr, Entity const* x, Entity const* y) {
    if (!x || !y) {
      return x == y ? true : fail(a, &attr, x ? "missing in the replica" : "extra in the replica");
    }
    if (holdsShared(attr) && !seen_.insert({x, y}).second) return true;
    return entity(*x, *y);
  }

  bool value(Entity const& a, KelAttr const& attr, TypeDesc const& type, void const* x,
             void const* y) {
    if (type.ops()->equal(x, y)) return true;
    String text = "value ";
    type.ops()->appendStrep(text, x);
    text += " against ";
    type.ops()->appendStrep(text, y);
    return fail(a, &attr, text);
  }

  bool attr(Entity const& a, Entity const& b, KelAttr const& attr) {
    TypeDesc const& type = a.fwkType();
    switch (attr.kind) {
      case AttrKind::constant: return true;
      case AttrKind::plain:
        if (attr.logId == 0) return true;
        [[fallthrough]];
      case AttrKind::fixed:
      case AttrKind::derived: {
        GenericValue x(*attr.type);
        GenericValue y(*attr.type);
        if (type.attributeOp(x.get(), mut(a), &attr, attrOpRead) != attrDone) return true;
        if (type.attributeOp(y.get(), mut(b), &attr, attrOpRead) != attrDone)
          return fail(a, &attr, "unreadable in the replica");
        return value(a, attr, *attr.type, x.get(), y.get());
      }
      case AttrKind::child:
      case AttrKind::ref: {
        if (attr.logId == 0) return true;
        Ptr<Entity const> x;
        Ptr<Entity const> y;
        type.attributeOp(&x, mut(a), &attr, attrOpRead);
        type.attributeOp(&y, mut(b), &attr, attrOpRead);
        return pointees(a, attr, x.get(), y.get());
      }
      case AttrKind::hashedMap:
      case AttrKind::hashedSet:
      case AttrKind::orderedMap:
      case AttrKind::queue: return attr.logId == 0 || collection(a, b, attr);
    }
    return true;
  }

  bool collection(Entity const& a, Entity const& b, KelAttr const& attr) {
    TypeDesc const& type = a.fwkType();
    std::size_t na = 0;
    std::size_t nb = 0;
    type.attributeOp(&na, mut(a), &attr, attrOpSize);
    type.attributeOp(&nb, mut(b), &attr, attrOpSize);
    if (na != nb) {
      return fail(a, &attr, std::to_string(na) + " members against " + std::to_string(nb));
    }
    std::unique_ptr<GenericIter> it;
    type.attributeOp(&it, mut(a), &attr, attrOpIterate);
    bool const ofEntities = attr.type && attr.type->kind() == TypeKind::entity;
    for (; it && !it->done(); it->next()) {
      void const* const key = it->key();
      if (attr.kind == AttrKind::hashedSet) {
        bool present = false;
        type.attributeOp(&present, mut(b), &attr, attrOpMemberRead, key);
        if (!present) return fail(a, &attr, "member missing in the replica");
      } else if (ofEntities) {
        Ptr<Entity const> y;
        if (type.attributeOp(&y, mut(b), &attr, attrOpMemberRead, key) != attrDone)
          return fail(a, &attr, "member missing in the replica");
        if (!pointees(a, attr, it->entity(), y.get())) return false;
      } else {
        GenericValue y(*attr.type);
        if (type.attributeOp(y.get(), mut(b), &attr, attrOpMemberRead, key) != attrDone)
          return fail(a, &attr, "member missing in the replica");
        if (!value(a, attr, *attr.type, it->element(), y.get())) return false;
      }
    }
    return true;
  }

  struct PairHash {
    std::size_t operator()(std::pair<Entity const*, Entity const*> const& p) const noexcept {
      return std::hash<Entity const*>()(p.first) * 31 + std::hash<Entity const*>()(p.second);
    }
  };
  std::unordered_set<std::pair<Entity const*, Entity const*>, PairHash> seen_;
  String diff_;
};

}  // namespace

String replicaDifference(Entity const& source, Entity const& replica) {
  return Comparer().run(source, replica);
}

}  // namespace Kel
