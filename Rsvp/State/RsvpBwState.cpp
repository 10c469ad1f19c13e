// The bandwidth status: built from the traffic-engineering statuses; its
// figures are the traffic-engineering component's, so this model answers 0.
#include <Rsvp/RsvpBwState.h>

namespace Rsvp {

Kel::Ptr<BwResvStatus> BwResvStatus::fromTeStatus(
    Kel::Name name, Kel::Ptr<TrafficEngineering::BandwidthClientStatus const> const& clientStatus,
    Kel::Ptr<TrafficEngineering::BandwidthHoldStatus const> const& holdStatus) {
  Kel::Ptr<BwResvStatus> status = bwResvStatusFactory(std::move(name));
  status->clientStatusIs(clientStatus);
  status->holdStatusIs(holdStatus);
  return status;
}

void BwResvStatus::setupStatusDel() { setupStatusIs(nullptr); }

void BwResvStatus::policyDel() { policyIs(nullptr); }

Kel::F64 BwResvStatus::capacity(Lumo::IntfId const&, TrafficEngineering::BwPriority const&) const {
  return 0.0;
}

Kel::F64 BwResvStatus::availableBandwidth(Lumo::IntfId const&,
                                          TrafficEngineering::BwPriority const&) const {
  return 0.0;
}

Kel::F64 BwResvStatus::reservedBandwidth(Lumo::IntfId const&,
                                         TrafficEngineering::BwPriority const&) const {
  return 0.0;
}

}  // namespace Rsvp
