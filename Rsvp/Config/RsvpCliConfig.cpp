// The operator's settings: passwords decoded on demand, the return to the
// command-line defaults, and the test for them.
#include <Rsvp/RsvpCliConfig.h>

#include <CipherkitLib/Codec.h>

namespace Rsvp {

// The codec's errors pass to the caller unchanged; nothing is kept.
Kel::String RsvpCliConfig::clearPassword(Kel::U32 index) const {
  auto const* encoded = encodedPassword_.find(index);
  if (!encoded) return Kel::String();
  return CipherkitLib::doDecodeKey(*encoded);
}

Kel::String RsvpCliConfig::activePassword() const { return clearPassword(activePasswordIndex()); }

void RsvpCliConfig::reset() {
  enabledIs(false);
  refreshIntervalIs(refreshIntervalDefault());
  refreshMethodIs(refreshMethodDefault());
  helloIntervalIs(helloIntervalDefault());
  helloMultiplierIs(helloMultiplierDefault());
  authTypeIs(authTypeDefault());
  authSeqWindowSizeIs(authSeqWindowSizeDefault());
  encodedPasswordDelAll();
  activePasswordIndexIs(0);
  if (auto const requests = staticTunnelRequestColl()) requests->staticTunnelReqDelAll();
  frrModeIs(frrModeDefault());
  reversionModeIs(reversionModeDefault());
}

bool RsvpCliConfig::isDefault() const {
  auto const requests = staticTunnelRequestColl();
  return !enabled() && refreshInterval() == refreshIntervalDefault() &&
         refreshMethod() == refreshMethodDefault() && helloInterval() == helloIntervalDefault() &&
         helloMultiplier() == helloMultiplierDefault() && authType() == authTypeDefault() &&
         authSeqWindowSize() == authSeqWindowSizeDefault() && encodedPasswordSize() == 0 &&
         activePasswordIndex() == 0 && frrMode() == frrModeDefault() &&
         reversionMode() == reversionModeDefault() &&
         (!requests || requests->staticTunnelReqSize() == 0);
}

}  // namespace Rsvp
