"""Streaming: chunks of any size equal the one-shot conversion; rejected
chunks change nothing; conversions from two threads at once."""
import threading

import numpy as np
import pytest

import rsmpl
from conftest import CONVERTERS

PAIRS = [(16000, 48000), (48000, 16000), (8000, 48000), (48000, 8000), (44100, 48000), (48000, 44100),
         (8000, 32000), (48000, 48000)]


def chunked(r, x, sizes, last=True):
    parts, at = [], 0
    for s in sizes:
        parts.append(r.process(x[at:at + s]))
        at += s
    parts.append(r.process(x[at:], last=last))
    return np.concatenate(parts)


@pytest.mark.parametrize("conv", CONVERTERS)
@pytest.mark.parametrize("a,b", PAIRS)
@pytest.mark.parametrize("channels", [1, 2])
def test_random_chunks_equal_one_shot(rng, conv, a, b, channels):
    n = a + int(rng.integers(0, 3000))
    shape = (n,) if channels == 1 else (n, channels)
    x = rng.integers(-32768, 32768, shape, dtype=np.int16)
    whole = rsmpl.resample(x, a, b, converter=conv)
    r = rsmpl.Resampler(a, b, channels, converter=conv)
    # Sizes from empty and single frames up to several periods.
    sizes = []
    while sum(sizes) < n - 5000:
        sizes.append(int(rng.choice([0, 1, 2, 3, int(rng.integers(4, 100)), int(rng.integers(100, 5000))])))
    got = chunked(r, x, sizes)
    assert got.shape == whole.shape and np.array_equal(got, whole)
    # The last chunk may be empty.
    r.reset()
    assert np.array_equal(np.concatenate([r.process(x), r.process(x[:0], last=True)]), whole)


@pytest.mark.parametrize("conv", CONVERTERS)
def test_float_chunks_equal_one_shot(rng, conv):
    x = rng.uniform(-1, 1, 20000).astype(np.float32)
    r = rsmpl.Resampler(44100, 48000, converter=conv)
    got = chunked(r, x, [1, 777, 0, 4410, 3])
    assert got.dtype == np.float32 and np.array_equal(got, rsmpl.resample(x, 44100, 48000, converter=conv))


@pytest.mark.parametrize("conv", CONVERTERS)
def test_ended_stream_and_reset(rng, conv):
    x = rng.integers(-32768, 32768, 5000, dtype=np.int16)
    r = rsmpl.Resampler(16000, 48000, converter=conv)
    first = np.concatenate([r.process(x[:1234]), r.process(x[1234:], last=True)])
    with pytest.raises(ValueError, match="ended"):
        r.process(x)
    r.reset()
    assert np.array_equal(r.process(x, last=True), first)


@pytest.mark.parametrize("conv", CONVERTERS)
def test_rejected_chunks_change_nothing(rng, conv):
    x = rng.integers(-32768, 32768, (9000, 2), dtype=np.int16)
    whole = rsmpl.resample(x, 48000, 44100, converter=conv)
    r = rsmpl.Resampler(48000, 44100, channels=2, converter=conv)
    parts = [r.process(x[:3000])]
    bad_nan = np.zeros((500, 2), np.float64)
    bad_nan[250, 1] = np.nan
    for bad, err in [(x[:100, :1].copy(), ValueError), (x[:100].astype(np.int32), TypeError),
                     (bad_nan, ValueError), (np.asfortranarray(x[:100]), ValueError), (x[:100, 0].copy(), ValueError),
                     (x[:100].tolist(), TypeError)]:
        with pytest.raises(err):
            r.process(bad)
    parts.append(r.process(x[3000:], last=True))
    assert np.array_equal(np.concatenate(parts), whole)


def test_two_threads_convert_at_the_same_time(rng):
    signals = [rng.integers(-32768, 32768, (48000 * 3, 2), dtype=np.int16) for _ in range(2)]
    pairs = [(48000, 16000), (48000, 44100)]
    expected = [rsmpl.resample(s, a, b, converter="rsmplrate") for s, (a, b) in zip(signals, pairs)]
    results = [[], []]
    start = threading.Barrier(2)

    def work(i):
        start.wait()
        for _ in range(4):
            results[i].append(rsmpl.resample(signals[i], *pairs[i], converter="rsmplrate"))
            r = rsmpl.Resampler(*pairs[i], channels=2, converter="rsmplrate")
            results[i].append(np.concatenate([r.process(signals[i][:7777]), r.process(signals[i][7777:], last=True)]))

    threads = [threading.Thread(target=work, args=(i,)) for i in range(2)]
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    for i in range(2):
        assert len(results[i]) == 8
        for y in results[i]:
            assert np.array_equal(y, expected[i])


def test_one_resampler_shared_by_threads_loses_nothing(rng):
    # Calls are serialised: every chunk is converted once, in some order.
    x = np.zeros(40 * 960, np.int16)
    r = rsmpl.Resampler(48000, 16000, converter="rsmplrate")
    outs = []

    def work():
        for _ in range(20):
            outs.append(len(r.process(x[:960])))

    threads = [threading.Thread(target=work) for _ in range(2)]
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    total = sum(outs) + len(r.process(x[:0], last=True))
    assert total == 40 * 960 // 3
