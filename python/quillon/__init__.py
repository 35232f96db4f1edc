"""quillon: speech-codec decoding and encoding for Python and numpy.

Decode call recordings to numpy arrays, encode PCM back to coded streams,
and convert whole archives (see :mod:`quillon.archive`). Containers are
recognised as ``quillon probe`` recognises them (RIFF/WAVE, AMR-WB storage,
SILK_V3, Ogg Opus); a raw stream needs ``codec=``. The C++ work runs
without the GIL, so threads decoding different streams run in parallel.
"""

import os
import tempfile

import numpy as np

from . import _quillon
from ._quillon import Error

__all__ = ["Error", "Decoder", "Encoder", "decode", "encode", "probe", "write_wav", "codecs"]

_CHANNELS = ("mix", "left", "right", "stereo", "keep")
_DTYPES = ("int16", "float32")


def codecs():
    """The codec table as ``[(name, code, description), ...]``."""
    return _quillon.codecs()


def _codec_name(codec):
    if codec is None:
        return ""
    if isinstance(codec, int) and not isinstance(codec, bool):
        return str(codec)
    if not isinstance(codec, str):
        raise ValueError("codec must be a name such as 'g729' or a compression number")
    return codec


def _rate_value(rate):
    if rate is None:
        return 0
    if isinstance(rate, bool) or not isinstance(rate, int) or rate <= 0:
        raise ValueError("rate must be a positive number of Hz")
    return rate


class _SourcePath:
    """A path for `source`: the path itself, or a temporary copy of bytes or
    of a binary file object's contents, removed afterwards."""

    def __init__(self, source):
        self.source = source
        self.temporary = None

    def __enter__(self):
        src = self.source
        if isinstance(src, (str, os.PathLike)):
            return os.fspath(src)
        if isinstance(src, (bytes, bytearray, memoryview)):
            data = bytes(src)
        elif hasattr(src, "read"):
            data = src.read()
            if not isinstance(data, (bytes, bytearray)):
                raise ValueError("a file object source must be opened in binary mode")
        else:
            raise ValueError("source must be a path, bytes or a binary file object")
        fd, self.temporary = tempfile.mkstemp(prefix="quillon-", suffix=".in")
        with os.fdopen(fd, "wb") as f:
            f.write(data)
        return self.temporary

    def __exit__(self, kind, value, traceback):
        if self.temporary is not None:
            os.unlink(self.temporary)
            # Messages name the data, not the temporary copy.
            if isinstance(value, Error) and self.temporary in str(value):
                raise Error(str(value).replace(self.temporary, "<data>")) from None


def _shape(samples, dtype):
    if dtype not in _DTYPES:
        raise ValueError("dtype must be 'int16' or 'float32'")
    if dtype == "float32":
        return samples.astype(np.float32) / np.float32(32768.0)
    return samples


def decode(source, codec=None, rate=None, channels="mix", dtype="int16"):
    """Decode a recording to ``(samples, rate)``.

    ``source`` is a path, ``bytes`` or a binary file object. The container is
    recognised from the data; ``codec`` (a name from :func:`codecs`) is needed
    for a raw stream and overrides the container. ``rate`` resamples (8000 or
    the codec's own rate). ``samples`` is a numpy ``int16`` array of shape
    ``(n,)`` (``(n, 2)`` for two channels), or ``float32`` scaled to [-1, 1)
    with ``dtype="float32"``.

    ``channels`` says what becomes of a stereo recording, as the tool's
    ``--channels``: "mix" (the mean), "left", "right", "stereo" (both, refused
    where only mono can be had) or "keep" (as the recording has them). A
    mono recording gives its one channel whatever is asked, except that the
    library decodes stereo Ogg Opus to mono, so only "keep" takes such a file.

    Raises :class:`quillon.Error` when the input cannot be decoded and
    ``ValueError`` for bad arguments.
    """
    if channels not in _CHANNELS:
        raise ValueError("channels must be one of " + ", ".join(_CHANNELS))
    if dtype not in _DTYPES:
        raise ValueError("dtype must be 'int16' or 'float32'")
    name, hz = _codec_name(codec), _rate_value(rate)
    with _SourcePath(source) as path:
        samples, out_rate, _warnings = _quillon.decode_file(path, name, hz, channels)
    return _shape(samples, dtype), out_rate


def probe(source):
    """What a recording is, as a dict: container, codec (None when it cannot
    be decoded without ``codec=``), rate, channels, duration (seconds),
    decodable, detail and refusal (why a recognised file cannot be decoded).
    The duration is found by decoding the stream."""
    with _SourcePath(source) as path:
        info = _quillon.probe_file(path)
        info["decodable"] = info["codec"] is not None and not info["refusal"]
        info["rate"] = info["duration"] = None
        if info["decodable"]:
            samples, rate, _channels = _quillon.count_file(path)
            info.update(rate=rate, duration=samples / rate if rate else 0.0)
    return info


def _as_int16(samples):
    a = np.asarray(samples)
    if a.dtype == np.int16:
        return a
    if a.dtype.kind == "f":
        return np.clip(np.round(a * 32768.0), -32768, 32767).astype(np.int16)
    raise ValueError("samples must be int16, or float scaled to [-1, 1)")


def encode(samples, rate, codec, mode=None, dtx=False):
    """Encode mono PCM (``int16``, or float in [-1, 1)) at ``rate`` Hz (8000
    or 16000) to the codec's stream as the tool writes it; returns ``bytes``.
    ``mode`` (0-8) and ``dtx`` apply to AMR-WB only."""
    with Encoder(codec, rate=rate, mode=mode, dtx=dtx) as enc:
        return enc.encode(samples) + enc.flush()


def write_wav(path, samples, rate):
    """Write 16-bit PCM (shape ``(n,)`` or ``(n, 2)``; float in [-1, 1) is
    converted) to a WAVE file. The file appears under ``path`` only when it
    is complete."""
    a = _as_int16(samples)
    if a.ndim not in (1, 2) or (a.ndim == 2 and a.shape[1] not in (1, 2)):
        raise ValueError("samples must have shape (n,) or (n, 2)")
    channels = 1 if a.ndim == 1 else a.shape[1]
    path = os.fspath(path)
    fd, part = tempfile.mkstemp(prefix=os.path.basename(path) + ".", suffix=".part",
                                dir=os.path.dirname(os.path.abspath(path)))
    os.close(fd)
    try:
        _quillon.write_wav(part, np.ascontiguousarray(a), _rate_value(rate), channels)
        os.replace(part, path)
    except BaseException:
        os.unlink(part)
        raise


class Decoder:
    """Streaming decoder of one raw coded stream: ``decode(chunk)`` takes
    bytes in any chunking and returns the PCM they complete; ``flush()``
    decodes what was held back and readies the decoder for a new stream.
    Use one object per thread."""

    def __init__(self, codec, rate=None, dtype="int16"):
        if dtype not in _DTYPES:
            raise ValueError("dtype must be 'int16' or 'float32'")
        self._dtype = dtype
        self._impl = _quillon.Decoder(_codec_name(codec), _rate_value(rate))

    @property
    def rate(self):
        """Sample rate of the PCM returned."""
        return self._impl.rate

    def decode(self, chunk):
        return _shape(self._impl.decode(memoryview(chunk).cast("B")), self._dtype)

    def flush(self):
        return _shape(self._impl.flush(), self._dtype)

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        return False


class Encoder:
    """Streaming encoder: ``encode(samples)`` returns the bytes the samples
    complete, ``flush()`` the rest (the last frame zero-padded). Use one
    object per thread."""

    def __init__(self, codec, rate=8000, mode=None, dtx=False):
        if mode is not None and (isinstance(mode, bool) or not isinstance(mode, int) or not 0 <= mode <= 8):
            raise ValueError("mode needs a number from 0 to 8")
        self._impl = _quillon.Encoder(_codec_name(codec), _rate_value(rate), -1 if mode is None else mode, bool(dtx))

    def encode(self, samples):
        a = _as_int16(samples)
        if a.ndim != 1:
            raise ValueError("samples must be mono, shape (n,)")
        return self._impl.encode(a)

    def flush(self):
        return self._impl.flush()

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        return False
