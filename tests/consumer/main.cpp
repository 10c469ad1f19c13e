// Builds a state-path id from its text, prints, compares and hashes it, with
// only the umbrella header of the installed package.
#include <Rsvp/Rsvp.h>

#include <iostream>

int main() {
  char const* const text =
      "<sessionId=<dstIp=10.0.0.2>_<tunnelId=7>_<extTunnelId=10.0.0.1>>_<pathId=<lspId=3>>";
  Rsvp::RsvpSpId id;
  id.stringValueIs(text);
  Rsvp::RsvpSpId const copy = Rsvp::strepToValue<Rsvp::RsvpSpId>(id.stringValue());
  std::cout << id << " hash 0x" << std::hex << id.hash() << "\n";
  bool const ok =
      id == copy && !(id < copy) && id.stringValue() == text && id.hash() == 0xad695a2au;
  std::cout << (ok ? "consumer ok" : "consumer FAILED") << "\n";
  return ok ? 0 : 1;
}
