// rsvp_browse: makes an entity of any type of the model by name, applies
// attribute assignments through reflection and prints the state browser's
// tree. With --types, lists every type of the model.
//
//   rsvp_browse Rsvp::RsvpSpIdSet paths 'spId[<sessionId=...>_<pathId=<lspId=3>>]'
//
// Assignments: attr=value (a plain attribute), attr[key] (a member of a set,
// or a child of a map of entities), attr[key]=value (a member of a map of
// values), attr+=value (appended to a queue). Values and keys are in their
// string forms.
#include <Rsvp/Rsvp.h>

#include <iostream>
#include <string>

namespace {

int usage() {
  std::cerr << "usage: rsvp_browse <Type> [<name or key>] [attr=value | attr[key] | "
               "attr[key]=value | attr+=value ...]\n"
               "       rsvp_browse --types\n";
  return 2;
}

void apply(Kel::Entity& e, std::string const& arg) {
  Kel::TypeDesc const& type = e.fwkType();
  std::size_t const open = arg.find('[');
  std::size_t const eq = arg.find('=');
  bool const member = open != std::string::npos && (eq == std::string::npos || open < eq);
  bool const append = !member && eq != std::string::npos && eq > 0 && arg[eq - 1] == '+';
  std::string const name = arg.substr(0, member ? open : append ? eq - 1 : eq);
  Kel::KelAttr const* a = type.attr(name);
  if (!a) throw Kel::Exception("no attribute '" + name + "' in " + std::string(type.name()));
  int status = Kel::attrUnsupported;
  if (member) {
    std::size_t const close = arg.rfind(']');
    if (close == std::string::npos || close < open) throw Kel::Exception("missing ] in " + arg);
    Kel::GenericValue key(*a->keyType);
    key.strepIs(arg.substr(open + 1, close - open - 1));
    if (close + 1 == arg.size()) {
      status = type.attributeOp(nullptr, &e, a, Kel::attrOpMemberWrite, key.get());
    } else if (arg.compare(close + 1, 1, "=") == 0) {
      Kel::GenericValue value(*a->type);
      value.strepIs(arg.substr(close + 2));
      status = type.attributeOp(nullptr, &e, a, Kel::attrOpMemberWrite, key.get(), value.get());
    }
  } else if (eq != std::string::npos) {
    Kel::GenericValue value(*a->type);
    value.strepIs(arg.substr(eq + 1));
    Kel::U32 seq = 0;
    status = append ? type.attributeOp(&seq, &e, a, Kel::attrOpEnq, value.get())
                    : type.attributeOp(nullptr, &e, a, Kel::attrOpWrite, value.get());
  }
  if (status != Kel::attrDone) throw Kel::Exception("cannot apply '" + arg + "'");
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return usage();
  std::string const typeName = argv[1];
  if (typeName == "--types") {
    for (Kel::TypeDesc const* t : Rsvp::allTypes()) std::cout << t->name() << "\n";
    return 0;
  }
  Kel::TypeDesc const* type = Rsvp::typeByName(typeName);
  if (!type || type->kind() != Kel::TypeKind::entity || !type->create()) {
    std::cerr << "rsvp_browse: no entity type '" << typeName << "' that can be made from a name\n";
    return 2;
  }
  try {
    Kel::Ptr<Kel::Entity> root = type->create()(argc > 2 ? argv[2] : "");
    for (int i = 3; i < argc; ++i) apply(*root, argv[i]);
    Kel::browse(std::cout, *root);
  } catch (std::exception const& e) {
    std::cerr << "rsvp_browse: " << e.what() << "\n";
    return 1;
  }
  return 0;
}
