#include <Orv/DedupHandle.h>
#include <Orv/DedupHashTable.h>

#include <Kel/Assert.h>

namespace Orv {

constinit Kel::TypeDesc const typeDedupHandle("Orv::DedupHandle", nullptr, 0,
                                              Kel::TypeDesc::Parts{.kind = Kel::TypeKind::entity});

DedupHandle::~DedupHandle() {
  DedupHook const& hook = hook_;  // named so that the assertion reads as the rule
  KEL_ASSERT(!hook.is_linked());
}

void DedupHandle::onZeroReferences() const noexcept {
  // Already going: a reference taken during the release was dropped again.
  if (refFlagIs<unlinkingBitPos>(true)) return;
  if (hasLifeTimeNotifier()) {
    onLifeTimeEnd();
    KEL_ASSERT(references() == 0 && "A lifetime notifier kept a reference to its dedup handle");
  }
  // Only this thread unlinks the handle, so the table read here stays put
  // (a table is not destroyed while its handles are being released).
  if (DedupHashTable* const table = hook_.table) table->unlink(*this);
  delete this;
}

}  // namespace Orv
