// Compares a replica with its source attribute by attribute, through
// reflection and without printing either:
//
//   Kel::String const diff = Kel::replicaDifference(*source, *replica);
//   if (!diff.empty()) std::cerr << "replica differs: " << diff << "\n";
//
// Compared: what the attribute log carries and what is computed from it:
// entity types and names; plain, fixed and derived values (a derived value
// that reflection cannot read, such as a secret, is skipped); children, in
// turn; references and shared members, by the entities they point at, each
// pair once (so cycles end); sets, maps and queues, member by member under
// the same key. Not compared: constants, and attributes the log does not
// carry (declared `logged: false`), which a replica cannot have.
#ifndef KEL_TREECOMPARE_H
#define KEL_TREECOMPARE_H

#include <Kel/Entity.h>
#include <Kel/Types.h>

namespace Kel {

// The first difference found, as "<full name of the source's entity>.<attr>:
// <what differs>", or empty when the trees are alike.
[[nodiscard]] String replicaDifference(Entity const& source, Entity const& replica);

}  // namespace Kel

#endif  // KEL_TREECOMPARE_H
