"""Constructor arguments with a class default, and bases' arguments fixed by
name: what the constructor, the factories and the base call get."""

import unittest

from rsvpgen import schema
from test_schema import load_text

FAMILY = """\
    unit: Unit
    types:
      - enum: Kind
        values: [{none: 0}, {leaf: 3}]
      - entity: Base
        attrs:
          - {name: at, type: F64, ctor: true}
          - {name: kind, type: Kind, ctor: true, default: none}
      - entity: Middle
        base: Base
      - entity: Leaf
        base: Middle
        baseArgs: {kind: leaf}
        attrs:
          - {name: size, type: U8, ctor: true}
    """


class BaseArgsByName(unittest.TestCase):
    def test_defaulted_argument_is_fixed_by_the_leaf_only(self):
        types = {t.short: t for t in load_text({"Unit.yaml": FAMILY}).units[0].types}
        names = lambda params: [p.name for p in params]
        cases = [
            # type, constructor, factories, base call, kelNew's call
            ("Base", ["at", "kind"], ["at"], None, ["_at", "Rsvp::none"]),
            ("Middle", ["at", "kind"], ["at"], ["_at", "_kind"], ["_at", "Rsvp::none"]),
            ("Leaf", ["at", "size"], ["at", "size"], ["_at", "Rsvp::leaf"], ["_at", "_size"]),
        ]
        for name, cons, factory, base_call, cons_args in cases:
            with self.subTest(name):
                t = types[name]
                self.assertEqual(names(t.cons_params), cons)
                self.assertEqual(names(t.ctor_params), factory)
                if base_call is not None:
                    self.assertEqual(t.base_call_args, base_call)
                self.assertEqual(t.cons_args, cons_args)

    def test_mistakes(self):
        cases = [
            ("unknown argument", FAMILY.replace("{kind: leaf}", "{nope: leaf}"),
             "Unit.yaml: Rsvp::Leaf: the base takes no constructor argument 'nope'"),
            ("not a literal", FAMILY.replace("{kind: leaf}", "{kind: other}"),
             "Unit.yaml: Rsvp::Leaf: 'other' is not an enumerator of Rsvp::Kind"),
        ]
        for what, text, message in cases:
            with self.subTest(what):
                with self.assertRaises(schema.SchemaError) as caught:
                    load_text({"Unit.yaml": text})
                self.assertTrue(str(caught.exception).startswith(message), str(caught.exception))


if __name__ == "__main__":
    unittest.main()
