"""rsvp_show against the walk-through: the OpenConfig documents of a known
tree equal hand-written ones, the summary's lines, errors as one line with
the exit status, and --watch seeing the publisher's rounds arrive."""
import json
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import unittest

SHOW = WALK = DATA = None
SP3 = "<sessionId=<dstIp=10.200.0.0>_<tunnelId=1>_<extTunnelId=10.100.0.1>>_<pathId=<lspId=3>>"


def show(*args, timeout=60):
    return subprocess.run([SHOW, *args], capture_output=True, text=True, timeout=timeout)


class KnownTree(unittest.TestCase):
    """Three LSPs of one session, one refresh round: a fixed tree."""

    @classmethod
    def setUpClass(cls):
        cls.dir = tempfile.mkdtemp(prefix="show-", dir="/tmp")
        cls.log = os.path.join(cls.dir, "status.log")
        subprocess.run([WALK, "--lsps", "3", "--rounds", "1", "--save", cls.log], check=True,
                       capture_output=True, timeout=60)

    @classmethod
    def tearDownClass(cls):
        shutil.rmtree(cls.dir)

    def test_openconfig_documents(self):
        for view, expected in [("sessions", "show_sessions.json"),
                               ("neighbors", "show_neighbors.json"),
                               ("summary", "show_counters.json")]:
            with self.subTest(view=view):
                r = show("--log", self.log, view, "--json")
                self.assertEqual(r.returncode, 0, r.stderr)
                got = json.loads(r.stdout)
                got.pop("rsvp-show:summary", None)  # not in the model
                with open(os.path.join(DATA, expected)) as f:
                    self.assertEqual(got, json.load(f))

    def test_one_path_by_either_name(self):
        by_id = json.loads(show("--log", self.log, "path", SP3, "--json").stdout)
        by_cli = json.loads(show("--log", self.log, "path", "4", "--json").stdout)
        self.assertEqual(by_id, by_cli)
        self.assertEqual(by_id["openconfig-mpls-rsvp:rsvp-te"]["sessions"]["session"][0]
                         ["state"]["lsp-id"], 3)
        self.assertEqual([e["event"] for e in by_id["rsvp-show:history"]],
                         ["PATH both, RESV down", "PATH both, RESV both"])

    def test_summary_lines(self):
        out = show("--log", self.log).stdout
        for line in [r"Sessions +1", r"State paths +3 \(up 3, down 0\)",
                     r"  PATH state +both 3, received 0, sent 0, down 0",
                     r"Neighbors +4 ", r"Bypasses in use +0 of 0", r"Labels +3 allocated"]:
            self.assertRegex(out, re.compile("^" + line, re.M))

    def test_errors_are_one_line(self):
        usage = ("usage: rsvp_show (--socket PATH | --log FILE) [--json] [--watch [--updates N]]"
                 " [summary | sessions | path <spId or CLI id> | neighbors | labels]")
        truncated = os.path.join(self.dir, "truncated.log")
        with open(self.log, "rb") as f, open(truncated, "wb") as out:
            out.write(f.read()[:100])
        nowhere = os.path.join(self.dir, "none.sock")
        cases = [
            ([], 2, usage),
            (["--log", self.log, "--socket", nowhere], 2, usage),
            (["--log", self.log, "bogus"], 2, "unknown view 'bogus'; " + usage),
            (["--log", self.log, "--watch"], 2, "--watch follows a publisher: give --socket"),
            (["--socket", nowhere], 1, f"No publisher at '{nowhere}'"),
            (["--log", self.log, "path", "99"], 1, "no state path 99"),
            (["--log", self.log, "path", "x\ny"], 1, "Expected '<sessionId=' but found 'x?y'"),
            (["--log", truncated], 1, f"log '{truncated}' holds no whole snapshot"),
        ]
        for args, status, line in cases:
            with self.subTest(args=args):
                r = show(*args)
                self.assertEqual((r.returncode, r.stdout, r.stderr),
                                 (status, "", "rsvp_show: " + line + "\n"))


class Live(unittest.TestCase):
    """A publisher running its rounds; replicas that watch it."""

    def setUp(self):
        self.dir = tempfile.mkdtemp(prefix="show-", dir="/tmp")
        self.sock = os.path.join(self.dir, "agent.sock")
        self.agent = subprocess.Popen([WALK, "--publish", self.sock, "--lsps", "300",
                                       "--period", "1"], stdout=subprocess.PIPE, text=True)
        self.agent.stdout.readline()  # printed once the trees are published
        self.addCleanup(shutil.rmtree, self.dir)

    def tearDown(self):
        if self.agent.poll() is None:
            self.agent.send_signal(signal.SIGTERM)
        self.agent.wait(timeout=30)
        self.agent.stdout.close()

    def test_watch_sees_rounds_then_the_publisher_leave(self):
        r = show("--socket", self.sock, "--watch", "--updates", "2", "--json", "sessions",
                 timeout=60)
        self.assertEqual(r.returncode, 0, r.stderr)
        documents = r.stdout.split("\n}\n")
        self.assertEqual(len(documents), 3, "two documents")
        first, second = (json.loads(d + "\n}") for d in documents[:2])
        self.assertNotEqual(first, second)

        watcher = subprocess.Popen([SHOW, "--socket", self.sock, "--watch"],
                                   stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
        time.sleep(1)
        self.agent.send_signal(signal.SIGTERM)
        self.assertEqual(self.agent.wait(timeout=30), 0)
        self.assertFalse(os.path.exists(self.sock), "the socket file is removed")
        _, err = watcher.communicate(timeout=30)
        self.assertEqual((watcher.returncode, err),
                         (1, f"rsvp_show: Publisher at '{self.sock}' went away\n"))


if __name__ == "__main__":
    SHOW, WALK, DATA = sys.argv[1:4]
    unittest.main(argv=sys.argv[:1])
