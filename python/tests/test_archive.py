import json
import os
import shutil
import subprocess
import sys
import time

import numpy as np
import pytest

import quillon
import quillon.archive
from conftest import run_tool

distributed = pytest.importorskip("distributed")


def start(args, log):
    return subprocess.Popen([sys.executable, "-m", *args], stdout=log, stderr=subprocess.STDOUT,
                            env=dict(os.environ), start_new_session=True)


@pytest.fixture
def cluster(tmp_path):
    """A scheduler and two single-thread workers on 127.0.0.1, as separate
    processes; stopped at the end. Yields the scheduler address."""
    info = tmp_path / "scheduler.json"
    log = open(tmp_path / "cluster.log", "wb")
    procs = [start(["distributed.cli.dask_scheduler", "--host", "127.0.0.1", "--port", "0", "--no-dashboard",
                    "--scheduler-file", str(info), "--idle-timeout", "300"], log)]
    try:
        deadline = time.monotonic() + 60
        while not info.exists() or not info.read_text().strip():
            assert time.monotonic() < deadline and procs[0].poll() is None, "the scheduler did not start"
            time.sleep(0.1)
        address = json.loads(info.read_text())["address"]
        assert address.startswith("tcp://127.0.0.1:")
        for name in ("w1", "w2"):
            procs.append(start(["distributed.cli.dask_worker", address, "--host", "127.0.0.1", "--nthreads", "1",
                                "--name", name, "--no-dashboard", "--no-nanny", "--death-timeout", "90",
                                "--lifetime", "300"], log))
        yield address
    finally:
        for p in procs:
            p.terminate()
        for p in procs:
            try:
                p.wait(timeout=15)
            except subprocess.TimeoutExpired:
                p.kill()
                p.wait()
        log.close()


def mixed_tree(root, tool):
    """Recordings of several kinds, files that fail, a nested folder and an
    output that exists already."""
    rng = np.random.default_rng(5)
    (root / "in" / "day1" / "late").mkdir(parents=True)
    tone = (8000 * np.sin(np.arange(8000 * 2) * 0.07)).astype(np.int16)
    quillon.write_wav(root / "in" / "a.wav", tone, 8000)
    quillon.write_wav(root / "in" / "day1" / "wide.wav", np.repeat(tone, 2), 16000)
    for codec in ("alaw", "ulaw"):
        assert run_tool(tool, "encode", "--codec", codec, root / "in" / "a.wav",
                        root / "in" / "day1" / ("c-%s.wav" % codec))[0] == 0
    assert run_tool(tool, "encode", "--codec", "amrwb", root / "in" / "day1" / "wide.wav",
                    root / "in" / "day1" / "late" / "call.amrwb")[0] == 0
    (root / "in" / "day1" / "late" / "notes.txt").write_text("not audio\n")
    (root / "in" / "empty.wav").write_bytes(b"")
    (root / "in" / "noise.bin").write_bytes(rng.integers(0, 256, 3000, dtype=np.uint8).tobytes())
    quillon.write_wav(root / "in" / "old.wav", tone[:800], 8000)
    return root / "in"


def test_cluster_conversion_matches_quillon_batch(tmp_path, tool, cluster):
    in_dir = mixed_tree(tmp_path, tool)
    for out in ("out-dask", "out-batch"):
        (tmp_path / out).mkdir()
        (tmp_path / out / "old.wav").write_bytes(b"kept")  # skipped, never overwritten

    client = distributed.Client(cluster, timeout=90)
    try:
        client.wait_for_workers(2, timeout=120)
        summary = quillon.archive.convert(str(in_dir), str(tmp_path / "out-dask"), client=client, progress=False)
        workers = {w["id"] for w in client.scheduler_info()["workers"].values()}
    finally:
        client.close()
    assert workers == {"w1", "w2"}
    status, err = run_tool(tool, "batch", "--codec", "auto", in_dir, tmp_path / "out-batch")
    assert status == 1, err  # some files fail

    # The same lines, each naming its own output folder.
    ours = (tmp_path / "out-dask" / "quillon-batch-summary.txt").read_text()
    theirs = (tmp_path / "out-batch" / "quillon-batch-summary.txt").read_text()
    assert ours == theirs.replace(str(tmp_path / "out-batch"), str(tmp_path / "out-dask"))
    assert (summary.converted, summary.skipped, len(summary.failed)) == (4, 1, 4)
    assert summary.audio_hours == pytest.approx((2 + 2 + 2 + 2) / 3600, rel=0.01)
    assert summary.seconds > 0 and summary.files_per_second > 0
    for f in ["a.wav", "day1/wide.wav", "day1/c-alaw.wav", "day1/c-ulaw.wav", "old.wav"]:
        assert (tmp_path / "out-dask" / f).read_bytes() == (tmp_path / "out-batch" / f).read_bytes(), f
    assert (tmp_path / "out-dask" / "old.wav").read_bytes() == b"kept"
    left = sorted(str(p.relative_to(tmp_path / "out-dask")) for p in (tmp_path / "out-dask").rglob("*"))
    assert not [p for p in left if p.endswith(".part")], left

    # Again through the command, forcing: everything decodable is converted anew.
    p = subprocess.run([sys.executable, "-m", "quillon.archive", str(in_dir), str(tmp_path / "out-dask"),
                        "--scheduler", cluster, "--force"], capture_output=True, text=True, timeout=120)
    assert p.returncode == 1, p.stderr
    assert p.stdout.startswith("5 converted, 0 skipped (already converted), 4 failed")
    assert (tmp_path / "out-dask" / "old.wav").read_bytes()[:4] == b"RIFF"


def test_local_cluster_and_raw_codec(tmp_path, tool):
    in_dir = tmp_path / "in"
    in_dir.mkdir()
    pcm = (5000 * np.sin(np.arange(16000) * 0.05)).astype(np.int16)
    (in_dir / "one.g729").write_bytes(quillon.encode(pcm, 8000, "g729"))
    summary = quillon.archive.convert(in_dir, tmp_path / "out", codec="g729", progress=False)
    assert (summary.converted, summary.skipped, summary.failed) == (1, 0, [])
    samples, rate = quillon.decode(tmp_path / "out" / "one.wav")
    assert rate == 8000 and np.array_equal(samples, quillon.decode(in_dir / "one.g729", codec="g729")[0])
    again = quillon.archive.convert(in_dir, tmp_path / "out", codec="g729", progress=False)
    assert (again.converted, again.skipped) == (0, 1)
    with pytest.raises(ValueError):
        quillon.archive.convert(in_dir, tmp_path / "out", codec="nope")
    with pytest.raises(quillon.Error):
        quillon.archive.convert(tmp_path / "missing", tmp_path / "out")
