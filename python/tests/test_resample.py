"""Whole-signal conversion: bit-exact against the C interface, delay
compensation, exact lengths, shapes and dtypes."""
import numpy as np
import pytest

import rsmpl
from conftest import CONVERTERS

FIR_PAIRS = [(8000, 16000), (16000, 48000), (8000, 48000), (48000, 24000), (48000, 16000), (48000, 8000)]
OTHER_PAIRS = [(44100, 48000), (48000, 44100), (8000, 32000), (48000, 48000), (22050, 16000), (11025, 48000)]
PAIRS = FIR_PAIRS + OTHER_PAIRS


def out_len(n, a, b):
    return (2 * n * b + a) // (2 * a)


def find_offset(raw, y, limit=600):
    for d in range(limit):
        if np.array_equal(raw[d:d + len(y)], y):
            return d
    return None


@pytest.mark.parametrize("conv", CONVERTERS)
@pytest.mark.parametrize("a,b", PAIRS)
@pytest.mark.parametrize("channels", [1, 3])
def test_equals_the_converter_run_period_by_period(cmod, rng, conv, a, b, channels):
    n = 2 * a + int(rng.integers(0, 997))
    x = rng.integers(-32768, 32768, (n, channels), dtype=np.int16)
    y = rsmpl.resample(x, a, b, converter=conv)
    assert y.shape == (out_len(n, a, b), channels) and y.dtype == np.int16
    r = rsmpl.Resampler(a, b, channels, converter=conv)
    raw = cmod.plugin(conv, a, b, np.vstack([x, np.zeros((a // 4, channels), np.int16)]), r.periods)
    d = find_offset(raw, y)
    assert d is not None, "output is no stretch of the converter's own stream"
    assert d == r.delay


@pytest.mark.parametrize("a,b,up,index", [(8000, 16000, True, 1), (16000, 48000, True, 2), (8000, 48000, True, 4),
                                          (48000, 24000, False, 1), (48000, 16000, False, 2), (48000, 8000, False, 4)])
def test_fir_pairs_equal_the_rsmpl_stage_stream(cmod, rng, a, b, up, index):
    n = 3 * a + int(rng.integers(0, 500))
    x = rng.integers(-32768, 32768, n, dtype=np.int16)
    y = rsmpl.resample(x, a, b, converter="rsmplrate")
    padded = np.concatenate([x, np.zeros(a // 4, np.int16)])
    # Blocks of random admissible sizes: the stage stream does not depend on them.
    blocks, left = [], len(padded)
    if up:
        lo, hi = {1: (4, 720), 2: (6, 480), 4: (6, 240)}[index]
        while left >= hi:
            blocks.append(int(rng.integers(lo, hi + 1)))
            left -= blocks[-1]
        blocks.append(left)
    else:
        unit = 4 if index == 1 else 6
        while left >= 4000:
            blocks.append(unit * int(rng.integers(9, 500)))
            left -= blocks[-1]
        blocks.append(left // unit * unit)
    raw = cmod.stage(up, index, padded, blocks)
    d = find_offset(raw, y)
    assert d is not None and d == rsmpl.Resampler(a, b, converter="rsmplrate").delay


@pytest.mark.parametrize("conv", CONVERTERS)
@pytest.mark.parametrize("a,b", [p for p in PAIRS if p[1] * 2 > p[0]])
def test_a_click_lands_where_the_ratio_puts_it(conv, a, b):
    n = 5000
    for k in (0, 1, 999, 1000, 1001, 2345, n - 1):
        x = np.zeros(n, np.int16)
        x[k] = 20000
        y = rsmpl.resample(x, a, b, converter=conv).astype(np.int32)
        peak = int(np.argmax(np.abs(y)))
        assert abs(peak - k * b / a) <= 1.0, (k, peak, k * b / a)
        assert abs(y[peak]) > 2000


@pytest.mark.parametrize("conv", CONVERTERS)
@pytest.mark.parametrize("a,b", [(48000, 8000), (44100, 48000), (16000, 48000)])
@pytest.mark.parametrize("n", [1, 2, 3, 5, 7, 11, 480, 961, 12345])
def test_length_is_n_times_the_ratio_rounded(conv, a, b, n):
    x = np.full(n, 1000, np.int16)
    assert rsmpl.resample(x, a, b, converter=conv).shape == (out_len(n, a, b),)


@pytest.mark.parametrize("conv", CONVERTERS)
@pytest.mark.parametrize("a,b", [(16000, 48000), (44100, 48000), (48000, 16000)])
def test_each_column_is_its_own_1d_conversion(rng, conv, a, b):
    x = rng.integers(-32768, 32768, (7001, 6), dtype=np.int16)  # more channels than one instance takes
    y = rsmpl.resample(x, a, b, converter=conv)
    assert y.shape == (out_len(7001, a, b), 6)
    for c in range(6):
        assert np.array_equal(y[:, c], rsmpl.resample(np.ascontiguousarray(x[:, c]), a, b, converter=conv))
    # (n, 1) is the 2-D form of a mono signal.
    assert np.array_equal(rsmpl.resample(x[:, :1].copy(), a, b, converter=conv)[:, 0], y[:, 0])


@pytest.mark.parametrize("conv", CONVERTERS)
@pytest.mark.parametrize("dtype", [np.float32, np.float64])
def test_floats_are_rounded_to_int16_and_back(rng, conv, dtype):
    x = rng.uniform(-1.2, 1.2, (4000, 2)).astype(dtype)
    x[0] = [1.0, -1.0]
    x[1] = [0.5 / 32768, 1.5 / 32768]  # ties go to even
    as_int = np.clip(np.rint(x.astype(np.float64) * 32768), -32768, 32767).astype(np.int16)
    assert as_int[1].tolist() == [0, 2]
    y = rsmpl.resample(x, 44100, 48000, converter=conv)
    yi = rsmpl.resample(as_int, 44100, 48000, converter=conv)
    assert y.dtype == dtype and y.shape == yi.shape
    assert np.array_equal(y, (yi.astype(np.float64) / 32768).astype(dtype))


def test_saturation_of_full_scale_input():
    # A full-scale square wave overshoots in the filter: outputs clip, never wrap.
    x = np.tile(np.array([32767] * 8 + [-32768] * 8, np.int16), 200)
    y = rsmpl.resample(x, 16000, 48000, converter="rsmplrate").astype(np.int32)
    assert y.max() == 32767 and y.min() == -32768
    d = np.diff(y[100:-100])
    assert np.abs(d).max() < 40000  # a wrap would jump by about 65536
