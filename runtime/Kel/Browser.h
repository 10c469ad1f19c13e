// A state browser: walks an entity by reflection and prints it as an
// indented tree, two blanks per level.
//
//   root: Rsvp::Sample::Root
//     count: 3
//     ids:
//       [<sessionId=...>_<pathId=<lspId=1>>]
//     weights: {}
//     leaf:
//       [4]: Rsvp::Sample::Leaf
//         id: 4
//         weight: 0
//     shared: -> root/4
//     slot: null
//
// A value attribute prints as "name: <string form>"; an entity as
// "name: <type>" followed by its attributes, the first time it is met, and as
// "name: -> <full name>" afterwards (so shared entities and cycles print
// once); an empty pointer as "name: null". A collection prints "name:" and a
// line per member, "[key]" for a set, "[key]: value" otherwise, or
// "name: {}" when empty.
#ifndef KEL_BROWSER_H
#define KEL_BROWSER_H

#include <Kel/Entity.h>
#include <Kel/Types.h>

#include <iosfwd>
#include <string_view>

namespace Kel {

void browse(std::ostream& os, Entity const& root);
[[nodiscard]] String browseText(Entity const& root);

// Applies one assignment, keys and values in their string forms, to `entity`
// through the generic operation (so the typed checks and notifications run):
//
//   attr=value       a plain attribute (one fixed at construction raises
//                    Kel::ImmutableAttributeException)
//   attr[key]        adds key to a set, or finds or makes the child under key
//                    in a map of entities
//   attr[key]=value  stores a member of a map of values
//   attr+=value      appends to a queue of values
//
// A key or value that does not parse or is out of range raises
// Kel::RangeException naming the attribute. Any other refusal raises
// Kel::Exception, with input quoted as an excerpt (Kel::appendExcerpt):
//
//   "Bad assignment '<text>'; expected attr=value, attr[key], attr[key]=value
//    or attr+=value" (one line)
//   "No attribute '<attr>' in <Type>"
//   "Cannot apply '<text>': <Type>::<attr> takes <attr>[key]" (the form that
//    the attribute takes; "no assignment" for constants, derived attributes,
//    children, references and queues of entities)
//   "Cannot apply '<text>'" (the attribute refused it, such as a child that
//    needs constructor arguments besides its key)
//
// On any error the entity is left as it was.
void applyAssignment(Entity& entity, std::string_view assignment);

}  // namespace Kel

#endif  // KEL_BROWSER_H
