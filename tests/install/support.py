"""What the tests of wheels and packages share."""

import os
import subprocess
import sys
from pathlib import Path

TESTS = Path(__file__).resolve().parent
ROOT = TESTS.parents[1]
PACKED = ROOT / "fuzz/corpus/fits/rice"


def run(*command, env=(), **options):
    """The output of a command that has to succeed, without what the caller's own Python is told."""
    environment = {name: value for name, value in os.environ.items() if not name.startswith(("PYTHON", "PIP"))}
    done = subprocess.run(list(map(str, command)), env={**environment, **dict(env)}, text=True,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, **options)
    if done.returncode:
        sys.exit(f"{' '.join(map(str, command))}\n{done.stdout}")
    return done.stdout


def skip(reason):
    print("skipped:", reason)
    sys.exit(77)
