// Helpers that several suites share: the text of the exception a call
// raises (also of a refused text, which must change nothing), the trace lines written meanwhile,
// threads that run at once where reference counts allow it, generic operations and notifications by
// attribute name, a value through the log codec (typed or generic), and an
// entity tree whose replica follows it through the attribute log and a
// memory sink; a state-path id; names for the cases of typed suites.
#ifndef TESTS_TESTSUPPORT_H
#define TESTS_TESTSUPPORT_H

#include <Kel/AttrLog.h>
#include <Kel/Browser.h>
#include <Kel/RangeException.h>
#include <Kel/Text.h>
#include <Kel/TreeCompare.h>
#include <Rsvp/RsvpSpId.h>
#include <Rsvp/RsvpTrace.h>

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

namespace TestSupport {

// The state-path id of path `lsp` in one session.
inline Rsvp::RsvpSpId spId(Kel::U32 lsp) {
  return Rsvp::RsvpSpId(Rsvp::RsvpSessionId(Lumo::IpGenAddr("10.0.0.2"), Rsvp::RsvpTunnelId(7),
                                            Lumo::IpGenAddr("10.0.0.1")),
                        Rsvp::RsvpPathId(lsp));
}

// The what() of the E that `f` raises, or "accepted" when it returns. Any
// other exception passes through and fails the test.
template <class E, class F>
std::string errorOf(F&& f) {
  try {
    std::forward<F>(f)();
  } catch (E const& e) {
    return e.what();
  }
  return "accepted";
}

// The range error's text that reading the whole of `text` as a T raises, or
// "accepted".
template <class T>
std::string parseError(std::string_view text) {
  return errorOf<Kel::RangeException>([&] { (void)Kel::strepToValue<T>(text); });
}

// The range error's text that setting a copy of `start` from `text` raises,
// or "accepted"; the copy must keep its value.
template <class T>
std::string refusedText(T const& start, std::string_view text) {
  T v = start;
  std::string const error = errorOf<Kel::RangeException>([&] { v.stringValueIs(text); });
  EXPECT_EQ(v, start) << text;
  return error;
}

// Names the cases of a typed suite after their parameter's kName.
struct NamedByKName {
  template <class T>
  static std::string GetName(int) {
    return std::string(T::kName);
  }
};

// The generic operation `code` on the attribute named `attr` (or on the whole
// value when null) of an entity or a value.
template <class T>
int attrOp(T& object, char const* attr, Kel::U32 code, void* result, void const* arg1 = nullptr,
           void const* arg2 = nullptr) {
  Kel::TypeDesc const& type = [&]() -> Kel::TypeDesc const& {
    if constexpr (std::is_base_of_v<Kel::Entity, T>) {
      return object.fwkType();
    } else {
      return T::kelType;
    }
  }();
  Kel::KelAttr const* a = attr ? type.attr(attr) : nullptr;
  if (attr && !a) ADD_FAILURE() << "no attribute " << attr;
  return type.attributeOp(result, static_cast<void*>(&object), a, code, arg1, arg2);
}

// Every notification of the entities given, in the order heard, as "attr" or
// "attr[key]", through the generic notifiee until this goes.
struct Heard : Kel::GenericNotifiee {
  template <class... E>
  explicit Heard(E const*... entities) {
    (adapters.push_back(entities->fwkType().genericNotifiee(entities, this)), ...);
  }
  void onAttribute(Kel::Entity const&, Kel::KelAttr const& a, void const* key) override {
    std::string line(a.name);
    if (key) {
      Kel::String k;
      a.keyType->ops()->appendStrep(k, key);
      line += "[" + k + "]";
    }
    log.push_back(line);
  }
  std::vector<std::string> log;
  std::vector<std::unique_ptr<Kel::NotifieeBase>> adapters;
};

// `v` written by the log codec and read back into a T, which must take every
// byte.
template <class T>
T logRoundTrip(T const& v) {
  Kel::String bytes;
  Kel::LogOut out(bytes);
  using Kel::kelLogWrite;
  kelLogWrite(out, v);
  Kel::LogIn in(bytes);
  T back;
  using Kel::kelLogRead;
  kelLogRead(in, &back);
  EXPECT_TRUE(in.atEnd());
  return back;
}

// The value at `from` written by the log methods of `type` and read back
// into `to`, which must take every byte.
inline void logCopy(Kel::TypeDesc const& type, void const* from, void* to) {
  Kel::String bytes;
  Kel::LogOut out(bytes);
  type.ops()->logWrite(out, from);
  Kel::LogIn in(bytes);
  type.ops()->logRead(in, to);
  EXPECT_TRUE(in.atEnd()) << type.name();
}

// Runs f(0) .. f(n - 1) on n threads at once where reference counts are
// atomic, else one after the other.
template <class F>
void inThreads(unsigned n, F const& f) {
#if KEL_THREAD_SAFE_PTR
  std::vector<std::thread> threads;
  for (unsigned t = 0; t < n; ++t) threads.emplace_back(f, t);
  for (auto& t : threads) t.join();
#else
  for (unsigned t = 0; t < n; ++t) f(t);
#endif
}

// The trace lines written while alive, as "Facility[level] line", with
// `facility` (if any) at `level`; then the sink and every level go back to
// their defaults.
struct TraceCapture {
  explicit TraceCapture(std::string_view facility = {}, int level = 0) {
    Rsvp::traceSinkIs([this](std::string_view f, int l, std::string_view line) {
      lines.push_back(std::string(f) + "[" + std::to_string(l) + "] " + std::string(line));
    });
    if (!facility.empty()) Rsvp::traceLevelIs(facility, level);
  }
  ~TraceCapture() {
    Rsvp::traceSinkIs(nullptr);
    for (Rsvp::TraceFacility* f : Rsvp::traceFacilities()) f->levelIs(f->kDefaultLevel);
  }
  TraceCapture(TraceCapture const&) = delete;
  TraceCapture& operator=(TraceCapture const&) = delete;
  std::vector<std::string> lines;
};

// A source tree and its replica, joined by a writer, a memory sink and a
// reader; connect() subscribes anew, so the reader starts from a snapshot.
template <class T>
struct LogLink {
  LogLink(Kel::Ptr<T> s, Kel::Ptr<T> r) : source(std::move(s)), replica(std::move(r)) {}

  Kel::Ptr<T> source;
  Kel::Ptr<T> replica;
  Kel::LogWriter writer{*source};
  Kel::LogReader reader{*replica};
  Kel::MemorySink* sink = nullptr;

  void connect() {
    auto s = std::make_unique<Kel::MemorySink>();
    sink = s.get();
    reader.reset();
    writer.subscriberNew(std::move(s));
    deliver();
  }
  void deliver() { reader.bytesIs(sink->take()); }
  void sync() {
    writer.flush();
    deliver();
  }
  [[nodiscard]] bool same() const { return Kel::browseText(*source) == Kel::browseText(*replica); }
  // The first attribute where the replica differs from the source, or "";
  // cheaper than same() on large trees.
  [[nodiscard]] std::string difference() const { return Kel::replicaDifference(*source, *replica); }
  // The replica names as many entities as the writer follows, and holds none
  // it no longer names: its memory follows the source's.
  [[nodiscard]] bool sameSize() const {
    return reader.namedEntities() == writer.trackedEntities() && reader.heldEntities() == 0;
  }
};

}  // namespace TestSupport

#endif  // TESTS_TESTSUPPORT_H
