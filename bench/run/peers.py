#!/usr/bin/python3
"""Registers, stacks and runs a simulated session by korimg and by Siril, in turns, and compares times and memory.

Both have the same threads and work on the same files: a session of raw frames, and for registering and stacking the
frames that Siril calibrated. Siril's registration writes the moved frames; korimg moves them as it stacks.
Debian: apt install siril

usage: peers.py KORIMG SESSION WORK [--runs N] [--threads N]
SESSION as `korimg simulate` writes it; WORK is a folder for what is made, with room for 5 GB for 20 frames.
"""
import argparse
import os
import pathlib
import shutil
import statistics
import subprocess
import time

parser = argparse.ArgumentParser()
parser.add_argument("korimg")
parser.add_argument("session", type=pathlib.Path)
parser.add_argument("work", type=pathlib.Path)
parser.add_argument("--runs", type=int, default=3)
parser.add_argument("--threads", type=int, default=2)
arguments = parser.parse_args()
session, work = arguments.session.resolve(), arguments.work.resolve()
process = work / "process"

HEAD = f"requires 1.0.0\nsetcpu {arguments.threads}\n"
CALIBRATE = "\n".join(
    [f"cd {session}/biases", f"convert bias -out={process}", f"cd {process}", "stack bias rej 3 3 -nonorm",
     f"cd {session}/flats", f"convert flat -out={process}", f"cd {process}", "preprocess flat -bias=bias_stacked",
     "stack pp_flat rej 3 3 -norm=mul",
     f"cd {session}/darks", f"convert dark -out={process}", f"cd {process}", "stack dark rej 3 3 -nonorm",
     f"cd {session}/lights", f"convert light -out={process}", f"cd {process}",
     "preprocess light -dark=dark_stacked -flat=pp_flat_stacked", ""])
REGISTER = f"cd {process}\nregister pp_light\n"
STACK = f"cd {process}\nstack r_pp_light rej 3 3 -norm=addscale -output_norm -out=../result\n"


def measure(command, text=None):
    """Seconds and MB of a command and its children."""
    start = time.perf_counter()
    child = subprocess.Popen(command, stdin=subprocess.PIPE if text else None, stdout=subprocess.DEVNULL,
                             stderr=subprocess.DEVNULL)
    if text:
        child.stdin.write(text.encode())
        child.stdin.close()
    _, status, usage = os.wait4(child.pid, 0)
    if status:
        raise SystemExit(f"failed: {command}")
    return time.perf_counter() - start, usage.ru_maxrss / 1024


def siril(script):
    file = work / "script.ssf"
    file.write_text(HEAD + script)
    return measure(["siril-cli", "-s", str(file)])


def korimg(*words):
    return measure([arguments.korimg, *map(str, words), "--threads", str(arguments.threads), "--quiet", "--overwrite"])


def clean():
    shutil.rmtree(work, ignore_errors=True)
    process.mkdir(parents=True)


times = {}


def note(step, tool, result):
    times.setdefault((step, tool), []).append(result)


for _ in range(arguments.runs):
    clean()
    note("run", "Siril", siril(CALIBRATE + REGISTER + STACK))
    note("run", "korimg", korimg("run", session, "--out", work / "out"))
    for file in process.glob("r_pp_light*"):
        file.unlink()
    frames = sorted(process.glob("pp_light_*.fit"))
    for file in process.glob("pp_light*.seq"):  # which knows of the first registration
        file.unlink()
    note("register", "Siril", siril(REGISTER))
    note("register", "korimg", korimg("register", *frames, "--json", "-o", work / "transforms.jsonl"))
    note("stack", "Siril", siril(STACK))
    note("stack", "korimg", korimg("stack", *frames, "--transforms", work / "transforms.jsonl", "--reject", "sigma",
                                   "--kappa", "3", "--normalize", "level+scale", "-o", work / "stack.fits"))
print(f"{'':10} {'Siril':>16} {'korimg':>16}  ratio")
for step in ("register", "stack", "run"):
    cells, medians = [], []
    for tool in ("Siril", "korimg"):
        results = times[step, tool]
        medians.append(statistics.median(t for t, _ in results))
        cells.append(f"{medians[-1]:6.2f} s {max(m for _, m in results):5.0f} MB")
    print(f"{step:10} {cells[0]:>16} {cells[1]:>16}  {medians[1] / medians[0]:.3f}")
