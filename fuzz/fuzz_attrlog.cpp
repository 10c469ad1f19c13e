// Feeds hostile bytes to the attribute-log reader. The first byte chooses
// whether the rest is a raw stream or the records of one well-framed change
// frame (so that the record decoder is reached past the checksums). Whatever
// happens, nothing crashes or leaks; a refused change frame leaves the
// replica exactly as it was, and a fresh subscription after anything else
// brings the replica back to the source exactly.
//
// The source, its snapshot and its text are made once: an input costs a
// replica, a reader and one snapshot applied (two when the input changed
// the replica).
#include "AttrLogFixture.h"

#include <cstdlib>

namespace {

struct Source {
  Kel::Ptr<Rsvp::Sample::Root> root = fuzzing::fixtureRoot();
  Kel::LogWriter writer{*root};
  Kel::String snapshot = fuzzing::snapshotOf(writer);
  Kel::String text = Kel::browseText(*root);
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  static Source const source;
  if (size == 0) return 0;
  std::string_view const rest(reinterpret_cast<char const*>(data + 1), size - 1);
  Kel::Ptr<Rsvp::Sample::Root> replica = Rsvp::Sample::rootFactory("root");
  auto reader = std::make_unique<Kel::LogReader>(*replica);
  reader->bytesIs(source.snapshot);
  bool const oneFrame = data[0] & 1;
  bool refused = false;
  try {
    if (oneFrame) {
      Kel::String frame;
      Kel::logFrame(frame, Kel::logFrameChanges, 3, rest);
      reader->bytesIs(frame);
    } else {
      reader->bytesIs(rest);
    }
  } catch (Kel::LogException const&) {
    refused = true;
  }
  if (!(oneFrame && refused)) {
    reader->reset();
    reader->bytesIs(source.snapshot);
  }
  if (Kel::browseText(*replica) != source.text) std::abort();
  // The replica goes first, so that the reader's end frees any cycle the
  // input made within it.
  replica = nullptr;
  reader.reset();
  return 0;
}
