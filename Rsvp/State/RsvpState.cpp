// The views of the state blocks: the latest incoming copy, and the head
// end's reading of its tunnel configuration.
#include <Rsvp/RsvpState.h>

namespace Rsvp {

Kel::Ptr<RsvpPathMsg const> RsvpInPathState::latestMsg() const {
  return msgLastRefresh() >= backupMsgLastRefresh() ? msg() : backupMsg();
}

Kel::Seconds RsvpInPathState::latestMsgLastRefresh() const {
  return std::max(msgLastRefresh(), backupMsgLastRefresh());
}

Kel::Ptr<RsvpResvMsg const> RsvpInResvState::latestMsg() const {
  return msgLastRefresh() >= backupMsgLastRefresh() ? msg() : backupMsg();
}

Kel::Seconds RsvpInResvState::latestMsgLastRefresh() const {
  return std::max(msgLastRefresh(), backupMsgLastRefresh());
}

RsvpTunnelConfigId RsvpHeadendState::tunnelConfigId() const {
  auto const config = tunnelConfig();
  return config ? config->tunnelConfigId() : RsvpTunnelConfigId();
}

Lumo::IpGenAddr RsvpHeadendState::srcIp() const {
  auto const config = tunnelConfig();
  return config ? config->srcIp() : Lumo::IpGenAddr();
}

Lumo::IpGenAddr RsvpHeadendState::dstIp() const {
  auto const config = tunnelConfig();
  return config ? config->dstIp() : Lumo::IpGenAddr();
}

Lumo::IpGenAddr RsvpHeadendState::hop(Kel::U32 index) const {
  auto const config = tunnelConfig();
  KEL_ASSERT(config && "The head end's tunnelConfig must be set to read its hops");
  return config->hop(index);
}

Lumo::EthType RsvpHeadendState::ethType() const {
  auto const config = tunnelConfig();
  return config ? config->ethType() : Lumo::EthType();
}

bool RsvpHeadendState::localProtectionDesired() const {
  auto const config = tunnelConfig();
  return config && config->localProtectionDesired();
}

bool RsvpHeadendState::nodeProtectionDesired() const {
  auto const config = tunnelConfig();
  return config && config->nodeProtectionDesired();
}

Kel::String RsvpHeadendState::sessionName() const {
  auto const config = tunnelConfig();
  return config ? config->sessionName() : Kel::String();
}

Kel::F32 RsvpHeadendState::bandwidth() const {
  auto const config = tunnelConfig();
  return config ? config->bandwidth() : 0.0f;
}

}  // namespace Rsvp
