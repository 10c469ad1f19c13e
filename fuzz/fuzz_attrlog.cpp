// Feeds hostile bytes to the attribute-log reader of a tree holding one
// member of every attribute kind (see LogFuzz.h for what must hold).
//
// The source and its snapshot are made once: an input costs a
// replica, a reader and one snapshot applied (two when the input changed
// the replica).
#include "AttrLogFixture.h"

namespace {

struct Source {
  Kel::Ptr<Rsvp::Sample::Root> root = fuzzing::fixtureRoot();
  Kel::LogWriter writer{*root};
  Kel::String snapshot = fuzzing::snapshotOf(writer);
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  static Source const source;
  fuzzing::feedReplica(
      *source.root, source.snapshot, [] { return Rsvp::Sample::rootFactory("root"); }, data, size);
  return 0;
}
