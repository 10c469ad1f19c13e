#include <Kel/Browser.h>
#include <Kel/Reflect.h>

#include <ostream>
#include <sstream>
#include <unordered_set>

namespace Kel {

namespace {

class Walker {
 public:
  explicit Walker(std::ostream& os) : os_(os) {}

  void entity(std::string_view label, Entity const& e, int depth) {
    indent(depth);
    os_ << label << ": ";
    if (!seen_.insert(&e).second) {
      os_ << "-> " << e.fullName() << '\n';
      return;
    }
    TypeDesc const& type = e.fwkType();
    os_ << type.name() << '\n';
    type.forEachAttr([&](KelAttr const& a) { attribute(e, a, depth + 1); });
  }

 private:
  void attribute(Entity const& e, KelAttr const& a, int depth) {
    void* const object = const_cast<Entity*>(&e);
    TypeDesc const& type = e.fwkType();
    if (isCollection(a.kind)) {
      collection(type, object, a, depth);
      return;
    }
    if (a.kind == AttrKind::child || a.kind == AttrKind::ref) {
      Ptr<Entity const> child;
      type.attributeOp(&child, object, &a, attrOpRead);
      if (child) {
        entity(a.name, *child, depth);
      } else {
        line(depth, a.name, "null");
      }
      return;
    }
    GenericValue v(*a.type);
    if (type.attributeOp(v.get(), object, &a, attrOpRead) != attrDone) return;
    line(depth, a.name, v.strep());
  }

  void collection(TypeDesc const& type, void* object, KelAttr const& a, int depth) {
    std::unique_ptr<GenericIter> it;
    if (type.attributeOp(&it, object, &a, attrOpIterate) != attrDone || !it) return;
    if (it->done()) {
      line(depth, a.name, "{}");
      return;
    }
    indent(depth);
    os_ << a.name << ":\n";
    for (; !it->done(); it->next()) {
      String label = "[";
      a.keyType->ops()->appendStrep(label, it->key());
      label += ']';
      if (Entity const* child = it->entity()) {
        entity(label, *child, depth + 1);
      } else if (a.kind == AttrKind::hashedSet) {
        indent(depth + 1);
        os_ << label << '\n';
      } else {
        String value;
        a.type->ops()->appendStrep(value, it->element());
        line(depth + 1, label, value);
      }
    }
  }

  void line(int depth, std::string_view label, std::string_view value) {
    indent(depth);
    os_ << label << ": " << value << '\n';
  }

  void indent(int depth) {
    for (int i = 0; i < depth; ++i) os_ << "  ";
  }

  std::ostream& os_;
  std::unordered_set<Entity const*> seen_;
};

}  // namespace

void browse(std::ostream& os, Entity const& root) { Walker(os).entity(root.name(), root, 0); }

String browseText(Entity const& root) {
  std::ostringstream os;
  browse(os, root);
  return os.str();
}

}  // namespace Kel
