// Feeds hostile bytes to the attribute-log reader of a status tree that the
// agent's road filled (see LogFuzz.h for what must hold): the model's own
// types, with shared messages, queues, history and tables of entities.
#include "LogFuzz.h"
#include "StatusLogFixture.h"

namespace {

struct Source {
  fuzzing::StatusRoad road;
  Kel::LogWriter writer{*road.status};
  Kel::String snapshot = fuzzing::snapshotOf(writer);
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  static Source const source;
  fuzzing::feedReplica(
      *source.road.status, source.snapshot, [] { return Rsvp::rsvpStatusFactory("status"); }, data,
      size);
  return 0;
}
