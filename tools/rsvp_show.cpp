// rsvp_show: what an operator asks of an RSVP-TE agent, read from a live
// read-only replica of its status tree (--socket, a Kel::LogPublisher's
// path) or from a saved log (--log, the bytes a Kel::LogWriter wrote).
//
//   rsvp_show --socket /tmp/rsvp.sock                 the summary
//   rsvp_show --socket /tmp/rsvp.sock sessions --watch
//   rsvp_show --log status.log path 12 --json
//
// Aligned columns for people; --json for programs, in the shape of the
// openconfig-mpls-rsvp model where it has one (docs/OPENCONFIG.md); --watch
// prints again whenever what is shown changes. Errors end the program with
// one line on standard error, "rsvp_show: <reason>", and exit status 2 for
// a usage error, 1 for anything else; nothing goes to standard output then.
#include <Kel/LogSocket.h>
#include <Rsvp/Rsvp.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <exception>
#include <iostream>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <poll.h>

#include "ToolError.h"

namespace {

using namespace Rsvp;
using Clock = std::chrono::steady_clock;

constexpr char kUsage[] =
    "usage: rsvp_show (--socket PATH | --log FILE) [--json] [--watch [--updates N]] "
    "[summary | sessions | path <spId or CLI id> | neighbors | labels]";

struct Usage : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// ---- text helpers

template <class T>
std::string text(T const& v) {
  std::ostringstream os;
  os << v;
  return os.str();
}

std::string label(Lumo::MplsLabel const& l) { return l.isNoLabel() ? "-" : text(l.value()); }
std::string addr(Lumo::IpGenAddr const& a) { return a.isUnspecified() ? "-" : text(a); }
std::string yesNo(bool b) { return b ? "yes" : "no"; }

std::string number(double v, int decimals = 0) {
  char buf[64];
  std::snprintf(buf, sizeof buf, "%.*f", decimals, v);
  return buf;
}

// The enumerator's name without its common prefix or suffix, in lower case.
std::string operState(RsvpSpOperState s) {
  switch (s) {
    case spOperStateDown: return "down";
    case spOperStateRcvd: return "rcvd";
    case spOperStateSent: return "sent";
    case spOperStateBoth: return "both";
  }
  return text(s);
}
std::string role(RsvpSessionRole r) {
  switch (r) {
    case unknownSessionRole: return "unknown";
    case ingressSessionRole: return "ingress";
    case transitSessionRole: return "transit";
    case egressSessionRole: return "egress";
  }
  return text(r);
}

// Bytes per second in bits per second with a unit.
std::string bandwidth(double bytesPerSecond) {
  double const bits = bytesPerSecond * 8;
  if (bits >= 1e9) return number(bits / 1e9, 2) + "G";
  if (bits >= 1e6) return number(bits / 1e6, 2) + "M";
  if (bits >= 1e3) return number(bits / 1e3, 2) + "k";
  return number(bits);
}

std::string protection(RsvpSpState const& sp) {
  RsvpSessionAttributeObj const a = sp.sessionAttributes();
  std::string s = a.nodeProtectionDesired() || sp.nodeProtectionDesired()     ? "node"
                  : a.localProtectionDesired() || sp.localProtectionDesired() ? "link"
                                                                              : "-";
  if (sp.bypassInfo().bypassAvailable()) s += ",bypass";
  if (sp.dsFrrInUse() || sp.usFrrInUse()) s += ",FRR";
  return s;
}

// Columns aligned on the widest cell; the last column is not padded.
class Table {
 public:
  explicit Table(std::vector<std::string> header) { rows_.push_back(std::move(header)); }
  void row(std::vector<std::string> cells) { rows_.push_back(std::move(cells)); }
  [[nodiscard]] std::string str() const {
    std::vector<std::size_t> width;
    for (auto const& r : rows_) {
      width.resize(std::max(width.size(), r.size()));
      for (std::size_t i = 0; i < r.size(); ++i) width[i] = std::max(width[i], r[i].size());
    }
    std::string out;
    for (auto const& r : rows_) {
      std::string line;
      for (std::size_t i = 0; i < r.size(); ++i) {
        line += r[i];
        if (i + 1 < r.size()) line += std::string(width[i] - r[i].size() + 2, ' ');
      }
      out += line + "\n";
    }
    return out;
  }

 private:
  std::vector<std::vector<std::string>> rows_;
};

// ---- JSON

// A JSON value built in memory and written indented; scalars hold their
// encoded text.
struct Json {
  enum Kind { scalar, object, array } kind = scalar;
  std::string encoded = "null";
  std::vector<std::string> keys;  // an object's members: keys[i] names values[i]
  std::vector<Json> values;
  std::vector<Json> items;

  static Json str(std::string_view s) {
    Json j;
    j.encoded = "\"";
    for (char const c : s) {
      auto const u = static_cast<unsigned char>(c);
      if (c == '"' || c == '\\') {
        j.encoded += '\\';
        j.encoded += c;
      } else if (u < 0x20) {
        char buf[8];
        std::snprintf(buf, sizeof buf, "\\u%04x", u);
        j.encoded += buf;
      } else {
        j.encoded += c;
      }
    }
    j.encoded += '"';
    return j;
  }
  static Json num(Kel::U64 v) {
    Json j;
    j.encoded = std::to_string(v);
    return j;
  }
  static Json boolean(bool b) {
    Json j;
    j.encoded = b ? "true" : "false";
    return j;
  }
  static Json obj() {
    Json j;
    j.kind = object;
    return j;
  }
  static Json arr() {
    Json j;
    j.kind = array;
    return j;
  }
  // The reference holds until the next member is set.
  Json& set(std::string key, Json v) {
    keys.push_back(std::move(key));
    values.push_back(std::move(v));
    return values.back();
  }
  Json& push(Json v) {
    items.push_back(std::move(v));
    return items.back();
  }
  void write(std::string& out, int indent) const {
    std::string const pad(static_cast<std::size_t>(indent + 2), ' ');
    if (kind == scalar) {
      out += encoded;
    } else if (kind == object) {
      if (keys.empty()) {
        out += "{}";
        return;
      }
      out += "{\n";
      for (std::size_t i = 0; i < keys.size(); ++i) {
        out += pad + str(keys[i]).encoded + ": ";
        values[i].write(out, indent + 2);
        out += i + 1 < keys.size() ? ",\n" : "\n";
      }
      out += std::string(static_cast<std::size_t>(indent), ' ') + "}";
    } else {
      if (items.empty()) {
        out += "[]";
        return;
      }
      out += "[\n";
      for (std::size_t i = 0; i < items.size(); ++i) {
        out += pad;
        items[i].write(out, indent + 2);
        out += i + 1 < items.size() ? ",\n" : "\n";
      }
      out += std::string(static_cast<std::size_t>(indent), ' ') + "]";
    }
  }
  [[nodiscard]] std::string dump() const {
    std::string out;
    write(out, 0);
    return out + "\n";
  }
};

// ---- the OpenConfig shape (docs/OPENCONFIG.md)

constexpr char kOcRsvp[] = "openconfig-mpls-rsvp:rsvp-te";
constexpr char kOcTypes[] = "openconfig-mpls-types:";

// oc-mplst:mpls-label: the reserved values by name, the others as numbers.
std::optional<Json> ocLabel(Lumo::MplsLabel const& l) {
  if (l.isNoLabel()) return std::nullopt;
  switch (l.value()) {
    case 0: return Json::str("IPV4_EXPLICIT_NULL");
    case 1: return Json::str("ROUTER_ALERT");
    case 2: return Json::str("IPV6_EXPLICIT_NULL");
    case 3: return Json::str("IMPLICIT_NULL");
    case 7: return Json::str("ENTROPY_LABEL_INDICATOR");
    default: return Json::num(l.value());
  }
}

// oc-types:ieeefloat32 is binary: the four bytes of the IEEE 754 single,
// big-endian, in base64 (RFC 7951).
Json ocFloat(float f) {
  Kel::U32 bits = 0;
  std::memcpy(&bits, &f, 4);
  unsigned char const b[4] = {
      static_cast<unsigned char>(bits >> 24), static_cast<unsigned char>(bits >> 16),
      static_cast<unsigned char>(bits >> 8), static_cast<unsigned char>(bits)};
  static constexpr char kAlphabet[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string s;
  Kel::U32 const first = Kel::U32{b[0]} << 16 | Kel::U32{b[1]} << 8 | b[2];
  for (int shift = 18; shift >= 0; shift -= 6) s += kAlphabet[(first >> shift) & 63];
  Kel::U32 const last = Kel::U32{b[3]} << 16;
  s += kAlphabet[(last >> 18) & 63];
  s += kAlphabet[(last >> 12) & 63];
  s += "==";
  return Json::str(s);
}

std::optional<std::string> ocRole(RsvpSessionRole r) {
  switch (r) {
    case ingressSessionRole: return std::string(kOcTypes) + "INGRESS";
    case transitSessionRole: return std::string(kOcTypes) + "TRANSIT";
    case egressSessionRole: return std::string(kOcTypes) + "EGRESS";
    case unknownSessionRole: return std::nullopt;
  }
  return std::nullopt;
}

// A route object's hops as list entries indexed from 0, each state filled
// by `fill(state, hop)`; an empty list without a route.
template <class Route, class Fill>
Json routeObjects(Kel::Ptr<Route const> const& route, Fill fill) {
  Json list = Json::arr();
  if (!route) return list;
  Kel::U64 index = 0;
  for (auto it = route->hopIter(); !it.done(); ++it, ++index) {
    Json e = Json::obj();
    e.set("index", Json::num(index));
    Json& st = e.set("state", Json::obj());
    st.set("index", Json::num(index));
    fill(st, it.value());
    list.push(std::move(e));
  }
  return list;
}

Json ocSession(RsvpSpState const& sp) {
  RsvpSessionId const& session = sp.spId().sessionId();
  RsvpSessionAttributeObj const attributes = sp.sessionAttributes();
  Json s = Json::obj();
  // uint64 travels as a string in JSON (RFC 7951).
  s.set("local-index", Json::str(std::to_string(sp.spCliId().value())));
  Json& state = s.set("state", Json::obj());
  state.set("local-index", Json::str(std::to_string(sp.spCliId().value())));
  if (!sp.senderAddr().isUnspecified())
    state.set("source-address", Json::str(text(sp.senderAddr())));
  state.set("destination-address", Json::str(text(session.dstIp())));
  state.set("tunnel-id", Json::num(session.tunnelId().value()));
  state.set("lsp-id", Json::num(sp.spId().pathId().lspId()));
  state.set("session-name", Json::str(attributes.sessionName()));
  state.set("status", Json::str(sp.operational() ? "UP" : "DOWN"));
  if (auto const r = ocRole(sp.sessionRole())) state.set("type", Json::str(*r));
  bool const node = attributes.nodeProtectionDesired() || sp.nodeProtectionDesired();
  bool const link = attributes.localProtectionDesired() || sp.localProtectionDesired();
  state.set("protection-requested",
            Json::str(std::string(kOcTypes) + (node   ? "LINK_NODE_PROTECTION_REQUESTED"
                                               : link ? "LINK_PROTECTION_REQUIRED"
                                                      : "UNPROTECTED")));
  if (auto l = ocLabel(sp.localLabel())) state.set("label-in", std::move(*l));
  if (auto l = ocLabel(sp.dsLabel())) state.set("label-out", std::move(*l));
  RsvpSenderTspecObj const tspec = sp.senderTspec();
  Json& t = state.set("sender-tspec", Json::obj());
  t.set("rate", ocFloat(tspec.tokenBucketRate()));
  t.set("size", ocFloat(tspec.tokenBucketSize()));
  t.set("peak-data-rate",
        std::isinf(tspec.peakDataRate()) ? Json::str("INFINITY") : ocFloat(tspec.peakDataRate()));

  // The route the PATH asked for, and the one the RESV recorded downstream.
  auto const in = sp.inPathState();
  auto const resv = sp.inResvState();
  Json ero = routeObjects(in && in->msg() ? in->msg()->explicitRouteObj() : nullptr,
                          [](Json& st, RsvpEroHopSubObj const& hop) {
                            st.set("address", Json::str(text(hop.prefix().addr())));
                            st.set("loose", Json::boolean(hop.loose()));
                          });
  Json rro = routeObjects(resv && resv->msg() ? resv->msg()->recordRouteObj() : nullptr,
                          [](Json& st, RsvpRroHopSubObj const& hop) {
                            st.set("address", Json::str(text(hop.ip())));
                            if (auto l = ocLabel(hop.label()))
                              st.set("reported-label", std::move(*l));
                            st.set("reported-flags", Json::num(hop.ipFlagsRaw()));
                          });
  s.set("explicit-route-objects", Json::obj()).set("explicit-route-object", std::move(ero));
  s.set("record-route-objects", Json::obj()).set("record-route-object", std::move(rro));
  return s;
}

Json ocNeighbor(RsvpNeighborState const& n) {
  Json j = Json::obj();
  std::string const address = text(n.neighborId().neighborIp());
  j.set("address", Json::str(address));
  Json& state = j.set("state", Json::obj());
  state.set("address", Json::str(address));
  state.set("neighbor-status", Json::str(n.helloTimeout() ? "DOWN" : "UP"));
  state.set("refresh-reduction", Json::boolean(n.neighborRorEnabled()));
  return j;
}

// ---- the views

std::vector<Kel::Ptr<RsvpSpState>> statePaths(RsvpStatus const& s) {
  std::vector<Kel::Ptr<RsvpSpState>> v;
  for (auto it = s.spStateColl()->spStateIter(); !it.done(); ++it) v.push_back(it.value());
  std::sort(v.begin(), v.end(), [](auto const& a, auto const& b) { return a->spId() < b->spId(); });
  return v;
}

std::vector<Kel::Ptr<RsvpNeighborState>> neighbors(RsvpStatus const& s) {
  std::vector<Kel::Ptr<RsvpNeighborState>> v;
  for (auto it = s.neighborStateColl()->neighborStateIter(); !it.done(); ++it)
    v.push_back(it.value());
  std::sort(v.begin(), v.end(),
            [](auto const& a, auto const& b) { return a->neighborId() < b->neighborId(); });
  return v;
}

Kel::U64 helloMessagesIn(RsvpStatus const& s) {
  Kel::U64 n = 0;
  for (auto it = s.neighborHelloRxMsgPipeColl()->msgPipeIter(); !it.done(); ++it)
    n += it.value()->readableCount();
  return n;
}

struct Counts {
  std::size_t sessions = 0, paths = 0, up = 0, neighbors = 0, labels = 0, requests = 0;
  std::size_t bypasses = 0, bypassesInUse = 0, frrDs = 0, frrUs = 0;
  std::array<std::size_t, 4> pathStates{}, resvStates{}, roles{};
  std::size_t helloUp = 0, helloDown = 0, refreshReduction = 0;
};

Counts count(RsvpStatus const& s) {
  Counts c;
  auto const sps = s.spStateColl();
  c.sessions = s.sessionStateColl()->sessionStateSize();
  c.paths = sps->spStateSize();
  c.up = sps->operationalCount();
  c.bypasses = sps->bypassCount();
  c.bypassesInUse = sps->bypassInUseCount();
  for (auto it = sps->spStateIter(); !it.done(); ++it) {
    RsvpSpState const& sp = *it.value();
    ++c.pathStates[static_cast<std::size_t>(sp.spOperPathState()) & 3];
    ++c.resvStates[static_cast<std::size_t>(sp.spOperResvState()) & 3];
    ++c.roles[static_cast<std::size_t>(sp.sessionRole()) & 3];
    c.frrDs += sp.dsFrrInUse();
    c.frrUs += sp.usFrrInUse();
  }
  for (auto it = s.neighborStateColl()->neighborStateIter(); !it.done(); ++it) {
    RsvpNeighborState const& n = *it.value();
    ++c.neighbors;
    if (n.helloEnabled()) ++(n.helloTimeout() ? c.helloDown : c.helloUp);
    c.refreshReduction += n.rorEnabled() && n.neighborRorEnabled();
  }
  c.labels = s.labelAllocTable()->labelSize();
  c.requests = s.labelRequestTable()->labelRequestSize();
  return c;
}

std::string summaryText(RsvpStatus const& s, std::string const& source) {
  Counts const c = count(s);
  auto states = [](std::array<std::size_t, 4> const& a) {
    return "both " + std::to_string(a[3]) + ", received " + std::to_string(a[1]) + ", sent " +
           std::to_string(a[2]) + ", down " + std::to_string(a[0]);
  };
  Table t({"RSVP summary", source});
  t.row({"Sessions", std::to_string(c.sessions)});
  t.row({"State paths", std::to_string(c.paths) + " (up " + std::to_string(c.up) + ", down " +
                            std::to_string(c.paths - c.up) + ")"});
  t.row({"  by role", "ingress " + std::to_string(c.roles[1]) + ", transit " +
                          std::to_string(c.roles[2]) + ", egress " + std::to_string(c.roles[3]) +
                          ", unknown " + std::to_string(c.roles[0])});
  t.row({"  PATH state", states(c.pathStates)});
  t.row({"  RESV state", states(c.resvStates)});
  t.row({"Neighbors", std::to_string(c.neighbors) + " (Hello up " + std::to_string(c.helloUp) +
                          ", Hello down " + std::to_string(c.helloDown) +
                          ", refresh reduction both ways " + std::to_string(c.refreshReduction) +
                          ")"});
  t.row({"Bypasses in use", std::to_string(c.bypassesInUse) + " of " + std::to_string(c.bypasses) +
                                " (FRR in use: downstream " + std::to_string(c.frrDs) +
                                ", upstream " + std::to_string(c.frrUs) + ")"});
  t.row({"Labels", std::to_string(c.labels) + " allocated, " +
                       std::to_string(c.requests > c.labels ? c.requests - c.labels : 0) +
                       " requests waiting"});
  return t.str();
}

Json summaryJson(RsvpStatus const& s) {
  Counts const c = count(s);
  Json root = Json::obj();
  Json& rsvp = root.set(kOcRsvp, Json::obj());
  Json& counters =
      rsvp.set("global", Json::obj()).set("state", Json::obj()).set("counters", Json::obj());
  counters.set("in-hello-messages", Json::str(std::to_string(helloMessagesIn(s))));
  Json& own = root.set("rsvp-show:summary", Json::obj());
  own.set("sessions", Json::num(c.sessions));
  own.set("state-paths", Json::num(c.paths));
  own.set("state-paths-up", Json::num(c.up));
  Json byPath = Json::obj();
  Json byResv = Json::obj();
  for (RsvpSpOperState st : {spOperStateDown, spOperStateRcvd, spOperStateSent, spOperStateBoth}) {
    byPath.set(operState(st), Json::num(c.pathStates[st]));
    byResv.set(operState(st), Json::num(c.resvStates[st]));
  }
  own.set("path-states", std::move(byPath));
  own.set("resv-states", std::move(byResv));
  own.set("neighbors", Json::num(c.neighbors));
  own.set("bypasses", Json::num(c.bypasses));
  own.set("bypasses-in-use", Json::num(c.bypassesInUse));
  own.set("labels", Json::num(c.labels));
  return root;
}

std::string sessionsText(RsvpStatus const& s) {
  auto const sps = statePaths(s);
  std::size_t const sessions = s.sessionStateColl()->sessionStateSize();
  std::string out = std::to_string(sps.size()) + " state paths in " + std::to_string(sessions) +
                    (sessions == 1 ? " session\n" : " sessions\n");
  Table t({"ID", "Destination", "Tunnel", "Ext tunnel", "LSP", "Sender", "Role", "PATH", "RESV",
           "Up", "In", "Out", "Prev hop", "Next hop", "BW", "Protection"});
  for (auto const& sp : sps) {
    RsvpSessionId const& id = sp->spId().sessionId();
    t.row({std::to_string(sp->spCliId().value()), addr(id.dstIp()),
           std::to_string(id.tunnelId().value()), addr(id.extTunnelId()),
           std::to_string(sp->spId().pathId().lspId()), addr(sp->senderAddr()),
           role(sp->sessionRole()), operState(sp->spOperPathState()),
           operState(sp->spOperResvState()), sp->operational() ? "up" : "down",
           label(sp->localLabel()), label(sp->dsLabel()), addr(sp->activeUs().neighborIp()),
           addr(sp->nextHop()), bandwidth(sp->bandwidth()), protection(*sp)});
  }
  return out + t.str();
}

Json sessionsJson(RsvpStatus const& s) {
  Json root = Json::obj();
  Json list = Json::arr();
  for (auto const& sp : statePaths(s)) list.push(ocSession(*sp));
  root.set(kOcRsvp, Json::obj()).set("sessions", Json::obj()).set("session", std::move(list));
  return root;
}

Kel::Ptr<RsvpSpState> findPath(RsvpStatus const& s, std::string const& which) {
  bool const digits =
      !which.empty() && which.size() < 8 &&
      std::all_of(which.begin(), which.end(), [](char c) { return c >= '0' && c <= '9'; });
  if (digits) {
    Kel::U32 const cli = static_cast<Kel::U32>(std::stoul(which));
    for (auto it = s.spStateColl()->spStateIter(); !it.done(); ++it) {
      if (it.value()->spCliId().value() == cli) return it.value();
    }
    return nullptr;
  }
  return s.spStateColl()->spState(Kel::strepToValue<RsvpSpId>(which));
}

std::string historyText(RsvpSpHistoryEntry const& e) {
  switch (e.historyEntryType()) {
    case rsvpSpOperStateHistoryEntry: {
      auto const& h = static_cast<RsvpSpOperStateHistoryEntry const&>(e);
      return "PATH " + operState(h.spOperPathState()) + ", RESV " + operState(h.spOperResvState());
    }
    case rsvpSpFrrAvailableHistoryEntry: {
      auto const& h = static_cast<RsvpSpFrrAvailableHistoryEntry const&>(e);
      return std::string("bypass ") + (h.bypassAvailable() ? "available" : "gone") + ", next hop " +
             addr(h.bypassNextHop()) + (h.bypassNodeProtected() ? ", node protected" : "");
    }
    case rsvpSpDsFrrInUseHistoryEntry: {
      auto const& h = static_cast<RsvpSpDsFrrInUseHistoryEntry const&>(e);
      return std::string("downstream FRR ") + (h.dsFrrInUse() ? "in use" : "over") + ", next hop " +
             addr(h.dsNextHop());
    }
    case rsvpSpUsFrrInUseHistoryEntry: {
      auto const& h = static_cast<RsvpSpUsFrrInUseHistoryEntry const&>(e);
      return std::string("upstream FRR ") + (h.usFrrInUse() ? "in use" : "over");
    }
    case rsvpSpErrorHistoryEntry: return "error";
    case rsvpUnknownEntry:
    case rsvpSessionCreationHistoryEntry:
    case rsvpSessionMemberHistoryEntry: break;
  }
  return text(e.historyEntryType());
}

std::string pathText(RsvpSpState const& sp) {
  RsvpSessionAttributeObj const a = sp.sessionAttributes();
  RsvpBypassInfo const& bypass = sp.bypassInfo();
  Table t({"State path", text(sp.spId())});
  t.row({"CLI id", std::to_string(sp.spCliId().value())});
  t.row({"Session name", a.sessionName().empty() ? "-" : a.sessionName()});
  t.row({"Role", role(sp.sessionRole()) + (sp.isBypass() ? " (bypass tunnel)" : "")});
  t.row({"Operational", sp.operational() ? "up" : "down"});
  t.row({"PATH state", operState(sp.spOperPathState())});
  t.row({"RESV state", operState(sp.spOperResvState())});
  t.row({"Label in", label(sp.localLabel())});
  t.row({"Label out", label(sp.dsLabel())});
  t.row({"Previous hop", addr(sp.activeUs().neighborIp())});
  t.row({"Next hop", addr(sp.nextHop()) + " (neighbor " + addr(sp.activeDs().neighborIp()) + ")"});
  t.row({"Sender", addr(sp.senderAddr())});
  t.row({"Bandwidth", bandwidth(sp.bandwidth()) + "bit/s"});
  t.row({"Priorities", "setup " + std::to_string(a.setupPriority()) + ", hold " +
                           std::to_string(a.holdPriority())});
  t.row({"Protection", protection(sp)});
  t.row({"Bypass", bypass.bypassAvailable()
                       ? "next hop " + addr(bypass.bypassNextHop()) + ", label " +
                             label(bypass.bypassLabel()) + ", merge point " +
                             addr(bypass.bypassLastHop()) +
                             (bypass.bypassNodeProtected() ? ", node protected" : "")
                       : "-"});
  t.row({"FRR in use",
         "downstream " + yesNo(sp.dsFrrInUse()) + ", upstream " + yesNo(sp.usFrrInUse())});
  t.row({"Next-next hop", addr(sp.nextNextHop()) + ", label " + label(sp.nnhLabel())});
  t.row({"Refresh", number(sp.refreshPeriod(), 1) + " s period, upstream base " +
                        number(sp.currentUsBaseRefresh(), 1) + " s, downstream base " +
                        number(sp.currentDsBaseRefresh(), 1) + " s"});
  t.row({"Created", number(sp.lspCreationTime(), 1) + " s"});
  if (auto const in = sp.inPathState()) {
    t.row({"PATH in", "changed " + number(in->msgLastChange(), 1) + " s, refreshed " +
                          number(in->msgLastRefresh(), 1) + " s" +
                          (in->msgTimeout() ? ", timed out" : "")});
  }
  if (auto const in = sp.inResvState()) {
    t.row({"RESV in", "changed " + number(in->msgLastChange(), 1) + " s, refreshed " +
                          number(in->msgLastRefresh(), 1) + " s" +
                          (in->msgTimeout() ? ", timed out" : "")});
  }
  t.row({"Hardware", std::string(sp.hwProgrammed() ? "programmed" : "not programmed") +
                         (sp.lfibUsingBackupVia() ? ", on the backup via" : "")});
  std::string out = t.str();
  out += "History (oldest first)\n";
  Table h({"  Time", "Event"});
  for (auto it = sp.spHistoryEntryIter(); !it.done(); ++it) {
    h.row({"  " + number(it.value()->timestamp(), 1) + " s", historyText(*it.value())});
  }
  return out + h.str();
}

Json pathJson(RsvpSpState const& sp) {
  Json root = Json::obj();
  Json list = Json::arr();
  list.push(ocSession(sp));
  root.set(kOcRsvp, Json::obj()).set("sessions", Json::obj()).set("session", std::move(list));
  Json history = Json::arr();
  for (auto it = sp.spHistoryEntryIter(); !it.done(); ++it) {
    Json e = Json::obj();
    e.set("timestamp", Json{Json::scalar, number(it.value()->timestamp(), 3), {}, {}, {}});
    e.set("event", Json::str(historyText(*it.value())));
    history.push(std::move(e));
  }
  root.set("rsvp-show:history", std::move(history));
  return root;
}

std::string neighborsText(RsvpStatus const& s) {
  auto const all = neighbors(s);
  Table t({"Neighbor", "Paths", "Hello", "Refresh reduction", "Epoch", "Msg id", "Integrity",
           "FRR in use", "Created"});
  for (auto const& n : all) {
    std::string hello = !n->helloEnabled()  ? "off"
                        : n->helloTimeout() ? "timed out"
                                            : "up, every " + number(n->helloInterval(), 1) + " s";
    std::string const rr = std::string(n->rorEnabled() ? "on" : "off") + " here, " +
                           (n->neighborRorEnabled() ? "on" : "off") + " there";
    bool const noEpoch = n->txEpoch() == 16777216;
    std::string const integrity = n->authType() == rsvpAuthNone
                                      ? "none"
                                      : text(n->authType()) + ", " +
                                            std::to_string(n->authKeySize()) + " keys, active " +
                                            std::to_string(n->authActiveKey()) + ", window " +
                                            std::to_string(n->authSeqWindowSize());
    std::string frr = n->dsFrrInUse() ? "downstream" : "";
    if (n->usFrrInUse()) frr += frr.empty() ? "upstream" : ", upstream";
    t.row({addr(n->neighborId().neighborIp()), std::to_string(n->spMemberSize()), hello, rr,
           noEpoch ? "-" : std::to_string(n->txEpoch()), std::to_string(n->txMsgId()), integrity,
           frr.empty() ? "-" : frr, number(n->neighborCreationTime(), 1) + " s"});
  }
  return std::to_string(all.size()) + " neighbors\n" + t.str();
}

Json neighborsJson(RsvpStatus const& s) {
  Json root = Json::obj();
  Json list = Json::arr();
  for (auto const& n : neighbors(s)) list.push(ocNeighbor(*n));
  root.set(kOcRsvp, Json::obj()).set("neighbors", Json::obj()).set("neighbor", std::move(list));
  return root;
}

std::string labelsText(RsvpStatus const& s) {
  std::vector<std::pair<RsvpLabelRequestId, RsvpDeliveryType>> requests;
  auto const requestTable = s.labelRequestTable();
  auto const allocTable = s.labelAllocTable();
  for (auto it = requestTable->labelRequestIter(); !it.done(); ++it)
    requests.emplace_back(it.key(), it.value());
  std::sort(requests.begin(), requests.end(),
            [](auto const& a, auto const& b) { return a.first < b.first; });
  Table t({"Destination", "Tunnel", "Ext tunnel", "LSP", "Delivery", "Label"});
  for (auto const& [id, delivery] : requests) {
    t.row({addr(id.sessionId().dstIp()), std::to_string(id.sessionId().tunnelId().value()),
           addr(id.sessionId().extTunnelId()), std::to_string(id.pathId().lspId()), text(delivery),
           allocTable->labelHas(id) ? label(allocTable->label(id)) : "waiting"});
  }
  return std::to_string(requests.size()) + " label requests, " +
         std::to_string(allocTable->labelSize()) + " labels allocated\n" + t.str();
}

Json labelsJson(RsvpStatus const& s) {
  std::vector<std::pair<RsvpLabelRequestId, Lumo::MplsLabel>> labels;
  for (auto it = s.labelAllocTable()->labelIter(); !it.done(); ++it)
    labels.emplace_back(it.key(), it.value());
  std::sort(labels.begin(), labels.end(),
            [](auto const& a, auto const& b) { return a.first < b.first; });
  Json list = Json::arr();
  for (auto const& [id, l] : labels) {
    Json e = Json::obj();
    e.set("destination-address", Json::str(text(id.sessionId().dstIp())));
    e.set("tunnel-id", Json::num(id.sessionId().tunnelId().value()));
    e.set("extended-tunnel-id", Json::str(text(id.sessionId().extTunnelId())));
    e.set("lsp-id", Json::num(id.pathId().lspId()));
    e.set("label", Json::num(l.value()));
    if (s.labelRequestTable()->labelRequestHas(id))
      e.set("delivery", Json::str(text(s.labelRequestTable()->labelRequest(id))));
    list.push(std::move(e));
  }
  Json root = Json::obj();
  root.set("rsvp-show:labels", std::move(list));
  return root;
}

// ---- arguments and the source of the tree

struct Options {
  std::string socket;
  std::string log;
  bool json = false;
  bool watch = false;
  long updates = 0;  // 0: until interrupted
  std::string view = "summary";
  std::string which;  // the state path of `path`
};

Options parse(int argc, char** argv) {
  Options o;
  std::vector<std::string> words;
  for (int i = 1; i < argc; ++i) {
    std::string_view const a = argv[i];
    auto value = [&]() -> std::string {
      if (i + 1 >= argc) throw Usage(std::string(a) + " needs a value");
      return argv[++i];
    };
    if (a == "--socket") {
      o.socket = value();
    } else if (a == "--log") {
      o.log = value();
    } else if (a == "--json") {
      o.json = true;
    } else if (a == "--watch") {
      o.watch = true;
    } else if (a == "--updates") {
      std::string const v = value();
      char* end = nullptr;
      o.updates = std::strtol(v.c_str(), &end, 10);
      if (v.empty() || *end || o.updates < 1) throw Usage("--updates takes a positive number");
    } else if (a == "-h" || a == "--help") {
      throw Usage(kUsage);
    } else if (a.starts_with("-")) {
      throw Usage("unknown option '" + std::string(a) + "'; " + kUsage);
    } else {
      words.emplace_back(a);
    }
  }
  if (o.socket.empty() == o.log.empty()) throw Usage(kUsage);
  if (o.watch && o.socket.empty()) throw Usage("--watch follows a publisher: give --socket");
  if (o.updates && !o.watch) throw Usage("--updates goes with --watch");
  if (!words.empty()) o.view = words[0];
  static constexpr std::array<std::string_view, 5> kViews = {"summary", "sessions", "path",
                                                             "neighbors", "labels"};
  if (std::find(kViews.begin(), kViews.end(), o.view) == kViews.end())
    throw Usage("unknown view '" + o.view + "'; " + kUsage);
  std::size_t const wanted = o.view == "path" ? 2 : 1;
  if (words.size() > wanted || (o.view == "path" && words.size() < 2)) throw Usage(kUsage);
  if (o.view == "path") o.which = words[1];
  return o;
}

// The view asked for, whole, so that an error leaves standard output empty.
std::string render(Options const& o, RsvpStatus const& s, std::string const& source) {
  if (o.view == "summary") return o.json ? summaryJson(s).dump() : summaryText(s, source);
  if (o.view == "sessions") return o.json ? sessionsJson(s).dump() : sessionsText(s);
  if (o.view == "neighbors") return o.json ? neighborsJson(s).dump() : neighborsText(s);
  if (o.view == "labels") return o.json ? labelsJson(s).dump() : labelsText(s);
  auto const sp = findPath(s, o.which);
  if (!sp) throw std::runtime_error("no state path " + o.which);
  return o.json ? pathJson(*sp).dump() : pathText(*sp);
}

// Applies the file a part at a time: the reader joins frames across parts,
// so the file is never held whole.
void readLog(std::string const& file, RsvpStatus& status) {
  std::FILE* const f = std::fopen(file.c_str(), "rb");
  if (!f) throw std::runtime_error("cannot read '" + file + "': " + std::strerror(errno));
  Kel::LogReader reader(status);
  std::vector<char> buf(1 << 20);
  try {
    for (std::size_t n; (n = std::fread(buf.data(), 1, buf.size(), f)) > 0;)
      reader.bytesIs({buf.data(), n});
  } catch (Kel::LogException const& e) {
    std::fclose(f);
    throw std::runtime_error("log '" + file + "': " + e.what());
  }
  bool const failed = std::ferror(f) != 0;
  std::fclose(f);
  if (failed) throw std::runtime_error("cannot read '" + file + "'");
  if (!reader.inSync()) throw std::runtime_error("log '" + file + "' holds no whole snapshot");
}

std::string clockNow() {
  std::time_t const t = std::time(nullptr);
  char buf[32];
  std::strftime(buf, sizeof buf, "%H:%M:%S", std::localtime(&t));
  return buf;
}

int run(Options const& o) {
  auto const status = rsvpStatusFactory("status");
  if (!o.log.empty()) {
    readLog(o.log, *status);
    std::cout << render(o, *status, "log " + o.log) << std::flush;
    return 0;
  }
  Kel::LogReplica replica(o.socket);
  replica.treeIs(1, *status);
  replica.inSyncAwait(120000);
  std::string const source = "replica of " + o.socket;
  std::string shown = render(o, *status, source);
  std::cout << shown << std::flush;
  if (!o.watch) return 0;
  long printed = 1;
  while (o.updates == 0 || printed < o.updates) {
    pollfd p{replica.fd(), POLLIN, 0};
    if (::poll(&p, 1, -1) < 0) {
      if (errno == EINTR) continue;
      throw std::runtime_error(std::string("poll: ") + std::strerror(errno));
    }
    // A round of changes arrives as several frames: read on until the
    // stream has been quiet for 100 ms, or for at most a second.
    replica.readAvailable();
    auto const until = Clock::now() + std::chrono::seconds(1);
    while (Clock::now() < until) {
      pollfd q{replica.fd(), POLLIN, 0};
      if (::poll(&q, 1, 100) == 0) break;
      replica.readAvailable();
    }
    std::string now = render(o, *status, source);
    if (now == shown) continue;
    shown = std::move(now);
    if (!o.json) std::cout << "\n--- " << clockNow() << "\n";
    std::cout << shown << std::flush;
    ++printed;
  }
  return 0;
}

int fail(int status, std::string_view text) { return toolError("rsvp_show", status, text); }

}  // namespace

int main(int argc, char** argv) {
  try {
    return run(parse(argc, argv));
  } catch (Usage const& e) {
    return fail(2, e.what());
  } catch (std::exception const& e) {
    return fail(1, e.what());
  }
}
