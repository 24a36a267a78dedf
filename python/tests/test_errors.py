"""Every bad input raises TypeError or ValueError with a message that names
the problem, and nothing crashes."""
import numpy as np
import pytest

import rsmpl

X = np.arange(1000, dtype=np.int16)
X2 = np.zeros((1000, 2), np.int16)


def nan_signal():
    x = np.zeros(100, np.float32)
    x[50] = np.nan
    return x


def resample(x, a=16000, b=48000, conv="rsmplrate"):
    return lambda: rsmpl.resample(x, a, b, converter=conv)


CASES = [
    # what the signal is
    ("list", resample([1, 2, 3]), TypeError, "numpy.ndarray"),
    ("int32", resample(X.astype(np.int32)), TypeError, "dtype"),
    ("uint16", resample(X.astype(np.uint16)), TypeError, "dtype"),
    ("float16", resample(X.astype(np.float16)), TypeError, "dtype"),
    ("complex", resample(X.astype(np.complex64)), TypeError, "dtype"),
    ("0-D", resample(np.array(3, np.int16)), ValueError, "1-D"),
    ("3-D", resample(np.zeros((10, 2, 2), np.int16)), ValueError, "1-D"),
    ("empty", resample(X[:0]), ValueError, "empty"),
    ("no frames", resample(X2[:0]), ValueError, "empty"),
    ("no channels", resample(np.zeros((10, 0), np.int16)), ValueError, "no channels"),
    ("strided", resample(X[::2]), ValueError, "contiguous"),
    ("fortran", resample(np.asfortranarray(X2)), ValueError, "contiguous"),
    ("nan", resample(nan_signal()), ValueError, "NaN"),
    ("inf", resample(np.full(10, np.inf)), ValueError, "NaN"),
    # rates and converter
    ("rate 0", resample(X, 0, 48000), ValueError, "rates"),
    ("out rate 0", resample(X, 48000, 0), ValueError, "rates"),
    ("negative", resample(X, -8000, 8000), ValueError, "rates"),
    ("huge", resample(X, 2**40, 2**40), ValueError, "rates"),
    ("beyond int64", resample(X, 2**70, 8000), ValueError, "rates"),
    ("periods too long", resample(X, 999999, 1000000), ValueError, "periods"),
    ("ratio 9", resample(X, 8000, 72000), ValueError, "1/8..8"),
    ("ratio 1/9", resample(X, 72000, 8000), ValueError, "1/8..8"),
    ("float rate", lambda: rsmpl.resample(X, 44100.0, 48000, converter="rsmplrate"), TypeError, "integers"),
    ("string rate", resample(X, "8000", 16000), TypeError, "integers"),
    ("bool rate", lambda: rsmpl.resample(X, True, 1, converter="rsmplrate"), TypeError, "integers"),
    ("unknown converter", resample(X, conv="speexrate"), ValueError, "unknown converter"),
    ("bad name", resample(X, conv="../x"), ValueError, "unknown converter"),
    ("converter type", resample(X, conv=3), TypeError, "str"),
    # Resampler
    ("channels 0", lambda: rsmpl.Resampler(8000, 16000, 0, converter="rsmplrate"), ValueError, "channels"),
    ("channels str", lambda: rsmpl.Resampler(8000, 16000, "2", converter="rsmplrate"), TypeError, "channels"),
    ("wrong channels", lambda: rsmpl.Resampler(8000, 16000, 3, converter="rsmplrate").process(X2), ValueError,
     "channel"),
    ("1-D for stereo", lambda: rsmpl.Resampler(8000, 16000, 2, converter="rsmplrate").process(X), ValueError, "2-D"),
    ("stream rate 0", lambda: rsmpl.Resampler(0, 16000, converter="rsmplrate"), ValueError, "rates"),
    # stages
    ("up 5", lambda: rsmpl.up(X, 5), ValueError, "no stage"),
    ("down 8", lambda: rsmpl.down(X, 8), ValueError, "no stage"),
    ("down 2.5", lambda: rsmpl.down(X, 2.5), ValueError, "no stage"),
    ("factor str", lambda: rsmpl.up(X, "2"), TypeError, "factor"),
    ("up empty", lambda: rsmpl.up(X[:0], 2), ValueError, "empty"),
    ("up strided", lambda: rsmpl.up(X[::3], 2), ValueError, "contiguous"),
    ("down int64", lambda: rsmpl.down(X.astype(np.int64), 2), TypeError, "dtype"),
    ("down short", lambda: rsmpl.down(X[:30], 6), ValueError, "at least 36"),
    # utilities
    ("log10 range", lambda: rsmpl.log10_q15([40000]), ValueError, "outside"),
    ("log10 float", lambda: rsmpl.log10_q15([0.5]), TypeError, "integers"),
    ("dB range", lambda: rsmpl.db_to_scale([2**31]), ValueError, "outside"),
    ("dB float", lambda: rsmpl.db_to_scale(np.zeros(3)), TypeError, "integers"),
    ("smooth coef", lambda: rsmpl.smooth([1, 2], 40000), ValueError, "coef"),
    ("smooth value", lambda: rsmpl.smooth([1, 2], 100, value=1.5), TypeError, "value"),
    ("smooth 2-D", lambda: rsmpl.smooth(np.zeros((2, 2), np.int16), 100), ValueError, "1-D"),
    ("fir3 length", lambda: rsmpl.fir3(X[:6], [1, 2, 3, 4]), ValueError, "multiple of 4"),
    ("fir3 taps", lambda: rsmpl.fir3(X[:8], [1, 2]), ValueError, "multiple of 4"),
    ("fir3 shift", lambda: rsmpl.fir3(X[:8], [1, 2, 3, 4], -1), ValueError, "shift"),
    ("fir3 history", lambda: rsmpl.fir3(X[:8], [1, 2, 3, 4], 0, [0, 0]), ValueError, "history"),
    ("fir3 float", lambda: rsmpl.fir3(np.zeros(8), [1, 2, 3, 4]), TypeError, "integers"),
    ("spline order", lambda: rsmpl.spline_fit([0, 1, 1], [0, 1, 2], [0.5]), ValueError, "increasing"),
    ("spline nan", lambda: rsmpl.spline_fit([0, np.nan, 2], [0, 1, 2], [0.5]), ValueError, "increasing"),
    ("spline lengths", lambda: rsmpl.spline_fit([0, 1, 2], [0, 1], [0.5]), ValueError, "same length"),
    ("spline knots", lambda: rsmpl.spline_fit([0], [0], [0.5]), ValueError, "2 knots"),
    ("spline no points", lambda: rsmpl.spline_fit([0, 1], [0, 1], []), ValueError, "empty"),
    ("spline strings", lambda: rsmpl.spline_fit(["a", "b"], [0, 1], [0.5]), TypeError, "numeric"),
]


@pytest.mark.parametrize("name,call,exc,text", CASES, ids=[c[0] for c in CASES])
def test_bad_input(name, call, exc, text):
    with pytest.raises(exc, match=text):
        call()


def test_numpy_integers_are_rates_and_channel_counts():
    r = rsmpl.Resampler(np.int64(16000), np.uint16(48000), np.int32(2), converter="rsmplrate")
    assert (r.in_rate, r.out_rate, r.channels) == (16000, 48000, 2)
    assert np.array_equal(rsmpl.resample(X, np.int32(16000), 48000, converter="rsmplrate"),
                          rsmpl.resample(X, 16000, 48000, converter="rsmplrate"))


def test_rejected_inputs_leave_the_arguments_alone():
    x = np.arange(100, dtype=np.float32) / 100
    x[50] = np.nan
    before = x.copy()
    with pytest.raises(ValueError):
        rsmpl.resample(x, 8000, 16000, converter="rsmplrate")
    assert np.array_equal(x, before, equal_nan=True)
    h = np.arange(4, dtype=np.int16)
    with pytest.raises(ValueError):
        rsmpl.fir3(X[:6], [1, 2, 3, 4], 0, h)
    assert h.tolist() == [0, 1, 2, 3]
