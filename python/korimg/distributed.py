"""Runs that many machines share, by Dask."""

from __future__ import annotations

import inspect
import os
from typing import Any

from . import _core, _sessions
from ._apply import bytes_of
from ._errors import UsageError
from ._report import Report
from ._sessions import RunResult, _run, origin_of, run_values


def _do(session: str, values: dict[str, Any], task: dict[str, Any], memory: int, epoch: str | None, *after: Any) -> str:
    """Does one task, on the machine of a worker, after those whose results it is given."""
    if epoch is not None:
        os.environ["SOURCE_DATE_EPOCH"] = epoch
    report = Report()
    _core.do_task(session, values, task, memory, origin_of(session, values["out"]), report)
    return task["text"]


def run(
    session: str | os.PathLike[str],
    client: Any,
    *,
    out: str | os.PathLike[str],
    parts: int | None = None,
    memory: int | str | None = None,
    retries: int = 3,
    **options: Any,
) -> RunResult:
    """Works through a session on the workers of a Dask cluster, as `korimg.run` does on one machine.

    Lights are measured, and rows of stacks made, as tasks on whatever worker is free. All that a task makes
    lies in ``out``: when a worker dies, its tasks are done by others, and a call that was ended goes on where
    it was. Whatever the number of workers, the results have the bytes of `korimg.run`.

    Parameters
    ----------
    session : path
        The folder of the frames. All workers reach it, and ``out``, by the same absolute paths.
    client : distributed.Client
    out : path
        The folder for all results.
    parts : int, optional
        Tasks that lights, and the rows of each stack, are cut into; one for each worker, and four at least, unless told.
    memory : int or str, optional
        Bytes for pixels of a task, as in "2G"; half of the worker's limit over its threads unless told.
    retries : int
        How often a task that failed is done again.
    **options
        Those of `korimg.run`; files are not replaced.

    Returns
    -------
    RunResult

    Raises
    ------
    UsageError, FileError, IncompleteError
        As `korimg.run` does.
    """
    known = inspect.signature(_sessions.run).parameters
    for name in options:
        if name not in known:
            raise TypeError(f"korimg.run has no option {name!r}")
    if parts is not None and (not isinstance(parts, int) or parts < 1):
        raise UsageError(f"parts={parts!r}: write a whole number from 1 on")
    if options.pop("overwrite", False):
        raise UsageError("a run on workers goes on with what is there, and replaces nothing; name another folder")
    progress = options.pop("progress", None)
    workers = client.scheduler_info()["workers"]
    if not workers:
        raise UsageError("the client has no workers; wait for them: client.wait_for_workers(1)")
    if memory is None:
        shares = [w["memory_limit"] // w["nthreads"] for w in workers.values() if w["memory_limit"]]
        memory = min(shares) // 2 if shares else None
    folder = os.path.abspath(os.fspath(session))
    values = run_values(options)
    values["out"] = os.path.abspath(os.fspath(out))
    tasks = _core.plan_tasks(folder, values, parts or max(len(workers), 4), bytes_of(memory), Report())
    epoch = os.environ.get("SOURCE_DATE_EPOCH")
    futures: list[Any] = []
    for number, task in enumerate(tasks):
        if task["stage"] == "finish":
            break
        futures.append(client.submit(_do, folder, values, task, bytes_of(memory), epoch,
                                     *[futures[n] for n in task["after"]], key=f"korimg-{os.urandom(8).hex()}-{number}",
                                     retries=retries, pure=False))
    try:
        for done, future in enumerate(futures):
            future.result()
            if progress is not None:
                progress(tasks[done]["text"], done + 1, len(tasks))
    except BaseException:
        client.cancel(futures)
        raise
    # The last task is the run itself: it takes what is there, makes what is missing, and checks both.
    return _run(folder, values, bytes_of(memory), False, progress)
