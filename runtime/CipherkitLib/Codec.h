// The secret codec: how the operator's integrity passwords (and any other
// secret the configuration tree holds) are kept in encoded form and turned
// back into clear bytes when the model needs them. The model calls only
// doDecodeKey(); the configuration side calls doEncodeKey().
//
//   CipherkitLib::keyIs(keyFromTheProcessKeyStore);   // exactly 32 bytes
//   Kel::String stored = CipherkitLib::doEncodeKey("s3cret");  // "ck1:..."
//   Kel::String clear = CipherkitLib::doDecodeKey(stored);     // "s3cret"
//
// This unit is the seam a platform replaces. A platform with its own key
// store or secure element derives from Codec and installs it with
// codecIs(); from then on doEncodeKey() and doDecodeKey() go to it.
// codecIs(nullptr) puts the default codec back.
//
// The default codec is AES-256-GCM (OpenSSL libcrypto) under the 32-byte key
// the process provisions with keyIs(). Its text form (docs/SECRETS.md):
//
//   "ck1:" base64( nonce[12] | ciphertext[n] | tag[16] )
//
// with the standard base64 alphabet, padded with '=', nothing else allowed
// (no white space, no line breaks, unused bits zero). Every encoding draws a
// fresh random nonce, so two encodings of one secret differ. The version
// text "ck1" is authenticated too (GCM additional data). The clear text may
// hold any bytes, including zeros, and may be empty.
//
// Errors are CodecException with one of these fixed texts, which never hold
// the key or any clear text; the state of the codec is unchanged by them:
//   "Secret codec key must be exactly 32 bytes"            keyIs(), other length
//   "Secret codec has no key"                              no key provisioned
//   "Encoded secret has an unknown version prefix"         not "ck1:"
//   "Encoded secret is not valid base64"                   bad alphabet, padding, length
//   "Encoded secret is too short"                          under 28 decoded bytes
//   "Encoded secret does not verify (wrong key or altered text)"
//   "Secret codec cannot draw a random nonce"              RAND_bytes failed
//   "Secret codec cipher failure in <EVP function>"        libcrypto refused a step
// Decoding checks in that order: prefix, base64, length, key, tag.
//
// Threads: every function here may be called from any thread at any time.
// The installed codec and the key are held under one mutex; an encoding or
// decoding works on the codec and key current when it starts, so a
// concurrent codecIs() or keyIs() takes effect for the calls that start
// after it. An installed codec must allow concurrent calls of its const
// members.
#ifndef CIPHERKITLIB_CODEC_H
#define CIPHERKITLIB_CODEC_H

#include <Kel/Exception.h>
#include <Kel/Types.h>

#include <cstddef>
#include <memory>
#include <string>
#include <utility>

namespace CipherkitLib {

// A key of another length, a text that cannot be decoded, a missing key or
// a failure of the cipher library. what() is the fixed text.
class CodecException : public Kel::Exception {
 public:
  explicit CodecException(std::string text) : Kel::Exception(std::move(text)) {}
};

// Turns secrets into stored text and back. A platform's codec derives from
// this; both members must be safe to call concurrently and report a text
// they cannot decode with an exception (CodecException is the expected one).
class Codec {
 public:
  Codec() = default;
  Codec(Codec const&) = delete;
  Codec& operator=(Codec const&) = delete;
  virtual ~Codec() = default;

  [[nodiscard]] virtual Kel::String encode(Kel::String const& clear) const = 0;
  [[nodiscard]] virtual Kel::String decode(Kel::String const& encoded) const = 0;
};

// The length of the default codec's key in bytes.
inline constexpr std::size_t kKeyBytes = 32;

// Installs the process's codec; nullptr restores the default.
void codecIs(std::shared_ptr<Codec const> codec);
// The codec in use: the one installed, or the default. Never null.
[[nodiscard]] std::shared_ptr<Codec const> codec();

// Provisions the default codec's key: exactly kKeyBytes bytes of any value.
// Another length raises CodecException and keeps the key there was. The
// library keeps its own copy and wipes it when it is replaced or deleted.
void keyIs(Kel::String const& key);
// Forgets the key; the default codec then refuses to encode or decode.
void keyDel();

// Encodes a secret for storage with the codec in use.
[[nodiscard]] Kel::String doEncodeKey(Kel::String const& clear);
// Decodes a stored secret with the codec in use.
[[nodiscard]] Kel::String doDecodeKey(Kel::String const& encoded);

}  // namespace CipherkitLib

#endif  // CIPHERKITLIB_CODEC_H
