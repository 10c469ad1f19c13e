#!/usr/bin/env python3
"""Attribute reads per second through the module: a bool, a U32 and a
network address (an rsvp.Value) of one state path, by name; and one walk of
a 1000-path table listing the paths that are up.

    PYTHONPATH=build/release/python/module python3 python/bench/attribute_reads.py
"""
import time

import rsvp

SP_ID = "<sessionId=<dstIp=10.0.{0}.{1}>_<tunnelId=7>_<extTunnelId=10.0.0.1>>_<pathId=<lspId=1>>"


def rate(fn, n):
    best = 0.0
    for _ in range(3):
        start = time.perf_counter()
        fn(n)
        best = max(best, n / (time.perf_counter() - start))
    return best


def main():
    status = rsvp.make("Rsvp::RsvpStatus", "status")
    paths = status.create("spStateColl")["spState"]
    for n in range(1000):
        paths.add(SP_ID.format(n // 250, n % 250))["operational"] = n % 2 == 0
    sp = paths.values()[0]

    def reads(attr):
        def run(n):
            for _ in range(n):
                sp[attr]
        return run

    for attr, kind in (("operational", "bool"), ("refreshMultiplier", "U32 constant"),
                       ("senderAddr", "Lumo::IpGenAddr")):
        print("%-18s %-16s %10.0f reads/s" % (attr, kind, rate(reads(attr), 200000)))

    def walk(n):
        for _ in range(n):
            [k for k, p in paths.items() if p["operational"]]
    print("%-35s %10.0f paths/s" % ("walk of 1000 paths, operational", 1000 * rate(walk, 20)))


if __name__ == "__main__":
    main()
