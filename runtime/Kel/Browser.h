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

namespace Kel {

void browse(std::ostream& os, Entity const& root);
[[nodiscard]] String browseText(Entity const& root);

}  // namespace Kel

#endif  // KEL_BROWSER_H
