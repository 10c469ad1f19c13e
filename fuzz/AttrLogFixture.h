// The source tree the attribute-log fuzz target replicates, shared with the
// program that writes its seed corpus: one member of every attribute kind.
#ifndef RSVP_FUZZ_ATTRLOGFIXTURE_H
#define RSVP_FUZZ_ATTRLOGFIXTURE_H

#include <Rsvp/FrameTestModel.h>
#include <Rsvp/Rsvp.h>

#include "LogFuzz.h"

#include <memory>

namespace fuzzing {

inline Kel::Ptr<Rsvp::Sample::Root> fixtureRoot() {
  Kel::Ptr<Rsvp::Sample::Root> source = Rsvp::Sample::rootFactory("root");
  source->countIs(3);
  source->labelIs("x");
  source->leafIs(4)->weightIs(2);
  source->branchIs(5);
  source->hopIs(1, Lumo::IpGenAddr("10.0.0.1"));
  source->newPoints(1, 2);
  source->newEvents(9);
  source->slotIs();
  source->sharedIs(source->leaf(4));
  Rsvp::RsvpSpId id;
  id.pathIdIs(Rsvp::RsvpPathId(1));
  source->idsIs(id);
  source->weightsIs(id, 7);
  source->pathIs(id, true);
  return source;
}

}  // namespace fuzzing

#endif  // RSVP_FUZZ_ATTRLOGFIXTURE_H
