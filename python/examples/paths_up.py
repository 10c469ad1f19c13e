#!/usr/bin/env python3
"""Lists the state paths that are up: those of the status tree's state-path
table whose `operational` attribute is true, one id per line in the table's
order.

    paths_up.py --socket PATH [--wait SECONDS]   a replica of a published status tree
    paths_up.py --demo                           a small tree built here

Everything goes through the module's reflection: no code of its own for any
type of the model.
"""
import argparse
import sys

import rsvp

SP_ID = "<sessionId=<dstIp=10.0.0.{dst}>_<tunnelId={tunnel}>_<extTunnelId=10.0.0.1>>_<pathId=<lspId={lsp}>>"


def paths_up(status):
    """The ids (rsvp.Value) of the state paths of `status` that are up."""
    table = status["spStateColl"]
    if table is None:
        return []
    return [sp_id for sp_id, sp in table["spState"].items() if sp["operational"]]


def demo_status(up=(1, 3), count=4):
    """A status tree with `count` state paths, those numbered in `up` up."""
    status = rsvp.make("Rsvp::RsvpStatus", "status")
    paths = status.create("spStateColl")["spState"]
    for n in range(count):
        sp = paths.add(SP_ID.format(dst=2 + n, tunnel=7, lsp=n))
        sp["operational"] = n in up
    return status


def main(argv=None):
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    source = parser.add_mutually_exclusive_group(required=True)
    source.add_argument("--socket", help="the Unix socket a status tree is published on")
    source.add_argument("--demo", action="store_true", help="list the paths of a tree built here")
    parser.add_argument("--wait", type=float, default=5.0,
                        help="seconds to wait for the replica's snapshot")
    args = parser.parse_args(argv)
    try:
        if args.demo:
            status = demo_status()
        else:
            replica = rsvp.Replica(args.socket, "Rsvp::RsvpStatus")
            if not replica.sync(args.wait):
                print("paths_up: no snapshot within %g s" % args.wait, file=sys.stderr)
                return 1
            status = replica.root
        for sp_id in paths_up(status):
            print(sp_id)
    except (rsvp.Error, OSError) as e:
        print("paths_up: %s" % e, file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
