// The status root: making the tree once, and emptying it in place.
#include <Rsvp/RsvpStatus.h>
#include <Rsvp/RsvpTrace.h>

namespace Rsvp {

void RsvpStatus::doInit() {
  neighborStateCollIs("nsc")->sharedStateIs();
  spStateCollIs("spsc");
  sessionStateCollIs("ssc");
  neighborIdDedupTableIs();
  sessionIdDedupTableIs();
  pathIdDedupTableIs();
  indexActiveDsToSpIs("iadts");
  frrNextHopCollIs("fnhc");
  localIntfMapIs("lim");
  spLocalIntfMapSubscriberCollIs("limsc");
  spLocalIntfMapNotifyCollIs("limnc");
  spLocalIntfTrieSubscriberCollIs("litsc");
  spLocalIntfTrieNotifyCollIs("litnc");
  neighborIntfMapIs("nim");
  spNeighborIntfMapSubscriberCollIs("nimsc");
  spNeighborIntfMapNotifyCollIs("nimnc");
  spRouterIdTableSubscriberCollIs("ritsc");
  spRouterIdTableNotifyCollIs("ritnc");
  labelRequestTableIs("lrt");
  labelAllocTableIs("lat");
  neighborRxMsgPipeCollIs("nrxmpc");
  neighborChallengeRxMsgPipeCollIs("nchrxmpc");
  neighborHelloRxMsgPipeCollIs("nhrxmpc");
  neighborTxMsgPipeCollIs("ntxmpc");
  spTxMsgPipeCollIs("sptxmpc");
  spRxMsgPipeCollIs("sprxmpc");
  hopObjConfigCollIs("hcc");
  hopObjStatusCollIs("hsc");
  labelObjConfigCollIs("locc");
  labelObjStatusCollIs("losc");
  eroConfigCollIs("ecc");
  eroStatusCollIs("esc");
  rroConfigCollIs("rcc");
  rroStatusCollIs("rsc");
  tunnelRequestTableCollIs("trtc");
  tunnelConfigCollIs("tcc");
  tunnelStatusCollIs("tsc");
  // Named after bypass access lists, not after the attribute's initials.
  frrSharedDataIs("sacls");
  ipSocketErrorStateIs();
}

namespace {

void clear(RsvpSpIpSubscriberColl* subscribers, RsvpSpIpNotifyColl* notifies) {
  if (subscribers) subscribers->subscriberDelAll();
  if (notifies) notifies->notifyDelAll();
}

}  // namespace

void RsvpStatus::reset() {
  RSVP_TRACE(statusTrace(), 8, "RsvpStatus reset fullName=" << fullName());
  if (auto const c = neighborStateColl()) {
    c->neighborStateDelAll();
    if (auto const shared = c->sharedState()) shared->txSeqNoIs(0);
  }
  if (auto const c = spStateColl()) c->spStateDelAll();
  if (auto const c = sessionStateColl()) c->sessionStateDelAll();
  if (auto const c = indexActiveDsToSp()) c->spIdSetDelAll();
  if (auto const c = frrNextHopColl()) c->nextHopDelAll();
  if (auto const c = localIntfMap()) {
    c->intfIdDelAll();
    // The tries index the same local interfaces by prefix.
    if (auto const trie = c->ipTrie()) trie->intfIdDelAll();
    if (auto const trie = c->ip6Trie()) trie->intfIdDelAll();
  }
  clear(spLocalIntfMapSubscriberColl().get(), spLocalIntfMapNotifyColl().get());
  clear(spLocalIntfTrieSubscriberColl().get(), spLocalIntfTrieNotifyColl().get());
  if (auto const c = neighborIntfMap()) c->intfAndAddrDelAll();
  clear(spNeighborIntfMapSubscriberColl().get(), spNeighborIntfMapNotifyColl().get());
  clear(spRouterIdTableSubscriberColl().get(), spRouterIdTableNotifyColl().get());
  if (auto const c = labelRequestTable()) c->labelRequestDelAll();
  if (auto const c = labelAllocTable()) c->labelDelAll();
  if (auto const c = neighborRxMsgPipeColl()) c->msgPipeDelAll();
  if (auto const c = neighborChallengeRxMsgPipeColl()) c->msgPipeDelAll();
  if (auto const c = neighborHelloRxMsgPipeColl()) c->msgPipeDelAll();
  if (auto const c = neighborTxMsgPipeColl()) c->msgPipeDel();
  if (auto const c = spRxMsgPipeColl()) c->msgPipeDelAll();
  if (auto const c = spTxMsgPipeColl()) c->msgPipeDelAll();
  if (auto const c = hopObjConfigColl()) {
    c->hopObjUsConfigDelAll();
    c->hopObjDsConfigDelAll();
  }
  if (auto const c = hopObjStatusColl()) {
    c->hopObjUsStatusDelAll();
    c->hopObjDsStatusDelAll();
  }
  if (auto const c = labelObjConfigColl()) c->labelObjConfigDelAll();
  if (auto const c = labelObjStatusColl()) c->labelObjStatusDelAll();
  if (auto const c = eroConfigColl()) c->eroConfigDelAll();
  if (auto const c = eroStatusColl()) c->eroStatusDelAll();
  if (auto const c = rroConfigColl()) {
    c->rroUsConfigDelAll();
    c->rroDsConfigDelAll();
  }
  if (auto const c = rroStatusColl()) {
    c->rroUsStatusDelAll();
    c->rroDsStatusDelAll();
  }
  if (auto const c = tunnelRequestTableColl()) c->tunnelReqTableDelAll();
  if (auto const c = tunnelConfigColl()) {
    c->tunnelConfigDelAll();
    c->spIdMapDelAll();
  }
  if (auto const c = tunnelStatusColl()) c->tunnelStatusDelAll();
  if (auto const c = frrSharedData()) c->pathKeyToNeighborDelAll();
  if (auto const c = ipSocketErrorState()) c->reset();
}

}  // namespace Rsvp
