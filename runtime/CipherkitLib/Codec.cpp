// The default secret codec (AES-256-GCM through OpenSSL's EVP interface),
// its strict base64 and the process-wide codec and key. Codec.h gives the
// contract; docs/SECRETS.md the text form.
#include <CipherkitLib/Codec.h>

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <algorithm>
#include <array>
#include <mutex>
#include <string_view>

namespace CipherkitLib {
namespace {

constexpr std::string_view kPrefix = "ck1:";
// The version, without the separator, is the additional authenticated data,
// so a text cannot be passed off as another version's.
constexpr std::string_view kAad = "ck1";
constexpr std::size_t kNonceBytes = 12;
constexpr std::size_t kTagBytes = 16;
// EVP takes lengths as int; longer texts go through in pieces of this size.
constexpr std::size_t kMaxPiece = std::size_t{1} << 30;

constexpr char const* kBadKeyLength = "Secret codec key must be exactly 32 bytes";
constexpr char const* kNoKey = "Secret codec has no key";
constexpr char const* kUnknownVersion = "Encoded secret has an unknown version prefix";
constexpr char const* kBadBase64 = "Encoded secret is not valid base64";
constexpr char const* kTooShort = "Encoded secret is too short";
constexpr char const* kDoesNotVerify = "Encoded secret does not verify (wrong key or altered text)";
constexpr char const* kNoNonce = "Secret codec cannot draw a random nonce";

static_assert(kKeyBytes == 32, "AES-256 takes a 32-byte key");

[[noreturn]] void cipherFailure(std::string_view step) {
  throw CodecException("Secret codec cipher failure in " + std::string(step));
}

void check(int rc, std::string_view step) {
  if (rc != 1) cipherFailure(step);
}

unsigned char* bytes(std::string& s) { return reinterpret_cast<unsigned char*>(s.data()); }
unsigned char const* bytes(std::string_view s) {
  return reinterpret_cast<unsigned char const*>(s.data());
}

// Base64, standard alphabet, padded. Decoding accepts only the one text that
// encoding produces for the bytes: length a multiple of four, at most two
// '=' and only at the end, unused low bits of the last character zero.

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr std::array<signed char, 256> kSextets = [] {
  std::array<signed char, 256> t{};
  t.fill(-1);
  for (int i = 0; i < 64; ++i)
    t[static_cast<unsigned char>(kAlphabet[i])] = static_cast<signed char>(i);
  return t;
}();

void appendBase64(std::string& out, std::string_view in) {
  out.reserve(out.size() + (in.size() + 2) / 3 * 4);
  unsigned char const* p = bytes(in);
  std::size_t n = in.size();
  for (; n >= 3; p += 3, n -= 3) {
    Kel::U32 const w = (Kel::U32{p[0]} << 16) | (Kel::U32{p[1]} << 8) | p[2];
    out += kAlphabet[(w >> 18) & 63];
    out += kAlphabet[(w >> 12) & 63];
    out += kAlphabet[(w >> 6) & 63];
    out += kAlphabet[w & 63];
  }
  if (n == 1) {
    out += kAlphabet[p[0] >> 2];
    out += kAlphabet[(p[0] & 3) << 4];
    out += "==";
  } else if (n == 2) {
    out += kAlphabet[p[0] >> 2];
    out += kAlphabet[((p[0] & 3) << 4) | (p[1] >> 4)];
    out += kAlphabet[(p[1] & 15) << 2];
    out += '=';
  }
}

// False, with out unspecified, for any text appendBase64 cannot produce.
bool decodeBase64(std::string_view in, std::string& out) {
  if (in.size() % 4 != 0) return false;
  std::size_t pad = 0;
  if (!in.empty() && in.back() == '=') pad = in[in.size() - 2] == '=' ? 2 : 1;
  std::size_t const chars = in.size() - pad;
  out.clear();
  out.reserve(in.size() / 4 * 3);
  Kel::U32 w = 0;
  for (std::size_t i = 0; i < chars; ++i) {
    signed char const s = kSextets[static_cast<unsigned char>(in[i])];
    if (s < 0) return false;
    w = (w << 6) | static_cast<Kel::U32>(s);
    if (i % 4 == 3) {
      out += static_cast<char>((w >> 16) & 0xff);
      out += static_cast<char>((w >> 8) & 0xff);
      out += static_cast<char>(w & 0xff);
      w = 0;
    }
  }
  if (pad == 2) {  // two characters, 12 bits, one byte
    if ((w & 0x0f) != 0) return false;
    out += static_cast<char>((w >> 4) & 0xff);
  } else if (pad == 1) {  // three characters, 18 bits, two bytes
    if ((w & 0x03) != 0) return false;
    out += static_cast<char>((w >> 10) & 0xff);
    out += static_cast<char>((w >> 2) & 0xff);
  }
  return true;
}

// The provisioned key; wiped when the last codec call using it lets go.
class Key {
 public:
  explicit Key(Kel::String const& key) { std::copy(key.begin(), key.end(), bytes_.begin()); }
  Key(Key const&) = delete;
  Key& operator=(Key const&) = delete;
  ~Key() { OPENSSL_cleanse(bytes_.data(), bytes_.size()); }

  [[nodiscard]] unsigned char const* data() const { return bytes_.data(); }

 private:
  std::array<unsigned char, kKeyBytes> bytes_{};
};

struct State {
  std::mutex mutex;
  std::shared_ptr<Codec const> installed;
  std::shared_ptr<Key const> key;
};

State& state() {
  static State s;
  return s;
}

std::shared_ptr<Key const> currentKey() {
  State& s = state();
  std::lock_guard lock(s.mutex);
  return s.key;
}

struct CtxFree {
  void operator()(EVP_CIPHER_CTX* ctx) const { EVP_CIPHER_CTX_free(ctx); }
};
using Ctx = std::unique_ptr<EVP_CIPHER_CTX, CtxFree>;

Ctx newCtx() {
  Ctx ctx(EVP_CIPHER_CTX_new());
  if (!ctx) cipherFailure("EVP_CIPHER_CTX_new");
  return ctx;
}

// Wipes a clear-text buffer unless the routine that fills it completes.
class WipeUnlessKept {
 public:
  explicit WipeUnlessKept(std::string& s) : s_(s) {}
  WipeUnlessKept(WipeUnlessKept const&) = delete;
  WipeUnlessKept& operator=(WipeUnlessKept const&) = delete;
  ~WipeUnlessKept() {
    if (!kept_) OPENSSL_cleanse(s_.data(), s_.size());
  }
  void keep() { kept_ = true; }

 private:
  std::string& s_;
  bool kept_ = false;
};

class AesGcmCodec final : public Codec {
 public:
  [[nodiscard]] Kel::String encode(Kel::String const& clear) const override {
    std::shared_ptr<Key const> const key = currentKey();
    if (!key) throw CodecException(kNoKey);
    std::string raw(kNonceBytes + clear.size() + kTagBytes, '\0');
    unsigned char* const nonce = bytes(raw);
    if (RAND_bytes(nonce, static_cast<int>(kNonceBytes)) != 1) throw CodecException(kNoNonce);

    Ctx ctx = newCtx();
    check(EVP_EncryptInit_ex(ctx.get(), EVP_aes_256_gcm(), nullptr, nullptr, nullptr),
          "EVP_EncryptInit_ex");
    check(EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_GCM_SET_IVLEN, static_cast<int>(kNonceBytes),
                              nullptr),
          "EVP_CIPHER_CTX_ctrl");
    check(EVP_EncryptInit_ex(ctx.get(), nullptr, nullptr, key->data(), nonce),
          "EVP_EncryptInit_ex");
    int len = 0;
    check(EVP_EncryptUpdate(ctx.get(), nullptr, &len, bytes(kAad), static_cast<int>(kAad.size())),
          "EVP_EncryptUpdate");
    unsigned char* out = nonce + kNonceBytes;
    for (std::size_t done = 0; done < clear.size();) {
      std::size_t const piece = std::min(clear.size() - done, kMaxPiece);
      check(EVP_EncryptUpdate(ctx.get(), out, &len, bytes(clear) + done, static_cast<int>(piece)),
            "EVP_EncryptUpdate");
      if (static_cast<std::size_t>(len) != piece) cipherFailure("EVP_EncryptUpdate");
      out += piece;
      done += piece;
    }
    check(EVP_EncryptFinal_ex(ctx.get(), out, &len), "EVP_EncryptFinal_ex");
    if (len != 0) cipherFailure("EVP_EncryptFinal_ex");
    check(EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_GCM_GET_TAG, static_cast<int>(kTagBytes), out),
          "EVP_CIPHER_CTX_ctrl");

    std::string text(kPrefix);
    appendBase64(text, raw);
    return text;
  }

  [[nodiscard]] Kel::String decode(Kel::String const& encoded) const override {
    std::string_view const text(encoded);
    if (!text.starts_with(kPrefix)) throw CodecException(kUnknownVersion);
    std::string raw;
    if (!decodeBase64(text.substr(kPrefix.size()), raw)) throw CodecException(kBadBase64);
    if (raw.size() < kNonceBytes + kTagBytes) throw CodecException(kTooShort);
    std::shared_ptr<Key const> const key = currentKey();
    if (!key) throw CodecException(kNoKey);

    std::size_t const size = raw.size() - kNonceBytes - kTagBytes;
    unsigned char* const nonce = bytes(raw);
    unsigned char const* in = nonce + kNonceBytes;
    unsigned char* const tag = nonce + kNonceBytes + size;

    Ctx ctx = newCtx();
    check(EVP_DecryptInit_ex(ctx.get(), EVP_aes_256_gcm(), nullptr, nullptr, nullptr),
          "EVP_DecryptInit_ex");
    check(EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_GCM_SET_IVLEN, static_cast<int>(kNonceBytes),
                              nullptr),
          "EVP_CIPHER_CTX_ctrl");
    check(EVP_DecryptInit_ex(ctx.get(), nullptr, nullptr, key->data(), nonce),
          "EVP_DecryptInit_ex");
    int len = 0;
    check(EVP_DecryptUpdate(ctx.get(), nullptr, &len, bytes(kAad), static_cast<int>(kAad.size())),
          "EVP_DecryptUpdate");

    Kel::String clear(size, '\0');
    WipeUnlessKept wipe(clear);
    unsigned char* out = bytes(clear);
    for (std::size_t done = 0; done < size;) {
      std::size_t const piece = std::min(size - done, kMaxPiece);
      check(EVP_DecryptUpdate(ctx.get(), out, &len, in, static_cast<int>(piece)),
            "EVP_DecryptUpdate");
      if (static_cast<std::size_t>(len) != piece) cipherFailure("EVP_DecryptUpdate");
      in += piece;
      out += piece;
      done += piece;
    }
    check(EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_GCM_SET_TAG, static_cast<int>(kTagBytes), tag),
          "EVP_CIPHER_CTX_ctrl");
    // The one step whose refusal is the text's fault, not the library's.
    if (EVP_DecryptFinal_ex(ctx.get(), out, &len) != 1 || len != 0) {
      throw CodecException(kDoesNotVerify);
    }
    wipe.keep();
    return clear;
  }
};

std::shared_ptr<Codec const> const& defaultCodec() {
  static std::shared_ptr<Codec const> const codec = std::make_shared<AesGcmCodec>();
  return codec;
}

}  // namespace

void codecIs(std::shared_ptr<Codec const> codec) {
  State& s = state();
  std::lock_guard lock(s.mutex);
  s.installed.swap(codec);  // the codec replaced goes with the parameter, after the unlock
}

std::shared_ptr<Codec const> codec() {
  {
    State& s = state();
    std::lock_guard lock(s.mutex);
    if (s.installed) return s.installed;
  }
  return defaultCodec();
}

void keyIs(Kel::String const& key) {
  if (key.size() != kKeyBytes) throw CodecException(kBadKeyLength);
  auto fresh = std::make_shared<Key const>(key);
  State& s = state();
  std::lock_guard lock(s.mutex);
  s.key.swap(fresh);
}

void keyDel() {
  std::shared_ptr<Key const> old;
  State& s = state();
  std::lock_guard lock(s.mutex);
  s.key.swap(old);
}

Kel::String doEncodeKey(Kel::String const& clear) { return codec()->encode(clear); }

Kel::String doDecodeKey(Kel::String const& encoded) { return codec()->decode(encoded); }

}  // namespace CipherkitLib
