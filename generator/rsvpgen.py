#!/usr/bin/env python3
"""Generates the C++ of the RSVP model from its schema files.

  rsvpgen.py --schema-root Rsvp --out build/gen            # write what changed
  rsvpgen.py --schema-root Rsvp --out build/gen --list-inputs
  rsvpgen.py --schema-root Rsvp --out build/gen --list-outputs

Every *.yaml under the schema root is one source unit; all units are loaded
together so that a unit may use the types of another. A file is rewritten only
when its content changes, so unchanged headers cause no rebuild.
"""

import argparse
import os
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

from rsvpgen import emit, schema  # noqa: E402


def main(argv):
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--schema-root", required=True)
    parser.add_argument("--out", required=True)
    parser.add_argument("--import-root", action="append", default=[],
                        help="schema whose types the units may use, generated elsewhere")
    group = parser.add_mutually_exclusive_group()
    group.add_argument("--list-inputs", action="store_true")
    group.add_argument("--list-outputs", action="store_true")
    args = parser.parse_args(argv)

    schema_files = schema.find_schema_files(args.schema_root)
    imports = [(root, schema.find_schema_files(root)) for root in args.import_root]
    if args.list_inputs:
        imported = [f for _, files in imports for f in files]
        print("\n".join(schema_files + imported + emit.generator_files()))
        return 0
    try:
        model = schema.load(args.schema_root, schema_files, imports)
    except schema.SchemaError as error:
        print(f"rsvpgen: {error}", file=sys.stderr)
        return 1
    outputs = emit.render(model)
    if args.list_outputs:
        print("\n".join(os.path.join(args.out, path) for path in sorted(outputs)))
        return 0
    for path, text in sorted(outputs.items()):
        emit.write_if_changed(os.path.join(args.out, path), text)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
