"""Fixtures of the Python suite: the built programs, and one live run of
the MFIB demonstration whose tables, directory and agent the tests read."""

import json
import os
import select
import shutil
import signal
import subprocess
import tempfile
import time

import pytest

import mroute


def bin_dir():
    """The build tree's programs: $MROUTE_BIN_DIR (set by ctest), else the
    bin/ beside the python/ directory the module was imported from."""
    if os.environ.get("MROUTE_BIN_DIR"):
        return os.environ["MROUTE_BIN_DIR"]
    return os.path.normpath(os.path.join(os.path.dirname(mroute.__file__), "..", "..", "bin"))


def program(name):
    path = os.path.join(bin_dir(), name)
    if not os.access(path, os.X_OK):
        pytest.fail("%s is not built (looked in %s)" % (name, bin_dir()))
    return path


def vornctl_json(root, *args):
    out = subprocess.run([program("vornctl"), "--root", root] + list(args) + ["--json"],
                         check=True, capture_output=True, text=True, timeout=30).stdout
    return json.loads(out)


@pytest.fixture
def shm_root():
    """An empty table root of this test's own, removed after it."""
    path = tempfile.mkdtemp(prefix="mroute-pytest.", dir="/dev/shm")
    yield path
    shutil.rmtree(path, ignore_errors=True)


class Demo:
    """mfib-demo run --keep under a private root, its agent serving
    introspection while it lingers after its last round; the publishers of
    the last round (pim and igmp) still write their tables meanwhile."""

    AGENT = "mfib-demo-agent"
    LINGER = 60

    def __init__(self):
        self.root = tempfile.mkdtemp(prefix="mroute-pytest-demo.", dir="/dev/shm")
        env = dict(os.environ, VORN_ROOT=self.root, BRISKLOG_DIR=self.root, KIV_INTROSPECT_DIR=self.root,
                   MFIB_DEMO_INTROSPECT=str(self.LINGER))
        self.proc = subprocess.Popen([program("mfib-demo"), "run", "--keep"], env=env, stdout=subprocess.PIPE,
                                     stderr=subprocess.STDOUT, start_new_session=True)
        # The agent prints its checks once the last round settled, then
        # serves until the linger ends. Read the descriptor itself: a
        # buffered reader could hold the last lines where select cannot see.
        self.output = ""
        deadline = time.monotonic() + 30
        while "  check default" not in self.output:
            if time.monotonic() > deadline or self.proc.poll() is not None:
                self.stop()
                pytest.fail("the demonstration did not reach its checks:\n" + self.output)
            ready, _, _ = select.select([self.proc.stdout], [], [], 1.0)
            if ready:
                self.output += os.read(self.proc.stdout.fileno(), 65536).decode(errors="replace")
        self.socket = os.path.join(self.root, self.AGENT + ".sock")

    def stop(self):
        if self.proc.poll() is None:
            # The whole run: the agent and the publishers it started.
            os.killpg(self.proc.pid, signal.SIGTERM)
            try:
                self.proc.wait(timeout=10)
            except subprocess.TimeoutExpired:
                os.killpg(self.proc.pid, signal.SIGKILL)
                self.proc.wait()
        self.proc.stdout.close()
        shutil.rmtree(self.root, ignore_errors=True)


@pytest.fixture(scope="session")
def demo():
    d = Demo()
    yield d
    d.stop()
