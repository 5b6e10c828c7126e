"""Runs on the workers of a cluster: the same bytes, whatever dies on the way."""

import os
import signal
import threading
import time
from pathlib import Path

import pytest

import korimg

distributed = pytest.importorskip("distributed")


@pytest.fixture(scope="module")
def client():
    with distributed.LocalCluster(n_workers=2, threads_per_worker=1, processes=True, dashboard_address=None,
                                  silence_logs=50) as cluster, distributed.Client(cluster) as connected:
        yield connected


@pytest.fixture(scope="module")
def night(tmp_path_factory):
    folder = tmp_path_factory.mktemp("cluster")
    os.environ["SOURCE_DATE_EPOCH"] = "1700000000"
    korimg.simulate(folder / "night", frames=9, width=500, height=400, filters=["L", "R"], seed=12)
    korimg.run(folder / "night", out=folder / "alone", reject="winsorized")
    return folder


def files_of(out):
    """The results in a folder by their names; reports tell times and the call."""
    return {str(path.relative_to(out)): path.read_bytes() for path in sorted(Path(out).rglob("*"))
            if path.is_file() and path.suffix in (".fits", ".tif", ".png")}


def test_workers_make_the_same_bytes(client, night):
    seen = []
    result = korimg.distributed.run(night / "night", client, out=night / "shared", parts=3, reject="winsorized",
                                    progress=lambda title, step, total: seen.append(title))
    assert [stack.frames for stack in result.stacks] == [9, 9] and len(seen) > 8
    alone = files_of(night / "alone")
    assert len(alone) > 6 and files_of(night / "shared") == alone
    with pytest.raises(korimg.FileError, match="nowhere"):
        korimg.distributed.run(night / "nowhere", client, out=night / "x")
    with pytest.raises(korimg.UsageError, match="replaces nothing"):
        korimg.distributed.run(night / "night", client, out=night / "x", overwrite=True)
    with pytest.raises(TypeError, match="gradiant"):
        korimg.distributed.run(night / "night", client, out=night / "x", gradiant=True)
    with pytest.raises(korimg.UsageError, match="parts"):
        korimg.distributed.run(night / "night", client, out=night / "x", parts=0)
    with pytest.raises(korimg.UsageError, match="mode"):
        korimg.distributed.run(night / "night", client, out=night / "x", method="mode")


def test_a_worker_that_dies_is_replaced(client, night):
    out = night / "killed"
    before = set(client.run(os.getpid).values())
    killed = []

    def kill():
        # While lights are being measured: some are kept, and not all.
        deadline = time.monotonic() + 60
        while time.monotonic() < deadline and not killed:
            if len(list((out / ".korimg").rglob("*.cbor"))) >= 3:
                killed.append(sorted(before)[0])
                os.kill(killed[0], signal.SIGKILL)
            time.sleep(0.002)

    killer = threading.Thread(target=kill)
    killer.start()
    result = korimg.distributed.run(night / "night", client, out=out, parts=6, reject="winsorized")
    killer.join()
    assert killed and killed[0] not in client.run(os.getpid).values()
    assert [stack.frames for stack in result.stacks] == [9, 9]
    assert files_of(out) == files_of(night / "alone")
