// Feeds arbitrary text to the string parsers. A parse either raises the range
// error or gives a value whose printed form parses back to the same value.
#include <Rsvp/Rsvp.h>

#include <cstdlib>

namespace {

template <class T>
void roundTrip(std::string_view text) {
  T v;
  try {
    v = Kel::strepToValue<T>(text);
  } catch (Kel::RangeException const&) {
    return;
  }
  Kel::String const printed = Kel::valueToStrep(v);
  T const back = Kel::strepToValue<T>(printed);
  if (!(back == v) || Kel::valueToStrep(back) != printed) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  if (size == 0) return 0;
  std::string_view const text(reinterpret_cast<char const*>(data + 1), size - 1);
  switch (data[0] % 16) {
    case 0: roundTrip<Rsvp::RsvpSpId>(text); break;
    case 1: roundTrip<Rsvp::RsvpSessionId>(text); break;
    case 2: roundTrip<Rsvp::RsvpPathId>(text); break;
    case 3: roundTrip<Rsvp::RsvpNeighborId>(text); break;
    case 4: roundTrip<Rsvp::RsvpTunnelId>(text); break;
    case 5: roundTrip<Rsvp::RsvpError>(text); break;
    case 6: roundTrip<Rsvp::RsvpTunnelConfigId>(text); break;
    case 7: roundTrip<Rsvp::RsvpRefreshId>(text); break;
    case 8: roundTrip<Rsvp::RsvpMsgIdObj>(text); break;
    case 9: roundTrip<Lumo::IpGenAddr>(text); break;
    case 10: roundTrip<Lumo::IpGenPrefix>(text); break;
    case 11: roundTrip<Lumo::MplsLabel>(text); break;
    case 12: roundTrip<Lumo::EthType>(text); break;
    case 13: roundTrip<Lumo::IntfId>(text); break;
    case 14: roundTrip<Kel::String>(text); break;
    default: roundTrip<Rsvp::RsvpResvStyle>(text); break;
  }
  return 0;
}
