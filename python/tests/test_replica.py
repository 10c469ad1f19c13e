"""A replica mounted from a publisher's socket: it follows the source, is
read-only with the library's text, and the example script lists its paths
that are up."""
import os
import subprocess
import sys
import time

import pytest

import rsvp

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "..", "examples"))

import paths_up  # noqa: E402


def pump(publisher, replica, until, seconds=10.0):
    deadline = time.monotonic() + seconds
    while not until():
        assert time.monotonic() < deadline, "the replica did not follow in time"
        publisher.serve()
        replica.read(0.05)


@pytest.fixture
def published(tmp_path):
    status = paths_up.demo_status(up=(1, 3), count=5)
    with rsvp.Publisher(str(tmp_path / "status.sock")) as publisher:
        publisher.publish(1, status)
        yield status, publisher


def ids(paths):
    return [str(p) for p in paths]


def test_replica_follows_the_source(published):
    status, publisher = published
    with rsvp.Replica(publisher.path, "Rsvp::RsvpStatus") as replica:
        pump(publisher, replica, lambda: replica.in_sync)
        root = replica.root
        assert root.read_only and ids(paths_up.paths_up(root)) == ids(paths_up.paths_up(status))
        heard = []
        table = root["spStateColl"]["spState"]
        first = table.keys()[0]
        sub = table[first].subscribe(lambda e, attr, key: heard.append(attr))
        status["spStateColl"]["spState"][first]["operational"] = not table[first]["operational"]
        pump(publisher, replica, lambda: heard)
        assert heard == ["operational"] and ids(paths_up.paths_up(root)) == ids(paths_up.paths_up(status))
        sub.cancel()


RO = "Attribute %s is read-only through this proxy"
WRITES = [
    (lambda sp: sp.__setitem__("operational", True), RO % "Rsvp::RsvpSpState::operational"),
    (lambda sp: sp.apply("operational=true"), RO % "Rsvp::RsvpSpState::operational"),
    (lambda sp: sp["spHistoryEntry"].clear(), RO % "Rsvp::RsvpSpState::spHistoryEntry"),
    (lambda sp: sp.parent["spState"].discard(sp.name), RO % "Rsvp::RsvpSpStateColl::spState"),
    (lambda sp: sp.create("inPathState"), RO % "Rsvp::RsvpSpState::inPathState"),
]


@pytest.mark.parametrize("write,message", WRITES)
def test_replica_refuses_writes(published, write, message):
    _, publisher = published
    with rsvp.Replica(publisher.path, "Rsvp::RsvpStatus") as replica:
        pump(publisher, replica, lambda: replica.in_sync)
        sp = replica.root["spStateColl"]["spState"].values()[0]
        before = replica.root.browse()
        with pytest.raises(rsvp.ReadOnlyError) as e:
            write(sp)
        assert str(e.value) == message and replica.root.browse() == before


@pytest.mark.parametrize("patience", [-1.0, float("nan"), 1e9])
def test_pace_refuses_a_bad_patience(published, patience):
    with pytest.raises(rsvp.RangeError, match="^Invalid patience "):
        published[1].pace(4 << 20, patience)


def test_no_publisher(tmp_path):
    path = str(tmp_path / "none.sock")
    with pytest.raises(rsvp.Error, match="^No publisher at '%s'$" % path):
        rsvp.Replica(path, "Rsvp::RsvpStatus")


@pytest.mark.parametrize("paced", [False, True])
def test_script_lists_the_replica_paths_that_are_up(published, paced):
    status, publisher = published
    if paced:
        # A backlog of one byte: serving waits whenever the other process's socket is full.
        publisher.pace(1, 0.5)
    script = os.path.join(os.path.dirname(paths_up.__file__), "paths_up.py")
    env = dict(os.environ, PYTHONPATH=os.pathsep.join(sys.path))
    proc = subprocess.Popen([sys.executable, script, "--socket", publisher.path, "--wait", "20"],
                            stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, env=env)
    deadline = time.monotonic() + 30
    while proc.poll() is None and time.monotonic() < deadline:
        publisher.serve()
        time.sleep(0.01)
    out, err = proc.communicate(timeout=5)
    assert proc.returncode == 0, err
    assert out.splitlines() == ids(paths_up.paths_up(status))
