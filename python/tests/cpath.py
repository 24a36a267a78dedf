"""The C interface of the built module driven directly through ctypes:
RSMPL_* on fresh contexts, and a converter's operations table opened and
called period by period as alsa-lib calls it."""
import ctypes

import numpy as np

S16_LE = 2
OPS_VERSION = 0x010002


class Side(ctypes.Structure):
    _fields_ = [("format", ctypes.c_int), ("rate", ctypes.c_uint),
                ("buffer_size", ctypes.c_ulong), ("period_size", ctypes.c_ulong)]


class Info(ctypes.Structure):
    _fields_ = [("inp", Side), ("out", Side), ("channels", ctypes.c_uint)]


class Ops(ctypes.Structure):
    _fields_ = [
        ("close", ctypes.CFUNCTYPE(None, ctypes.c_void_p)),
        ("init", ctypes.CFUNCTYPE(ctypes.c_int, ctypes.c_void_p, ctypes.POINTER(Info))),
        ("free", ctypes.CFUNCTYPE(None, ctypes.c_void_p)),
        ("reset", ctypes.CFUNCTYPE(None, ctypes.c_void_p)),
        ("adjust_pitch", ctypes.CFUNCTYPE(ctypes.c_int, ctypes.c_void_p, ctypes.POINTER(Info))),
        ("convert", ctypes.c_void_p),
        ("convert_s16", ctypes.CFUNCTYPE(None, ctypes.c_void_p, ctypes.POINTER(ctypes.c_int16), ctypes.c_uint,
                                         ctypes.POINTER(ctypes.c_int16), ctypes.c_uint)),
        ("input_frames", ctypes.c_void_p),
        ("output_frames", ctypes.c_void_p),
        ("version", ctypes.c_uint),
        ("get_supported_rates", ctypes.c_void_p),
        ("dump", ctypes.c_void_p),
        ("spare", ctypes.c_void_p * 8),
    ]


def s16p(a):
    return a.ctypes.data_as(ctypes.POINTER(ctypes.c_int16))


class CModule:
    def __init__(self, path):
        self.lib = ctypes.CDLL(path)
        self.lib.RSMPL_GetContextSize.restype = ctypes.c_uint32
        for f in ("RSMPL_Up", "RSMPL_Down"):
            getattr(self.lib, f).argtypes = [ctypes.c_void_p, ctypes.c_void_p, ctypes.c_void_p,
                                             ctypes.c_int32, ctypes.c_uint32]
            getattr(self.lib, f).restype = ctypes.c_uint32
        self.lib.RSMPL_InitContext.argtypes = [ctypes.c_void_p]
        self.lib.UTIL_dBToScale.argtypes = [ctypes.c_int32]
        self.lib.UTIL_dBToScale.restype = ctypes.c_int32
        self.lib._LOG10.argtypes = [ctypes.c_int16]
        self.lib._LOG10.restype = ctypes.c_int32
        for f, t in (("UTIL_Smooth", ctypes.c_int16), ("UTIL_Smooth32", ctypes.c_int32)):
            getattr(self.lib, f).argtypes = [t, ctypes.c_int16, t]
            getattr(self.lib, f).restype = t
        for f, t in (("UTIL_SmoothAsym", ctypes.c_int16), ("UTIL_SmoothAsym32", ctypes.c_int32)):
            getattr(self.lib, f).argtypes = [t, ctypes.c_int16, ctypes.c_int16, t]
            getattr(self.lib, f).restype = t
        self.lib.UTIL_Fir3.argtypes = [ctypes.c_void_p, ctypes.c_int16, ctypes.c_void_p, ctypes.c_void_p,
                                       ctypes.c_int16, ctypes.c_int16, ctypes.c_void_p]
        self.lib.UTIL_Fir3.restype = ctypes.c_int32
        self.lib.UTIL_SplineFit.argtypes = [ctypes.c_int, ctypes.c_void_p, ctypes.c_void_p, ctypes.c_int,
                                            ctypes.c_void_p, ctypes.c_void_p]
        self.lib.UTIL_SplineFit.restype = ctypes.c_int

    def stage(self, up, index, x, blocks):
        """One channel through RSMPL_Up/RSMPL_Down on a fresh context, in the given blocks."""
        ctx = ctypes.create_string_buffer(self.lib.RSMPL_GetContextSize())
        self.lib.RSMPL_InitContext(ctx)
        fn = self.lib.RSMPL_Up if up else self.lib.RSMPL_Down
        out, at = [], 0
        for b in blocks:
            blk = np.ascontiguousarray(x[at:at + b], dtype=np.int16)
            buf = np.zeros(8 * b + 16, np.int16)
            assert fn(ctx, blk.ctypes.data, buf.ctypes.data, b, index) == 0
            n = {(True, 0): 3 * (b // 2), (True, 1): 2 * b, (True, 2): 3 * b, (True, 3): 4 * b, (True, 4): 6 * b,
                 (False, 0): 2 * b // 3, (False, 1): b // 2, (False, 2): b // 3, (False, 3): b // 4,
                 (False, 4): b // 6}[(up, index)]
            out.append(buf[:n].copy())
            at += b
        return np.concatenate(out)

    def plugin(self, name, in_rate, out_rate, x, periods):
        """Frames x (n, channels) through one instance of converter `name`,
        whole periods, silence after the end; the raw output (n_out, channels)."""
        entry = getattr(self.lib, "_snd_pcm_rate_%s_open" % name)
        entry.argtypes = [ctypes.c_uint, ctypes.POINTER(ctypes.c_void_p), ctypes.POINTER(Ops)]
        p_in, p_out = periods
        ch = x.shape[1]
        obj, ops = ctypes.c_void_p(), Ops()
        assert entry(OPS_VERSION, ctypes.byref(obj), ctypes.byref(ops)) == 0
        info = Info(Side(S16_LE, in_rate, 2 * p_in, p_in), Side(S16_LE, out_rate, 2 * p_out, p_out), ch)
        assert ops.init(obj, ctypes.byref(info)) == 0
        assert ops.adjust_pitch(obj, ctypes.byref(info)) == 0
        ops.reset(obj)
        periods_needed = -(-x.shape[0] // p_in)
        src = np.zeros((periods_needed * p_in, ch), np.int16)
        src[:x.shape[0]] = x
        out = np.zeros((periods_needed * p_out, ch), np.int16)
        for p in range(periods_needed):
            s = np.ascontiguousarray(src[p * p_in:(p + 1) * p_in])
            d = np.zeros((p_out, ch), np.int16)
            ops.convert_s16(obj, s16p(d), p_out, s16p(s), p_in)
            out[p * p_out:(p + 1) * p_out] = d
        ops.free(obj)
        ops.close(obj)
        return out
