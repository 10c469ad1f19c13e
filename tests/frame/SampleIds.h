// State-path ids for the entity frame's tests: one session, path `lsp`.
#ifndef TESTS_FRAME_SAMPLEIDS_H
#define TESTS_FRAME_SAMPLEIDS_H

#include <Rsvp/RsvpSpId.h>

namespace Rsvp::SampleIds {

inline RsvpSpId spId(Kel::U32 lsp) {
  return RsvpSpId(
      RsvpSessionId(Lumo::IpGenAddr("10.0.0.2"), RsvpTunnelId(7), Lumo::IpGenAddr("10.0.0.1")),
      RsvpPathId(lsp));
}

}  // namespace Rsvp::SampleIds

#endif  // TESTS_FRAME_SAMPLEIDS_H
