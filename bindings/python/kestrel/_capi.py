"""ctypes declarations of the C API (kestrel/kestrel.h) and the loading of
libkestrel.so: KESTREL_LIBRARY if set, else the copy installed with the
package, else the system's."""
import ctypes
import ctypes.util
import os
from pathlib import Path


class Detection(ctypes.Structure):
    _fields_ = [("hotword", ctypes.c_int32), ("name", ctypes.c_char_p),
                ("sample", ctypes.c_int64), ("score", ctypes.c_float)]


class Options(ctypes.Structure):
    _fields_ = [("sample_rate", ctypes.c_int32),
                ("sensitivities", ctypes.POINTER(ctypes.c_float)),
                ("num_sensitivities", ctypes.c_size_t),
                ("names", ctypes.POINTER(ctypes.c_char_p)),
                ("num_names", ctypes.c_size_t)]


def _find_library():
    explicit = os.environ.get("KESTREL_LIBRARY")
    if explicit:
        return explicit
    bundled = sorted(Path(__file__).parent.glob("libkestrel.so.*"))
    if bundled:
        return str(bundled[0])
    system = ctypes.util.find_library("kestrel")
    if system:
        return system
    raise ImportError("kestrel: libkestrel.so not found (not installed with the package, "
                      "not on the system, and KESTREL_LIBRARY is not set)")


# CDLL (unlike PyDLL) releases the GIL for the duration of every call.
lib = ctypes.CDLL(_find_library())

_handle = ctypes.c_void_p
_status = ctypes.c_int
_detections = ctypes.POINTER(ctypes.POINTER(Detection))
_size = ctypes.c_size_t


def _declare(name, restype, *argtypes):
    function = getattr(lib, name)
    function.restype = restype
    function.argtypes = list(argtypes)


_declare("kestrel_version", ctypes.c_char_p)
_declare("kestrel_last_error", ctypes.c_char_p)
_declare("kestrel_detector_options_init", None, ctypes.POINTER(Options))
_declare("kestrel_detector_create_ex", _status, ctypes.POINTER(ctypes.c_char_p), _size,
         ctypes.POINTER(Options), ctypes.POINTER(_handle))
_declare("kestrel_detector_create_from_memory_ex", _status, ctypes.POINTER(ctypes.c_void_p),
         ctypes.POINTER(_size), _size, ctypes.POINTER(Options), ctypes.POINTER(_handle))
_declare("kestrel_detector_process", _status, _handle, ctypes.c_void_p, _size, _detections,
         ctypes.POINTER(_size))
_declare("kestrel_detector_process_float", _status, _handle, ctypes.c_void_p, _size,
         _detections, ctypes.POINTER(_size))
_declare("kestrel_detector_flush", _status, _handle, _detections, ctypes.POINTER(_size))
_declare("kestrel_detector_reset", _status, _handle)
_declare("kestrel_detector_destroy", None, _handle)
_declare("kestrel_detector_num_hotwords", _status, _handle, ctypes.POINTER(_size))
_declare("kestrel_detector_hotword_name", _status, _handle, ctypes.c_int32,
         ctypes.POINTER(ctypes.c_char_p))
_declare("kestrel_detector_get_sensitivity", _status, _handle, ctypes.c_int32,
         ctypes.POINTER(ctypes.c_float))
_declare("kestrel_detector_set_sensitivity", _status, _handle, ctypes.c_int32, ctypes.c_float)
_declare("kestrel_detector_sample_rate", _status, _handle, ctypes.POINTER(ctypes.c_int32))
