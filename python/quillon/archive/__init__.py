"""Archive conversion on a Dask cluster.

:func:`convert` decodes every file of a folder tree to WAVE by the rules of
``quillon batch`` (output naming, temporary file renamed when complete,
existing outputs skipped unless ``force``, one result per file), each file
a Dask task. Workers read and write the files themselves, so the input and
output folders must be at the same paths on every worker (shared storage);
only names and results travel through the scheduler.
"""

import os
import sys
import tempfile
import time
from dataclasses import dataclass, field

from .. import _quillon

__all__ = ["convert", "Summary", "FileResult", "SUMMARY_NAME"]

SUMMARY_NAME = "quillon-batch-summary.txt"


@dataclass
class FileResult:
    input: str
    output: str
    state: str  # "converted", "skipped", "failed" or "interrupted"
    reason: str = ""
    audio_seconds: float = 0.0
    summary_line: str = field(default="", repr=False)


@dataclass
class Summary:
    files: list = field(default_factory=list)
    seconds: float = 0.0
    summary_path: str = ""

    def _count(self, state):
        return sum(1 for f in self.files if f.state == state)

    @property
    def converted(self):
        return self._count("converted")

    @property
    def skipped(self):
        return self._count("skipped")

    @property
    def failed(self):
        return [f for f in self.files if f.state == "failed"]

    @property
    def audio_hours(self):
        return sum(f.audio_seconds for f in self.files) / 3600.0

    @property
    def files_per_second(self):
        return len(self.files) / self.seconds if self.seconds > 0 else 0.0

    @property
    def real_time_factor(self):
        return self.audio_hours * 3600.0 / self.seconds if self.seconds > 0 else 0.0

    def __str__(self):
        return ("%d converted, %d skipped (already converted), %d failed; %.2f h of audio in %.1f s "
                "(%.1f files/s, %.0fx real time)" % (self.converted, self.skipped, len(self.failed),
                                                     self.audio_hours, self.seconds, self.files_per_second,
                                                     self.real_time_factor))


def _convert_one(entry, in_dir, out_dir, codec, rate, force):
    """One file, run on a worker."""
    rel_in, rel_out, problem, whole_name = entry
    state, reason, seconds, line = _quillon.convert_batch_file(in_dir, out_dir, rel_in, rel_out, problem, whole_name,
                                                               codec, rate, force)
    output = os.path.join(out_dir, rel_out) if rel_out else ""
    return FileResult(os.path.join(in_dir, rel_in), output, state, reason, seconds, line)


def _open_client(client):
    """(client, cluster to close or None) for `client` as convert() takes it."""
    import distributed

    if isinstance(client, distributed.Client):
        return client, None
    if isinstance(client, str):
        return distributed.Client(client), None
    if client is not None:
        raise ValueError("client must be None, a scheduler address or a distributed.Client")
    # The GIL is released while a file decodes: one process, a thread per core.
    cluster = distributed.LocalCluster(n_workers=1, threads_per_worker=os.cpu_count() or 1, processes=False,
                                       dashboard_address=None)
    return distributed.Client(cluster), cluster


def _write_summary(out_dir, results):
    os.makedirs(out_dir, exist_ok=True)
    path = os.path.join(out_dir, SUMMARY_NAME)
    fd, part = tempfile.mkstemp(prefix=SUMMARY_NAME + ".", suffix=".part", dir=out_dir)
    try:
        with os.fdopen(fd, "w", encoding="utf-8", errors="surrogateescape") as f:
            for r in results:
                f.write(r.summary_line)
        os.replace(part, path)
    except BaseException:
        os.unlink(part)
        raise
    return path


def convert(in_dir, out_dir, client=None, codec="auto", rate=None, force=False, progress=None):
    """Convert every file under ``in_dir`` to WAVE under ``out_dir``.

    ``client``: None starts a local cluster sized to the machine; a scheduler
    address ("tcp://host:8786") or a ``distributed.Client`` uses an existing
    cluster. ``codec`` is "auto" (the container decides) or a codec name for
    raw streams; ``rate`` resamples. ``progress`` shows Dask's progress bar
    (default: when standard error is a terminal).

    Returns a :class:`Summary`; the same summary file as ``quillon batch``
    (``quillon-batch-summary.txt``) is written in ``out_dir``.
    """
    if codec is None:
        codec = "auto"
    if not isinstance(codec, str):
        raise ValueError("codec must be 'auto' or a codec name")
    if codec != "auto":
        _quillon.Decoder(codec)  # ValueError for an unknown name, before any work is sent
    if rate is not None and (isinstance(rate, bool) or not isinstance(rate, int) or rate <= 0):
        raise ValueError("rate must be a positive number of Hz")
    in_dir, out_dir = os.fspath(in_dir), os.fspath(out_dir)
    work = _quillon.batch_inputs(in_dir, out_dir)
    if progress is None:
        progress = sys.stderr.isatty()

    start = time.monotonic()
    dask_client, cluster = _open_client(client)
    try:
        futures = dask_client.map(_convert_one, work, in_dir=in_dir, out_dir=out_dir, codec=codec, rate=rate or 0,
                                  force=bool(force), pure=False)
        if progress and futures:
            import distributed

            distributed.progress(futures)
        results = dask_client.gather(futures)
    finally:
        if cluster is not None:
            dask_client.close()
            cluster.close()
    summary = Summary(results, time.monotonic() - start)
    summary.summary_path = _write_summary(out_dir, results)
    return summary
