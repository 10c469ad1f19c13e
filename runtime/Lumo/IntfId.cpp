#include <Kel/RangeException.h>
#include <Lumo/IntfId.h>
#include <Lumo/NetSupport.h>

#include <cstring>
#include <mutex>
#include <ostream>
#include <unordered_map>

namespace Lumo {

namespace {

[[noreturn]] void throwInvalid() { throw Kel::RangeException("Invalid IntfId"); }

// Answers the end of the run of name characters at `p`.
char const* nameRunEnd(char const* p, char const* end) noexcept {
  while (p != end && IntfId::isNameChar(*p)) ++p;
  return p;
}

Kel::U32 nameHash(std::string_view name) noexcept {
  Kel::OneAtATime h;
  h.addBytes(name.data(), name.size());
  return h.finish();
}

// The interned names by their text (which each record holds). Never
// destroyed, so that values in static objects may outlive it safely.
struct Interned {
  std::mutex mutex;
  std::unordered_map<std::string_view, void*> byName;
};
Interned& interned() {
  static auto* table = new Interned;
  return *table;
}

}  // namespace

IntfId::IntfId(std::string_view name) {
  if (name.size() > maxSize ||
      nameRunEnd(name.data(), name.data() + name.size()) != name.data() + name.size()) {
    throwInvalid();
  }
  rec_ = intern(name);
}

Kel::String const& IntfId::emptyName() noexcept {
  static Kel::String const empty;
  return empty;
}

Kel::U32 IntfId::emptyHash() noexcept {
  static Kel::U32 const h = nameHash({});
  return h;
}

IntfId::Rec* IntfId::intern(std::string_view name) {
  if (name.empty()) return nullptr;
  Interned& t = interned();
  std::lock_guard const lock(t.mutex);
  if (auto const it = t.byName.find(name); it != t.byName.end()) {
    Rec* const r = static_cast<Rec*>(it->second);
    r->refs.fetch_add(1, std::memory_order_relaxed);
    return r;
  }
  auto* const r = new Rec{{1}, nameHash(name), Kel::String(name)};
  try {
    t.byName.emplace(std::string_view(r->name), r);
  } catch (...) {
    delete r;
    throw;
  }
  return r;
}

void IntfId::releaseLast(Rec* r) noexcept {
  Interned& t = interned();
  std::lock_guard const lock(t.mutex);
  if (r->refs.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
  t.byName.erase(std::string_view(r->name));
  delete r;
}

std::size_t IntfId::internedCount() noexcept {
  Interned& t = interned();
  std::lock_guard const lock(t.mutex);
  return t.byName.size();
}

bool IntfId::isNameChar(char c) noexcept {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || detail::isDigit(c) || c == '/' ||
         c == '.' || c == '_' || c == ':' || c == '-';
}

void IntfId::toNetwork(Kel::U8* out) const noexcept {
  Kel::String const& n = name();
  out[0] = static_cast<Kel::U8>(n.size());
  std::memcpy(out + 1, n.data(), n.size());
}

IntfId IntfId::fromNetwork(Kel::U8 const* in, std::size_t avail) {
  detail::checkAvail("IntfId", 1, avail);
  std::size_t const size = in[0];
  detail::checkAvail("IntfId", 1 + size, avail);
  // The bytes are read through char, as the name keeps them.
  return IntfId(std::string_view(reinterpret_cast<char const*>(in + 1), size));
}

void appendStrep(Kel::String& out, IntfId const& v) { out += v.name(); }

void sequenceToValue(Kel::TextIt& it, Kel::TextIt end, IntfId* out) {
  Kel::TextIt const p = nameRunEnd(it, end);
  if (static_cast<std::size_t>(p - it) > IntfId::maxSize) throwInvalid();
  auto* const r = IntfId::intern(std::string_view(it, static_cast<std::size_t>(p - it)));
  IntfId::release(out->rec_);
  out->rec_ = r;
  it = p;
}

std::ostream& operator<<(std::ostream& os, IntfId const& v) { return os << v.name(); }

}  // namespace Lumo
