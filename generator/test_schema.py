"""The schema loader's checks: every mistake is reported with where it is."""

import os
import tempfile
import textwrap
import unittest

from rsvpgen import emit, schema


def load_text(files):
    with tempfile.TemporaryDirectory() as root:
        paths = []
        for name, text in files.items():
            path = os.path.join(root, name)
            os.makedirs(os.path.dirname(path), exist_ok=True)
            with open(path, "w", encoding="utf-8") as f:
                f.write(textwrap.dedent(text))
            paths.append(path)
        return schema.load(root, sorted(paths))


GOOD = """\
    unit: Unit
    types:
      - enum: Color
        values: [{red: 2}, {green: 1}]
      - value: Thing
        traits: [hash, less]
        attrs:
          - {name: maxSize, type: U32, const: 9}
          - {name: size, type: U32, default: maxSize, range: [1, maxSize]}
          - {name: color, type: Color}
          - {name: where, type: Lumo::IpGenAddr}
    """


class LoaderErrors(unittest.TestCase):
    CASES = [
        ("unknown key", "unit: Unit\ntypes: []\nextra: 1\n",
         "Unit.yaml: unknown key 'extra'"),
        ("file name", "unit: Other\ntypes: []\n",
         "Unit.yaml: unit 'Other' must live in a file named Other.yaml"),
        ("duplicate enumerator value",
         "unit: Unit\ntypes:\n  - enum: E\n    values: [{a: 1}, {b: 1}]\n",
         "Unit.yaml: Rsvp::E: duplicate value 1 for 'b' and 'a'"),
        ("duplicate enumerator name",
         "unit: Unit\ntypes:\n  - enum: E\n    values: [{a: 1}, {a: 2}]\n",
         "Unit.yaml: Rsvp::E: duplicate enumerator 'a'"),
        ("unknown type",
         "unit: Unit\ntypes:\n  - value: V\n    attrs: [{name: x, type: Nope}]\n",
         "Unit.yaml: Rsvp::V.x: unknown type 'Nope'"),
        ("literal too wide",
         "unit: Unit\ntypes:\n  - value: V\n    attrs: [{name: x, type: U8, default: 256}]\n",
         "Unit.yaml: Rsvp::V.x: 256 does not fit in U8"),
        ("range on a string",
         "unit: Unit\ntypes:\n  - value: V\n    attrs: [{name: x, type: String, range: [0, 1]}]\n",
         "Unit.yaml: Rsvp::V.x: only integer attributes take a range"),
        ("bad bound",
         "unit: Unit\ntypes:\n  - value: V\n    attrs: [{name: x, type: U8, range: [0, top]}]\n",
         "Unit.yaml: Rsvp::V.x: bad bound 'top'"),
        ("hash needs hashable attributes",
         "unit: Unit\ntypes:\n  - value: A\n    attrs: [{name: x, type: U8}]\n"
         "  - value: B\n    traits: [hash]\n    attrs: [{name: a, type: A}]\n",
         "Unit.yaml: Rsvp::B.a: Rsvp::A has no hash(), which B needs"),
        ("unknown enumerator default",
         "unit: Unit\ntypes:\n  - enum: E\n    values: [{a: 1}]\n"
         "  - value: V\n    attrs: [{name: e, type: E, default: b}]\n",
         "Unit.yaml: Rsvp::V.e: 'b' is not an enumerator of Rsvp::E"),
        ("attribute-log id below 256",
         "unit: Unit\ntypes:\n  - entity: E\n    attrs: [{name: x, type: U8, id: 12}]\n",
         "Unit.yaml: Rsvp::E.x: an attribute-log id is a number from 256 up"),
        ("attribute-log id used twice",
         "unit: Unit\ntypes:\n  - entity: E\n    attrs: [{name: x, type: U8, id: 300},"
         " {name: y, type: U8, id: 300}]\n",
         "Unit.yaml: Rsvp::E.y: attribute-log id 300 already used by x"),
        ("entity attribute shadowing the base's",
         "unit: Unit\ntypes:\n  - entity: B\n    attrs: [{name: x, type: U8}]\n"
         "  - entity: D\n    base: B\n    attrs: [{name: x, type: U8}]\n",
         "Unit.yaml: Rsvp::D.x: already an attribute of Rsvp::B"),
        ("duplicate attribute",
         "unit: Unit\ntypes:\n  - value: V\n    attrs: [{name: x, type: U8}, {name: x, type: U8}]\n",
         "Unit.yaml: Rsvp::V.x: duplicate attribute"),
        ("a trie keeps prefixes only",
         "unit: Unit\ntypes:\n  - entity: E\n    attrs: [{name: m, kind: ordered-map,"
         " key: U32, type: U8, container: Lumo::IpTrie}]\n",
         "Unit.yaml: Rsvp::E.m: 'container' belongs to an ordered-map keyed by Lumo::IpGenPrefix"),
        ("unknown container",
         "unit: Unit\ntypes:\n  - entity: E\n    attrs: [{name: m, kind: ordered-map,"
         " key: Lumo::IpGenPrefix, type: U8, container: Lumo::Radix}]\n",
         "Unit.yaml: Rsvp::E.m: unknown container 'Lumo::Radix'"),
        ("a box keeps a plain value only",
         "unit: Unit\ntypes:\n  - entity: E\n    attrs: [{name: x, type: U8, container: Kel::Queue}]\n",
         "Unit.yaml: Rsvp::E.x: a plain attribute's container can only be Kel::Boxed"),
        ("a constructor argument stays in place",
         "unit: Unit\ntypes:\n  - entity: E\n    attrs: [{name: x, type: U8, ctor: true,"
         " container: Kel::Boxed}]\n",
         "Unit.yaml: Rsvp::E.x: a constructor argument cannot be kept in a Kel::Boxed"),
        ("an empty mixin",
         "unit: Unit\ntypes:\n  - entity: E\n    mixin: ''\n",
         "Unit.yaml: Rsvp::E: a mixin is the C++ name of a hand-written class"),
        ("a name from the top needs a namespace",
         "unit: Unit\ntypes:\n  - entity: ::Status\n    named: true\n",
         "Unit.yaml: bad type name '::Status'"),
    ]

    def test_each_mistake_is_reported_precisely(self):
        for what, text, message in self.CASES:
            with self.subTest(what):
                with self.assertRaises(schema.SchemaError) as caught:
                    load_text({"Unit.yaml": text})
                self.assertTrue(str(caught.exception).startswith(message),
                                f"{caught.exception!s} does not start with {message}")


class Loading(unittest.TestCase):
    def test_declaration_order_and_bounds(self):
        model = load_text({"Unit.yaml": GOOD})
        unit = model.units[0]
        enum, value = unit.types
        self.assertEqual([e.name for e in enum.enumerators], ["red", "green"])
        self.assertEqual([a.name for a in value.attrs], ["maxSize", "size", "color", "where"])
        size = value.attrs[1]
        self.assertEqual((size.min.text, size.max.text), ("1", "Thing::maxSize"))
        self.assertEqual(size.range_test("v"), "v < 1 || v > maxSize()")
        self.assertEqual(value.attrs[2].default_init, "Rsvp::red")
        self.assertEqual(unit.includes, ["Lumo/IpGenAddr.h"])

    def test_a_name_from_the_top_leaves_rsvp(self):
        model = load_text({"Unit.yaml": """\
            unit: Unit
            types:
              - entity: ::Te::Status
                named: true
                attrs: [{name: prio, type: TrafficEngineering::BwPriority}]
              - entity: Holder
                named: true
                attrs: [{name: status, kind: ref, type: Te::Status}]
            """})
        status, holder = model.units[0].types
        self.assertEqual((status.name, status.ns), ("Te::Status", "Te"))
        self.assertIs(holder.attrs[0].type, status)
        self.assertEqual(status.attrs[0].type.desc, "TrafficEngineering::typeBwPriority")
        self.assertEqual([ns for ns, _ in emit.namespace_blocks(model.units[0].types)],
                         ["Te", "Rsvp"])

    def test_hand_written_members_mixin_and_deduplicated_ids(self):
        model = load_text({"Unit.yaml": """\
            unit: Unit
            includes: [Rsvp/Ops.h]
            types:
              - entity: Table
                mixin: Ops<Table>
                members: ["int count_ = 0"]
                attrs:
                  - {name: path, type: RsvpPathIdDeduped}
                  - {name: byNeighbor, kind: hashed-map, key: RsvpNeighborIdDeduped, type: U8}
            """})
        unit = model.units[0]
        table = unit.types[0]
        self.assertEqual((table.mixin, table.members), ("Ops<Table>", ["int count_ = 0"]))
        path, by_neighbor = table.attrs
        self.assertEqual((path.type.desc, path.type.log_ns),
                         ("Rsvp::typeRsvpPathIdDeduped", "Rsvp"))
        self.assertTrue(by_neighbor.key.has_hash)
        self.assertIn("Rsvp/RsvpIdDeduped.h", unit.includes)
        self.assertIn("Rsvp/Ops.h", unit.includes)
        header = emit.render(model)["Rsvp/Unit.h"]
        self.assertIn("class Table : public Kel::Entity, public Ops<Table> {", header)
        self.assertIn("int count_ = 0;", header)

    def test_outputs_are_named_after_units(self):
        model = load_text({"Sub/Unit.yaml": GOOD})
        self.assertEqual(sorted(emit.render(model)),
                         ["Rsvp/Rsvp.h", "Rsvp/RsvpTypes.h", "Rsvp/Unit.h", "src/RsvpTypes.cpp",
                          "src/Unit.cpp"])

    def test_unchanged_output_is_not_rewritten(self):
        with tempfile.TemporaryDirectory() as out:
            path = os.path.join(out, "x.h")
            emit.write_if_changed(path, "a")
            os.utime(path, (1, 1))
            emit.write_if_changed(path, "a")
            self.assertEqual(os.stat(path).st_mtime, 1)
            emit.write_if_changed(path, "b")
            self.assertNotEqual(os.stat(path).st_mtime, 1)


if __name__ == "__main__":
    unittest.main()
