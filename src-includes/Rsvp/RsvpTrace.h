// Tracing of the library's hand-written routines. Each facility has its own
// level, -1 to 9: a line is written when its level is at most the
// facility's. Levels of lines: 0 an error (a line beginning "ERROR: " that
// reports misuse, such as a refused copy of raw data), 8 a routine's entry,
// 9 its decisions. Every facility starts at level 0 (kDefaultLevel), so
// error lines reach the sink without any setup while entry and decision
// lines stay off until a caller raises the level; -1 silences a facility.
// Lines go to one sink that the caller may replace. The library reads no
// environment and no file: tracing is set through this interface only.
//
//   Rsvp::traceLevelIs("RsvpRawData", 9);
//   Rsvp::traceSinkIs([](std::string_view facility, int level, std::string_view line) { ... });
//   RSVP_TRACE(Rsvp::rawDataTrace(), 9, "len=" << len);
//
// The facilities and the sink are the process's (the one piece of state the
// library shares across trees); set them up before threads use the library.
#ifndef RSVP_RSVPTRACE_H
#define RSVP_RSVPTRACE_H

#include <atomic>
#include <functional>
#include <span>
#include <sstream>
#include <string>
#include <string_view>

namespace Rsvp {

class TraceFacility {
 public:
  static constexpr int kMaxLevel = 9;
  // The level every facility starts at: error lines only.
  static constexpr int kDefaultLevel = 0;

  explicit TraceFacility(std::string_view name) : name_(name) {}
  TraceFacility(TraceFacility const&) = delete;
  TraceFacility& operator=(TraceFacility const&) = delete;

  [[nodiscard]] std::string_view name() const noexcept { return name_; }
  // The highest level written; -1 writes nothing; kDefaultLevel (0) at first.
  [[nodiscard]] int level() const noexcept { return level_.load(std::memory_order_relaxed); }
  [[nodiscard]] bool enabled(int level) const noexcept { return level <= this->level(); }
  // Raises Kel::RangeException "TraceFacility::level < -1 or > 9 not allowed".
  void levelIs(int level);
  // Writes `line` to the sink if `level` is enabled.
  void trace(int level, std::string_view line) const;

 private:
  std::string_view name_;
  std::atomic<int> level_{kDefaultLevel};
};

using TraceSink = std::function<void(std::string_view facility, int level, std::string_view line)>;

// Replaces the sink; an empty function restores the default, which writes
// "<facility>[<level>] <line>" lines to standard error.
void traceSinkIs(TraceSink sink);
// Every facility of the library, in the order of their names.
[[nodiscard]] std::span<TraceFacility* const> traceFacilities();
// The facility with this name, or null.
[[nodiscard]] TraceFacility* traceFacility(std::string_view name);
// Sets a facility's level by name; raises Kel::RangeException for an unknown
// name ("Unknown trace facility '<name>'") or a level out of range.
void traceLevelIs(std::string_view facility, int level);

// The library's facilities, one per unit with hand-written routines, each
// named after its unit.
TraceFacility& rawDataTrace();    // "RsvpRawData"
TraceFacility& msgTrace();        // "RsvpMsg"
TraceFacility& spTrace();         // "RsvpSp": the state path
TraceFacility& sessionTrace();    // "RsvpSession"
TraceFacility& errorTrace();      // "RsvpError": errors and their reset
TraceFacility& neighborTrace();   // "RsvpNeighbor"
TraceFacility& integrityTrace();  // "RsvpIntegrity"
TraceFacility& statusTrace();     // "RsvpStatus": the status root's reset

}  // namespace Rsvp

// Writes a line built with stream insertions, formatting it only when the
// level is enabled.
#define RSVP_TRACE(facility, level, parts)                 \
  do {                                                     \
    ::Rsvp::TraceFacility const& rsvpTraceF_ = (facility); \
    if (rsvpTraceF_.enabled(level)) {                      \
      std::ostringstream rsvpTraceOs_;                     \
      rsvpTraceOs_ << parts;                               \
      rsvpTraceF_.trace((level), rsvpTraceOs_.str());      \
    }                                                      \
  } while (false)

#endif  // RSVP_RSVPTRACE_H
