"""The same samples as a conversion through real alsa-lib: a WAV file through
alsa-lib's rate PCM with rsmpl-convert, on the FIR pairs, whose samples do
not depend on alsa-lib's choice of period size."""
import os
import subprocess
import wave

import numpy as np
import pytest

import rsmpl


def write_wav(path, x, rate):
    with wave.open(str(path), "wb") as w:
        w.setnchannels(x.shape[1])
        w.setsampwidth(2)
        w.setframerate(rate)
        w.writeframes(x.astype("<i2").tobytes())


def read_wav(path):
    with wave.open(str(path), "rb") as w:
        ch, rate = w.getnchannels(), w.getframerate()
        return np.frombuffer(w.readframes(w.getnframes()), "<i2").reshape(-1, ch), rate


@pytest.mark.parametrize("a,b", [(16000, 48000), (8000, 48000), (48000, 24000), (48000, 8000)])
def test_equals_alsa_lib_rate_pcm(tmp_path, rng, a, b):
    build = os.environ.get("RSMPL_BINARY_DIR")
    tool = os.path.join(build or "", "tools", "rsmpl-convert")
    if not build or not os.path.exists(tool):
        pytest.skip("rsmpl-convert is not built")
    if os.environ.get("RSMPL_EMULATOR"):
        pytest.skip("cross build: the host's alsa-lib cannot load the module")
    x = rng.integers(-20000, 20000, (a * 2 + 1234, 2), dtype=np.int16)
    write_wav(tmp_path / "in.wav", x, a)
    env = dict(os.environ, ALSA_PLUGIN_DIR=os.path.join(build, "alsa-lib"))
    subprocess.run([tool, "-q", "-r", str(b), "--converter", "rsmplrate", str(tmp_path / "in.wav"),
                    str(tmp_path / "out.wav")], check=True, env=env, stdout=subprocess.DEVNULL)
    z, rate = read_wav(tmp_path / "out.wav")
    assert rate == b
    y = rsmpl.resample(x, a, b, converter="rsmplrate")
    delay = rsmpl.Resampler(a, b, 2, converter="rsmplrate").delay
    matches = []
    # The raw stream holds the converter's delay, unless the program took it
    # out as well. Compare the frames that the signal alone decides: how
    # alsa-lib ends a stream (its last partial period) is its own affair.
    for d in sorted({0, delay}):
        m = min(len(y), len(z) - d, len(x) * b // a - d)
        assert m > len(y) - 2 * b // 10
        if np.array_equal(z[d:d + m], y[:m]):
            matches.append(d)
    assert matches, "no stretch of alsa-lib's output equals ours"
