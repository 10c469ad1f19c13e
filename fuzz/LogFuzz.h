// What the attribute-log fuzz targets share: the snapshot a subscription
// starts with, and one input fed to a fresh replica of a source tree.
#ifndef RSVP_FUZZ_LOGFUZZ_H
#define RSVP_FUZZ_LOGFUZZ_H

#include <Kel/AttrLog.h>
#include <Kel/TreeCompare.h>

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string_view>

namespace fuzzing {

// Subscribes to `writer` and answers what the subscription starts with.
inline Kel::String snapshotOf(Kel::LogWriter& writer) {
  auto sink = std::make_unique<Kel::MemorySink>();
  Kel::MemorySink* const s = sink.get();
  writer.subscriberNew(std::move(sink));
  return s->take();
}

// Feeds one input to a replica of `source` (made by `makeReplica`) that
// took `snapshot`. The first byte chooses whether the rest is a raw stream
// or the records of one well-framed change frame (so that the record
// decoder is reached past the checksums). Whatever happens, nothing crashes
// or leaks; a refused change frame leaves the replica exactly as it was,
// and a fresh subscription after anything else brings the replica back to
// the source exactly.
template <class Root, class MakeReplica>
void feedReplica(Root const& source, Kel::String const& snapshot, MakeReplica&& makeReplica,
                 std::uint8_t const* data, std::size_t size) {
  if (size == 0) return;
  std::string_view const rest(reinterpret_cast<char const*>(data + 1), size - 1);
  Kel::Ptr<Root> replica = makeReplica();
  auto reader = std::make_unique<Kel::LogReader>(*replica);
  reader->bytesIs(snapshot);
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
    reader->bytesIs(snapshot);
  }
  if (!Kel::replicaDifference(source, *replica).empty()) std::abort();
  // The replica goes first, so that the reader's end frees any cycle the
  // input made within it.
  replica = nullptr;
  reader.reset();
}

}  // namespace fuzzing

#endif  // RSVP_FUZZ_LOGFUZZ_H
