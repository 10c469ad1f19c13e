// A walk through the library as an agent uses it: identifiers and values are
// built, printed, parsed back, compared and hashed; an entity notifies its
// observers and the state browser prints it by reflection.
#include <Rsvp/Rsvp.h>

#include <iostream>
#include <map>

namespace {

void section(char const* title) { std::cout << "\n== " << title << "\n"; }

}  // namespace

int main() {
  using namespace Rsvp;

  section("Identifiers");
  RsvpSessionId const session(Lumo::IpGenAddr("10.0.0.2"), RsvpTunnelId(7),
                              Lumo::IpGenAddr("10.0.0.1"));
  RsvpSpId const sp(session, RsvpPathId(3));
  std::cout << "session      " << session << "\n";
  std::cout << "state path   " << sp << "\n";
  std::cout << "hash         0x" << std::hex << sp.hash() << std::dec << "\n";
  std::cout << "no path      " << RsvpPathId() << " (null: " << std::boolalpha << !RsvpPathId()
            << ")\n";

  section("Parsing back");
  RsvpSpId parsed;
  parsed.stringValueIs(sp.stringValue());
  std::cout << "parsed equals original: " << (parsed == sp) << "\n";
  RsvpPathId lsp;
  lsp.stringValueIs("<lspId=-1>");
  std::cout << "<lspId=-1> keeps the low 16 bits: " << lsp << "\n";
  for (char const* bad : {"<lspId=3>x", "<dstIp=10.0.0.2>_<tunnelId=70000>_<extTunnelId=>"}) {
    try {
      RsvpSessionId s;
      if (bad[1] == 'l') {
        lsp.stringValueIs(bad);
      } else {
        s.stringValueIs(bad);
      }
    } catch (Kel::RangeException const& e) {
      std::cout << "rejected " << bad << ": " << e.what() << "\n";
    }
  }

  section("Ordering");
  std::map<RsvpSpId, char const*> table;
  table[RsvpSpId(session, RsvpPathId())] = "no path yet";
  table[RsvpSpId(session, RsvpPathId(65535))] = "largest LSP id";
  table[sp] = "LSP 3";
  for (auto const& [id, what] : table) std::cout << id.pathId() << "  " << what << "\n";

  section("Values and enumerations");
  RsvpError const error(rsvpRoutingProblem, 5);
  std::cout << error << "\n";
  std::cout << strepToValue<RsvpError>(valueToStrep(error)) << "\n";
  std::cout << "style " << resvStyleSe << " = " << static_cast<Kel::U32>(resvStyleSe) << "\n";
  try {
    RsvpRefreshId refresh(1, 5);
    refresh.epochIs(RsvpMsgIdObj::invalidMsgIdEpochValue() + 1);
  } catch (Kel::RangeException const& e) {
    std::cout << "rejected epoch: " << e.what() << "\n";
  }

  section("Entities, notification and the state browser");
  struct Watcher : RsvpSpIdSet::NotifieeConst {
    using RsvpSpIdSet::NotifieeConst::NotifieeConst;
    using RsvpSpIdSet::NotifieeConst::onSpId;
    void onSpId(RsvpSpId const& id) override { std::cout << "  changed: " << id.pathId() << "\n"; }
  };
  Kel::Ptr<RsvpSpIdSet> const paths = rsvpSpIdSetFactory("activePaths");
  Watcher const watcher(paths.get());
  paths->spIdIs(sp);
  paths->spIdIs(sp);  // already there: nobody hears of it
  paths->spIdIs(RsvpSpId(session, RsvpPathId(4)));
  paths->spIdDel(RsvpSpId(session, RsvpPathId(9)));  // absent: nothing happens
  Kel::browse(std::cout, *paths);
  return 0;
}
