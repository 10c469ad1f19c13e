// Reflection: descriptor tables and indices, generic reads and writes with
// the typed setters' checks, whole-value operations, generic value methods,
// generic iteration and the state browser (the generic notifiee is
// EntityTest's).
#include <Rsvp/FrameTestModel.h>
#include <Rsvp/Rsvp.h>

#include <gtest/gtest.h>

#include "../TestSupport.h"

#include <algorithm>
#include <random>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace {

using namespace Rsvp;
using Sample::Root;

using TestSupport::attrOp;
using TestSupport::errorOf;
using TestSupport::spId;

// Every type of the model: indices run on from 2 (values) or 258 (entities,
// after the base's), in declaration order, and names are unique; constants
// and derived attributes have no log identifier, and every other one finds
// its attribute again; every entity type has its log adapter.
TEST(Descriptors, EveryTypeNumbersItsAttributesInOrder) {
  ASSERT_FALSE(allTypes().empty());
  std::string_view previous;
  for (Kel::TypeDesc const* t : allTypes()) {
    EXPECT_LT(previous, t->name()) << "the registry is sorted";
    previous = t->name();
    EXPECT_EQ(typeByName(t->name()), t);
    if (t->kind() == Kel::TypeKind::entity) {
      EXPECT_NE(t->logStateAdapter(), nullptr) << t->name();
    }
    Kel::U32 expected = t->kind() == Kel::TypeKind::entity ? 258 : 2;
    std::vector<std::string_view> names;
    t->forEachAttr([&](Kel::KelAttr const& a) {
      EXPECT_EQ(a.index, expected++) << t->name() << "::" << a.name;
      EXPECT_EQ(std::count(names.begin(), names.end(), a.name), 0) << a.name;
      names.push_back(a.name);
      EXPECT_NE(a.type, nullptr);
      if (a.kind == Kel::AttrKind::constant || a.kind == Kel::AttrKind::derived) {
        EXPECT_EQ(a.logId, 0u) << t->name() << "::" << a.name;
      } else if (a.logId != 0) {
        EXPECT_EQ(t->attrByLogId(a.logId), &a) << t->name() << "::" << a.name;
      }
    });
  }
  EXPECT_EQ(typeByName("Rsvp::Nothing"), nullptr);
}

// Constants read and refuse writes; a foreign attribute is unknown; an
// operation the kind lacks is unsupported. Generic writes check ranges and
// immutability as the typed setters do, with the same texts, and keep the
// value when refused.
TEST(GenericOp, ConstantsUnknownsAndChecks) {
  auto special = Sample::specialFactory("s");
  Kel::String mount;
  EXPECT_EQ(attrOp(*special, "mountPath", Kel::attrOpRead, &mount), Kel::attrDone);
  EXPECT_EQ(mount, "sample/root");
  EXPECT_EQ(attrOp(*special, "mountPath", Kel::attrOpWrite, nullptr, &mount), Kel::attrUnsupported);
  RsvpPathId p(3);
  Kel::U32 v = 0;
  EXPECT_EQ(attrOp(p, "maxLspId", Kel::attrOpRead, &v), Kel::attrDone);
  EXPECT_EQ(v, 65535u);
  EXPECT_EQ(attrOp(p, "maxLspId", Kel::attrOpWrite, nullptr, &v), Kel::attrUnsupported);
  Kel::KelAttr const foreign{"x", "U32", 99, Kel::AttrKind::plain, &Kel::typeU32, nullptr};
  EXPECT_EQ(RsvpPathId::kelType.attributeOp(&v, &p, &foreign, Kel::attrOpRead), Kel::attrUnknown);
  auto root = Sample::rootFactory("r");
  EXPECT_EQ(root->fwkType().attributeOp(&v, root.get(), &foreign, Kel::attrOpRead),
            Kel::attrUnknown);
  EXPECT_EQ(attrOp(*root, "count", Kel::attrOpIterate, &v), Kel::attrUnsupported);

  Kel::U32 const tooBig = 16777217;  // past the bounds of both the LSP id and the epoch
  EXPECT_EQ(
      errorOf<Kel::RangeException>([&] { attrOp(p, "lspId", Kel::attrOpWrite, nullptr, &tooBig); }),
      "RsvpPathId::lspId < 0 or > RsvpPathId::invalidLspId not allowed");
  EXPECT_EQ(p.lspId(), 3u);
  Kel::U32 const ok = 7;
  EXPECT_EQ(attrOp(p, "lspId", Kel::attrOpWrite, nullptr, &ok), Kel::attrDone);
  EXPECT_EQ(p.lspId(), 7u);
  EXPECT_THROW(attrOp(*root, "epoch", Kel::attrOpWrite, nullptr, &tooBig), Kel::RangeException);
  auto path = root->pathIs(spId(1), true);
  bool const flag = false;
  EXPECT_EQ(errorOf<Kel::ImmutableAttributeException>(
                [&] { attrOp(*path, "isBypass", Kel::attrOpWrite, nullptr, &flag); }),
            "Attribute Rsvp::Sample::Path::isBypass is immutable");
}

// Generic value methods agree with the typed ones; a refused text or
// constructor argument raises and keeps the value; an entity type has none.
TEST(GenericValue, MethodsAgreeWithTheTypedOnes) {
  Kel::ValueOps const& ops = *RsvpSpId::kelType.ops();
  RsvpSpId const a = spId(4);
  EXPECT_EQ(ops.hash(&a), a.hash());
  Kel::GenericValue v(RsvpSpId::kelType);
  ops.assign(v.get(), &a);
  EXPECT_EQ(v.strep(), a.stringValue());
  v.strepIs(spId(5).stringValue());
  EXPECT_EQ(*static_cast<RsvpSpId const*>(v.get()), spId(5));
  EXPECT_THROW(v.strepIs("<lspId=1>"), Kel::RangeException);
  EXPECT_EQ(*static_cast<RsvpSpId const*>(v.get()), spId(5));

  Kel::U32 const lsp = 65537;
  void const* args[] = {&lsp};
  alignas(RsvpPathId) unsigned char at[sizeof(RsvpPathId)];
  EXPECT_THROW(RsvpPathId::kelType.constructFromArgs()(at, args), Kel::RangeException);
  RsvpSessionId const s = spId(1).sessionId();
  RsvpPathId const p(9);
  void const* spArgs[] = {&s, &p};
  alignas(RsvpSpId) unsigned char spAt[sizeof(RsvpSpId)];
  RsvpSpId::kelType.constructFromArgs()(spAt, spArgs);
  auto* built = std::launder(reinterpret_cast<RsvpSpId*>(spAt));
  EXPECT_EQ(*built, spId(9));
  built->~RsvpSpId();
  EXPECT_EQ(
      errorOf<Kel::NoValueMethodsException>([] { Kel::GenericValue const entity(Root::kelType); }),
      "Type Rsvp::Sample::Root has no value methods");
}

std::vector<std::string> genericKeys(Kel::Entity& e, char const* attr) {
  std::unique_ptr<Kel::GenericIter> it;
  EXPECT_EQ(attrOp(e, attr, Kel::attrOpIterate, &it), Kel::attrDone);
  std::vector<std::string> keys;
  Kel::KelAttr const* a = e.fwkType().attr(attr);
  for (; !it->done(); it->next()) {
    Kel::String k;
    a->keyType->ops()->appendStrep(k, it->key());
    keys.push_back(k);
  }
  return keys;
}

// Generic iteration visits the members in the typed order, ascending keys
// for an ordered map, with their elements; deleting through it removes each
// member once.
TEST(GenericIteration, VisitsEveryMemberInOrder) {
  auto root = Sample::rootFactory("r");
  std::mt19937 rng(9);
  for (int i = 0; i < 40; ++i) {
    root->idsIs(spId(rng() % 100));
    root->weightsIs(spId(rng() % 100), rng());
    root->leafIs(rng() % 100);
    root->hopIs(rng() % 100, Lumo::IpGenAddr::ipv4(rng()));
    root->newPoints(rng(), rng());
    root->byPathIs(spId(rng() % 100), Sample::leafFactory(static_cast<Kel::U32>(i)));
  }
  auto const typed = [](auto it) {
    std::vector<std::string> keys;
    for (; !it.done(); ++it) keys.push_back(valueToStrep(it.key()));
    return keys;
  };
  EXPECT_EQ(genericKeys(*root, "ids"), typed(root->idsIter()));
  EXPECT_EQ(genericKeys(*root, "leaf"), typed(root->leafIter()));
  EXPECT_EQ(genericKeys(*root, "hop"), typed(root->hopIter()));
  EXPECT_EQ(genericKeys(*root, "points"), typed(root->pointsIter()));
  std::vector<RsvpSpId> paths;
  for (auto it = root->byPathIter(); !it.done(); ++it) paths.push_back(it.key());
  EXPECT_TRUE(std::is_sorted(paths.begin(), paths.end())) << "an ordered map visits keys ascending";
  EXPECT_EQ(genericKeys(*root, "byPath"), typed(root->byPathIter()));

  // Elements: a flag for sets, the value for maps, the entity for children.
  std::unique_ptr<Kel::GenericIter> it;
  attrOp(*root, "ids", Kel::attrOpIterate, &it);
  EXPECT_TRUE(*static_cast<bool const*>(it->element()));
  attrOp(*root, "weights", Kel::attrOpIterate, &it);
  EXPECT_EQ(*static_cast<Kel::U32 const*>(it->element()),
            root->weights(*static_cast<RsvpSpId const*>(it->key())));
  attrOp(*root, "leaf", Kel::attrOpIterate, &it);
  EXPECT_EQ(it->entity(), root->leaf(*static_cast<Kel::U32 const*>(it->key())).get());

  // Deleting through the generic iterator removes each member once, notifying.
  root->leafDelAll();
  for (Kel::U32 i = 0; i < 30; ++i) root->leafIs(i);
  TestSupport::Heard heard(root.get());
  attrOp(*root, "leaf", Kel::attrOpIterate, &it);
  int visited = 0;
  while (!it->done()) {
    if (*static_cast<Kel::U32 const*>(it->key()) % 2 == 0) {
      it->delCurrent();
    } else {
      it->next();
    }
    ++visited;
  }
  EXPECT_EQ(visited, 30);
  EXPECT_EQ(root->leafSize(), 15u);
  EXPECT_EQ(heard.log.size(), 15u);
}

// Member reads, writes, deletions, sizes, queue operations and references
// of the right type only; null test, equality and order on whole values, no
// order where the type has none.
TEST(GenericOp, MemberAndWholeValueOperations) {
  auto root = Sample::rootFactory("r");
  RsvpSpId const k = spId(2);
  Kel::U32 const w = 9;
  EXPECT_EQ(attrOp(*root, "weights", Kel::attrOpMemberWrite, nullptr, &k, &w), Kel::attrDone);
  Kel::U32 got = 0;
  EXPECT_EQ(attrOp(*root, "weights", Kel::attrOpMemberRead, &got, &k), Kel::attrDone);
  EXPECT_EQ(got, 9u);
  std::size_t size = 0;
  attrOp(*root, "weights", Kel::attrOpSize, &size);
  EXPECT_EQ(size, 1u);
  bool was = false;
  attrOp(*root, "weights", Kel::attrOpMemberDel, &was, &k);
  EXPECT_TRUE(was);
  EXPECT_EQ(attrOp(*root, "weights", Kel::attrOpMemberRead, &got, &k), Kel::attrUnsupported);
  Sample::Point const pt(1, 2);
  Kel::U32 seq = 99;
  EXPECT_EQ(attrOp(*root, "points", Kel::attrOpEnq, &seq, &pt), Kel::attrDone);
  EXPECT_EQ(seq, 0u);
  Sample::Point out;
  EXPECT_EQ(attrOp(*root, "points", Kel::attrOpDeq, &out), Kel::attrDone);
  EXPECT_EQ(out, pt);
  EXPECT_EQ(attrOp(*root, "points", Kel::attrOpDeq, &out), Kel::attrUnsupported);
  Kel::U32 const leafKey = 4;
  EXPECT_EQ(attrOp(*root, "leaf", Kel::attrOpMemberWrite, nullptr, &leafKey), Kel::attrDone);
  Kel::Ptr<Kel::Entity const> leaf;
  EXPECT_EQ(attrOp(*root, "leaf", Kel::attrOpMemberRead, &leaf, &leafKey), Kel::attrDone);
  EXPECT_EQ(leaf.get(), root->leaf(4).get());
  Kel::Ptr<Kel::Entity const> wrong = Sample::rootFactory("other");
  EXPECT_EQ(attrOp(*root, "shared", Kel::attrOpWrite, nullptr, &wrong), Kel::attrUnsupported);
  EXPECT_EQ(attrOp(*root, "shared", Kel::attrOpWrite, nullptr, &leaf), Kel::attrDone);
  EXPECT_EQ(root->shared().get(), leaf.get());

  RsvpTunnelId const seven(7), eight(8), none;
  std::tuple<RsvpTunnelId, Kel::U32, RsvpTunnelId, bool> const cases[] = {
      // value, op, arg, answer
      {none, Kel::valueOpIsNull, none, true},  {seven, Kel::valueOpIsNull, none, false},
      {seven, Kel::valueOpEqual, seven, true}, {seven, Kel::valueOpEqual, eight, false},
      {seven, Kel::valueOpLess, eight, true},  {eight, Kel::valueOpLess, seven, false},
  };
  for (auto const& [value, op, arg, expected] : cases) {
    bool result = !expected;
    RsvpTunnelId v = value;
    EXPECT_EQ(RsvpTunnelId::kelType.attributeOp(&result, &v, nullptr, op, &arg), 0);
    EXPECT_EQ(result, expected) << op;
  }
  bool result = false;
  RsvpTunnelId v;
  EXPECT_EQ(RsvpTunnelId::kelType.attributeOp(&result, &v, nullptr, 12), Kel::attrUnsupported);
  RsvpError e;
  EXPECT_EQ(RsvpError::kelType.attributeOp(&result, &e, nullptr, Kel::valueOpLess, &e),
            Kel::attrUnsupported)
      << "RsvpError has no order";
}

// The exact text of a tree, each entity once: shared and cyclic ones by path;
// every member of a map, in the map's order.
TEST(Browser, PrintsTheTreeOnceWithSharedAndCyclicEntities) {
  auto root = Sample::rootFactory("root");
  root->countIs(3);
  root->labelIs("a \"b\"");
  root->idsIs(spId(1));
  auto const leaf = root->leafIs(4);
  leaf->weightIs(2);
  leaf->nextIs(leaf);  // a cycle
  root->sharedIs(leaf);
  root->slotIs()->backIs(leaf);
  root->newPoints(5, 6);
  root->hopIs(2, Lumo::IpGenAddr("10.0.0.2"));
  root->hopIs(1, Lumo::IpGenAddr("2001:db8::1"));
  EXPECT_EQ(Kel::browseText(*root),
            "root: Rsvp::Sample::Root\n"
            "  mountPath: \"sample/root\"\n"
            "  count: 3\n"
            "  label: \"a \\\"b\\\"\"\n"
            "  style: resvStyleUnknown\n"
            "  epoch: 16777216\n"
            "  ids:\n"
            "    [" +
                spId(1).stringValue() +
                "]\n"
                "  weights: {}\n"
                "  leaf:\n"
                "    [4]: Rsvp::Sample::Leaf\n"
                "      id: 4\n"
                "      weight: 2\n"
                "      next: -> root/4\n"
                "  path: {}\n"
                "  hop:\n"
                "    [1]: 2001:db8::1\n"
                "    [2]: 10.0.0.2\n"
                "  branch: {}\n"
                "  points:\n"
                "    [0]: Value('Rsvp::Sample::Point', ** {'x': 5, 'y': 6})\n"
                "  events: {}\n"
                "  slot: Rsvp::Sample::Slot\n"
                "    level: 1\n"
                "    back: -> root/4\n"
                "    pins: {}\n"
                "  shared: -> root/4\n"
                "  localOnly: 0\n"
                "  pinned: {}\n"
                "  byPath: {}\n"
                "  album: null\n");
  leaf->nextIs(nullptr);  // reference counts never free a cycle by themselves
}

// Each form of assignment reaches the typed mutator: the browser shows the
// effect, an attribute of the root or its member (the browser's form is
// Browser's). Refused assignments raise the exact text and change nothing.
TEST(Assignment, EachFormReachesTheTypedMutatorOrRaisesTheExactText) {
  std::string const sp = spId(2).stringValue();
  std::pair<std::string, std::string> const cases[] = {
      // assignment, browsed lines
      {"count=3", "\n  count: 3\n"},
      {"label=\"a=b[c\"", "\n  label: \"a=b[c\"\n"},
      {"style=resvStyleFf", "\n  style: resvStyleFf\n"},
      {"ids[" + sp + "]", "\n  ids:\n    [" + sp + "]\n"},
      {"weights[" + sp + "]=9", "\n  weights:\n    [" + sp + "]: 9\n"},
      {"leaf[4]", "\n  leaf:\n    [4]: Rsvp::Sample::Leaf\n"},
      {"hop[1]=10.0.0.1", "\n  hop:\n    [1]: 10.0.0.1\n"},
      {"branch[2]", "\n  branch:\n    [2]: Rsvp::Sample::Leaf\n"},
      {"points+=" + valueToStrep(Sample::Point(5, 6)),
       "\n  points:\n    [0]: " + valueToStrep(Sample::Point(5, 6)) + "\n"},
      {"extra=true", "\n  extra: true\n"},
  };
  for (auto const& [assignment, lines] : cases) {
    auto special = Sample::specialFactory("root");
    Kel::applyAssignment(*special, assignment);
    EXPECT_NE(Kel::browseText(*special).find(lines), std::string::npos) << assignment;
  }

  std::string const bad = "Bad assignment '";
  std::string const forms = "; expected attr=value, attr[key], attr[key]=value or attr+=value";
  std::string const on = "Rsvp::Sample::Root::";
  std::string const ones(10'000'000, '1');
  std::pair<std::string, std::string> const refused[] = {
      // assignment, error
      {"count", bad + "count'" + forms},
      {"no\nthing=1", bad + "no?thing=1'" + forms},
      {"x" + ones, bad + "x11111111111111111111111...'" + forms},
      {"nothing=1", "No attribute 'nothing' in Rsvp::Sample::Special"},
      {"=1", "No attribute '' in Rsvp::Sample::Special"},
      {"mountPath=\"x\"",
       "Cannot apply 'mountPath=\"x\"': " + on + "mountPath takes no assignment"},
      {"slot=x", "Cannot apply 'slot=x': " + on + "slot takes no assignment"},
      {"shared=x", "Cannot apply 'shared=x': " + on + "shared takes no assignment"},
      {"events+=x", "Cannot apply 'events+=x': " + on + "events takes no assignment"},
      {"events[0]=x", "Cannot apply 'events[0]=x': " + on + "events takes no assignment"},
      {"count+=1", "Cannot apply 'count+=1': " + on + "count takes count=value"},
      {"count[1]=2", "Cannot apply 'count[1]=2': " + on + "count takes count=value"},
      {"ids[" + sp + "]=true",
       "Cannot apply 'ids[<sessionId=<dstIp=10...': " + on + "ids takes ids[key]"},
      {"weights=1", "Cannot apply 'weights=1': " + on + "weights takes weights[key]=value"},
      {"weights[" + sp + "]",
       "Cannot apply 'weights[<sessionId=<dstI...': " + on + "weights takes weights[key]=value"},
      {"leaf[4]=x", "Cannot apply 'leaf[4]=x': " + on + "leaf takes leaf[key]"},
      {"points=x", "Cannot apply 'points=x': " + on + "points takes points+=value"},
      {"points[0]=x", "Cannot apply 'points[0]=x': " + on + "points takes points+=value"},
      {"path[" + sp + "]", "Cannot apply 'path[<sessionId=<dstIp=1...'"},
      {"count=x", "Expected a number but found 'x' (attribute 'count')"},
      {"count=1x", "Invalid U32 (attribute 'count')"},
      {"count=" + ones,
       "Number 111111111111111111111111... out of range for U32 (attribute 'count')"},
      {"epoch=16777217",
       "Root::epoch < 0 or > Rsvp::RsvpMsgIdObj::invalidMsgIdEpochValue not allowed"},
      {"leaf[x]", "Expected a number but found 'x]' (attribute 'leaf')"},
      {"leaf[4", "Expected ']' but found end of text (attribute 'leaf')"},
      {"hop[1]x", "Expected '=' but found 'x' (attribute 'hop')"},
      {"hop[1]=1.2.3", "Invalid IpGenAddr '1.2.3' (attribute 'hop')"},
  };
  auto special = Sample::specialFactory("root");
  Kel::applyAssignment(*special, "count=5");
  special->idsIs(spId(1));
  std::string const before = Kel::browseText(*special);
  for (auto const& [assignment, error] : refused) {
    std::string const& text = assignment;  // a lambda may not capture a structured binding
    EXPECT_EQ(errorOf<std::exception>([&] { Kel::applyAssignment(*special, text); }), error)
        << assignment.substr(0, 40);
    EXPECT_EQ(Kel::browseText(*special), before) << assignment.substr(0, 40);
  }
}

// Every form with good and bad keys and values on every attribute of every
// entity type the tool can make: applied, or refused with one of the
// documented exceptions; never a crash or another exception.
TEST(Assignment, EveryFormOnEveryAttributeKindFailsCleanly) {
  auto const defaultText = [](Kel::TypeDesc const* t) -> std::string {
    if (!t || !t->ops()) return "x";
    Kel::GenericValue const v(*t);
    return v.strep();
  };
  std::vector<Kel::TypeDesc const*> types = {&Root::kelType, &Sample::Special::kelType};
  for (Kel::TypeDesc const* t : allTypes()) {
    if (t->kind() == Kel::TypeKind::entity && t->create()) types.push_back(t);
  }
  std::size_t applied = 0, refused = 0;
  for (Kel::TypeDesc const* t : types) {
    std::string const nameOrKey = t->keyAttr() ? defaultText(t->attr(t->keyAttr())->type) : "e";
    Kel::Ptr<Kel::Entity> const e = t->create()(nameOrKey);
    t->forEachAttr([&](Kel::KelAttr const& a) {
      std::string const n(a.name);
      for (std::string const& k : {defaultText(a.keyType), std::string("x"), std::string()}) {
        for (std::string const& v : {defaultText(a.type), std::string("x"), std::string()}) {
          for (std::string const& text : {n + "=" + v, n + "+=" + v, n + "[" + k + "]",
                                          n + "[" + k + "]=" + v, n, n + "[" + k}) {
            try {
              Kel::applyAssignment(*e, text);
              ++applied;
            } catch (Kel::RangeException const&) {
              ++refused;
            } catch (Kel::Exception const&) {
              ++refused;
            }
          }
        }
      }
    });
    (void)Kel::browseText(*e);
  }
  EXPECT_GT(applied, 0u);
  EXPECT_GT(refused, 0u);
}

}  // namespace
