#!/usr/bin/python3
"""Turns the measurements of tools/rsmpl-quality into docs/quality.md and its plots.

    /usr/bin/python3 scripts/quality_report.py DATA_DIR DOCS_DIR

Run by scripts/quality.sh; needs Debian's python3-numpy and python3-matplotlib.
"""
import csv
import io
import math
import os
import sys

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt  # noqa: E402
import numpy as np  # noqa: E402
from PIL import Image  # noqa: E402  (python3-pil, a dependency of python3-matplotlib)

DPI = 72
FLOOR_DB = -120.0  # bottom of every dB scale: below the 16-bit noise of any path here
OURS = ["#0b5fa5", "#d1495b", "#2e933c", "#f28e2b"]
PEERS = ["#7f7f7f", "#e09f3e", "#9e6ebd", "#3fa7b5"]


def save(fig, path):
    """PNG with a 128-colour palette: a fraction of the size, no visible loss at this scale."""
    buf = io.BytesIO()
    fig.savefig(buf, format="png", dpi=DPI)
    plt.close(fig)
    buf.seek(0)
    Image.open(buf).convert("RGB").quantize(colors=128, method=Image.Quantize.MEDIANCUT).save(path, optimize=True)


def read_tsv(path):
    with open(path, newline="") as f:
        return list(csv.DictReader(f, delimiter="\t", quoting=csv.QUOTE_NONE))


def fnum(v):
    try:
        return float(v)
    except (TypeError, ValueError):
        return math.nan


def groups_of(paths):
    order, groups = [], {}
    for p in paths:
        key = (int(p["in_rate"]), int(p["out_rate"]))
        if key not in groups:
            order.append(key)
            groups[key] = []
        groups[key].append(p)
    return [(k, groups[k]) for k in order]


def styles(members):
    ours = iter(zip(OURS, (2.8, 1.7, 0.9, 0.5)))  # each thinner than the last, so paths that coincide stay visible
    peers = iter(PEERS)
    out = {}
    for p in members:
        if p["kind"] == "ours":
            color, lw = next(ours)
            out[p["id"]] = dict(color=color, lw=lw, ls="-")
        else:
            out[p["id"]] = dict(color=next(peers), lw=1.0, ls="--")
    return out


def khz(v):
    return f"{v / 1000:g} kHz"


def group_title(key):
    fi, fo = key
    return f"{fi} Hz → {fo} Hz"


def group_stem(key):
    return f"{key[0]}-{key[1]}"


def load_resp(data, pid):
    rows = read_tsv(os.path.join(data, pid + ".resp.tsv"))
    x = np.array([float(r["x_hz"]) for r in rows])
    db = np.array([float(r["db"]) for r in rows])
    return x, db


def plot_response(data, key, members, path):
    fi, fo = key
    fn_low, fn_high = min(fi, fo) / 2, max(fi, fo) / 2
    st = styles(members)
    fig, (a, b) = plt.subplots(1, 2, figsize=(11, 3.8), gridspec_kw=dict(width_ratios=[1.35, 1]))
    for p in members:
        if p["status"] != "ok":
            continue
        x, db = load_resp(data, p["id"])
        a.plot(x / 1000, np.maximum(db, FLOOR_DB - 10), label=p["label"], **st[p["id"]])
        b.plot(x / 1000, db, **st[p["id"]])
    for ax in (a, b):
        ax.axvline(fn_low / 1000, color="k", lw=0.6, ls=":")
        ax.grid(True, lw=0.3, alpha=0.6)
        ax.set_xlabel("frequency (kHz, at the higher rate)")
    a.set_xlim(0, fn_high / 1000)
    a.set_ylim(FLOOR_DB, 5)
    a.set_ylabel("level re input (dB)")
    a.set_title("response; images / aliases beyond the dotted line")
    b.set_xlim(0, 1.1 * fn_low / 1000)
    b.set_ylim(-4, 1)
    b.axhline(-3, color="k", lw=0.5, ls=":")
    b.axvline(0.85 * fn_low / 1000, color="k", lw=0.5, ls="--")
    b.set_title("passband (dashed: 0.85 fN, dotted: fN)")
    a.legend(fontsize=7, loc="lower left", ncol=2)
    fig.suptitle(f"Magnitude response, {group_title(key)}", fontsize=11)
    fig.tight_layout()
    save(fig, path)


def panel_grid(n):
    cols = 3
    rows = (n + cols - 1) // cols
    return rows, cols


def read_s16(path):
    return np.fromfile(path, dtype="<i2").astype(np.float64)


def plot_impulses(data, key, members, path):
    fi, fo = key
    ok = [p for p in members if p["status"] == "ok"]
    rows, cols = panel_grid(len(ok))
    fig, axes = plt.subplots(rows, cols, figsize=(11, 2.3 * rows + 0.5), squeeze=False)
    half_ms = 24 / min(fi, fo) * 1000  # 24 samples at the lower rate either side of the centre
    st = styles(members)
    for ax, p in zip(axes.flat, ok):
        y = read_s16(os.path.join(data, p["id"] + ".imp.s16"))
        at, amp, delay = int(p["imp_at"]), float(p["imp_amp"]), float(p["delay_out"])
        scale = amp * min(1.0, fo / fi)
        t_ms = (np.arange(len(y)) - at * fo / fi) / fo * 1000  # time after the input impulse
        d_ms = delay / fo * 1000
        sel = (t_ms > d_ms - half_ms) & (t_ms < d_ms + half_ms)
        ax.plot(t_ms[sel], y[sel] / scale, marker=".", ms=3, color=st[p["id"]]["color"], lw=0.8)
        ax.axhline(0, color="k", lw=0.4)
        ax.axvline(d_ms, color="k", lw=0.5, ls=":")
        ax.set_title(f"{p['label']}  (delay {d_ms:.3f} ms)", fontsize=8)
        ax.set_xlim(d_ms - half_ms, d_ms + half_ms)
        # The same scale everywhere, widened only for a path whose output leaves it.
        ax.set_ylim(min(-0.35, 1.1 * y[sel].min() / scale), max(1.15, 1.1 * y[sel].max() / scale))
        ax.grid(True, lw=0.3, alpha=0.6)
        ax.tick_params(labelsize=7)
    for ax in axes.flat[len(ok):]:
        ax.axis("off")
    for ax in axes[-1]:
        ax.set_xlabel("ms after the input impulse", fontsize=8)
    for ax in axes[:, 0]:
        ax.set_ylabel("normalised", fontsize=8)
    fig.suptitle(f"Impulse response, {group_title(key)} (the dotted line marks the group delay)", fontsize=11)
    fig.tight_layout()
    save(fig, path)


def spectrogram(y, fo):
    n = 1 << max(7, int(round(math.log2(fo * 0.02))))  # about 20 ms
    hop = n // 2
    w = np.kaiser(n, 20)
    frames = max(1, (len(y) - n) // hop)
    idx = np.arange(n)[None, :] + hop * np.arange(frames)[:, None]
    mag = np.abs(np.fft.rfft(y[idx] * w, axis=1)) / (w.sum() / 2) / 32768
    return 20 * np.log10(np.maximum(mag, 1e-12)).T, hop / fo, n


def plot_sweeps(data, key, members, path):
    fi, fo = key
    ok = [p for p in members if p["status"] == "ok"]
    rows, cols = panel_grid(len(ok))
    fig, axes = plt.subplots(rows, cols, figsize=(11, 2.5 * rows + 0.6), squeeze=False)
    im = None
    for ax, p in zip(axes.flat, ok):
        y = read_s16(os.path.join(data, p["id"] + ".sweep.s16"))
        s, dt, _ = spectrogram(y, fo)
        im = ax.imshow(s, origin="lower", aspect="auto", cmap="inferno", vmin=FLOOR_DB, vmax=0,
                       extent=(0, s.shape[1] * dt, 0, fo / 2000), interpolation="nearest")
        if fi < fo:
            ax.axhline(fi / 2000, color="w", lw=0.5, ls=":")
        ax.set_title(p["label"], fontsize=8)
        ax.tick_params(labelsize=7)
    for ax in axes.flat[len(ok):]:
        ax.axis("off")
    for ax in axes[-1]:
        ax.set_xlabel("time (s)", fontsize=8)
    for ax in axes[:, 0]:
        ax.set_ylabel("output kHz", fontsize=8)
    sweep_top = fi / 2
    fig.suptitle(f"Sweep 0 → {khz(sweep_top)} at −6 dBFS, {group_title(key)}: output spectrogram", fontsize=11)
    fig.tight_layout(rect=(0, 0, 0.92, 1))
    if im is not None:
        cax = fig.add_axes((0.93, 0.12, 0.012, 0.72))
        fig.colorbar(im, cax=cax).set_label("dBFS", fontsize=8)
    save(fig, path)


def cell(v, fmt, missing="—"):
    v = fnum(v)
    return missing if math.isnan(v) else fmt.format(v)


def table(key, members):
    fi, fo = key
    fn = min(fi, fo) / 2
    out = [
        "| Path | Passband to 0.85 fN (dB) | −3 dB (Hz, × fN) | Worst image/alias ≥ fN (dB) | ≥ 1.2 fN (dB) "
        "| SNR (dB) | THD+N (dB) | DC gain | Group delay (output samples, ms) | 0 dBFS tone: level (dBFS), THD+N (dB) |",
        "|---|---|---|---|---|---|---|---|---|---|",
    ]
    for p in members:
        if p["status"] != "ok":
            out.append(f"| {p['label']} | not measured: {p['status']} |||||||||")
            continue
        m3 = fnum(p["minus3_hz"])
        m3s = "—" if math.isnan(m3) else f"{m3:.0f} ({m3 / fn:.3f})"
        d = fnum(p["delay_out"])
        name = f"**{p['label']}**" if p["kind"] == "ours" else p["label"]
        out.append(
            f"| {name} | {cell(p['pass_min_db'], '{:+.2f}')} to {cell(p['pass_max_db'], '{:+.2f}')} | {m3s} "
            f"| {cell(p['rej_fn_db'], '{:.1f}')} | {cell(p['rej_12fn_db'], '{:.1f}')} "
            f"| {cell(p['snr_db'], '{:.1f}')} | {cell(p['thdn_db'], '{:.1f}')} | {cell(p['dc_gain'], '{:.4f}')} "
            f"| {d:.2f} ({d / fo * 1000:.3f}) "
            f"| {cell(p['full_level_dbfs'], '{:+.2f}')}, {cell(p['full_thdn_db'], '{:.1f}')} |"
        )
    return "\n".join(out)


def find(paths, pid):
    for p in paths:
        if p["id"] == pid and p["status"] == "ok":
            return p
    return None


def limits(paths):
    def rej(pid):
        p = find(paths, pid)
        return "not measured" if p is None else f"{fnum(p['rej_fn_db']):.1f} dB"

    def rej12(pid):
        p = find(paths, pid)
        return "not measured" if p is None else f"{fnum(p['rej_12fn_db']):.1f} dB"

    def pmin(pid):
        p = find(paths, pid)
        return "not measured" if p is None else f"{fnum(p['pass_min_db']):.2f}"

    def dc(pid):
        p = find(paths, pid)
        return "not measured" if p is None else f"{fnum(p['dc_gain']):.4f}"

    lines = [
        "## Known limits",
        "",
        "- **Aliasing just above the output Nyquist frequency.** The ÷3, ÷4, ÷6 and 2:3 filters are centred on "
        "the output Nyquist frequency, so tones just above it fold back with less than 48 dB suppression. "
        "Worst measured alias for tones from the output Nyquist frequency up: "
        f"÷3 {rej('48000-16000-stage')}, ÷4 {rej('48000-12000-stage')}, ÷6 {rej('48000-8000-stage')}, "
        f"2:3 {rej('48000-32000-stage')}.",
        "- **Partial images just above the input Nyquist frequency.** ×3, ×4, ×6 and 3:2 share a response "
        "centred on the input Nyquist frequency, so they leave partial images just above it. Worst measured "
        f"image from the input Nyquist frequency up: ×3 {rej('16000-48000-stage')}, ×4 {rej('12000-48000-stage')}, "
        f"×6 {rej('8000-48000-stage')}, 3:2 {rej('32000-48000-stage')}.",
        "- **DC gain above 1, so full-scale constant input clips.** Measured DC gain: "
        f"×2 {dc('24000-48000-stage')}, ÷2 {dc('48000-24000-stage')}, ÷3 {dc('48000-16000-stage')}, "
        f"÷6 {dc('48000-8000-stage')}, ×3 {dc('16000-48000-stage')}, ×6 {dc('8000-48000-stage')}. "
        "A constant at full scale comes out at 32767 or −32768, and a full-scale tone saturates on its peaks "
        "where the gain at its frequency is above 1 (last column of the tables).",
        "- **The linear path is not band-limited.** The module converts every ratio other than 2, 3 and 6 "
        "(4, 3:2, 2:3, 44100 ↔ 48000, …) by straight-line interpolation: images and aliases are suppressed only "
        "by the interpolator's own sinc² shape, a few dB near the Nyquist frequency "
        f"({rej('44100-48000-rsmplrate')} at 44100 → 48000, {rej('48000-44100-rsmplrate')} at 48000 → 44100).",
        "- **rsmplrate_best's sinc pairs roll off early.** The interpolator's prototype is −6 dB at 0.88 fN, so "
        f"the passband up to 0.85 fN reaches {pmin('44100-48000-rsmplrate_best')} dB and images or aliases just "
        f"above fN reach {rej('44100-48000-rsmplrate_best')} (44100 → 48000); from 1.2 fN they are "
        f"{rej12('22050-48000-rsmplrate_best')} (22050 → 48000) and {rej12('44100-32000-rsmplrate_best')} "
        "(44100 → 32000). Its FIR pairs are the stages above, with their limits.",
    ]
    return "\n".join(lines)


def main():
    if len(sys.argv) != 3:
        sys.exit("usage: quality_report.py DATA_DIR DOCS_DIR")
    data, docs = sys.argv[1], sys.argv[2]
    img_dir = os.path.join(docs, "quality")
    os.makedirs(img_dir, exist_ok=True)
    for f in os.listdir(img_dir):
        if f.endswith(".png"):
            os.remove(os.path.join(img_dir, f))
    paths = read_tsv(os.path.join(data, "paths.tsv"))
    ref = read_tsv(os.path.join(data, "reference.tsv"))
    groups = groups_of(paths)

    md = [
        "# Measured quality",
        "",
        "<!-- Generated by scripts/quality.sh: do not edit by hand. -->",
        "",
        "Every conversion path of this library, measured on the same signals, next to the converters that "
        "Debian installs for alsa-lib. Regenerate this page and its plots with",
        "",
        "```sh",
        "bash scripts/quality.sh",
        "```",
        "",
        "which builds `tools/rsmpl-quality`, runs it (it measures; `--list` shows the paths, `--only ID` runs "
        "some) and turns its output into this page with `scripts/quality_report.py`.",
        "",
        "## Paths",
        "",
        "- **RSMPL_Up / RSMPL_Down**: each fixed-ratio stage through the resampler interface, in place, in the "
        "largest blocks it accepts (rates are nominal: they only give the stage a scale in Hz).",
        "- **RSMPL_Resample**: the sinc interpolator at ratios 2, 1/2, 48000/44100, 44100/48000, 48000/22050 and 32000/44100. A new ratio "
        "takes effect after the next block, so a block of the fewest zeros the interface accepts goes first and "
        "its output is dropped.",
        "- **module**: `libasound_module_rate_rsmplrate.so` inside alsa-lib, a `type rate` PCM with converter "
        "`rsmplrate` over a `type file` PCM over `null`, 20 ms periods; FIR for ratios 2, 3 and 6, linear "
        "otherwise. The peers run the same way: alsa-lib's own `linear`, and `speexrate`, `samplerate` and "
        "`lavrate` from libasound2-plugins at their default settings. Every alsa-lib run checks the PCM dump "
        "for the converter that actually ran.",
        "- **rsmplrate_best**: the module's second converter, the same way: the FIR stages for ratios 2, 3, 4, 6, "
        "3:2 and 2:3, the sinc interpolator for every other pair (here 44100 ↔ 48000, 22050 → 48000 and 44100 → 32000; at the last two the images and aliases from 1.2 fN fall inside the measured band).",
        "",
        "## Method",
        "",
        "fN is the lower of the two Nyquist frequencies: the input's for up-conversion, the output's for "
        "down-conversion. Levels are relative to the input (0 dB = unity gain).",
        "",
        "- **Response**: a series of −6 dBFS tones over the input band, each settled and then analysed with a "
        "7-term Blackman-Harris window at exactly the frequencies of interest: the tone itself, its images "
        "k·fin ± f below the output Nyquist frequency, and, for tones above the output Nyquist frequency, the "
        "frequency they fold to. The plots put each image at its own frequency and each alias at the frequency "
        "of the tone that caused it, so one curve shows the whole anti-imaging or anti-aliasing filter.",
        "- **Passband**: lowest and highest level of the tones up to 0.85 fN. **−3 dB**: first crossing, "
        "interpolated between tones. **Worst image/alias**: the highest image or alias level from fN, and from "
        "1.2 fN, upwards (— where no image or alias falls there).",
        "- **SNR and THD+N**: a 997 Hz tone at −6 dBFS, 20 Hz to min(20 kHz, output Nyquist), ±12 bins around "
        "the fundamental and around harmonics 2 to 9. THD+N counts everything but the fundamental (images "
        "included); SNR leaves out the harmonics too. The same analysis of the unconverted 16-bit tone gives "
        + ", ".join(f"{r['thdn_db']} dB at {float(r['rate']):.0f} Hz" for r in ref)
        + ": no path can do better.",
        "- **Saturation**: the 997 Hz tone at full scale (32767): level of the fundamental and THD+N. A path "
        "that saturates on the peaks shows it as THD+N far above its −6 dBFS figure.",
        "- **DC gain**: settled output for a constant half-scale input. **Group delay**: first moment of the "
        "response to a −6 dBFS impulse, in output samples and ms.",
        "- **Sweep**: a linear sweep from 0 to the input Nyquist frequency at −6 dBFS, so down-conversion is "
        "swept well past the output Nyquist frequency; the spectrogram shows the output (Kaiser window, about "
        f"20 ms), from {FLOOR_DB:.0f} dBFS (black) to 0 dBFS. Aliases show as lines falling back from the top.",
        "",
        limits(paths),
        "",
    ]
    for key, members in groups:
        stem = group_stem(key)
        plot_response(data, key, members, os.path.join(img_dir, f"{stem}-response.png"))
        plot_impulses(data, key, members, os.path.join(img_dir, f"{stem}-impulse.png"))
        plot_sweeps(data, key, members, os.path.join(img_dir, f"{stem}-sweep.png"))
        md += [
            f"## {group_title(key)}",
            "",
            f"fN = {min(key) / 2:g} Hz. Ours in bold.",
            "",
            table(key, members),
            "",
            f"![Magnitude response, {group_title(key)}](quality/{stem}-response.png)",
            "",
            f"![Impulse response, {group_title(key)}](quality/{stem}-impulse.png)",
            "",
            f"![Sweep spectrogram, {group_title(key)}](quality/{stem}-sweep.png)",
            "",
        ]
    with open(os.path.join(docs, "quality.md"), "w") as f:
        f.write("\n".join(md))


if __name__ == "__main__":
    main()
