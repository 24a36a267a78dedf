"""Utility functions over arrays, element by element against the C calls."""
import ctypes

import numpy as np
import pytest

import rsmpl


def test_db_to_scale(cmod, rng):
    db = np.concatenate([rng.integers(-100 * 32768, 100 * 32768, 3000), [0, 196608, -2**31, 2**31 - 1, 16383, 16384]])
    y = rsmpl.db_to_scale(db)
    assert y.dtype == np.int32 and y.shape == db.shape
    assert y.tolist() == [cmod.lib.UTIL_dBToScale(int(v)) for v in db]
    assert rsmpl.db_to_scale(np.int32(0)) == 0x400000
    assert rsmpl.db_to_scale(db.reshape(-1, 2)).shape == (len(db) // 2, 2)


def test_log10_every_input(cmod):
    x = np.arange(-32768, 32768, dtype=np.int16)
    y = rsmpl.log10_q15(x)
    assert y.dtype == np.int32
    assert y.tolist() == [cmod.lib._LOG10(int(v)) for v in x]


@pytest.mark.parametrize("wide", [False, True])
def test_smoothers_follow_their_targets(cmod, rng, wide):
    lim = 2**31 if wide else 2**15
    t = rng.integers(-lim, lim, 2000)
    t[1000:1500] = t[999]  # a held target
    sym = rsmpl.smooth32 if wide else rsmpl.smooth
    asym = rsmpl.smooth_asym32 if wide else rsmpl.smooth_asym
    c_sym = cmod.lib.UTIL_Smooth32 if wide else cmod.lib.UTIL_Smooth
    c_asym = cmod.lib.UTIL_SmoothAsym32 if wide else cmod.lib.UTIL_SmoothAsym
    for coef in (0, 1, 3000, 16384, 32767):
        v, exp = 123, []
        for target in t:
            v = c_sym(v, coef, int(target))
            exp.append(v)
        got = sym(t, coef, value=123)
        assert got.dtype == (np.int32 if wide else np.int16) and got.tolist() == exp
    v, exp = -5, []
    for target in t:
        v = c_asym(v, 2000, 20000, int(target))
        exp.append(v)
    assert asym(t, 2000, 20000, value=-5).tolist() == exp


def test_fir3_equals_the_c_call_and_splits(cmod, rng):
    x = rng.integers(-32768, 32768, 4000).astype(np.int16)
    coefs = rng.integers(-12000, 12000, 16).astype(np.int16)
    for shift in (0, 1, 3):
        y, h = rsmpl.fir3(x, coefs, shift)
        data, hist, scratch = x.copy(), np.zeros(16, np.int16), np.zeros(16 + 4000, np.int16)
        assert cmod.lib.UTIL_Fir3(data.ctypes.data, 4000, hist.ctypes.data, coefs.ctypes.data, 16, shift,
                                  scratch.ctypes.data) == 0
        assert np.array_equal(y, data) and np.array_equal(h, hist)
        y1, h1 = rsmpl.fir3(x[:1236], coefs, shift)
        y2, h2 = rsmpl.fir3(x[1236:], coefs, shift, history=h1)
        assert np.array_equal(np.concatenate([y1, y2]), y) and np.array_equal(h2, h)
    # Longer than one C call takes.
    long_x = rng.integers(-32768, 32768, 70000).astype(np.int16)
    y, h = rsmpl.fir3(long_x, coefs)
    ya, ha = rsmpl.fir3(long_x[:40000], coefs)
    yb, hb = rsmpl.fir3(long_x[40000:], coefs, history=ha)
    assert np.array_equal(y, np.concatenate([ya, yb])) and np.array_equal(h, hb)


def test_spline_fit(cmod, rng):
    x = np.cumsum(rng.uniform(0.1, 2, 40)).astype(np.float32)
    f = rng.uniform(-5, 5, 40).astype(np.float32)
    xe = rng.uniform(x[0] - 3, x[-1] + 3, 500).astype(np.float32)
    fe = np.zeros(500, np.float32)
    assert cmod.lib.UTIL_SplineFit(40, x.ctypes.data, f.ctypes.data, 500, xe.ctypes.data, fe.ctypes.data) == 0
    got = rsmpl.spline_fit(x, f, xe)
    assert got.dtype == np.float32 and np.array_equal(got, fe)
    assert np.array_equal(rsmpl.spline_fit(x.astype(np.float64), f, xe), fe)
    assert rsmpl.spline_fit([0, 1], [0, 2], [-1, 0.5, 3]).tolist() == [-2, 1, 6]
