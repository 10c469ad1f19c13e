// Writes the seed corpus of the attribute-log fuzz target: for each kind of
// record, the change frame that a real writer sends after the fixture's
// snapshot, once as the records of a change frame (first byte 1) and once as
// a raw stream (first byte 0).
//
//   make_attrlog_corpus <directory>
#include "AttrLogFixture.h"

#include <fstream>
#include <functional>
#include <iostream>
#include <string>
#include <vector>

namespace {

using Rsvp::Sample::Root;

void write(std::string const& path, char first, std::string_view bytes) {
  std::ofstream out(path, std::ios::binary);
  out.put(first);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "usage: make_attrlog_corpus <directory>\n";
    return 2;
  }
  Rsvp::RsvpSpId id;
  id.pathIdIs(Rsvp::RsvpPathId(2));
  std::vector<std::pair<char const*, std::function<void(Root&)>>> const changes = {
      {"plain", [](Root& r) { r.countIs(9); }},
      {"string", [](Root& r) { r.labelIs("changed"); }},
      {"enumeration", [](Root& r) { r.styleIs(Rsvp::RsvpResvStyle(2)); }},
      {"set-add", [&](Root& r) { r.idsIs(id); }},
      {"set-del", [](Root& r) { r.idsDelAll(); }},
      {"map-value", [&](Root& r) { r.weightsIs(id, 3); }},
      {"ordered-map", [](Root& r) { r.hopIs(2, Lumo::IpGenAddr("2001:db8::1")); }},
      {"map-entity-add", [](Root& r) { r.leafIs(6)->weightIs(1); }},
      {"map-entity-del", [](Root& r) { r.leafDel(4); }},
      {"map-entity-args", [&](Root& r) { r.pathIs(id, false)->noteIs("n"); }},
      {"queue-enq", [](Root& r) { r.newPoints(3, 4); }},
      {"queue-deq", [](Root& r) { r.pointsDeq(); }},
      {"queue-shared", [](Root& r) { r.newEvents(10)->weightIs(5); }},
      {"slot-del", [](Root& r) { r.slotDel(); }},
      {"slot-change", [](Root& r) { r.slotIs()->levelIs(4); }},
      {"ref-tree", [](Root& r) { r.sharedIs(r.branch(5)); }},
      {"ref-fresh", [](Root& r) { r.sharedIs(Rsvp::Sample::leafFactory(8)); }},
      {"ref-departed",
       [](Root& r) {
         Kel::Ptr<Rsvp::Sample::Leaf> const leaf = r.leaf(4);
         r.leafDel(4);
         leaf->weightIs(6);
       }},
      {"release", [](Root& r) { r.sharedIs(nullptr); }},
  };
  for (auto const& [name, change] : changes) {
    Kel::Ptr<Root> const root = fuzzing::fixtureRoot();
    Kel::LogWriter writer(*root);
    auto sink = std::make_unique<Kel::MemorySink>();
    Kel::MemorySink* const s = sink.get();
    writer.subscriberNew(std::move(sink));
    (void)s->take();
    change(*root);
    writer.flush();
    std::string const frame = s->take();
    std::string const dir = argv[1];
    write(dir + "/frame-" + name, 0, frame);
    if (frame.size() >= 28)
      write(dir + "/records-" + name, 1, std::string_view(frame).substr(24, frame.size() - 28));
  }
  return 0;
}
