"""What the tasks of a run take, and by that how a run grows: growth.py KORIMG WORK.

Measured on this machine: the tasks of a few frames of 60 megapixels, and what a light costs each task by itself, by
many small frames. Computed by these: 1000 and 100,000 frames of 60 megapixels on 10 and 100 such machines.
"""

import json
import os
import resource
import subprocess
import sys
import time
from pathlib import Path

KORIMG, WORK = Path(sys.argv[1]).resolve(), Path(sys.argv[2])
WIDTH, HEIGHT, FRAMES = 9504, 6336, 6
SMALL = (500, 1500)
# Of the modelled cluster: what a machine's link and the shared storage move, bytes a second.
LINK, STORAGE = 1.25e9, 5e9


def korimg(*arguments):
    """Runs the tool: processor seconds over the number of cores, and bytes read and written, from wherever.

    The machine may do other things beside: what a task takes alone is no less than this, and little more.
    """
    before = resource.getrusage(resource.RUSAGE_CHILDREN)
    process = subprocess.Popen([KORIMG, *map(str, arguments), "--quiet"],
                               stderr=subprocess.DEVNULL)
    io = {}
    while process.poll() is None:
        try:
            io = dict(line.split(": ") for line in Path(f"/proc/{process.pid}/io").read_text().splitlines())
        except (OSError, ValueError):
            pass
        time.sleep(0.002)
    if process.returncode:
        sys.exit(f"{arguments[0]} failed")
    after = resource.getrusage(resource.RUSAGE_CHILDREN)
    seconds = after.ru_utime + after.ru_stime - before.ru_utime - before.ru_stime
    return seconds / os.cpu_count(), int(io.get("rchar", 0)), int(io.get("wchar", 0))


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
small = {count: tasks_of(f"small{count}", 1, "--frames", count, "--size", "384x288") for count in SMALL}
for count, stages in small.items():
    print(f"{count} lights of 384 x 288 in 1 part: " + ", ".join(
        f"{stage} {mean([run[0] for run in runs]):.2f} s" for stage, runs in stages.items()))
# What each light adds to a task that does not work on it: headers, what is kept of it.
night, out, plan = WORK / f"small{SMALL[1]}", WORK / f"small{SMALL[1]}_out", WORK / "again.json"
korimg("run", night, "--out", out, "--plan-only", plan, "--parts", 1, "--overwrite")
prepare = korimg("run", "--plan", plan, "--task", 1)[0] / SMALL[1]
register = (small[SMALL[1]]["register"][0][0] - small[SMALL[0]]["register"][0][0]) / (SMALL[1] - SMALL[0])
print(f"a light costs {1e3 * prepare:.2f} ms in each task that does not work on it, and {1e3 * register:.2f} ms in register")

size, master, header, kept = 2 * WIDTH * HEIGHT, 4 * WIDTH * HEIGHT, 3e3, 200e3
# Each task loads the masters first, as register does with little else.
load = mean([run[0] for run in large["register"]])
measure_s = mean([run[0] for run in large["measure"]]) - load
beside = 10 / HEIGHT + 16 * 11 / HEIGHT  # rows that a part reads beside its own: margins, and those that tell noise
stack_s = (mean([run[0] for run in large["stack"]]) - load) / FRAMES / (1 / FRAMES + beside)  # of all rows of a light
finish_s = mean([run[0] for run in large["finish"]])
print(f"a light of {WIDTH} x {HEIGHT}: {measure_s:.2f} s to measure, {stack_s:.2f} s to stack; {load:.2f} s for each task")
print("computed:")
for lights in (1000, 100_000):
    alone = load + finish_s + lights * (measure_s + stack_s + 2 * prepare + register)
    for machines in (10, 100):
        parts = machines
        each = load + prepare * lights  # of a task
        own = 3 * master + lights * (kept + header)  # bytes that each task of a stage reads before its share
        part = own + lights * size * (1 / parts + beside)
        measure = max(each + lights / machines * measure_s, (own + lights * size / machines) / LINK,
                      (parts * own + lights * size) / STORAGE)
        laying = each + register * lights
        stack = max(each + lights * stack_s * (1 / parts + beside), part / LINK, parts * part / STORAGE)
        total = measure + laying + stack + each + finish_s
        moved = lights * size + parts * (own + part)
        print(f"  {lights} lights, {machines} machines: measure {measure:.0f} s, register {laying:.0f} s, "
              f"stack {stack:.0f} s, finish {each + finish_s:.0f} s, in all {total / 3600:.2f} h; one machine "
              f"{alone / 3600:.2f} h, {alone / total:.0f} times; {moved / 1e12:.1f} TB over the network")
