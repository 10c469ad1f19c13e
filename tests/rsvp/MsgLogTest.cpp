// Messages through the attribute log: a Path with its routes, ADSPEC and
// unknown objects (shared entities outside the tree) reaches a replica whole,
// and so does every entity type of the model in its initial state.
#include <Rsvp/Rsvp.h>

#include <gtest/gtest.h>

#include "../TestSupport.h"

namespace {

using namespace Rsvp;
using Lumo::IpGenAddr;

// A source and its replica, joined from a snapshot on.
template <class T>
struct Mirror : TestSupport::LogLink<T> {
  Mirror(Kel::Ptr<T> s, Kel::Ptr<T> r) : TestSupport::LogLink<T>(std::move(s), std::move(r)) {
    this->connect();
  }
};

// A PATH with routes, ADSPEC and unknown objects, entities shared outside the
// tree, reaches the replica whole and follows changes; so does a RESV with its
// flow descriptors and acknowledgements, and their removal.
TEST(MsgLog, PathAndResvWithTheirObjectsReachTheReplica) {
  auto path = rsvpPathMsgFactory();
  path->sessionObjIs(RsvpSessionObj(IpGenAddr("10.0.0.2"), 7, IpGenAddr("10.0.0.1")));
  auto ero = rsvpExplicitRouteObjFactory();
  ero->hopIs(0, RsvpEroHopSubObj(false, Lumo::IpGenPrefix(IpGenAddr("10.1.0.2"), 32), 0));
  path->explicitRouteObjIs(ero);
  auto rro = rsvpRecordRouteObjFactory();
  rro->hopIs(0, RsvpRroHopSubObj(IpGenAddr("10.1.0.1"), 0x2b, Lumo::MplsLabel(16), 1));
  rro->newUnknownSubObj(9)->dataIs("xyz");
  path->recordRouteObjIs(rro);
  path->newUnknownObj(200, 1)->dataIs("abc");
  Mirror<RsvpPathMsg> m(path, rsvpPathMsgFactory());
  EXPECT_TRUE(m.same()) << Kel::browseText(*m.replica);
  EXPECT_TRUE(m.replica->equal(path)) << "the replica is a refresh of its source";

  auto ero2 = rsvpExplicitRouteObjFactory();
  ero2->hopIs(0, RsvpEroHopSubObj(true, Lumo::IpGenPrefix(IpGenAddr("10.3.0.2"), 32), 0));
  path->explicitRouteObjIs(ero2);
  path->adSpecObjIs(rsvpAdSpecObjFactory());
  path->newUnknownObj(201, 2)->dataIs("def");
  path->ttlIs(3);
  m.sync();
  EXPECT_TRUE(m.same()) << Kel::browseText(*m.replica);
  EXPECT_TRUE(m.replica->equal(path));
  (void)path->unknownObjDeq();
  m.sync();
  EXPECT_TRUE(m.same());

  auto resv = rsvpResvMsgFactory();
  resv->flowDescriptorIs(0)->labelObjIs(RsvpLabelObj(Lumo::MplsLabel(17)));
  resv->flowDescriptorIs(1)->recordRouteObjIs(rsvpRecordRouteObjFactory());
  resv->newMsgIdAckObj(5u, 6u);
  Mirror<RsvpResvMsg> r(resv, rsvpResvMsgFactory());
  EXPECT_TRUE(r.same()) << Kel::browseText(*r.replica);
  resv->flowDescriptorDel(0);
  (void)resv->msgIdAckObjDeq();
  r.sync();
  EXPECT_TRUE(r.same()) << Kel::browseText(*r.replica);
}

// Every entity type that can be made by reflection replicates in its
// initial state.
TEST(MsgLog, EveryEntityTypeInitialState) {
  int types = 0;
  for (Kel::TypeDesc const* t : allTypes()) {
    if (t->kind() != Kel::TypeKind::entity || !t->createWithArgs() || !t->ctorAttrs().empty()) {
      continue;
    }
    ++types;
    Mirror<Kel::Entity> m(t->createWithArgs()(nullptr), t->createWithArgs()(nullptr));
    EXPECT_TRUE(m.same()) << t->name();
  }
  EXPECT_GE(types, 15);
}

// A neighbor reaches the replica with everything but its receive security
// associations, which stay out of its log; an association logged on its own
// brings its queue's record along, by changes and by snapshot. (A value
// queue's record emptied or churned within a frame is AttrLogTest's random
// walk.)
TEST(MsgLog, NeighborWithoutItsSecurityAssociations) {
  auto const source = rsvpNeighborStateCollFactory("neighbors");
  Mirror<RsvpNeighborStateColl> m(source, rsvpNeighborStateCollFactory("neighbors"));
  auto const shared = source->sharedStateIs();
  shared->txSeqNoInc(41);
  auto const n = source->neighborStateIs(RsvpNeighborId(IpGenAddr("10.0.0.2")));
  n->sharedStateIs(shared);
  n->txEpochIs(3);
  n->txMsgIdInc(9);
  n->authKeyIs(1, "secret");
  n->nackTxDesiredIs(RsvpRefreshId(3, 9), IpGenAddr("10.0.0.9"));
  n->txRefreshIdToMsgMapIs(RsvpRefreshId(3, 9), rsvpPathMsgFactory());
  n->nodeProtectedDownstreamForIs(IpGenAddr("10.0.0.7"))->protectedSpIs(RsvpSpId());
  n->spIdForLfibTunnelIdIs(Tunnel::TunnelTable::TunnelId(4))->spIdIs(RsvpSpId());
  n->bypassInfoNodeIs(IpGenAddr("10.0.0.7"), RsvpBypassInfo());
  n->errorStateIs();
  RsvpIntegrityKeyId keyId;
  keyId.handleInitialized(77);
  auto const sa =
      n->rxSecAssocIs(RsvpSecAssociationKey(IpGenAddr("10.0.0.2"), IpGenAddr("10.0.0.1"), keyId));
  sa->acceptRxSeqNo(10, 4);
  m.sync();
  auto const copy = m.replica->neighborState(n->neighborId());
  ASSERT_TRUE(copy);
  EXPECT_EQ(copy->rxSecAssocSize(), 0u);
  EXPECT_EQ(copy->sharedState(), m.replica->sharedState());
  EXPECT_EQ(m.replica->sharedState()->txSeqNo(), 41u);
  n->rxSecAssocDelAll();
  m.sync();
  EXPECT_TRUE(m.same()) << Kel::browseText(*m.replica);

  Mirror<RsvpSecAssociation> a(sa, rsvpSecAssociationFactory(sa->key()));
  for (Kel::U64 seq : {12, 11, 30, 29, 31, 60}) sa->acceptRxSeqNo(seq, 4);
  a.sync();
  EXPECT_TRUE(a.same()) << Kel::browseText(*a.replica);
  EXPECT_EQ(a.replica->rxQueuedSeqNoMetadata(), sa->rxQueuedSeqNoMetadata());
  Mirror<RsvpSecAssociation> late(sa, rsvpSecAssociationFactory(sa->key()));
  EXPECT_EQ(late.replica->rxQueuedSeqNoMetadata(), sa->rxQueuedSeqNoMetadata())
      << "from a snapshot";
}

}  // namespace
