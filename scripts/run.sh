#!/usr/bin/env bash
# Installs what is needed, builds, and runs the main job: rsmpl-convert on
# generated test signals, through alsa-lib's rate PCM with this module, on a
# machine with or without a sound card. The results land in out/.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
cmake --preset main
cmake --build --preset main -j "$(nproc)"

# Run from the build tree: build/alsa-lib holds this module and links to the
# system's other rate converters, for the comparison run.
export ALSA_PLUGIN_DIR="$PWD/build/alsa-lib"
convert=./build/tools/rsmpl-convert
mkdir -p out

sox -q -n -r 16000 -c 1 -b 16 out/tone_16k.wav synth 5 sine 1000 vol 0.5
sox -q -n -r 16000 -c 1 -b 16 out/sweep_16k.wav synth 5 sine 20-8000 vol 0.5
sox -q -n -r 44100 -c 2 -b 16 out/tone_44k1.wav synth 5 sine 1000 vol 0.5
sox -q -n -r 44100 -c 2 -b 16 out/sweep_44k1.wav synth 5 sine 20-22050 vol 0.5
sox -q -n -r 11025 -c 1 -b 24 out/tone_11k025_24bit.wav synth 5 sine 997 vol 0.5

# The default converter, where this build has it.
ours=()
[ -e "$ALSA_PLUGIN_DIR/libasound_module_rate_rsmplrate_best.so" ] || ours=(-c rsmplrate)

for name in tone_16k sweep_16k tone_44k1 sweep_44k1; do
  echo "== $name.wav -> ${name}_to_48k.wav"
  "$convert" "${ours[@]}" -r 48k "out/$name.wav" "out/${name}_to_48k.wav"
done
echo "== tone_44k1.wav -> tone_44k1_to_48k_rsmplrate.flac (the plug-in's converter, FLAC by extension)"
"$convert" -c rsmplrate -r 48k out/tone_44k1.wav out/tone_44k1_to_48k_rsmplrate.flac
echo "== tone_11k025_24bit.wav -> tone_11k025_to_48k.wav (24 bits dithered to 16; 11025 Hz has no whole 20 ms period)"
"$convert" "${ours[@]}" -r 48k out/tone_11k025_24bit.wav out/tone_11k025_to_48k.wav
echo "== sweep_44k1.wav | rsmpl-convert -r 16k - - > sweep_44k1_to_16k.wav (standard input and output)"
"$convert" "${ours[@]}" -r 16k - - < out/sweep_44k1.wav > out/sweep_44k1_to_16k.wav

if [ -e "$ALSA_PLUGIN_DIR/libasound_module_rate_speexrate.so" ]; then
  echo "== sweep_44k1.wav -> sweep_44k1_to_48k_speexrate.wav (for comparison)"
  "$convert" --converter speexrate -r 48k out/sweep_44k1.wav out/sweep_44k1_to_48k_speexrate.wav
fi
echo "== sweep_16k.wav -> sweep_16k_to_48k_linear.wav (alsa-lib's linear converter, for comparison)"
"$convert" --converter linear -r 48k out/sweep_16k.wav out/sweep_16k_to_48k_linear.wav

echo
echo "Lengths and pitch of the tones (first channel, rising zero crossings):"
/usr/bin/python3 - out/tone_16k_to_48k.wav out/tone_44k1_to_48k.wav out/tone_11k025_to_48k.wav <<'EOF'
import sys, wave
import numpy as np
for name in sys.argv[1:]:
    with wave.open(name) as w:
        rate, channels, frames = w.getframerate(), w.getnchannels(), w.getnframes()
        x = np.frombuffer(w.readframes(frames), dtype="<i2").reshape(-1, channels)[:, 0].astype(float)
    i = np.where((x[:-1] < 0) & (x[1:] >= 0))[0]
    t = i + x[i] / (x[i] - x[i + 1])
    print(f"{name:32} {frames} frames at {rate} Hz, {(len(t) - 1) * rate / (t[-1] - t[0]):.3f} Hz")
EOF

echo
echo "Output files are in $PWD/out/:"
ls -l out/
