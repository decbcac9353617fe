"""What a user would be left with: servers of `make run-redis` stopped early. Usage: run_redis_test.py SCRIPT"""

import os
import signal
import subprocess
import sys
import tempfile
import time
from pathlib import Path

LIMIT = 20


def wait_until(done, what):
    end = time.monotonic() + LIMIT
    while not done():
        if time.monotonic() > end:
            sys.exit(f"run_redis.sh: after {LIMIT} s {what}")
        time.sleep(0.01)


def of_folder(folder):
    """The processes that name it."""
    found = []
    for line in Path("/proc").glob("[0-9]*/cmdline"):
        try:
            if folder.encode() in line.read_bytes():
                found.append(int(line.parent.name))
        except OSError:
            pass  # it has ended
    return found


def hang_up_is_heard():
    """Under nohup it would be ignored."""
    signal.signal(signal.SIGHUP, signal.SIG_DFL)


for stop in (signal.SIGTERM, signal.SIGHUP, signal.SIGKILL):
    with tempfile.TemporaryDirectory() as folder:
        script = subprocess.Popen(["sh", sys.argv[1]], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                                  env={**os.environ, "TMPDIR": folder}, preexec_fn=hang_up_is_heard)
        try:
            wait_until(lambda: of_folder(folder) or script.poll() is not None, "no server")
            script.send_signal(stop)
            script.wait(LIMIT)
            wait_until(lambda: not of_folder(folder), f"a server is left, after {stop.name}")
        finally:
            script.kill()
            script.wait()
            for pid in of_folder(folder):
                os.kill(pid, signal.SIGKILL)
