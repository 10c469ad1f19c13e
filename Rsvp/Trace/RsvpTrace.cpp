// The trace facilities and the sink.
#include <Rsvp/RsvpTrace.h>

#include <Kel/RangeException.h>
#include <Kel/Text.h>

#include <iostream>

namespace Rsvp {

namespace {

TraceSink& sink() {
  static TraceSink s;
  return s;
}

}  // namespace

void TraceFacility::levelIs(int level) {
  if (level < -1 || level > kMaxLevel) {
    Kel::throwOutOfRange("TraceFacility", "level", "-1", "9");
  }
  level_.store(level, std::memory_order_relaxed);
}

void TraceFacility::trace(int level, std::string_view line) const {
  if (!enabled(level)) return;
  if (TraceSink const& s = sink()) {
    s(name_, level, line);
  } else {
    std::cerr << name_ << '[' << level << "] " << line << '\n';
  }
}

void traceSinkIs(TraceSink s) { sink() = std::move(s); }

TraceFacility& rawDataTrace() {
  static TraceFacility f("RsvpRawData");
  return f;
}
TraceFacility& msgTrace() {
  static TraceFacility f("RsvpMsg");
  return f;
}
TraceFacility& spTrace() {
  static TraceFacility f("RsvpSp");
  return f;
}
TraceFacility& sessionTrace() {
  static TraceFacility f("RsvpSession");
  return f;
}
TraceFacility& errorTrace() {
  static TraceFacility f("RsvpError");
  return f;
}
TraceFacility& neighborTrace() {
  static TraceFacility f("RsvpNeighbor");
  return f;
}
TraceFacility& integrityTrace() {
  static TraceFacility f("RsvpIntegrity");
  return f;
}
TraceFacility& statusTrace() {
  static TraceFacility f("RsvpStatus");
  return f;
}

std::span<TraceFacility* const> traceFacilities() {
  static TraceFacility* const all[] = {&errorTrace(),    &integrityTrace(), &msgTrace(),
                                       &neighborTrace(), &rawDataTrace(),   &sessionTrace(),
                                       &spTrace(),       &statusTrace()};
  return all;
}

TraceFacility* traceFacility(std::string_view name) {
  for (TraceFacility* f : traceFacilities()) {
    if (f->name() == name) return f;
  }
  return nullptr;
}

void traceLevelIs(std::string_view facility, int level) {
  TraceFacility* f = traceFacility(facility);
  if (!f) throw Kel::RangeException("Unknown trace facility '" + Kel::excerpt(facility) + "'");
  f->levelIs(level);
}

}  // namespace Rsvp
