"""Works through a night on the workers of a Dask cluster: cluster.py NIGHT RESULTS [SCHEDULER]."""

import sys

from distributed import Client

import korimg

if __name__ == "__main__":
    night, results, *scheduler = sys.argv[1:]
    # Without the address of a scheduler, two workers on this machine.
    where = {"address": scheduler[0]} if scheduler else {"n_workers": 2, "threads_per_worker": 1,
                                                         "dashboard_address": None}
    with Client(**where) as client:
        run = korimg.distributed.run(night, client, out=results,
                                     progress=lambda what, done, of: print(f"{done}/{of} {what}"))
    print(f"{run.stacks[0].file}: {run.stacks[0].frames} of {run.stacks[0].lights} lights")
