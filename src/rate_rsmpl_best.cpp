/*
 * Rate converter for alsa-lib's rate PCM plug-in: libasound_module_rate_rsmplrate_best.so
 * (a link to the same module as rsmplrate, opened through its own entry).
 *
 * Band-limited at every pair: exact ratios 2, 3, 4, 6 (either direction) and
 * 3:2 / 2:3 go through the RSMPL FIR stages, everything else through the sinc
 * interpolator, equal rates are copied. Every call consumes exactly src_frames
 * and writes exactly dst_frames; the converters produce into an interleaved
 * output FIFO and each call takes its dst_frames from the FIFO's head.
 *
 * The stream rule, which tests reproduce:
 *  - FIFO: after reset it holds `prefill` zero frames. A call pushes all of
 *    its input through the converter, appends every output, then takes
 *    dst_frames from the head; a shortfall is filled with zeros (only when
 *    the host's calls break the period ratio).
 *  - FIR: input that does not fill a valid stage block waits in a carry. The
 *    frames available (carry + call) are cut down to a multiple of the
 *    stage's quantum; below the stage's minimum nothing runs. What runs goes
 *    in blocks of at most `max_block` (a block that would leave less than the
 *    minimum behind is shortened by the minimum). prefill = the most output
 *    the carry ever holds back at the negotiated period.
 *  - Sinc: ratio = output period / input period (rates if periods unknown).
 *    Three single-precision ratios, nominal and ± 2^-19 of it, all with the
 *    same filter half-length. After reset each channel runs one block of
 *    minInput zeros at the nominal ratio (outputs discarded), so the ratio
 *    is in effect from the first frame. A call's input goes in blocks of at
 *    most 1440 frames. After every call e = outputs * in_period - inputs *
 *    out_period (since reset) picks the ratio set for the following blocks:
 *    fast when e < 0, slow when e >= in_period, nominal otherwise. prefill 2.
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

#define BEST_MAX_CHANNELS 8
#define BEST_OPS_VERSION 0x010002
#define BEST_OPS_VERSION_OLD 0x010001
#define BEST_RATE_MIN 8000
#define BEST_RATE_MAX 48000
#define BEST_SINC_BLOCK 1440
/* Most a sinc block can yield: floor(1440 * 8) + 2. */
#define BEST_SCRATCH (BEST_SINC_BLOCK * 8 + 2)
/* FIFO room: one block's worst output beyond what a call leaves behind. */
#define BEST_FIFO_FRAMES (BEST_SCRATCH + 256)
#define BEST_PREFILL_SINC 2

static const char best_file[] = "src/rate_rsmpl_best.cpp";

enum best_path { PATH_NONE, PATH_COPY, PATH_UP, PATH_DOWN, PATH_SINC };

struct best_rate {
	enum best_path path;
	uint32_t channels;
	uint32_t in_rate, out_rate;
	uint64_t in_period, out_period; /* the ratio every call follows */
	/* FIR: stage index, output:input = num:den, block rules */
	uint32_t index, num, den, quantum, min_block, max_block;
	uint32_t prefill;
	/* Sinc */
	float ratios[3]; /* slow, nominal, fast */
	int mode;        /* index into ratios */
	int64_t error;   /* outputs * in_period - inputs * out_period */
	RSMPL_Ctx *ctx[BEST_MAX_CHANNELS];
	int16_t *mono_in; /* one channel's input block, BEST_SINC_BLOCK samples */
	int16_t *scratch; /* one channel's block, BEST_SCRATCH samples */
	int16_t *carry;   /* FIR input waiting for a whole block, max_block frames */
	uint32_t carry_frames;
	int16_t *fifo;    /* interleaved, BEST_FIFO_FRAMES frames */
	uint32_t fifo_frames;
	char desc[64];
};

static inline uint64_t div_u64(uint64_t a, uint64_t b)
{
	return b ? a / b : 0;
}

/* ---- Output -----------------------------------------------------------------
 *
 * A call's output stream is the FIFO's content followed by what the call
 * converts: its first dst_frames frames go to dst and the rest to the FIFO.
 * Outputs are written straight into dst while dst has room, so in the steady
 * state each sample is moved once; only the overhang passes through the FIFO.
 */
struct sink {
	int16_t *dst;
	uint32_t frames; /* dst_frames */
	uint32_t pos;    /* frames of dst written */
	bool kept;       /* false once the FIFO had to drop frames */
};

static void sink_begin(struct best_rate *rate, struct sink *out, int16_t *dst, uint32_t dst_frames)
{
	const size_t ch = rate->channels;
	const uint32_t n = rate->fifo_frames < dst_frames ? rate->fifo_frames : dst_frames;

	out->dst = dst;
	out->frames = dst_frames;
	out->pos = n;
	out->kept = true;
	memcpy(dst, rate->fifo, n * ch * sizeof(int16_t));
	rate->fifo_frames -= n;
	if (rate->fifo_frames > 0)
		memmove(rate->fifo, rate->fifo + n * ch, rate->fifo_frames * ch * sizeof(int16_t));
}

/*
 * How many of the next `frames` outputs go to dst; the FIFO gets room for
 * the rest. Only a host that sends far more input than its output period
 * can take makes the FIFO drop its oldest frames.
 */
static uint32_t sink_reserve(struct best_rate *rate, struct sink *out, uint32_t frames)
{
	const uint32_t to_dst = rate->fifo_frames > 0 ? 0
				: frames < out->frames - out->pos ? frames : out->frames - out->pos;
	const uint32_t rest = frames - to_dst;

	if (rate->fifo_frames + rest > BEST_FIFO_FRAMES) {
		const size_t ch = rate->channels;
		uint32_t drop = rate->fifo_frames + rest - BEST_FIFO_FRAMES;
		if (drop > rate->fifo_frames)
			drop = rate->fifo_frames;
		rate->fifo_frames -= drop;
		memmove(rate->fifo, rate->fifo + drop * ch, rate->fifo_frames * ch * sizeof(int16_t));
		out->kept = false;
	}
	return to_dst;
}

static void sink_advance(struct best_rate *rate, struct sink *out, uint32_t frames, uint32_t to_dst)
{
	out->pos += to_dst;
	rate->fifo_frames += frames - to_dst;
}

static void sink_end(const struct best_rate *rate, struct sink *out)
{
	/* Only when the host breaks its own period ratio: silence, never stale data. */
	memset(out->dst + (size_t)out->pos * rate->channels, 0,
	       (size_t)(out->frames - out->pos) * rate->channels * sizeof(int16_t));
	if (!out->kept)
		snd_lib_error(best_file, __LINE__, __func__, 0, "dst_frames overflow");
}

/* Channel moves between interleaved frames and one channel's block: the engine's. */
static void gather(int16_t *mono, const int16_t *src, uint32_t frames, uint32_t channels, uint32_t c)
{
	rsmpl::kernels().gather_channel(mono, src, frames, channels, c);
}

static void scatter_to(int16_t *dst, const int16_t *mono, uint32_t frames, uint32_t channels, uint32_t c)
{
	rsmpl::kernels().scatter_channel(dst, mono, frames, channels, c);
}

/* One channel's `frames` outputs: the first to_dst to dst, the rest to the FIFO. */
static void sink_put(struct best_rate *rate, const struct sink *out, const int16_t *mono, uint32_t frames,
		     uint32_t to_dst, uint32_t c)
{
	const size_t ch = rate->channels;
	scatter_to(out->dst + out->pos * ch, mono, to_dst, rate->channels, c);
	scatter_to(rate->fifo + rate->fifo_frames * ch, mono + to_dst, frames - to_dst, rate->channels, c);
}

/* ---- Paths ------------------------------------------------------------------ */

static uint32_t fir_output(const struct best_rate *rate, uint32_t frames)
{
	return (uint32_t)div_u64((uint64_t)frames * rate->num, rate->den);
}

/* alsa-lib never converts in place; a caller that does gets the channel-by-channel loop. */
static bool disjoint(const int16_t *a, size_t a_samples, const int16_t *b, size_t b_samples)
{
	const uintptr_t pa = (uintptr_t)a, pb = (uintptr_t)b;
	return pa + a_samples * sizeof(int16_t) <= pb || pb + b_samples * sizeof(int16_t) <= pa;
}

/* One FIR block of `frames` interleaved frames. */
static void fir_block(struct best_rate *rate, const int16_t *src, uint32_t frames, struct sink *out)
{
	const uint32_t n = fir_output(rate, frames);
	const uint32_t to_dst = sink_reserve(rate, out, n);
	const size_t ch = rate->channels;
	/* All channels in one pass, straight into dst or the FIFO, when the block's output goes to one of them. */
	int16_t *whole = to_dst == n ? out->dst + (size_t)out->pos * ch
		       : to_dst == 0 ? rate->fifo + (size_t)rate->fifo_frames * ch : NULL;
	if (whole != NULL && n > 0 && disjoint(src, (size_t)frames * ch, whole, (size_t)n * ch)) {
		rsmpl::fir::stage_channels(rate->path == PATH_UP ? rsmpl::fir::Direction::up : rsmpl::fir::Direction::down,
					   rate->index, rate->ctx, rate->channels, src, whole, (int32_t)frames);
		sink_advance(rate, out, n, to_dst);
		return;
	}
	for (uint32_t c = 0; c < rate->channels; c++) {
		int16_t *buf = rate->scratch;
		gather(buf, src, frames, rate->channels, c);
		const uint32_t status = rate->path == PATH_UP
			? RSMPL_Up(rate->ctx[c], buf, buf, (int32_t)frames, rate->index)
			: RSMPL_Down(rate->ctx[c], buf, buf, (int32_t)frames, rate->index);
		if (status != RSMPL_OK) /* unreachable: the block rules were met */
			memset(buf, 0, n * sizeof(*buf));
		sink_put(rate, out, buf, n, to_dst, c);
	}
	sink_advance(rate, out, n, to_dst);
}

/* Size of the next block out of `avail` runnable frames (a multiple of the quantum, >= min_block). */
static uint32_t fir_next_block(const struct best_rate *rate, uint32_t avail)
{
	if (avail <= rate->max_block)
		return avail;
	if (avail - rate->max_block >= rate->min_block)
		return rate->max_block;
	return rate->max_block - rate->min_block;
}

/* Frames of `avail` that run now; the rest waits. */
static uint32_t fir_runnable(const struct best_rate *rate, uint32_t avail)
{
	const uint32_t k = avail - avail % rate->quantum;
	return k >= rate->min_block ? k : 0;
}

static void fir_convert(struct best_rate *rate, const int16_t *src, uint32_t src_frames, struct sink *out)
{
	const size_t ch = rate->channels;

	while (src_frames > 0) {
		/* Bounded pieces, so the carry's arithmetic stays in 32 bits. */
		const uint32_t piece = src_frames < (1u << 20) ? src_frames : (1u << 20);
		uint32_t run = fir_runnable(rate, rate->carry_frames + piece);
		const int16_t *in = src;
		uint32_t left = piece;
		if (run > 0 && rate->carry_frames > 0) {
			/* Complete the first block in the carry buffer. */
			const uint32_t first = fir_next_block(rate, run);
			const uint32_t add = first - rate->carry_frames;
			memcpy(rate->carry + rate->carry_frames * ch, in, add * ch * sizeof(int16_t));
			fir_block(rate, rate->carry, first, out);
			rate->carry_frames = 0;
			in += add * ch;
			left -= add;
			run -= first;
		}
		while (run > 0) {
			const uint32_t block = fir_next_block(rate, run);
			fir_block(rate, in, block, out);
			in += block * ch;
			left -= block;
			run -= block;
		}
		memcpy(rate->carry + rate->carry_frames * ch, in, left * ch * sizeof(int16_t));
		rate->carry_frames += left;
		src += (size_t)piece * ch;
		src_frames -= piece;
	}
}

static void sinc_convert(struct best_rate *rate, const int16_t *src, uint32_t src_frames, struct sink *sink)
{
	const size_t ch = rate->channels;
	uint64_t produced = 0;

	for (uint32_t done = 0; done < src_frames;) {
		const uint32_t block = src_frames - done < BEST_SINC_BLOCK ? src_frames - done : BEST_SINC_BLOCK;
		uint32_t out = 0, to_dst = 0;
		for (uint32_t c = 0; c < rate->channels; c++) {
			gather(rate->mono_in, src + done * ch, block, rate->channels, c);
			/* Every channel runs the same blocks at the same ratios: the counts agree. */
			if (RSMPL_Resample(rate->ctx[c], rate->mono_in, rate->scratch, (int32_t)block, &out) != RSMPL_OK)
				out = 0;
			if (c == 0)
				to_dst = sink_reserve(rate, sink, out);
			sink_put(rate, sink, rate->scratch, out, to_dst, c);
		}
		sink_advance(rate, sink, out, to_dst);
		produced += out;
		done += block;
	}

	/* The trim: follow the period ratio exactly over any length of stream. */
	rate->error += (int64_t)(produced * rate->in_period) - (int64_t)((uint64_t)src_frames * rate->out_period);
	/* Only a host that ignores its periods gets near this; keep the sum bounded. */
	if (rate->error > ((int64_t)1 << 40) || rate->error < -((int64_t)1 << 40))
		rate->error = rate->error < 0 ? -((int64_t)1 << 40) : ((int64_t)1 << 40);
	const int mode = rate->error < 0 ? 2 : rate->error >= (int64_t)rate->in_period ? 0 : 1;
	if (mode != rate->mode) {
		rate->mode = mode;
		for (uint32_t c = 0; c < rate->channels; c++)
			RSMPL_SetResampleRatio(rate->ctx[c], NULL, NULL, NULL, rate->ratios[mode]);
	}
}

static void pcm_best_convert_s16(void *obj, int16_t *dst, unsigned int dst_frames, const int16_t *src,
				 unsigned int src_frames)
{
	struct best_rate *rate = (struct best_rate *)obj;
	const size_t ch = rate->channels;
	struct sink out;

	if (rate->path == PATH_NONE)
		return;
	sink_begin(rate, &out, dst, dst_frames);
	switch (rate->path) {
	case PATH_COPY:
		for (uint32_t done = 0; done < src_frames;) {
			const uint32_t n = src_frames - done < BEST_SINC_BLOCK ? src_frames - done : BEST_SINC_BLOCK;
			const uint32_t to_dst = sink_reserve(rate, &out, n);
			const int16_t *in = src + (size_t)done * ch;
			memcpy(out.dst + out.pos * ch, in, to_dst * ch * sizeof(int16_t));
			memcpy(rate->fifo + rate->fifo_frames * ch, in + to_dst * ch, (n - to_dst) * ch * sizeof(int16_t));
			sink_advance(rate, &out, n, to_dst);
			done += n;
		}
		break;
	case PATH_UP:
	case PATH_DOWN:
		fir_convert(rate, src, src_frames, &out);
		break;
	default:
		sinc_convert(rate, src, src_frames, &out);
		break;
	}
	sink_end(rate, &out);
}

/* ---- Set-up ----------------------------------------------------------------- */

struct fir_stage {
	uint32_t num, den, index, quantum, min_block, max_block;
};

/* Output:input, stage, and the RSMPL block rules of that stage. */
static const struct fir_stage up_stages[] = {
	{2, 1, RSMPL_STAGE_2, 1, 4, 720},  {3, 1, RSMPL_STAGE_3, 1, 6, 480}, {4, 1, RSMPL_STAGE_4, 1, 4, 360},
	{6, 1, RSMPL_STAGE_6, 1, 6, 240},  {3, 2, RSMPL_STAGE_3_2, 2, 6, 960},
};
static const struct fir_stage down_stages[] = {
	{1, 2, RSMPL_STAGE_2, 4, 8, 1440}, {1, 3, RSMPL_STAGE_3, 6, 18, 1440}, {1, 4, RSMPL_STAGE_4, 4, 16, 1440},
	{1, 6, RSMPL_STAGE_6, 6, 36, 1440}, {2, 3, RSMPL_STAGE_3_2, 6, 18, 1440},
};

/* Largest output the carry holds back at this period, found by running the carry rule. */
static uint32_t fir_prefill(const struct best_rate *rate)
{
	uint64_t carry = 0, most = 0;
	if (rate->in_period == 0)
		return fir_output(rate, rate->min_block);
	for (int i = 0; i < 128; i++) { /* the carry cycles within min_block calls */
		const uint64_t avail = carry + rate->in_period;
		uint64_t run = avail - avail % rate->quantum;
		if (run < rate->min_block)
			run = 0;
		carry = avail - run;
		if (carry > most)
			most = carry;
	}
	return (uint32_t)div_u64(most * rate->num + rate->den - 1, rate->den);
}

static uint32_t half_length(RSMPL_Ctx *ctx, float ratio)
{
	uint32_t h = 0;
	RSMPL_Reset(ctx);
	RSMPL_SetResampleRatio(ctx, NULL, NULL, NULL, ratio);
	RSMPL_GetResampleDelay(ctx, &h);
	return h;
}

/*
 * The three ratios of the trim, all with one half-length: a change of
 * half-length between blocks would re-cut the filter's history. At most one
 * half-length boundary lies this close, so one of three windows clears it.
 */
static void sinc_ratios(struct best_rate *rate)
{
	const double r = (double)rate->out_period / (double)rate->in_period;
	const double step = 1.0 / 524288.0; /* 2^-19 */
	float c[5];
	uint32_t h[5];
	for (int k = 0; k < 5; k++) {
		c[k] = (float)(r * (1.0 + (k - 2) * step));
		h[k] = half_length(rate->ctx[0], c[k]);
	}
	int first = 1;
	if (h[1] != h[2] || h[3] != h[2])
		first = h[0] == h[1] && h[1] == h[2] ? 0 : 2;
	for (int k = 0; k < 3; k++)
		rate->ratios[k] = c[first + k];
	RSMPL_Reset(rate->ctx[0]);
}

static bool sinc_ratio_ok(uint64_t in, uint64_t out)
{
	/* 1/8 <= out/in <= 8, the interpolator's range. */
	return in > 0 && out > 0 && out * 8 >= in && out <= in * 8;
}

static void best_reset_state(struct best_rate *rate)
{
	rate->carry_frames = 0;
	rate->error = 0;
	rate->mode = 1;
	rate->fifo_frames = rate->prefill;
	memset(rate->fifo, 0, (size_t)rate->prefill * rate->channels * sizeof(int16_t));
	for (uint32_t c = 0; c < rate->channels; c++) {
		RSMPL_Reset(rate->ctx[c]);
		if (rate->path != PATH_SINC)
			continue;
		uint32_t min_input = 1, out = 0;
		RSMPL_SetResampleRatio(rate->ctx[c], &min_input, NULL, NULL, rate->ratios[1]);
		/* Silence before the stream: sets the ratio in use without touching the audio. */
		memset(rate->mono_in, 0, min_input * sizeof(int16_t));
		RSMPL_Resample(rate->ctx[c], rate->mono_in, rate->scratch, (int32_t)min_input, &out);
	}
}

/* Chooses the path for these rates and periods; false if no path fits. */
static bool best_plan(struct best_rate *rate)
{
	const uint32_t in = rate->in_rate, out = rate->out_rate;
	uint64_t pin = rate->in_period, pout = rate->out_period;
	const bool known = pin > 0 && pout > 0;
	const bool exact = !known || pout * in == pin * out;
	const char *dir = in < out ? "UP" : "DOWN";

	if (in == 0 || out == 0 || pin > UINT32_MAX || pout > UINT32_MAX)
		return false;
	if (!known) {
		pin = in;
		pout = out;
	}
	rate->num = rate->den = 1;
	if (in == out && exact) {
		rate->path = PATH_COPY;
		rate->prefill = 0;
		snprintf(rate->desc, sizeof(rate->desc), "Copy, %u -> %u", in, out);
		return true;
	}
	if (exact) {
		const bool up = in < out;
		const struct fir_stage *stages = up ? up_stages : down_stages;
		for (int i = 0; i < 5; i++) {
			const struct fir_stage *s = &stages[i];
			if ((uint64_t)in * s->num != (uint64_t)out * s->den)
				continue;
			rate->path = up ? PATH_UP : PATH_DOWN;
			rate->index = s->index;
			rate->num = s->num;
			rate->den = s->den;
			rate->quantum = s->quantum;
			rate->min_block = s->min_block;
			rate->max_block = s->max_block;
			rate->prefill = fir_prefill(rate);
			snprintf(rate->desc, sizeof(rate->desc), "FIR filter, %s %u -> %u", dir, in, out);
			return true;
		}
	}
	if (!sinc_ratio_ok(pin, pout))
		return false;
	rate->path = PATH_SINC;
	rate->in_period = pin;
	rate->out_period = pout;
	rate->prefill = BEST_PREFILL_SINC;
	sinc_ratios(rate);
	snprintf(rate->desc, sizeof(rate->desc), "Sinc, %s %u -> %u", dir, in, out);
	return true;
}

static void best_release(struct best_rate *r)
{
	for (int c = 0; c < BEST_MAX_CHANNELS; c++)
		free(r->ctx[c]);
	free(r->mono_in);
	free(r->scratch);
	free(r->carry);
	free(r->fifo);
}

static void pcm_best_free(void *obj)
{
	struct best_rate *rate = (struct best_rate *)obj;

	best_release(rate);
	memset(rate->ctx, 0, sizeof(rate->ctx));
	rate->mono_in = rate->scratch = rate->carry = rate->fifo = NULL;
	rate->path = PATH_NONE;
}

static int pcm_best_init(void *obj, snd_pcm_rate_info_t *info)
{
	struct best_rate *rate = (struct best_rate *)obj;
	const uint32_t channels = info->channels;

	if (channels == 0 || channels > BEST_MAX_CHANNELS || info->in.format != SND_PCM_FORMAT_S16_LE ||
	    info->out.format != SND_PCM_FORMAT_S16_LE)
		return -EINVAL;

	/* Plan on a copy, so that a refused set-up leaves the working one alone. */
	struct best_rate next = {};
	next.channels = channels;
	next.in_rate = info->in.rate;
	next.out_rate = info->out.rate;
	next.in_period = info->in.period_size;
	next.out_period = info->out.period_size;
	next.mono_in = (int16_t *)malloc(BEST_SINC_BLOCK * sizeof(int16_t));
	next.scratch = (int16_t *)malloc(BEST_SCRATCH * sizeof(int16_t));
	next.carry = (int16_t *)malloc((size_t)1440 * channels * sizeof(int16_t));
	next.fifo = (int16_t *)malloc((size_t)BEST_FIFO_FRAMES * channels * sizeof(int16_t));
	bool ok = next.mono_in != NULL && next.scratch != NULL && next.carry != NULL && next.fifo != NULL;
	for (uint32_t c = 0; ok && c < channels; c++) {
		next.ctx[c] = (RSMPL_Ctx *)malloc(RSMPL_GetContextSize());
		ok = next.ctx[c] != NULL;
		if (ok)
			RSMPL_InitContext(next.ctx[c]);
	}
	if (!ok) {
		best_release(&next);
		return -ENOMEM;
	}
	if (!best_plan(&next)) {
		best_release(&next);
		return -EINVAL;
	}
	pcm_best_free(rate);
	*rate = next;
	best_reset_state(rate);
	return 0;
}

/* init planned with the periods it was given; new ones are planned afresh, or refused. */
static int pcm_best_adjust_pitch(void *obj, snd_pcm_rate_info_t *info)
{
	struct best_rate *rate = (struct best_rate *)obj;
	const snd_pcm_uframes_t in = info->in.period_size;
	const snd_pcm_uframes_t out = info->out.period_size;

	if (rate->path != PATH_NONE && in > 0 && out > 0) {
		if (in == rate->in_period && out == rate->out_period)
			return 0;
		struct best_rate next = *rate;
		next.in_period = in;
		next.out_period = out;
		if (best_plan(&next)) {
			*rate = next;
			best_reset_state(rate);
			return 0;
		}
	}
	snd_lib_error(best_file, __LINE__, __func__, 0, "invalid pcm period_size %ld -> %ld", (long)in, (long)out);
	return -EIO;
}

static void pcm_best_reset(void *obj)
{
	struct best_rate *rate = (struct best_rate *)obj;

	if (rate->path != PATH_NONE)
		best_reset_state(rate);
}

static void pcm_best_close(void *obj)
{
	free(obj);
}

static snd_pcm_uframes_t scale_frames(snd_pcm_uframes_t frames, uint64_t num, uint64_t den)
{
	if (frames == 0 || den == 0)
		return 0;
	if (frames > UINT64_MAX / (num + 1))
		return 0;
	return (frames * num + den / 2) / den;
}

/* The ratio calls follow: periods when known, else the rates. */
static void frame_ratio(const struct best_rate *rate, uint64_t *in, uint64_t *out)
{
	*in = rate->in_period ? rate->in_period : rate->in_rate;
	*out = rate->out_period ? rate->out_period : rate->out_rate;
}

static snd_pcm_uframes_t pcm_best_input_frames(void *obj, snd_pcm_uframes_t frames)
{
	uint64_t in, out;
	frame_ratio((const struct best_rate *)obj, &in, &out);
	return scale_frames(frames, in, out);
}

static snd_pcm_uframes_t pcm_best_output_frames(void *obj, snd_pcm_uframes_t frames)
{
	uint64_t in, out;
	frame_ratio((const struct best_rate *)obj, &in, &out);
	return scale_frames(frames, out, in);
}

static int pcm_best_get_supported_rates(void *obj, unsigned int *rate_min, unsigned int *rate_max)
{
	(void)obj;
	*rate_min = BEST_RATE_MIN;
	*rate_max = BEST_RATE_MAX;
	return 0;
}

static void pcm_best_dump(void *obj, snd_output_t *out)
{
	const struct best_rate *rate = (const struct best_rate *)obj;

	snd_output_printf(out, "RSMPL Converter: %s\n", rate->path == PATH_NONE ? "not set up" : rate->desc);
}

static const snd_pcm_rate_ops_t pcm_best_ops = {
	.close = pcm_best_close,
	.init = pcm_best_init,
	.free = pcm_best_free,
	.reset = pcm_best_reset,
	.adjust_pitch = pcm_best_adjust_pitch,
	.convert = NULL,
	.convert_s16 = pcm_best_convert_s16,
	.input_frames = pcm_best_input_frames,
	.output_frames = pcm_best_output_frames,
	.version = BEST_OPS_VERSION,
	.get_supported_rates = pcm_best_get_supported_rates,
	.dump = pcm_best_dump,
	.get_supported_formats = NULL,
};

extern "C" __attribute__((visibility("default")))
int _snd_pcm_rate_rsmplrate_best_open(unsigned int version, void **objp, snd_pcm_rate_ops_t *ops)
{
	struct best_rate *rate = (struct best_rate *)calloc(1, sizeof(*rate));

	if (rate == NULL)
		return -ENOMEM;
	*objp = rate;
	if (version == BEST_OPS_VERSION_OLD)
		memcpy(ops, &pcm_best_ops, sizeof(snd_pcm_rate_old_ops_t));
	else
		memcpy(ops, &pcm_best_ops, sizeof(snd_pcm_rate_v2_ops_t));
	return 0;
}
