"""Types: stubs say what is there, and the package keeps to its own."""

import os
import subprocess
import sys
from pathlib import Path

import korimg


def mypy(folder, *arguments):
    """Runs a module of mypy on the package as it is imported, with no settings but these."""
    (folder / "mypy.ini").write_text("[mypy]\n[mypy-astropy.*]\nignore_missing_imports = True\n")
    # Classes that are made in C++ have a metaclass of their own.
    (folder / "allowed").write_text(r"korimg\._core\.Header" + "\n")
    package = Path(korimg.__file__).parent.parent
    return subprocess.run([sys.executable, "-m", *arguments], cwd=folder, capture_output=True, text=True,
                          env=os.environ | {"MYPYPATH": str(package), "PYTHONPATH": str(package)})


def test_stubs_are_those_of_the_functions(tmp_path):
    for module in ("korimg.ops", "korimg._core"):
        done = mypy(tmp_path, "mypy.stubtest", module, "--concise", "--ignore-missing-stub", "--allowlist",
                    "allowed", "--ignore-unused-allowlist", "--mypy-config-file", "mypy.ini")
        assert done.returncode == 0, done.stdout + done.stderr


def test_the_package_keeps_to_its_types(tmp_path):
    done = mypy(tmp_path, "mypy", "--config-file", "mypy.ini", "-p", "korimg")
    assert done.returncode == 0, done.stdout + done.stderr
