// A value of any type of the model, made through reflection: random, or one
// that differs from the type's default. The object and message suites share it.
#ifndef TESTS_RSVP_SOMEVALUE_H
#define TESTS_RSVP_SOMEVALUE_H

#include <Rsvp/Rsvp.h>

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <string_view>

namespace SomeValue {

// Writes into `v` (of `type`) a random value when `rng` is given, else one
// that differs from the default (7 where a number will do). A value type
// gets each plain attribute so made, keeping the default where the range
// refuses it.
inline void make(Kel::TypeDesc const& type, void* v, std::mt19937* rng) {
  std::string_view const name = type.name();
  auto const n = [&](Kel::U32 seven) { return rng ? static_cast<Kel::U32>((*rng)()) : seven; };
  if (type.kind() == Kel::TypeKind::enumeration) {
    auto const all = type.enumDesc()->enumerators();
    *static_cast<Kel::U32*>(v) = all[n(static_cast<Kel::U32>(all.size() - 1)) % all.size()].value;
  } else if (type.kind() == Kel::TypeKind::value) {
    type.forEachAttr([&](Kel::KelAttr const& a) {
      if (a.kind != Kel::AttrKind::plain) return;
      Kel::GenericValue field(*a.type);
      make(*a.type, field.get(), rng);
      try {
        type.attributeOp(nullptr, v, &a, Kel::attrOpWrite, field.get());
      } catch (Kel::RangeException const&) {
      }
    });
  } else if (name == "U8") {
    *static_cast<Kel::U8*>(v) = static_cast<Kel::U8>(n(7));
  } else if (name == "U16") {
    *static_cast<Kel::U16*>(v) = static_cast<Kel::U16>(n(7));
  } else if (name == "U32") {
    *static_cast<Kel::U32*>(v) = n(7);
  } else if (name == "U64") {
    *static_cast<Kel::U64*>(v) = (Kel::U64{n(0)} << 32) | n(7);
  } else if (name == "bool") {
    *static_cast<bool*>(v) = n(1) % 2;
  } else if (name == "F32") {
    *static_cast<Kel::F32*>(v) = static_cast<Kel::F32>(n(52) % 100000) / 7.0f;
  } else if (name == "Kel::Seconds" || name == "F64") {
    *static_cast<Kel::F64*>(v) = static_cast<Kel::F64>(n(52) % 100000) / 7.0;
  } else if (name == "Kel::String") {
    *static_cast<Kel::String*>(v) = std::string(n(5) % 6, static_cast<char>('a' + n(18) % 26));
  } else if (name == "Lumo::IpGenAddr") {
    *static_cast<Lumo::IpGenAddr*>(v) =
        n(1) % 3 ? Lumo::IpGenAddr::ipv4(n(0x0a070707)) : Lumo::IpGenAddr("2001:db8::7");
  } else if (name == "Lumo::MplsLabel") {
    *static_cast<Lumo::MplsLabel*>(v) = Lumo::MplsLabel(n(7) % 1048577);
  } else if (name == "Lumo::IntfId") {
    *static_cast<Lumo::IntfId*>(v) = Lumo::IntfId("Ethernet" + std::to_string(n(7) % 10));
  } else if (name == "Lumo::IpGenPrefix") {
    *static_cast<Lumo::IpGenPrefix*>(v) =
        Lumo::IpGenPrefix(Lumo::IpGenAddr::ipv4(n(0x0a070000)), static_cast<Kel::U8>(n(16) % 33));
  } else if (name == "Cspf::PathKey") {
    *static_cast<Cspf::PathKey*>(v) = Cspf::PathKey(
        Lumo::IpGenAddr::ipv4(n(7)), Lumo::IpGenAddr("2001:db8::9"), static_cast<Kel::U16>(n(7)));
  } else if (name == "Mpls::LfibViaSetKey") {
    *static_cast<Mpls::LfibViaSetKey*>(v) = Mpls::LfibViaSetKey((Kel::U64{n(0)} << 32) | n(7));
  } else if (name == "Lumo::NetU8") {
    *static_cast<Lumo::NetU8*>(v) = Lumo::NetU8(static_cast<Kel::U8>(n(7)));
  } else if (!rng) {
    FAIL() << "no different value for " << name;
  }
}

}  // namespace SomeValue

#endif  // TESTS_RSVP_SOMEVALUE_H
