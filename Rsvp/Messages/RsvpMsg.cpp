// The message model's hand-written routines: the overridable facts of a
// message, and the comparison that tells a refresh (equal) from a change.
#include <Rsvp/RsvpMsg.h>

#include <Kel/Assert.h>

namespace Rsvp {

namespace {

// The state path named by a session object and the lsp id of a sender
// template or filterSpecObj; no path (65536) when that object is the default.
template <class Sender>
RsvpSpId spIdOf(RsvpSessionObj const& session, Sender const& sender) {
  RsvpSessionId const id(session.dstIp(), RsvpTunnelId(session.tunnelId()), session.extTunnelId());
  return RsvpSpId(id, sender == Sender() ? RsvpPathId() : RsvpPathId(sender.lspId()));
}

// The caller's answer for the common part, or nothing when it must go on.
[[nodiscard]] int commonAnswer(RsvpMsgEqualStatus status) {
  switch (status) {
    case equalPass: return 1;
    case equalFail: return 0;
    case equalContinue: return -1;
  }
  return 0;
}

}  // namespace

// ---- RsvpMsg

Lumo::IpGenAddr RsvpMsg::hopIp() const { return srcIp(); }

RsvpMsgIdObj RsvpMsg::txMsgIdObj() const {
  return RsvpMsgIdObj(false, RsvpMsgIdObj::invalidMsgIdEpochValue(), 0);
}

RsvpSpId RsvpMsg::spId() const { return RsvpSpId(); }

bool RsvpMsg::routerAlert() const {
  if (routerAlertOverride()) return true;
  // Path, PathTear and ResvConf: bits 1, 5 and 7 of the type codes 0 to 7.
  Kel::U32 const type = msgType();
  return type < 8 && ((0xa2u >> type) & 1u) != 0;
}

RsvpMsgEqualStatus RsvpMsg::rsvpMsgEqual(Kel::Ptr<RsvpMsg const> const& other) const {
  if (other.get() == this) return equalPass;
  if (!other) return equalFail;
  if (!(srcIp() == other->srcIp()) || !(dstIp() == other->dstIp()) ||
      !(neighborIp() == other->neighborIp())) {
    return equalFail;
  }
  if (!(mplsLabel() == other->mplsLabel())) return equalFail;
  if (unknownObj_.size() != other->unknownObj_.size()) return equalFail;
  auto const* objIter = unknownObj_.head();
  auto const* otherObjIter = other->unknownObj_.head();
  for (; objIter && otherObjIter; objIter = objIter->next, otherObjIter = otherObjIter->next) {
    if (!objIter->value->equal(otherObjIter->value)) return equalFail;
  }
  KEL_ASSERT(!objIter && !otherObjIter && "We already compared objects length, should be equal");
  return equalContinue;
}

// ---- The message classes. Each compares its objects in a fixed order and
// leaves out, on purpose, the message id, the acknowledgement queues and the
// facts of reception.

Lumo::IpGenAddr RsvpPathMsg::hopIp() const { return hopObj().hopIp(); }
RsvpMsgIdObj RsvpPathMsg::txMsgIdObj() const { return msgIdObj(); }
RsvpSpId RsvpPathMsg::spId() const { return spIdOf(sessionObj(), senderTemplateObj()); }

bool RsvpPathMsg::equal(Kel::Ptr<RsvpPathMsg const> const& other) const {
  if (int const answer = commonAnswer(rsvpMsgEqual(other)); answer >= 0) return answer == 1;
  RsvpPathMsg const& o = *other;
  if (!(sessionObj() == o.sessionObj()) || !(hopObj() == o.hopObj()) ||
      !(timeValuesObj() == o.timeValuesObj()) || !(senderTemplateObj() == o.senderTemplateObj()) ||
      !(senderTspecObj() == o.senderTspecObj()) || !(labelRequestObj() == o.labelRequestObj()) ||
      !(sessionAttributeObj() == o.sessionAttributeObj()) ||
      !(fastRerouteObj() == o.fastRerouteObj()) || isBackupMsg() != o.isBackupMsg()) {
    return false;
  }
  if (!adSpecObj() != !o.adSpecObj()) return false;
  if (adSpecObj() && !adSpecObj()->equal(o.adSpecObj())) return false;
  if (!explicitRouteObj() != !o.explicitRouteObj()) return false;
  if (explicitRouteObj() &&
      !rsvpExplicitRouteHopsEqual(*explicitRouteObj(), *o.explicitRouteObj())) {
    return false;
  }
  return RsvpRecordRouteObj::recordRouteObjEqual(recordRouteObj(), o.recordRouteObj());
}

Lumo::IpGenAddr RsvpResvMsg::hopIp() const { return hopObj().hopIp(); }
RsvpMsgIdObj RsvpResvMsg::txMsgIdObj() const { return msgIdObj(); }
RsvpSpId RsvpResvMsg::spId() const { return spIdOf(sessionObj(), filterSpecObj()); }

bool RsvpResvMsg::equal(Kel::Ptr<RsvpResvMsg const> const& other) const {
  if (int const answer = commonAnswer(rsvpMsgEqual(other)); answer >= 0) return answer == 1;
  RsvpResvMsg const& o = *other;
  if (!(sessionObj() == o.sessionObj()) || !(hopObj() == o.hopObj()) ||
      !(timeValuesObj() == o.timeValuesObj()) || !(styleObj() == o.styleObj()) ||
      !(labelObj() == o.labelObj()) || !(flowSpecObj() == o.flowSpecObj()) ||
      !(filterSpecObj() == o.filterSpecObj()) || !(resvConfirmObj() == o.resvConfirmObj()) ||
      isBackupMsg() != o.isBackupMsg()) {
    return false;
  }
  return RsvpRecordRouteObj::recordRouteObjEqual(recordRouteObj(), o.recordRouteObj());
}

RsvpSpId RsvpPathErrMsg::spId() const { return spIdOf(sessionObj(), senderTemplateObj()); }

bool RsvpPathErrMsg::equal(Kel::Ptr<RsvpPathErrMsg const> const& other) const {
  if (int const answer = commonAnswer(rsvpMsgEqual(other)); answer >= 0) return answer == 1;
  RsvpPathErrMsg const& o = *other;
  return sessionObj() == o.sessionObj() && errorSpecObj() == o.errorSpecObj() &&
         senderTemplateObj() == o.senderTemplateObj();
}

RsvpSpId RsvpResvErrMsg::spId() const { return spIdOf(sessionObj(), filterSpecObj()); }

bool RsvpResvErrMsg::equal(Kel::Ptr<RsvpResvErrMsg const> const& other) const {
  if (int const answer = commonAnswer(rsvpMsgEqual(other)); answer >= 0) return answer == 1;
  RsvpResvErrMsg const& o = *other;
  return sessionObj() == o.sessionObj() && hopObj() == o.hopObj() &&
         errorSpecObj() == o.errorSpecObj() && styleObj() == o.styleObj() &&
         filterSpecObj() == o.filterSpecObj() && isBackupMsg() == o.isBackupMsg();
}

Lumo::IpGenAddr RsvpPathTearMsg::hopIp() const { return hopObj().hopIp(); }
RsvpSpId RsvpPathTearMsg::spId() const { return spIdOf(sessionObj(), senderTemplateObj()); }

bool RsvpPathTearMsg::equal(Kel::Ptr<RsvpPathTearMsg const> const& other) const {
  if (int const answer = commonAnswer(rsvpMsgEqual(other)); answer >= 0) return answer == 1;
  RsvpPathTearMsg const& o = *other;
  return sessionObj() == o.sessionObj() && hopObj() == o.hopObj() &&
         senderTemplateObj() == o.senderTemplateObj();
}

Lumo::IpGenAddr RsvpResvTearMsg::hopIp() const { return hopObj().hopIp(); }
RsvpSpId RsvpResvTearMsg::spId() const { return spIdOf(sessionObj(), filterSpecObj()); }

bool RsvpResvTearMsg::equal(Kel::Ptr<RsvpResvTearMsg const> const& other) const {
  if (int const answer = commonAnswer(rsvpMsgEqual(other)); answer >= 0) return answer == 1;
  RsvpResvTearMsg const& o = *other;
  return sessionObj() == o.sessionObj() && hopObj() == o.hopObj() && styleObj() == o.styleObj() &&
         filterSpecObj() == o.filterSpecObj() && isBackupMsg() == o.isBackupMsg();
}

RsvpSpId RsvpResvConfMsg::spId() const { return spIdOf(sessionObj(), filterSpecObj()); }

bool RsvpResvConfMsg::equal(Kel::Ptr<RsvpResvConfMsg const> const& other) const {
  if (int const answer = commonAnswer(rsvpMsgEqual(other)); answer >= 0) return answer == 1;
  RsvpResvConfMsg const& o = *other;
  return sessionObj() == o.sessionObj() && errorSpecObj() == o.errorSpecObj() &&
         resvConfirmObj() == o.resvConfirmObj() && styleObj() == o.styleObj() &&
         filterSpecObj() == o.filterSpecObj();
}

}  // namespace Rsvp
