// Feeds hostile bytes to the attribute-log reader. The first byte chooses
// whether the rest is a raw stream or the records of one well-framed change
// frame (so that the record decoder is reached past the checksums). Whatever
// happens, nothing crashes, and a fresh subscription afterwards brings the
// replica back to the source exactly.
#include <Rsvp/FrameTestModel.h>
#include <Rsvp/Rsvp.h>

#include <Kel/AttrLog.h>

#include <cstdlib>

namespace {

using Rsvp::Sample::Root;

struct Fixture {
  Kel::Ptr<Root> source = Rsvp::Sample::rootFactory("root");
  Fixture() {
    source->countIs(3);
    source->labelIs("x");
    source->leafIs(4)->weightIs(2);
    source->branchIs(5);
    source->hopIs(1, Lumo::IpGenAddr("10.0.0.1"));
    source->newPoints(1, 2);
    source->slotIs();
    source->sharedIs(source->leaf(4));
    Rsvp::RsvpSpId id;
    id.pathIdIs(Rsvp::RsvpPathId(1));
    source->idsIs(id);
    source->weightsIs(id, 7);
  }
};

Kel::String snapshotOf(Kel::LogWriter& writer) {
  auto sink = std::make_unique<Kel::MemorySink>();
  Kel::MemorySink* s = sink.get();
  writer.subscriberNew(std::move(sink));
  return s->take();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  static Fixture fixture;
  Kel::LogWriter writer(*fixture.source);
  if (size == 0) return 0;
  std::string_view const rest(reinterpret_cast<char const*>(data + 1), size - 1);
  Kel::Ptr<Root> replica = Rsvp::Sample::rootFactory("root");
  Kel::LogReader reader(*replica);
  Kel::String const snapshot = snapshotOf(writer);
  try {
    reader.bytesIs(snapshot);
    if (data[0] & 1) {
      Kel::String frame;
      Kel::logFrame(frame, Kel::logFrameChanges, 3, rest);
      reader.bytesIs(frame);
    } else {
      reader.bytesIs(rest);
    }
  } catch (Kel::LogException const&) {
  }
  reader.reset();
  reader.bytesIs(snapshotOf(writer));
  if (Kel::browseText(*replica) != Kel::browseText(*fixture.source)) std::abort();
  return 0;
}
