"""The state paths that are up, listed by the example script over a tree
built through reflection."""
import os
import subprocess
import sys

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "..", "examples"))

import paths_up  # noqa: E402


def test_lists_the_paths_that_are_up():
    status = paths_up.demo_status(up=(0, 2), count=4)
    up = [str(p) for p in paths_up.paths_up(status)]
    expected = {paths_up.SP_ID.format(dst=2 + n, tunnel=7, lsp=n) for n in (0, 2)}
    assert set(up) == expected and len(up) == 2
    # In the table's own order, as the state browser walks it.
    table = status["spStateColl"]["spState"]
    assert up == [str(k) for k in table if table[k]["operational"]]


def test_script_prints_one_id_per_line():
    script = os.path.join(os.path.dirname(paths_up.__file__), "paths_up.py")
    done = subprocess.run([sys.executable, script, "--demo"], capture_output=True, text=True,
                          timeout=60, check=True)
    lines = done.stdout.splitlines()
    assert len(lines) == 2 and all(line.startswith("<sessionId=") for line in lines)
