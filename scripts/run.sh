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

for name in tone_16k sweep_16k tone_44k1 sweep_44k1; do
  echo "== $name.wav -> ${name}_to_48k.wav"
  "$convert" -r 48000 "out/$name.wav" "out/${name}_to_48k.wav"
done

if [ -e "$ALSA_PLUGIN_DIR/libasound_module_rate_speexrate.so" ]; then
  echo "== sweep_44k1.wav -> sweep_44k1_to_48k_speexrate.wav (for comparison)"
  "$convert" --converter speexrate -r 48000 out/sweep_44k1.wav out/sweep_44k1_to_48k_speexrate.wav
fi
echo "== sweep_16k.wav -> sweep_16k_to_48k_linear.wav (alsa-lib's linear converter, for comparison)"
"$convert" --converter linear -r 48000 out/sweep_16k.wav out/sweep_16k_to_48k_linear.wav

echo
echo "Output files are in $PWD/out/:"
ls -l out/
