// Writes the seed corpus of an attribute-log fuzz target: for each change,
// the change frame that a real writer sends after the source's snapshot, once
// as the records of a change frame (first byte 1) and once as a raw stream
// (first byte 0). The changes of the attribute-log target's tree make every
// kind of record; those of the status tree are steps of the agent's road.
//
//   make_attrlog_corpus attrlog|statuslog <directory>
#include "AttrLogFixture.h"
#include "StatusLogFixture.h"

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

// For each named change: a fresh source, subscribed to, then changed and
// flushed; the flush's frame goes to `dir`.
template <class Source>
using Changes = std::vector<std::pair<char const*, std::function<void(Source&)>>>;

template <class Source, class RootOf>
void writeSeeds(std::string const& dir, RootOf&& rootOf, Changes<Source> const& changes) {
  for (auto const& [name, change] : changes) {
    Source source;
    Kel::LogWriter writer(rootOf(source));
    auto sink = std::make_unique<Kel::MemorySink>();
    Kel::MemorySink* const s = sink.get();
    writer.subscriberNew(std::move(sink));
    (void)s->take();
    change(source);
    writer.flush();
    std::string const frame = s->take();
    write(dir + "/frame-" + name, 0, frame);
    if (frame.size() >= 28)
      write(dir + "/records-" + name, 1, std::string_view(frame).substr(24, frame.size() - 28));
  }
}

struct Fixture {
  Kel::Ptr<Root> root = fuzzing::fixtureRoot();
};

}  // namespace

int main(int argc, char** argv) {
  std::string const which = argc == 3 ? argv[1] : "";
  if (which != "attrlog" && which != "statuslog") {
    std::cerr << "usage: make_attrlog_corpus attrlog|statuslog <directory>\n";
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
  std::string const dir = argv[2];
  if (which == "attrlog") {
    Changes<Fixture> wrapped;
    for (auto const& named : changes)
      wrapped.emplace_back(named.first, [&change = named.second](Fixture& f) { change(*f.root); });
    writeSeeds<Fixture>(
        dir, [](Fixture& f) -> Kel::Entity& { return *f.root; }, wrapped);
    return 0;
  }
  using fuzzing::StatusRoad;
  writeSeeds<StatusRoad>(dir, [](StatusRoad& r) -> Kel::Entity& { return *r.status; },
                         {
                             {"refresh",
                              [](StatusRoad& r) {
                                r.agent->nowIs(60);
                                r.up(0, 0);
                              }},
                             {"change", [](StatusRoad& r) { r.up(0, 2); }},
                             {"new-path", [](StatusRoad& r) { r.up(3, 0); }},
                             {"tear", [](StatusRoad& r) { r.tear(0); }},
                             {"label",
                              [](StatusRoad& r) {
                                r.agent->received(r.packets.downstreamOf(2), r.packets.resv(2, 77));
                              }},
                         });
  return 0;
}
