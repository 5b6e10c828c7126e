"""What the tasks of a run take, and by that how a run grows: growth.py KORIMG WORK.

Measured on this machine: the tasks of a few frames of 60 megapixels, and what a light costs each task by itself, by
many small frames. Computed by these: 1000 and 100,000 frames of 60 megapixels on 10 and 100 such machines.
"""

import json
import os
import subprocess
import sys
import time
from pathlib import Path

KORIMG, WORK = Path(sys.argv[1]).resolve(), Path(sys.argv[2])
WIDTH, HEIGHT, FRAMES = 9504, 6336, 6
SMALL = (1000, 2000)
# Of the modelled cluster: what a machine's link and the shared storage move, bytes a second.
LINK, STORAGE = 1.25e9, 5e9


def korimg(*arguments):
    """Runs the tool: seconds, and bytes read and written, from wherever."""
    start = time.perf_counter()
    process = subprocess.Popen([KORIMG, *map(str, arguments), "--quiet"])
    io = {}
    while process.poll() is None:
        try:
            io = dict(line.split(": ") for line in Path(f"/proc/{process.pid}/io").read_text().splitlines())
        except (OSError, ValueError):
            pass
        time.sleep(0.002)
    if process.returncode:
        sys.exit(f"{arguments[0]} failed")
    return time.perf_counter() - start, int(io.get("rchar", 0)), int(io.get("wchar", 0))


def tasks_of(name, parts, *simulate):
    """Seconds, bytes read and bytes written of each task of a night, by stages."""
    night, out, plan = WORK / name, WORK / f"{name}_out", WORK / f"{name}.json"
    if not night.exists():
        korimg("simulate", night, *simulate)
    subprocess.run(["rm", "-rf", out], check=True)
    korimg("run", night, "--out", out, "--plan-only", plan, "--parts", parts, "--overwrite")
    stages = {}
    for number, task in enumerate(json.loads(plan.read_text())["tasks"]):
        stages.setdefault(task["stage"], []).append(number)
    taken = {}
    for stage, numbers in stages.items():
        # Of many alike three tell.
        wanted = numbers if len(numbers) <= 8 or stage != "measure" else numbers[:3]
        taken[stage] = [korimg("run", "--plan", plan, "--task", number) for number in wanted]
        rest = numbers[len(wanted):]
        if rest:
            korimg("run", "--plan", plan, "--task", f"{rest[0]}-{rest[-1]}")
    return taken


def mean(values):
    return sum(values) / len(values)


WORK.mkdir(exist_ok=True)
large = tasks_of("large", FRAMES, "--frames", FRAMES, "--size", f"{WIDTH}x{HEIGHT}")
print(f"{FRAMES} lights of {WIDTH} x {HEIGHT} in {FRAMES} parts:")
for stage, runs in large.items():
    seconds, read, written = (mean([run[i] for run in runs]) for i in range(3))
    print(f"  {stage}: {seconds:.2f} s, reads {read / 1e6:.0f} MB, writes {written / 1e6:.0f} MB a task")
small = {count: tasks_of(f"small{count}", 1, "--frames", count, "--size", "256x192") for count in SMALL}
for count, stages in small.items():
    print(f"{count} lights of 256 x 192 in 1 part: " + ", ".join(
        f"{stage} {mean([run[0] for run in runs]):.2f} s" for stage, runs in stages.items()))
# What each light adds to a task that does not work on it: headers, what is kept of it.
night, out, plan = WORK / f"small{SMALL[1]}", WORK / f"small{SMALL[1]}_out", WORK / "again.json"
korimg("run", night, "--out", out, "--plan-only", plan, "--parts", 1, "--overwrite")
prepare = korimg("run", "--plan", plan, "--task", 1)[0] / SMALL[1]
register = (small[SMALL[1]]["register"][0][0] - small[SMALL[0]]["register"][0][0]) / (SMALL[1] - SMALL[0])
print(f"a light costs {1e3 * prepare:.2f} ms in each task that does not work on it, and {1e3 * register:.2f} ms in register")

size = 2 * WIDTH * HEIGHT
master = 4 * WIDTH * HEIGHT
kept = 200e3
measure_s = mean([run[0] for run in large["measure"]])
stack_s = mean([run[0] for run in large["stack"]]) / FRAMES * FRAMES  # of one part: FRAMES lights, 1 / FRAMES of rows
print("computed:")
for lights in (1000, 100_000):
    for machines in (10, 100):
        parts = 4 * machines
        fixed = prepare * lights
        measure = max(lights / machines * measure_s + 4 * fixed,
                      (lights * size + 4 * machines * (3 * master + 3e3 * lights)) / STORAGE)
        reg = register * lights + fixed
        share = 1 / parts + 10 / HEIGHT + 16 * 11 / HEIGHT
        bytes_of_part = 3 * master + lights * (kept + 3e3 + size * share)
        # A part of one machine's measured work: lights x rows.
        work = stack_s / (FRAMES * (1 / FRAMES + 10 / HEIGHT + 16 * 11 / HEIGHT)) * lights * share
        stack = max(4 * (work + fixed), 4 * bytes_of_part / LINK, parts * bytes_of_part / STORAGE)
        one = lights * (measure_s + stack_s / FRAMES)
        total = measure + reg + stack + fixed
        print(f"  {lights} lights, {machines} machines, {parts} parts: measure {measure:.0f} s, register {reg:.0f} s, "
              f"stack {stack:.0f} s, in all {total / 3600:.2f} h ({one / 3600:.1f} h on one); "
              f"over the network {(lights * size + parts * bytes_of_part) / 1e12:.2f} TB")
