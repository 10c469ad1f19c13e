// Hand-written routines of the protocol objects: the layer-3 protocol id of
// a label request, the lengths of opaque objects, and the comparisons that
// messages use to tell a refresh from a change.
#include <Rsvp/RsvpMsgObjects.h>

#include <Kel/Assert.h>

#include <cstring>

namespace Rsvp {

Lumo::EthType RsvpLabelRequestObj::l3pid() const {
  // A number that no Ethernet type can hold reads as the zero type, so that a
  // malformed request never makes a reader throw.
  return l3pidRaw_ <= 0xffffu ? Lumo::EthType(static_cast<Kel::U16>(l3pidRaw_)) : Lumo::EthType();
}

void RsvpLabelRequestObj::l3pidIs(Lumo::EthType const& ethType) { l3pidRawIs(ethType.value()); }

// ---- Opaque objects and their comparisons.

Kel::U32 RsvpUnknownObjBase::length() const { return static_cast<Kel::U32>(data().size()); }

bool RsvpUnknownObjBase::unknownObjEqual(Kel::Ptr<RsvpUnknownObjBase const> const& other) const {
  if (other.get() == this) return true;
  if (!other) return false;
  return data() == other->data();
}

Kel::U32 RsvpUnknownObj::length() const { return RsvpUnknownObjBase::length() + 4; }

bool RsvpUnknownObj::equal(Kel::Ptr<RsvpUnknownObj const> const& other) const {
  // The header is compared only once the bytes agree.
  return unknownObjEqual(other) && objClass() == other->objClass() &&
         objCtype() == other->objCtype();
}

Kel::U32 RsvpRroUnknownSubObj::length() const { return RsvpUnknownObjBase::length() + 2; }

bool RsvpRroUnknownSubObj::equal(Kel::Ptr<RsvpRroUnknownSubObj const> const& other) const {
  return unknownObjEqual(other) && subObjType() == other->subObjType() && index() == other->index();
}

bool RsvpAdSpecUnknownFrag::equal(Kel::Ptr<RsvpAdSpecUnknownFrag const> const& other) const {
  return unknownObjEqual(other) && serviceNumber() == other->serviceNumber() &&
         breakBit() == other->breakBit();
}

namespace {

// Two ordered maps of values hold the same keys with equal values.
template <class Iter>
bool sameMembers(Iter a, Iter b) {
  for (; !a.done() && !b.done(); ++a, ++b) {
    if (!(a.key() == b.key()) || !(a.value() == b.value())) return false;
  }
  return a.done() && b.done();
}

}  // namespace

bool RsvpAdSpecObj::equal(Kel::Ptr<RsvpAdSpecObj const> const& other) const {
  if (other.get() == this) return true;
  if (!other) return false;
  if (formatVersion() != other->formatVersion() || dataLength() != other->dataLength())
    return false;
  if (!(general() == other->general())) return false;
  if (unknown_.size() != other->unknown_.size()) return false;
  auto const* frag = unknown_.head();
  auto const* otherFrag = other->unknown_.head();
  for (; frag && otherFrag; frag = frag->next, otherFrag = otherFrag->next) {
    if (!frag->value->equal(otherFrag->value)) return false;
  }
  return true;
}

bool RsvpRecordRouteObj::recordRouteObjEqual(Kel::Ptr<RsvpRecordRouteObj const> const& a,
                                             Kel::Ptr<RsvpRecordRouteObj const> const& b) {
  if (a == b) return true;  // the same entity, or both empty
  if (!a || !b) return false;
  if (a->hopSize() != b->hopSize() || !sameMembers(a->hopIter(), b->hopIter())) return false;
  if (a->unknownSubObj_.size() != b->unknownSubObj_.size()) return false;
  auto const* unknownSubObjIter = a->unknownSubObj_.head();
  auto const* unknownSubObjIter2 = b->unknownSubObj_.head();
  for (; unknownSubObjIter && unknownSubObjIter2;
       unknownSubObjIter = unknownSubObjIter->next, unknownSubObjIter2 = unknownSubObjIter2->next) {
    if (!unknownSubObjIter->value->equal(unknownSubObjIter2->value)) return false;
  }
  KEL_ASSERT((!unknownSubObjIter == !unknownSubObjIter2) &&
             "We already compared objects length, should be equal");
  return true;
}

bool rsvpExplicitRouteHopsEqual(RsvpExplicitRouteObj const& a, RsvpExplicitRouteObj const& b) {
  return a.hopSize() == b.hopSize() && sameMembers(a.hopIter(), b.hopIter());
}

// ---- The integrity key identifier. The words hold the bytes as they stand
// on the wire, so a word's host value is its network-order value.

namespace {

Kel::U16 netToHost16(Kel::U16 w) noexcept {
  Kel::U8 b[2];
  std::memcpy(b, &w, 2);
  return static_cast<Kel::U16>((b[0] << 8) | b[1]);
}

Kel::U16 hostToNet16(Kel::U16 v) noexcept {
  Kel::U8 const b[2] = {static_cast<Kel::U8>(v >> 8), static_cast<Kel::U8>(v)};
  Kel::U16 w;
  std::memcpy(&w, b, 2);
  return w;
}

}  // namespace

Kel::U64 RsvpIntegrityKeyId::value() const noexcept {
  return (Kel::U64{netToHost16(w0_)} << 32) | (Kel::U64{netToHost16(w1_)} << 16) | netToHost16(w2_);
}

void RsvpIntegrityKeyId::handleInitialized(Kel::U64 const& val) {
  KEL_ASSERT((val >> 48) == 0 && "Rsvp key ID must be 48 bits long");
  w0Is(hostToNet16(static_cast<Kel::U16>(val >> 32)));
  w1Is(hostToNet16(static_cast<Kel::U16>(val >> 16)));
  w2Is(hostToNet16(static_cast<Kel::U16>(val)));
}

}  // namespace Rsvp
