"""Kestrel hotword detection.

    import kestrel
    detector = kestrel.Detector(["hey-kestrel.kmodel"], names=["hey kestrel"])
    for detection in detector.process(samples):   # int16 or float32 NumPy array, or bytes
        print(detection.name, detection.seconds, detection.score)
    detector.flush()                               # end of the stream

A Detector wraps one detector of the C library (libkestrel.so, through
ctypes); the GIL is released while it works, so detectors on separate
threads run in parallel. One thread at a time may use a detector.
Failures raise kestrel.KestrelError carrying the library's message.
"""
import ctypes
import os
from dataclasses import dataclass

from . import _capi

__all__ = ["Detector", "Detection", "KestrelError", "__version__"]

__version__ = _capi.lib.kestrel_version().decode()

_ARGUMENT_ERROR = 1


class KestrelError(Exception):
    """A failed library call; `status` is the C API's kestrel_status."""

    def __init__(self, status, message):
        super().__init__(message)
        self.status = status


@dataclass(frozen=True)
class Detection:
    hotword: int    # 1-based over all models, in the order given
    name: str       # the hotword's name, "" when none was given
    sample: int     # position in the stream, in input samples
    seconds: float  # sample / sample_rate
    score: float    # the search score that passed the threshold


def _check(status):
    if status != 0:
        raise KestrelError(status, _capi.lib.kestrel_last_error().decode(errors="replace"))


class Detector:
    """Streams audio of one sample rate through hotword models.

    model_paths: model files (paths), or model contents (bytes), or one of
    either. sensitivity: None (the models' own), one float for all hotwords
    or one per hotword. names: None or one string per hotword. sample_rate:
    the rate of the audio that will be passed in.
    """

    def __init__(self, model_paths, sensitivity=None, names=None, sample_rate=16000):
        self._handle = ctypes.c_void_p()
        if isinstance(model_paths, (str, bytes, bytearray, os.PathLike)):
            model_paths = [model_paths]
        models = list(model_paths)
        options = _capi.Options()
        _capi.lib.kestrel_detector_options_init(ctypes.byref(options))
        options.sample_rate = sample_rate
        if sensitivity is not None:
            values = [sensitivity] if isinstance(sensitivity, (int, float)) else list(sensitivity)
            options.sensitivities = (ctypes.c_float * len(values))(*values)
            options.num_sensitivities = len(values)
        if names is not None:
            encoded = [str(name).encode() for name in names]
            options.names = (ctypes.c_char_p * len(encoded))(*encoded)
            options.num_names = len(encoded)
        if any(isinstance(m, (bytes, bytearray)) for m in models):
            # One call takes either paths or contents; read the paths.
            contents = [bytes(m) if isinstance(m, (bytes, bytearray)) else open(m, "rb").read()
                        for m in models]
            # `contents` keeps the bytes alive for the call.
            buffers = (ctypes.c_void_p * len(contents))(
                *[ctypes.cast(ctypes.c_char_p(c), ctypes.c_void_p).value for c in contents])
            sizes = (ctypes.c_size_t * len(contents))(*[len(c) for c in contents])
            _check(_capi.lib.kestrel_detector_create_from_memory_ex(
                buffers, sizes, len(contents), ctypes.byref(options), ctypes.byref(self._handle)))
        else:
            paths = [os.fsencode(m) for m in models]
            _check(_capi.lib.kestrel_detector_create_ex(
                (ctypes.c_char_p * len(paths))(*paths), len(paths), ctypes.byref(options),
                ctypes.byref(self._handle)))
        self.sample_rate = sample_rate

    def close(self):
        """Frees the detector now rather than when it is collected."""
        if self._handle:
            _capi.lib.kestrel_detector_destroy(self._handle)
            self._handle = ctypes.c_void_p()

    def __del__(self):
        if getattr(self, "_handle", None):
            self.close()

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()

    def _live(self):
        if not self._handle:
            raise KestrelError(_ARGUMENT_ERROR, "kestrel.Detector: the detector is closed")
        return self._handle

    def process(self, samples):
        """Analyses more audio; returns the detections it completed.

        samples: a 1-D NumPy array of int16 or float32 (full scale -1 to 1),
        or bytes of little-endian int16."""
        if isinstance(samples, (bytes, bytearray, memoryview)):
            data = bytes(samples)
            if len(data) % 2:
                raise ValueError(f"kestrel: {len(data)} bytes is not a whole number of int16 samples")
            return self._run(_capi.lib.kestrel_detector_process, data, len(data) // 2)
        dtype = getattr(samples, "dtype", None)
        if dtype is None:
            raise TypeError("kestrel: samples must be a NumPy int16 or float32 array or bytes, "
                            f"not {type(samples).__name__}")
        if samples.ndim != 1:
            raise ValueError(f"kestrel: samples must be one-dimensional, not of shape {samples.shape}")
        if dtype.kind == "i" and dtype.itemsize == 2:
            function = _capi.lib.kestrel_detector_process
        elif dtype.kind == "f" and dtype.itemsize == 4:
            function = _capi.lib.kestrel_detector_process_float
        else:
            raise TypeError(f"kestrel: samples must be int16 or float32, not {dtype}")
        import numpy
        samples = numpy.ascontiguousarray(samples, dtype=dtype.newbyteorder("="))
        return self._run(function, samples.ctypes.data_as(ctypes.c_void_p), len(samples))

    def flush(self):
        """Ends the stream: returns the detections of the audio still pending;
        the next sample starts a new stream at position 0."""
        found = ctypes.POINTER(_capi.Detection)()
        count = ctypes.c_size_t()
        _check(_capi.lib.kestrel_detector_flush(self._live(), ctypes.byref(found),
                                                ctypes.byref(count)))
        return self._detections(found, count.value)

    def reset(self):
        """Drops pending audio; the next sample starts a new stream at 0."""
        _check(_capi.lib.kestrel_detector_reset(self._live()))

    @property
    def num_hotwords(self):
        count = ctypes.c_size_t()
        _check(_capi.lib.kestrel_detector_num_hotwords(self._live(), ctypes.byref(count)))
        return count.value

    @property
    def names(self):
        """The hotwords' names, in hotword-number order ("" for unnamed ones)."""
        result = []
        for hotword in range(1, self.num_hotwords + 1):
            name = ctypes.c_char_p()
            _check(_capi.lib.kestrel_detector_hotword_name(self._live(), hotword,
                                                           ctypes.byref(name)))
            result.append(name.value.decode())
        return result

    def get_sensitivity(self, hotword):
        """The sensitivity of hotword `hotword` (1-based)."""
        value = ctypes.c_float()
        _check(_capi.lib.kestrel_detector_get_sensitivity(self._live(), hotword,
                                                          ctypes.byref(value)))
        return value.value

    def set_sensitivity(self, hotword, value):
        """Sets the sensitivity of hotword `hotword` (1-based)."""
        _check(_capi.lib.kestrel_detector_set_sensitivity(self._live(), hotword, value))

    def _run(self, function, data, n):
        found = ctypes.POINTER(_capi.Detection)()
        count = ctypes.c_size_t()
        _check(function(self._live(), data, n, ctypes.byref(found), ctypes.byref(count)))
        return self._detections(found, count.value)

    def _detections(self, found, count):
        return [Detection(d.hotword, d.name.decode(), d.sample, d.sample / self.sample_rate,
                          d.score) for d in found[:count]]
