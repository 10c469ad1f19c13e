#include <Kel/Browser.h>
#include <Kel/Exception.h>
#include <Kel/Reflect.h>

#include <optional>
#include <ostream>
#include <sstream>
#include <unordered_set>

namespace Kel {

namespace {

// The value methods of an attribute's key or element type; a descriptor
// without them raises rather than being called through a null pointer.
ValueOps const& requireValueOps(TypeDesc const* type, KelAttr const& a) {
  if (!type || !type->ops()) throw NoValueMethodsException(type ? type->name() : a.typeName);
  return *type->ops();
}

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
    requireValueOps(a.type, a);
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
    ValueOps const& keyOps = requireValueOps(a.keyType, a);
    for (; !it->done(); it->next()) {
      String label = "[";
      keyOps.appendStrep(label, it->key());
      label += ']';
      if (Entity const* child = it->entity()) {
        entity(label, *child, depth + 1);
      } else if (a.kind == AttrKind::hashedSet) {
        indent(depth + 1);
        os_ << label << '\n';
      } else if (a.type && a.type->kind() == TypeKind::entity) {
        line(depth + 1, label, "null");
      } else {
        String value;
        requireValueOps(a.type, a).appendStrep(value, it->element());
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

namespace {

enum class Form { write, member, memberValue, append };

bool hasValues(TypeDesc const* t) { return t && t->ops(); }

// The one form of assignment that an attribute takes, if any.
std::optional<Form> formOf(KelAttr const& a) {
  bool const keyed = hasValues(a.keyType);
  bool const entities = a.type && a.type->kind() == TypeKind::entity;
  switch (a.kind) {
    case AttrKind::plain:
    case AttrKind::fixed: return hasValues(a.type) ? std::optional(Form::write) : std::nullopt;
    case AttrKind::hashedSet: return keyed ? std::optional(Form::member) : std::nullopt;
    case AttrKind::hashedMap:
    case AttrKind::orderedMap:
      if (!keyed) return std::nullopt;
      if (entities) return Form::member;
      return hasValues(a.type) ? std::optional(Form::memberValue) : std::nullopt;
    case AttrKind::queue: return hasValues(a.type) ? std::optional(Form::append) : std::nullopt;
    case AttrKind::constant:
    case AttrKind::derived:
    case AttrKind::child:
    case AttrKind::ref: return std::nullopt;
  }
  return std::nullopt;
}

String formText(std::string_view name, std::optional<Form> form) {
  if (!form) return "no assignment";
  String out(name);
  switch (*form) {
    case Form::write: out += "=value"; break;
    case Form::member: out += "[key]"; break;
    case Form::memberValue: out += "[key]=value"; break;
    case Form::append: out += "+=value"; break;
  }
  return out;
}

// The type among `t` and its bases that declares `a`.
TypeDesc const& declaringType(TypeDesc const& t, KelAttr const& a) {
  for (TypeDesc const* d = &t; d; d = d->base()) {
    for (KelAttr const& own : d->attrs()) {
      if (&own == &a) return *d;
    }
  }
  return t;
}

String quoted(std::string_view text) { return '\'' + excerpt(text) + '\''; }

// Parses the whole of `text` as a value of the attribute's element type.
void parseValue(GenericValue& value, KelAttr const& a, std::string_view text) {
  parseNamed(a.name, [&] { value.strepIs(text); });
}

}  // namespace

void applyAssignment(Entity& entity, std::string_view assignment) {
  TypeDesc const& type = entity.fwkType();
  TextIt it = assignment.data();
  TextIt const end = it + assignment.size();
  std::string_view const name = readWord(it, end);
  Form form;
  if (acceptLiteral(it, end, "[")) {
    form = Form::member;  // or memberValue, decided behind the key
  } else if (acceptLiteral(it, end, "=")) {
    form = Form::write;
  } else if (acceptLiteral(it, end, "+=")) {
    form = Form::append;
  } else {
    throw Exception("Bad assignment " + quoted(assignment) +
                    "; expected attr=value, attr[key], attr[key]=value or attr+=value");
  }
  KelAttr const* const a = type.attr(name);
  if (!a) throw Exception("No attribute " + quoted(name) + " in " + String(type.name()));
  std::optional<Form> const takes = formOf(*a);
  auto const refuse = [&] {
    throw Exception("Cannot apply " + quoted(assignment) + ": " +
                    String(declaringType(type, *a).name()) + "::" + String(a->name) + " takes " +
                    formText(a->name, takes));
  };

  int status = attrUnsupported;
  if (form == Form::member) {
    if (takes != Form::member && takes != Form::memberValue) refuse();
    GenericValue key(*a->keyType);
    parseNamed(a->name, [&] {
      a->keyType->ops()->parse(it, end, key.get());
      expectLiteral(it, end, "]");
    });
    if (it != end) form = Form::memberValue;
    if (form != *takes) refuse();
    if (form == Form::member) {
      status = type.attributeOp(nullptr, &entity, a, attrOpMemberWrite, key.get());
    } else {
      parseNamed(a->name, [&] { expectLiteral(it, end, "="); });
      GenericValue value(*a->type);
      parseValue(value, *a, std::string_view(it, static_cast<std::size_t>(end - it)));
      status = type.attributeOp(nullptr, &entity, a, attrOpMemberWrite, key.get(), value.get());
    }
  } else {
    if (form != takes) refuse();
    GenericValue value(*a->type);
    parseValue(value, *a, std::string_view(it, static_cast<std::size_t>(end - it)));
    U32 seq = 0;
    status = form == Form::append ? type.attributeOp(&seq, &entity, a, attrOpEnq, value.get())
                                  : type.attributeOp(nullptr, &entity, a, attrOpWrite, value.get());
  }
  if (status != attrDone) throw Exception("Cannot apply " + quoted(assignment));
}

void browse(std::ostream& os, Entity const& root) { Walker(os).entity(root.name(), root, 0); }

String browseText(Entity const& root) {
  std::ostringstream os;
  browse(os, root);
  return os.str();
}

}  // namespace Kel
