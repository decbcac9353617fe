"""Runs dmq for a test; its path is the test's first argument."""

import os
import subprocess
import sys
from pathlib import Path

DMQ, *ARGUMENTS = map(os.path.abspath, sys.argv[1:])
PROJECT = Path(__file__).parents[2]
CHASSIS = ("--load", "examples/chassis.json")
ENV = {**os.environ, "NO_COLOR": "1"}
ENV.pop("DMQ_STORE", None)
SLOW = "DM_SLOW" in os.environ


def dmq(*words, lines=None, stdout=subprocess.PIPE, **env):
    """In a shell when there are lines."""
    if lines is not None:
        words = (*words, "shell")
    return subprocess.run([DMQ, *words], input="\n".join(lines or []), stdout=stdout, stderr=subprocess.PIPE, text=True,
                          env={**ENV, **env}, cwd=PROJECT, timeout=120)
