// rsvp_browse: makes an entity of any type of the model by name, applies
// attribute assignments through reflection and prints the state browser's
// tree. With --types, lists every type of the model.
//
//   rsvp_browse Rsvp::RsvpSpIdSet paths 'spId[<sessionId=...>_<pathId=<lspId=3>>]'
//
// Assignments (Kel::applyAssignment): attr=value (a plain attribute),
// attr[key] (a member of a set, or a child of a map of entities),
// attr[key]=value (a member of a map of values), attr+=value (appended to a
// queue). Values and keys are in their string forms.
//
// Bad arguments end the program with one line on standard error,
// "rsvp_browse: <reason>", and exit status 2 (usage, unknown type) or 1 (a
// name, key or assignment that cannot be applied); nothing goes to standard
// output then.
#include <Rsvp/Rsvp.h>

#include <exception>
#include <iostream>
#include <string>
#include <string_view>

#include "ToolError.h"

namespace {

constexpr char kUsage[] =
    "usage: rsvp_browse <Type> [<name or key>] [attr=value | attr[key] | attr[key]=value | "
    "attr+=value ...] | rsvp_browse --types";

int fail(int status, std::string_view text) { return toolError("rsvp_browse", status, text); }

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return fail(2, kUsage);
  std::string_view const typeName = argv[1];
  if (typeName == "--types") {
    if (argc > 2) return fail(2, kUsage);
    for (Kel::TypeDesc const* t : Rsvp::allTypes()) std::cout << t->name() << "\n";
    return 0;
  }
  Kel::TypeDesc const* type = Rsvp::typeByName(typeName);
  if (!type || type->kind() != Kel::TypeKind::entity || !type->create()) {
    return fail(2, "No entity type '" + Kel::excerpt(typeName) + "' that can be made from a name");
  }
  try {
    Kel::Ptr<Kel::Entity> root = type->create()(argc > 2 ? argv[2] : "");
    for (int i = 3; i < argc; ++i) Kel::applyAssignment(*root, argv[i]);
    // Printed whole only once every assignment took.
    std::cout << Kel::browseText(*root);
  } catch (std::exception const& e) {
    return fail(1, e.what());
  } catch (...) {
    return fail(1, "unknown error");
  }
  return 0;
}
