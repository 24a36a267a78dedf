"""rsmpl.up / rsmpl.down: the raw RSMPL_Up / RSMPL_Down stream of the whole
signal on a fresh context, against the C interface in other blocks."""
import numpy as np
import pytest

import rsmpl

UP = {1.5: (0, 6, 960), 2: (1, 4, 720), 3: (2, 6, 480), 4: (3, 4, 360), 6: (4, 6, 240)}
DOWN = {1.5: (0, 18, 6), 2: (1, 8, 4), 3: (2, 18, 6), 4: (3, 16, 4), 6: (4, 36, 6)}


def random_up_blocks(rng, n, lo, hi, even):
    blocks = []
    while n > 2 * hi:
        b = int(rng.integers(lo, hi + 1))
        b -= b % 2 if even else 0
        blocks.append(b)
        n -= b
    if n > hi:
        b = n // 2
        b -= b % 2 if even else 0
        blocks.append(b)
        n -= b
    blocks.append(n)
    return blocks


@pytest.mark.parametrize("factor", sorted(UP))
@pytest.mark.parametrize("n", [6, 7, 241, 961, 30001])
def test_up_equals_rsmpl_up(cmod, rng, factor, n):
    index, lo, hi = UP[factor]
    x = rng.integers(-32768, 32768, n, dtype=np.int16)
    y = rsmpl.up(x, factor)
    expected = cmod.stage(True, index, x, random_up_blocks(rng, n, lo, hi, factor == 1.5))
    assert y.dtype == np.int16 and np.array_equal(y, expected)
    assert len(y) == (3 * (n // 2) if factor == 1.5 else factor * n)


@pytest.mark.parametrize("factor", sorted(DOWN))
@pytest.mark.parametrize("n", [36, 41, 1445, 30007])
def test_down_equals_rsmpl_down_and_drops_only_the_tail(cmod, rng, factor, n):
    index, lo, unit = DOWN[factor]
    x = rng.integers(-32768, 32768, n, dtype=np.int16)
    y = rsmpl.down(x, factor)
    used = n // unit * unit
    blocks, left = [], used
    while left >= 2 * 600:
        blocks.append(unit * int(rng.integers(lo // unit + 1, 100)))
        left -= blocks[-1]
    blocks.append(left)
    expected = cmod.stage(False, index, x, blocks)
    assert np.array_equal(y, expected)
    assert len(y) == int(used / factor)


def test_columns_and_floats(rng):
    x = rng.integers(-32768, 32768, (1000, 3), dtype=np.int16)
    for fn, f in [(rsmpl.up, 3), (rsmpl.down, 2), (rsmpl.up, 1.5), (rsmpl.down, 6)]:
        y = fn(x, f)
        for c in range(3):
            assert np.array_equal(y[:, c], fn(np.ascontiguousarray(x[:, c]), f))
        xf = x.astype(np.float64) / 32768
        assert np.array_equal(fn(xf, f), y.astype(np.float64) / 32768)


@pytest.mark.parametrize("fn,factor,shortest", [(rsmpl.up, 2, 4), (rsmpl.up, 6, 6), (rsmpl.up, 1.5, 6),
                                                (rsmpl.down, 2, 8), (rsmpl.down, 4, 16), (rsmpl.down, 6, 36),
                                                (rsmpl.down, 1.5, 18)])
def test_shortest_signal(fn, factor, shortest):
    x = np.arange(shortest, dtype=np.int16) * 100
    assert len(fn(x, factor)) > 0
    with pytest.raises(ValueError, match="at least %d" % shortest):
        fn(x[:-1], factor)
