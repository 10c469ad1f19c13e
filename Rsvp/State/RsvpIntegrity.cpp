// Integrity: the keyed digest (HMAC-MD5) and the receive window of a
// security association.
//
// The digest keeps, per thread, the inner and outer MD5 states of the last
// key used (the key padded and XORed with the two pads, one block each), so
// that a run of messages under one key costs the MD5 of the message plus one
// block, instead of four extra blocks and the generic one-shot call's setup.
// The bytes are those of the one-shot HMAC; the tests compare them.
#include <Rsvp/RsvpIntegrity.h>
#include <Rsvp/RsvpTrace.h>

#include <Kel/Assert.h>

// The low-level MD5 functions are deprecated in OpenSSL 3 in favour of the
// generic digest interface, whose per-call setup costs more than the digest
// of a short message; they remain part of libcrypto.
#define OPENSSL_SUPPRESS_DEPRECATED
#include <openssl/md5.h>

#include <cstring>
#include <string>
#include <vector>

namespace Rsvp {

namespace {

constexpr std::size_t kMd5Block = 64;
constexpr std::size_t kMd5Size = 16;

// The inner and outer MD5 states of one key.
struct HmacMd5Key {
  std::string key;
  MD5_CTX inner;
  MD5_CTX outer;
  bool valid = false;

  void load(char const* k, std::size_t len) {
    key.assign(k, len);
    unsigned char block[kMd5Block] = {};
    if (len > kMd5Block) {
      MD5(reinterpret_cast<unsigned char const*>(k), len, block);
    } else if (len > 0) {
      std::memcpy(block, k, len);
    }
    unsigned char pad[kMd5Block];
    for (std::size_t i = 0; i < kMd5Block; ++i) pad[i] = block[i] ^ 0x36;
    MD5_Init(&inner);
    MD5_Update(&inner, pad, kMd5Block);
    for (std::size_t i = 0; i < kMd5Block; ++i) pad[i] = block[i] ^ 0x5c;
    MD5_Init(&outer);
    MD5_Update(&outer, pad, kMd5Block);
    valid = true;
  }
};

HmacMd5Key& keyStates(char const* k, std::size_t len) {
  thread_local HmacMd5Key cached;
  if (!cached.valid || cached.key.size() != len || std::memcmp(cached.key.data(), k, len) != 0) {
    cached.load(k, len);
  }
  return cached;
}

}  // namespace

// ---- The digest

RsvpIntegrityMessageDigest::RsvpIntegrityMessageDigest(Cli::HmacMethod _type, Kel::BytePtr _digest)
    : digest_(_digest), type_(_type), size_(0) {
  handleType();
}

void RsvpIntegrityMessageDigest::handleType() {
  KEL_ASSERT(type_ == Cli::md5 && "Unexpected HMAC type");
  size_ = kMd5Size;
}

void RsvpIntegrityMessageDigest::copyFrom(Kel::U8 const* bytes) const {
  std::memcpy(digest_.get(), bytes, size_);
}

void RsvpIntegrityMessageDigest::copyTo(Kel::U8* bytes) const {
  std::memcpy(bytes, digest_.get(), size_);
}

void RsvpIntegrityMessageDigest::setToZero() const { std::memset(digest_.get(), 0, size_); }

bool RsvpIntegrityMessageDigest::calculate(Kel::U8 const* data, std::size_t length,
                                           char const* key) const {
  KEL_ASSERT(type_ == Cli::md5 && "Unexpected HMAC type");
  std::size_t const keyLength = key ? std::strlen(key) : 0;
  HmacMd5Key const& states = keyStates(key ? key : "", keyLength);
  MD5_CTX ctx = states.inner;
  unsigned char innerDigest[kMd5Size];
  bool ok = MD5_Update(&ctx, data, length) == 1 && MD5_Final(innerDigest, &ctx) == 1;
  ctx = states.outer;
  ok = ok && MD5_Update(&ctx, innerDigest, kMd5Size) == 1 && MD5_Final(digest_.get(), &ctx) == 1;
  RSVP_TRACE(integrityTrace(), 9, "digest of " << length << " bytes: " << (ok ? "done" : "failed"));
  return ok;
}

// ---- The receive window

RsvpSeqNoVerdict RsvpSecAssociation::acceptRxSeqNo(Kel::U64 seqNo, Kel::U32 windowSize) {
  Kel::U64 const w = windowSize == 0 ? 1 : windowSize;
  if (!rxSeqNoMinInitialized()) {
    rxSeqNoMinIs(seqNo >= w - 1 ? seqNo - (w - 1) : 0);
    rxSeqNoMinInitializedIs(true);
  }
  Kel::U64 const min = rxSeqNoMin();
  if (seqNo < min) {
    RSVP_TRACE(integrityTrace(), 5, "sequence number " << seqNo << " below the window at " << min);
    return seqNoTooOld;
  }
  if (rxSeqNo(seqNo)) {
    RSVP_TRACE(integrityTrace(), 5, "sequence number " << seqNo << " already received");
    return seqNoDuplicate;
  }
  if (seqNo - min >= w) {
    // A number past the window's top slides the window up to end at it, and
    // forgets what falls below: probing the numbers passed over when they
    // are few (in-order traffic passes over one, found at the queue's head),
    // else walking the queue once.
    Kel::U64 const newMin = seqNo - (w - 1);
    rxSeqNoMinIs(newMin);
    std::vector<Kel::U32> stale;
    if (newMin - min <= rxSeqNoSize()) {
      for (Kel::U64 v = min; v != newMin; ++v) {
        if (!rxSeqNo(v)) continue;
        for (auto it = rxQueuedSeqNoIter(); !it.done(); ++it) {
          if (it.value() == v) {
            stale.push_back(it.key());
            break;
          }
        }
      }
    } else {
      for (auto it = rxQueuedSeqNoIter(); !it.done(); ++it) {
        if (it.value() < newMin) stale.push_back(it.key());
      }
    }
    for (Kel::U32 position : stale) {
      rxSeqNoDel(rxQueuedSeqNo(position));
      rxQueuedSeqNoDel(position);  // at the head (the usual case) without a walk
    }
  }
  rxSeqNoIs(seqNo);
  rxQueuedSeqNoEnq(seqNo);
  return seqNoAccepted;
}

}  // namespace Rsvp
