/*
 * Rate converter for alsa-lib's rate PCM plug-in: libasound_module_rate_rsmplrate.so
 *
 * Exact ratios of 2, 3 and 6 (either direction) go through the RSMPL polyphase
 * FIR stages, one context per channel, with periods the stages cannot take
 * as they come evened out behind a short delay (see rsmpl_period_fit);
 * everything else, equal rates included,
 * goes through a linear interpolator whose ratio is `pitch`, unsigned Q19
 * (0x80000 = 1.0).
 *
 * alsa-lib calls: open; init; adjust_pitch; reset; convert_s16 once per period
 * (with input_frames/output_frames in between); free; init again or close.
 * Audio is interleaved signed 16-bit, sample k of channel c at k * channels + c.
 */
#include <alsa/asoundlib.h>
#include <alsa/pcm_rate.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "rsmpl/engine/engine.hpp"
#include "rsmpl/fir/fir_channels.hpp"
#include <rsmpl/rsmpl.h>

#define RSMPL_MAX_CHANNELS 4
#define RSMPL_SAMPLE_BUF_SAMPLES 1440
#define RSMPL_RATE_MIN 8000
#define RSMPL_RATE_MAX 48000
#define LINEAR_DIV 0x80000u /* 1.0 in Q19 */
#define LINEAR_SHIFT 19

/* Interface version of the table below; a host of 0x010001 knows only its first nine slots. */
#define RSMPL_OPS_VERSION 0x010002
#define RSMPL_OPS_VERSION_OLD 0x010001

/* Name reported to snd_lib_error, independent of where the tree was built. */
static const char rsmpl_file[] = "src/rate_rsmpl.cpp";

typedef void (*rsmpl_convert_fn)(void *obj, int16_t *dst, unsigned int dst_frames,
                                 const int16_t *src, unsigned int src_frames);

#define RSMPL_CARRY_FRAMES 40 /* above the largest minimum block less one (35) */
#define RSMPL_HELD_FRAMES 96  /* above the largest output delay plus one burst */
/* Corrected frames stay below 4/3 of their input plus 2: one up chunk, or four channels of a slice. */
#define RSMPL_CORRECT_SLICE 240
#define RSMPL_STAGING_SAMPLES 2048
static_assert(RSMPL_SAMPLE_BUF_SAMPLES * 4 / 3 + 2 <= RSMPL_STAGING_SAMPLES &&
		      RSMPL_MAX_CHANNELS * (RSMPL_CORRECT_SLICE * 4 / 3 + 2) <= RSMPL_STAGING_SAMPLES,
	      "corrected frames fit the staging buffer");

/*
 * Periods that a FIR stage cannot take as they come. Input frames short of
 * an admissible block wait in `carry`; output frames beyond dst_frames wait
 * in `held`, which starts each stream with `delay` frames of silence so that
 * every call can hand the host exactly dst_frames. When the host's periods
 * are not in the ratio N, a cubic interpolator on the stage's high-rate side
 * makes up the difference: its output j sits at j * step_num / step_den
 * frames of its input.
 */
struct rsmpl_period_fit {
	uint32_t in_period;    /* from adjust_pitch, or from the first call */
	uint32_t out_period;
	uint32_t mode;         /* RSMPL_FIT_* */
	uint32_t delay;        /* output frames of silence at the start */
	uint32_t carried;      /* input frames waiting in carry */
	uint32_t held_count;   /* output frames waiting in held */
	uint32_t step_num;     /* correction: stage frames per output, as a fraction */
	uint32_t step_den;
	uint32_t corr_whole;   /* correction: frames still to come before the next output is due */
	uint32_t corr_rem;     /* and its fraction, in 1/step_den */
	int16_t corr_hist[RSMPL_MAX_CHANNELS][3]; /* correction: the last three frames in */
	int16_t carry[RSMPL_MAX_CHANNELS][RSMPL_CARRY_FRAMES];
	int16_t held[RSMPL_MAX_CHANNELS][RSMPL_HELD_FRAMES];
	int16_t staging[RSMPL_STAGING_SAMPLES]; /* corrected frames on their way */
};

enum {
	RSMPL_FIT_UNDECIDED = 0, /* decided by the next conversion */
	RSMPL_FIT_PLAIN,         /* periods meet the block rules, or nothing better is known */
	RSMPL_FIT_CARRY,         /* exact ratio, blocks evened out through carry and held */
	RSMPL_FIT_CORRECT,       /* as CARRY, plus the cubic step from N to the period ratio */
};

struct rsmpl_rate {
	uint32_t factor;      /* N of the FIR path (2, 3, 6); 0 on the linear path */
	int32_t up_index;     /* RSMPL_Up stage index, -1 when unused */
	int32_t down_index;   /* RSMPL_Down stage index, -1 when unused */
	uint32_t pitch;       /* output / input, Q19 */
	uint32_t pitch_shift; /* smallest s with (pitch >> s) < 65536, for the expander */
	uint32_t channels;
	RSMPL_Ctx *rsmpl_ctx[RSMPL_MAX_CHANNELS];
	int16_t *sample_buf;  /* 1440 samples: FIR chunk in place, or the expander's last samples */
	rsmpl_convert_fn convert_fn;
	char desc[64];
	/* Beyond this point: how the FIR path copes with the host's periods (see below). */
	struct rsmpl_period_fit fit;
};

/* Every division here yields 0 for a zero divisor (zero rate, period or pitch). */
static inline uint32_t div_u32(uint32_t a, uint32_t b)
{
	return b ? a / b : 0;
}

static inline uint64_t div_u64(uint64_t a, uint64_t b)
{
	return b ? a / b : 0;
}

/* ---- FIR path -------------------------------------------------------------- */

/* Moving one channel between the period and sample_buf (never aliasing): the engine's moves. */
static void gather_channel(int16_t *buf, const int16_t *src, uint32_t frames, uint32_t channels, uint32_t c)
{
	rsmpl::kernels().gather_channel(buf, src, frames, channels, c);
}

static void scatter_channel(int16_t *dst, const int16_t *buf, uint32_t frames, uint32_t channels, uint32_t c)
{
	rsmpl::kernels().scatter_channel(dst, buf, frames, channels, c);
}

struct stage_rules {
	uint32_t min_block;
	uint32_t multiple;
};

static stage_rules rules_of(bool up, uint32_t n)
{
	if (up)
		return {n == 2 ? 4u : 6u, 1u};
	return {n == 2 ? 8u : n == 3 ? 18u : 36u, n == 2 ? 4u : 6u};
}

/* The largest block of at most `frames` that the stage accepts; 0 if none. */
static uint64_t admissible(stage_rules r, uint64_t frames)
{
	return frames < r.min_block ? 0 : frames / r.multiple * r.multiple;
}

/* alsa-lib never converts in place; a caller that does gets the channel-by-channel loop. */
static bool disjoint(const int16_t *a, size_t a_samples, const int16_t *b, size_t b_samples)
{
	const uintptr_t pa = (uintptr_t)a, pb = (uintptr_t)b;
	return pa + a_samples * sizeof(int16_t) <= pb || pb + b_samples * sizeof(int16_t) <= pa;
}

/*
 * Shared chunk loop of both FIR directions, for periods that meet the
 * stage's block rules. A chunk normally goes through the stage with all its
 * channels in one pass, straight from the period into the output, so each
 * sample moves once. Otherwise each chunk of one channel is gathered into
 * sample_buf, converted there in place, and scattered back. A chunk the
 * stage refuses (only when a call strays from such periods) comes out as
 * silence on that channel, and the channel's history stays as it was.
 * Output never goes past dst_frames: what does not fit is converted (so the
 * history stays continuous) but dropped. Returns whether anything was
 * dropped, for the caller to report under its own name.
 */
static bool rsmplrate_convert(struct rsmpl_rate *rate, bool up, int16_t *dst, uint32_t dst_frames,
                              const int16_t *src, uint32_t src_frames)
{
	const uint32_t n = rate->factor;
	const uint32_t channels = rate->channels;
	const uint32_t index = (uint32_t)(up ? rate->up_index : rate->down_index);
	uint32_t remaining = src_frames;
	uint32_t room = dst_frames;
	bool overflow = false;

	while (remaining > 0) {
		/* Up: a chunk's output fits the 1440-sample buffer. Down: 960 is a
		 * multiple of 4 and of 6, so large blocks split into valid chunks. */
		uint32_t chunk;
		if (up)
			chunk = remaining > div_u32(RSMPL_SAMPLE_BUF_SAMPLES, n) ? div_u32(960, n) : remaining;
		else
			chunk = remaining > RSMPL_SAMPLE_BUF_SAMPLES ? 960 : remaining;
		if (chunk == 0) /* n above 960: not a FIR factor, nothing sensible to do */
			break;
		const uint32_t out = up ? n * chunk : (n <= chunk ? div_u32(chunk, n) : 0);
		const uint32_t keep = out < room ? out : room;
		if (keep < out)
			overflow = true;
		const bool fused = channels > 0 && keep == out && admissible(rules_of(up, n), chunk) == chunk &&
			disjoint(src, (size_t)chunk * channels, dst, (size_t)out * channels);
		if (fused) {
			/* sample_buf as the in-place loop would leave it: the last channel's output. */
			rsmpl::fir::stage_channels(up ? rsmpl::fir::Direction::up : rsmpl::fir::Direction::down, index,
						   rate->rsmpl_ctx, channels, src, dst, (int32_t)chunk, rate->sample_buf);
		} else {
			for (uint32_t c = 0; c < channels; c++) {
				int16_t *buf = rate->sample_buf;
				gather_channel(buf, src, chunk, channels, c);
				const uint32_t status = up ? RSMPL_Up(rate->rsmpl_ctx[c], buf, buf, (int32_t)chunk, index)
							   : RSMPL_Down(rate->rsmpl_ctx[c], buf, buf, (int32_t)chunk, index);
				if (status != RSMPL_OK)
					memset(buf, 0, out * sizeof(*buf));
				scatter_channel(dst, buf, keep, channels, c);
			}
		}
		src += (size_t)chunk * channels;
		dst += (size_t)keep * channels;
		room -= keep;
		remaining -= chunk;
	}
	return overflow;
}

/* ---- Periods the stage cannot take as they come ----------------------------- */

/* A fresh stream: nothing carried, `delay` frames of silence queued. */
static void fit_restart(struct rsmpl_period_fit *fit)
{
	fit->carried = 0;
	fit->held_count = fit->delay;
	memset(fit->held, 0, sizeof(fit->held));
	fit->corr_whole = 2; /* the first output needs the first three frames (and a silent one before) */
	fit->corr_rem = 0;
	memset(fit->corr_hist, 0, sizeof(fit->corr_hist));
}

/*
 * Chooses how to meet the host's periods. The delay is the largest output
 * shortfall the carry can cause over a whole cycle of periods (the carry
 * repeats within min_block + multiple periods), so held never runs dry
 * while the host keeps to its periods.
 */
static void fit_decide(struct rsmpl_rate *rate, bool up)
{
	struct rsmpl_period_fit *fit = &rate->fit;
	const uint64_t n = rate->factor;
	const uint64_t p_in = fit->in_period, p_out = fit->out_period;
	const stage_rules r = rules_of(up, rate->factor);

	fit->mode = RSMPL_FIT_PLAIN;
	fit->delay = 0;
	if (p_in == 0 || p_out == 0 || rate->factor == 0)
		return;
	const bool exact = up ? p_out == n * p_in : p_in == n * p_out;
	if (exact && admissible(r, p_in) == p_in)
		return;

	uint64_t carried = 0, most = 0;
	for (uint32_t k = 0; k < 2 * (r.min_block + r.multiple) + 8; k++) {
		const uint64_t total = carried + p_in;
		carried = total - admissible(r, total);
		most = carried > most ? carried : most;
	}
	if (exact) {
		fit->mode = RSMPL_FIT_CARRY;
		fit->delay = (uint32_t)(up ? most * n : most / n);
		return;
	}
	/*
	 * The correction runs on the high-rate side of the stage (before it going
	 * down, after it going up), where the audible band is a small part of the
	 * sample rate and a cubic follows it closely. Step: high-rate
	 * frames of the host's period over those the stage needs or gives.
	 */
	const uint64_t num = up ? n * p_in : p_in;
	const uint64_t den = up ? p_out : n * p_out;
	/* alsa-lib's periods stay far closer to N; the bound keeps the buffers fixed. */
	if (num > UINT32_MAX || den > UINT32_MAX || 3 * num > 4 * den || 3 * den > 4 * num)
		return;
	fit->mode = RSMPL_FIT_CORRECT;
	fit->step_num = (uint32_t)num;
	fit->step_den = (uint32_t)den;
	if (up)
		fit->delay = (uint32_t)(((most * n + 3) * den + num - 1) / num + 1);
	else /* the stage then sees N * p_out frames a period, give or take the correction's lag */
		fit->delay = (r.min_block + r.multiple + 4 + (uint32_t)n - 1) / (uint32_t)n + 1;
}

/* Where one call's output goes: the host's buffer first, then held. */
struct fit_sink {
	int16_t *dst;
	uint32_t dst_frames;
	uint32_t channels;
	uint32_t held_base; /* held frames still queued ahead of this call's new output */
	bool overflow;
};

/* One channel's `count` new frames from output position w on. */
static void sink_block(struct rsmpl_period_fit *fit, struct fit_sink *s, uint32_t c, uint32_t w,
		       const int16_t *buf, uint32_t count)
{
	const uint32_t room = w < s->dst_frames ? s->dst_frames - w : 0;
	const uint32_t direct = count < room ? count : room;
	scatter_channel(s->dst + (size_t)w * s->channels, buf, direct, s->channels, c);
	for (uint32_t k = direct; k < count; k++) {
		const uint32_t h = s->held_base + (w + k - s->dst_frames);
		if (h < RSMPL_HELD_FRAMES)
			fit->held[c][h] = buf[k];
		else
			s->overflow = true;
	}
}

/*
 * x[-1] * c0 + x[0] * c1 + x[1] * c2 + x[2] * c3: the cubic through four
 * frames, read at f (Q16) between x[0] and x[1]. Its error falls with the
 * fourth power of frequency, where a straight line's falls with the second:
 * a 1.5 kHz tone through 22050 -> 11025 Hz at 441-frame periods strays at
 * most -65 dB from a sine fit, against -37 dB with a line. Overshoot saturates.
 */
static inline int16_t cubic_at(const int32_t x[4], int64_t f)
{
	const int64_t one = 65536;
	const int64_t fp1 = f + one, fm1 = f - one, fm2 = f - 2 * one;
	/* Lagrange weights in Q48 (the products stay below 2^51), rounded to Q16. */
	const int64_t w[4] = {-(f * fm1 * fm2) / 6, (fp1 * fm1 * fm2) / 2, -(fp1 * f * fm2) / 2, (fp1 * f * fm1) / 6};
	int64_t sum = 0;
	for (int k = 0; k < 4; k++)
		sum += ((w[k] + ((int64_t)1 << 31)) >> 32) * x[k];
	const int64_t v = (sum + 32768) >> 16;
	return (int16_t)(v > INT16_MAX ? INT16_MAX : v < INT16_MIN ? INT16_MIN : v);
}

/*
 * The step between the host's period ratio and N on one channel, fed one
 * frame at a time: frame x emits every output that lies between the frames
 * two and one before it. The position (whole, rem) is the caller's copy,
 * the same for every channel. Returns the number of frames written, at most
 * count * step_den / step_num + 2.
 */
static uint32_t correct_channel(struct rsmpl_period_fit *fit, uint32_t c, const int16_t *in, size_t in_stride,
				uint32_t count, int16_t *out, size_t out_stride, uint32_t *whole_io, uint32_t *rem_io)
{
	uint32_t whole = *whole_io;
	uint64_t rem = *rem_io;
	int32_t x[4] = {0, fit->corr_hist[c][0], fit->corr_hist[c][1], fit->corr_hist[c][2]};
	const uint32_t den = fit->step_den;
	uint32_t w = 0;

	for (uint32_t i = 0; i < count; i++) {
		x[0] = x[1];
		x[1] = x[2];
		x[2] = x[3];
		x[3] = in[(size_t)i * in_stride];
		while (whole == 0) {
			out[(size_t)w++ * out_stride] = cubic_at(x, (int64_t)((rem << 16) / den));
			rem += fit->step_num;
			whole += (uint32_t)(rem / den);
			rem %= den;
		}
		whole--;
	}
	for (int k = 0; k < 3; k++)
		fit->corr_hist[c][k] = (int16_t)x[k + 1];
	*whole_io = whole;
	*rem_io = (uint32_t)rem;
	return w;
}

/*
 * The stage over carried frames plus `frames` new ones (interleaved), in
 * admissible chunks; what falls short of a block waits in carry. Returns
 * the output position after this stretch.
 */
static uint32_t fit_stage(struct rsmpl_rate *rate, bool up, struct fit_sink *s, uint32_t written,
			  const int16_t *src, uint32_t frames)
{
	struct rsmpl_period_fit *fit = &rate->fit;
	const uint32_t n = rate->factor;
	const uint32_t channels = rate->channels;
	const uint32_t index = (uint32_t)(up ? rate->up_index : rate->down_index);
	const stage_rules r = rules_of(up, n);
	const bool correct_after = up && fit->mode == RSMPL_FIT_CORRECT;

	const uint64_t total = (uint64_t)fit->carried + frames;
	const uint64_t convert = admissible(r, total);
	if (convert == 0) { /* total < min_block: fits the carry */
		for (uint32_t c = 0; c < channels; c++)
			for (uint32_t k = 0; k < frames; k++)
				fit->carry[c][fit->carried + k] = src[(size_t)k * channels + c];
		fit->carried += frames;
		return written;
	}
	/* Stream offset `pos` counts from the first carried frame; every chunk is longer than the carry. */
	uint64_t pos = 0;
	while (pos < convert) {
		const uint64_t remaining = convert - pos;
		uint32_t chunk;
		if (up)
			chunk = remaining > RSMPL_SAMPLE_BUF_SAMPLES / n ? 960 / n : (uint32_t)remaining;
		else
			chunk = remaining > RSMPL_SAMPLE_BUF_SAMPLES ? 960 : (uint32_t)remaining;
		const uint32_t out = up ? n * chunk : chunk / n;
		const uint32_t from_carry = pos < fit->carried ? fit->carried - (uint32_t)pos : 0;
		const int16_t *chunk_src = src + (size_t)(pos + from_carry - fit->carried) * channels;
		uint32_t whole = fit->corr_whole, rem = fit->corr_rem, count = out;
		for (uint32_t c = 0; c < channels; c++) {
			int16_t *buf = rate->sample_buf;
			if (from_carry > 0)
				memcpy(buf, fit->carry[c] + pos, from_carry * sizeof(*buf));
			gather_channel(buf + from_carry, chunk_src, chunk - from_carry, channels, c);
			/* Chunks are admissible by construction: the status is always RSMPL_OK. */
			(void)(up ? RSMPL_Up(rate->rsmpl_ctx[c], buf, buf, (int32_t)chunk, index)
				  : RSMPL_Down(rate->rsmpl_ctx[c], buf, buf, (int32_t)chunk, index));
			if (correct_after) {
				whole = fit->corr_whole;
				rem = fit->corr_rem;
				count = correct_channel(fit, c, buf, 1, out, fit->staging, 1, &whole, &rem);
				sink_block(fit, s, c, written, fit->staging, count);
			} else {
				sink_block(fit, s, c, written, buf, out);
			}
		}
		fit->corr_whole = whole;
		fit->corr_rem = rem;
		written += count;
		pos += chunk;
	}
	const uint32_t left = (uint32_t)(total - convert);
	for (uint32_t c = 0; c < channels; c++)
		for (uint32_t k = 0; k < left; k++)
			fit->carry[c][k] = src[(size_t)(frames - left + k) * channels + c];
	fit->carried = left;
	return written;
}

/*
 * One call when the periods do not meet the block rules. Returns whether
 * output had to be dropped (only when the host's calls stray far from its
 * periods).
 */
static bool fit_convert(struct rsmpl_rate *rate, bool up, int16_t *dst, uint32_t dst_frames,
			const int16_t *src, uint32_t src_frames)
{
	struct rsmpl_period_fit *fit = &rate->fit;
	const uint32_t channels = rate->channels;
	struct fit_sink s = {dst, dst_frames, channels, 0, false};

	/* Output queued by earlier calls goes first. */
	const uint32_t from_held = fit->held_count < dst_frames ? fit->held_count : dst_frames;
	for (uint32_t c = 0; c < channels; c++) {
		scatter_channel(dst, fit->held[c], from_held, channels, c);
		memmove(fit->held[c], fit->held[c] + from_held, (fit->held_count - from_held) * sizeof(int16_t));
	}
	s.held_base = fit->held_count - from_held;
	uint32_t written = from_held;

	if (!up && fit->mode == RSMPL_FIT_CORRECT) {
		/* Slices whose corrected frames, all channels interleaved, fit the staging buffer. */
		for (uint32_t done = 0; done < src_frames;) {
			const uint32_t slice = src_frames - done < RSMPL_CORRECT_SLICE ? src_frames - done : RSMPL_CORRECT_SLICE;
			uint32_t whole = fit->corr_whole, rem = fit->corr_rem, count = 0;
			for (uint32_t c = 0; c < channels; c++) {
				whole = fit->corr_whole;
				rem = fit->corr_rem;
				count = correct_channel(fit, c, src + (size_t)done * channels + c, channels, slice,
							fit->staging + c, channels, &whole, &rem);
			}
			fit->corr_whole = whole;
			fit->corr_rem = rem;
			written = fit_stage(rate, up, &s, written, fit->staging, count);
			done += slice;
		}
	} else {
		written = fit_stage(rate, up, &s, written, src, src_frames);
	}

	/* Short only when the host's calls stray from its periods: silence, not stale data. */
	for (uint32_t w = written; w < dst_frames; w++)
		for (uint32_t c = 0; c < channels; c++)
			dst[(size_t)w * channels + c] = 0;
	const uint32_t held = s.held_base + (written > dst_frames ? written - dst_frames : 0);
	fit->held_count = held < RSMPL_HELD_FRAMES ? held : RSMPL_HELD_FRAMES;
	return s.overflow;
}

/*
 * Periods come from adjust_pitch. A host that skipped it keeps the plain
 * loop as long as its first call meets the block rules (whatever dst_frames
 * says); otherwise it is taken at that call's word. Periods that meet the
 * block rules in the exact ratio keep the plain loop too.
 */
static bool fit_wanted(struct rsmpl_rate *rate, bool up, uint32_t dst_frames, uint32_t src_frames)
{
	struct rsmpl_period_fit *fit = &rate->fit;

	if (fit->mode == RSMPL_FIT_UNDECIDED) {
		if (fit->in_period == 0 || fit->out_period == 0) {
			if (admissible(rules_of(up, rate->factor), src_frames) == src_frames) {
				fit->mode = RSMPL_FIT_PLAIN;
				return false;
			}
			fit->in_period = src_frames;
			fit->out_period = dst_frames;
		}
		fit_decide(rate, up);
		fit_restart(fit);
	}
	return fit->mode != RSMPL_FIT_PLAIN;
}

static void rsmplrate_Up(void *obj, int16_t *dst, unsigned int dst_frames,
                         const int16_t *src, unsigned int src_frames)
{
	struct rsmpl_rate *rate = (struct rsmpl_rate *)obj;
	const bool overflow = fit_wanted(rate, true, dst_frames, src_frames)
				      ? fit_convert(rate, true, dst, dst_frames, src, src_frames)
				      : rsmplrate_convert(rate, true, dst, dst_frames, src, src_frames);
	if (overflow)
		snd_lib_error(rsmpl_file, __LINE__, __func__, 0, "dst_frames overflow");
}

static void rsmplrate_Down(void *obj, int16_t *dst, unsigned int dst_frames,
                           const int16_t *src, unsigned int src_frames)
{
	struct rsmpl_rate *rate = (struct rsmpl_rate *)obj;
	const bool overflow = fit_wanted(rate, false, dst_frames, src_frames)
				      ? fit_convert(rate, false, dst, dst_frames, src, src_frames)
				      : rsmplrate_convert(rate, false, dst, dst_frames, src, src_frames);
	if (overflow)
		snd_lib_error(rsmpl_file, __LINE__, __func__, 0, "dst_frames overflow");
}

/* ---- Linear path ----------------------------------------------------------- */

/*
 * Output above input rate. Writes exactly dst_frames frames and reads at most
 * src_frames; a shortage of input holds the last sample. Each call restarts
 * the fractional position: its first frame is the previous call's last input.
 * The inner loops are the kernel engine's (rsmpl/linear/linear_kernels.hpp); the
 * last-sample memory is the first `channels` entries of sample_buf.
 */
static void src_linear_expand_s16(void *obj, int16_t *dst, unsigned int dst_frames,
                                  const int16_t *src, unsigned int src_frames)
{
	struct rsmpl_rate *rate = (struct rsmpl_rate *)obj;
	const uint32_t shift = rate->pitch_shift < 16 ? rate->pitch_shift : 16;

	rsmpl::kernels().linear_expand(src, src_frames, dst, dst_frames, rate->channels, rate->pitch, shift,
				       rate->sample_buf);
}

/*
 * Output at or below input rate. Reads all src_frames frames and writes the
 * frames that fall due, at most dst_frames per channel. No state is carried:
 * input frame 0 of every call yields an output equal to itself. When more
 * fall due than fit, every channel stops at dst_frames: one report each.
 */
static void src_linear_shrink_s16(void *obj, int16_t *dst, unsigned int dst_frames,
                                  const int16_t *src, unsigned int src_frames)
{
	struct rsmpl_rate *rate = (struct rsmpl_rate *)obj;

	if (src_frames == 0)
		return;
	if (rsmpl::kernels().linear_shrink(src, src_frames, dst, dst_frames, rate->channels, rate->pitch))
		for (uint32_t c = 0; c < rate->channels; c++)
			snd_lib_error(rsmpl_file, __LINE__, __func__, 0, "dst_frames overflow");
}

/* Input frames for `frames` output frames: frames / ratio, rounded half up. */
static snd_pcm_uframes_t pcm_rsmpl_input_frames(void *obj, snd_pcm_uframes_t frames)
{
	const struct rsmpl_rate *rate = (const struct rsmpl_rate *)obj;

	if (frames == 0)
		return 0;
	return div_u64((uint64_t)(rate->pitch >> 1) + ((uint64_t)frames << LINEAR_SHIFT), rate->pitch);
}

/* Output frames for `frames` input frames: frames * ratio, rounded half up. */
static snd_pcm_uframes_t pcm_rsmpl_output_frames(void *obj, snd_pcm_uframes_t frames)
{
	const struct rsmpl_rate *rate = (const struct rsmpl_rate *)obj;

	if (frames == 0)
		return 0;
	return ((uint64_t)frames * rate->pitch + (LINEAR_DIV >> 1)) >> LINEAR_SHIFT;
}

/*
 * Refines pitch so that the host's output period maps back to exactly its
 * input period, stepping pitch by one unit until it does. A zero period size
 * would never meet the other (the count stays 0), and a pitch about to wrap
 * around 32 bits has tried every value: both end with -EIO.
 */
static int pcm_rsmpl_adjust_pitch(void *obj, snd_pcm_rate_info_t *info)
{
	struct rsmpl_rate *rate = (struct rsmpl_rate *)obj;
	const snd_pcm_uframes_t in = info->in.period_size;
	const snd_pcm_uframes_t out = info->out.period_size;
	snd_pcm_uframes_t count;
	uint64_t start;

	/* No input period: every count is 0 and already meets it, pitch becomes 0. */
	if (in == 0) {
		rate->pitch = 0;
		rate->fit.in_period = 0;
		rate->fit.out_period = 0;
		rate->fit.mode = RSMPL_FIT_UNDECIDED;
		return 0;
	}
	/* An output period of 0 would leave the count at 0 for ever. */
	if (out == 0)
		goto invalid;
	/*
	 * A ratio of 8192 or more does not fit the 32-bit pitch, and an output
	 * period beyond 2^44 frames overflows the count: the search would start
	 * from a wrapped value and step for billions of units towards a wrong one.
	 */
	if (out > (UINT64_MAX - (in >> 1)) >> LINEAR_SHIFT)
		goto invalid;
	start = div_u64((uint64_t)(in >> 1) + ((uint64_t)out << LINEAR_SHIFT), in);
	if (start > UINT32_MAX)
		goto invalid;
	rate->pitch = (uint32_t)start;
	count = pcm_rsmpl_input_frames(rate, out);
	while (count != in) {
		const snd_pcm_uframes_t prev = count;
		if (prev > in) {
			if (rate->pitch == UINT32_MAX)
				goto invalid;
			rate->pitch++;
		} else {
			if (rate->pitch == 0)
				goto invalid;
			rate->pitch--;
		}
		count = pcm_rsmpl_input_frames(rate, out);
		if ((prev > in && count < in) || (prev < in && count > in))
			goto invalid;
	}
	if (rate->pitch >= LINEAR_DIV) {
		uint32_t shift = 0;
		while ((rate->pitch >> shift) >= 65536)
			shift++;
		rate->pitch_shift = shift;
	}
	/* Periods beyond 32 bits never meet a FIR stage's needs: the plain loop takes them. */
	rate->fit.in_period = in <= UINT32_MAX ? (uint32_t)in : 0;
	rate->fit.out_period = out <= UINT32_MAX ? (uint32_t)out : 0;
	rate->fit.mode = RSMPL_FIT_UNDECIDED;
	return 0;

invalid:
	snd_lib_error(rsmpl_file, __LINE__, __func__, 0, "invalid pcm period_size %ld -> %ld",
		      (long)in, (long)out);
	return -EIO;
}

/* ---- Lifecycle ------------------------------------------------------------- */

static void pcm_rsmpl_free(void *obj)
{
	struct rsmpl_rate *rate = (struct rsmpl_rate *)obj;

	for (int c = 0; c < RSMPL_MAX_CHANNELS; c++) {
		free(rate->rsmpl_ctx[c]);
		rate->rsmpl_ctx[c] = NULL;
	}
	free(rate->sample_buf);
	rate->sample_buf = NULL;
}

static int pcm_rsmpl_init(void *obj, snd_pcm_rate_info_t *info)
{
	struct rsmpl_rate *rate = (struct rsmpl_rate *)obj;
	const uint32_t in_rate = info->in.rate;
	const uint32_t out_rate = info->out.rate;

	if (info->channels > RSMPL_MAX_CHANNELS ||
	    info->in.format != SND_PCM_FORMAT_S16_LE ||
	    info->out.format != SND_PCM_FORMAT_S16_LE)
		return -EINVAL;

	rate->pitch = (uint32_t)div_u64((uint64_t)(in_rate >> 1) + ((uint64_t)out_rate << LINEAR_SHIFT), in_rate);
	rate->channels = info->channels;

	free(rate->sample_buf);
	rate->sample_buf = (int16_t *)malloc(RSMPL_SAMPLE_BUF_SAMPLES * sizeof(int16_t));
	if (rate->sample_buf == NULL)
		return -ENOMEM;

	for (int c = 0; c < RSMPL_MAX_CHANNELS; c++) {
		free(rate->rsmpl_ctx[c]);
		rate->rsmpl_ctx[c] = NULL;
	}
	for (uint32_t c = 0; c < rate->channels; c++) {
		rate->rsmpl_ctx[c] = (RSMPL_Ctx *)malloc(RSMPL_GetContextSize());
		if (rate->rsmpl_ctx[c] == NULL)
			return -ENOMEM;
		RSMPL_InitContext(rate->rsmpl_ctx[c]);
	}

	rate->up_index = -1;
	rate->down_index = -1;
	memset(&rate->fit, 0, sizeof(rate->fit));
	if (in_rate < out_rate) {
		const uint32_t q = div_u32(out_rate, in_rate);
		const int32_t index = q == 2 ? 1 : q == 3 ? 2 : q == 6 ? 4 : -1;
		if (q * in_rate == out_rate && index >= 0) {
			rate->factor = q;
			rate->up_index = index;
			rate->convert_fn = rsmplrate_Up;
			snprintf(rate->desc, sizeof(rate->desc), "FIR filter, UP %d -> %d", (int)in_rate, (int)out_rate);
		} else {
			rate->factor = 0;
			rate->convert_fn = src_linear_expand_s16;
			snprintf(rate->desc, sizeof(rate->desc), "Linear, UP %d -> %d", (int)in_rate, (int)out_rate);
		}
	} else {
		const uint32_t q = div_u32(in_rate, out_rate);
		const int32_t index = q == 2 ? 1 : q == 3 ? 2 : q == 6 ? 4 : -1;
		if (q * out_rate == in_rate && index >= 0) {
			rate->factor = q;
			rate->down_index = index;
			rate->convert_fn = rsmplrate_Down;
			snprintf(rate->desc, sizeof(rate->desc), "FIR filter, DOWN %d -> %d", (int)in_rate, (int)out_rate);
		} else {
			rate->factor = 0;
			rate->convert_fn = src_linear_shrink_s16;
			snprintf(rate->desc, sizeof(rate->desc), "Linear, DOWN %d -> %d", (int)in_rate, (int)out_rate);
		}
	}
	return 0;
}

static void pcm_rsmpl_reset(void *obj)
{
	struct rsmpl_rate *rate = (struct rsmpl_rate *)obj;

	for (uint32_t c = 0; c < rate->channels; c++)
		if (rate->rsmpl_ctx[c] != NULL)
			RSMPL_Reset(rate->rsmpl_ctx[c]);
	if (rate->sample_buf != NULL)
		memset(rate->sample_buf, 0, rate->channels * sizeof(int16_t));
	fit_restart(&rate->fit);
}

/* The host calls free first: the contexts and the sample buffer are gone by now. */
static void pcm_rsmpl_close(void *obj)
{
	free(obj);
}

static void pcm_rsmpl_convert_s16(void *obj, int16_t *dst, unsigned int dst_frames,
                                  const int16_t *src, unsigned int src_frames)
{
	struct rsmpl_rate *rate = (struct rsmpl_rate *)obj;

	/* Before a successful init there is nothing to convert with. */
	if (rate->convert_fn == NULL || rate->sample_buf == NULL)
		return;
	rate->convert_fn(obj, dst, dst_frames, src, src_frames);
}

/* Only the client rate is limited by this; the slave side keeps its own range. */
static int get_supported_rates(void *obj, unsigned int *rate_min, unsigned int *rate_max)
{
	(void)obj;
	*rate_min = RSMPL_RATE_MIN;
	*rate_max = RSMPL_RATE_MAX;
	return 0;
}

static void dump(void *obj, snd_output_t *out)
{
	const struct rsmpl_rate *rate = (const struct rsmpl_rate *)obj;

	snd_output_printf(out, "RSMPL Converter: %s\n", rate->desc);
}

static const snd_pcm_rate_ops_t pcm_rsmpl_ops = {
	.close = pcm_rsmpl_close,
	.init = pcm_rsmpl_init,
	.free = pcm_rsmpl_free,
	.reset = pcm_rsmpl_reset,
	.adjust_pitch = pcm_rsmpl_adjust_pitch,
	.convert = NULL,
	.convert_s16 = pcm_rsmpl_convert_s16,
	.input_frames = pcm_rsmpl_input_frames,
	.output_frames = pcm_rsmpl_output_frames,
	.version = RSMPL_OPS_VERSION,
	.get_supported_rates = get_supported_rates,
	.dump = dump,
	.get_supported_formats = NULL, /* beyond version 0x010002: the host never reads it */
};

/* The host's table may be of an older layout: never write past the part it knows. */
static_assert(sizeof(snd_pcm_rate_old_ops_t) == offsetof(snd_pcm_rate_ops_t, version),
	      "the 0x010001 table ends where version begins");
static_assert(sizeof(snd_pcm_rate_v2_ops_t) == offsetof(snd_pcm_rate_ops_t, get_supported_formats),
	      "the 0x010002 table ends before get_supported_formats");

extern "C" __attribute__((visibility("default")))
int _snd_pcm_rate_rsmplrate_open(unsigned int version, void **objp, snd_pcm_rate_ops_t *ops)
{
	struct rsmpl_rate *rate = (struct rsmpl_rate *)calloc(1, sizeof(*rate));

	if (rate == NULL)
		return -ENOMEM;
	rate->factor = 1;
	rate->up_index = -1;
	rate->down_index = -1;
	*objp = rate;
	if (version == RSMPL_OPS_VERSION_OLD)
		memcpy(ops, &pcm_rsmpl_ops, sizeof(snd_pcm_rate_old_ops_t));
	else
		memcpy(ops, &pcm_rsmpl_ops, sizeof(snd_pcm_rate_v2_ops_t));
	return 0;
}
