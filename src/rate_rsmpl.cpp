/*
 * Rate converter for alsa-lib's rate PCM plug-in: libasound_module_rate_rsmplrate.so
 *
 * Exact ratios of 2, 3 and 6 (either direction) go through the RSMPL polyphase
 * FIR stages, one context per channel; everything else, equal rates included,
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

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "rsmpl/engine.hpp"
#include "rsmpl/rsmpl.h"

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

/*
 * Moving one channel between the period and sample_buf: with the stride a
 * compile-time constant the compiler can unroll and vectorise the loop,
 * which a run-time stride leaves at one scalar load and store per sample.
 * sample_buf never aliases the period, hence __restrict.
 */
template <uint32_t C>
static inline void gather_fixed(int16_t *__restrict buf, const int16_t *__restrict src, uint32_t frames,
				uint32_t c)
{
	src += c;
	for (uint32_t k = 0; k < frames; k++)
		buf[k] = src[(size_t)k * C];
}

template <uint32_t C>
static inline void scatter_fixed(int16_t *__restrict dst, const int16_t *__restrict buf, uint32_t frames,
				 uint32_t c)
{
	dst += c;
	for (uint32_t k = 0; k < frames; k++)
		dst[(size_t)k * C] = buf[k];
}

#if defined(__SSE2__)
/*
 * Stereo, the common case, by hand: at -O2 the compiler leaves even the
 * constant-stride loop scalar. SSE2 is part of x86-64, so no dispatch.
 */
static void gather_stereo(int16_t *__restrict buf, const int16_t *__restrict src, uint32_t frames, uint32_t c)
{
	uint32_t k = 0;
	for (; k + 8 <= frames; k += 8) {
		__m128i a = _mm_loadu_si128((const __m128i *)(src + 2 * (size_t)k));
		__m128i b = _mm_loadu_si128((const __m128i *)(src + 2 * (size_t)k + 8));
		/* Sign-extend the wanted half of each frame so the pack cannot saturate. */
		if (c == 0) {
			a = _mm_slli_epi32(a, 16);
			b = _mm_slli_epi32(b, 16);
		}
		a = _mm_srai_epi32(a, 16);
		b = _mm_srai_epi32(b, 16);
		_mm_storeu_si128((__m128i *)(buf + k), _mm_packs_epi32(a, b));
	}
	for (; k < frames; k++)
		buf[k] = src[2 * (size_t)k + c];
}

static void scatter_stereo(int16_t *__restrict dst, const int16_t *__restrict buf, uint32_t frames, uint32_t c)
{
	const __m128i keep = c == 0 ? _mm_set1_epi32((int32_t)0xffff0000) : _mm_set1_epi32(0x0000ffff);
	uint32_t k = 0;
	for (; k + 8 <= frames; k += 8) {
		const __m128i v = _mm_loadu_si128((const __m128i *)(buf + k));
		__m128i *d0 = (__m128i *)(dst + 2 * (size_t)k);
		__m128i *d1 = (__m128i *)(dst + 2 * (size_t)k + 8);
		/* Each sample doubled into both halves of its frame; the mask keeps the other channel. */
		const __m128i lo = _mm_unpacklo_epi16(v, v);
		const __m128i hi = _mm_unpackhi_epi16(v, v);
		_mm_storeu_si128(d0, _mm_or_si128(_mm_and_si128(keep, _mm_loadu_si128(d0)), _mm_andnot_si128(keep, lo)));
		_mm_storeu_si128(d1, _mm_or_si128(_mm_and_si128(keep, _mm_loadu_si128(d1)), _mm_andnot_si128(keep, hi)));
	}
	for (; k < frames; k++)
		dst[2 * (size_t)k + c] = buf[k];
}
#endif

static void gather_channel(int16_t *__restrict buf, const int16_t *__restrict src, uint32_t frames,
			   uint32_t channels, uint32_t c)
{
	switch (channels) {
	case 1: memcpy(buf, src, (size_t)frames * sizeof(*buf)); return;
#if defined(__SSE2__)
	case 2: gather_stereo(buf, src, frames, c); return;
#else
	case 2: gather_fixed<2>(buf, src, frames, c); return;
#endif
	case 3: gather_fixed<3>(buf, src, frames, c); return;
	case 4: gather_fixed<4>(buf, src, frames, c); return;
	default: break;
	}
	for (uint32_t k = 0; k < frames; k++)
		buf[k] = src[(size_t)k * channels + c];
}

static void scatter_channel(int16_t *__restrict dst, const int16_t *__restrict buf, uint32_t frames,
			    uint32_t channels, uint32_t c)
{
	switch (channels) {
	case 1: memcpy(dst, buf, (size_t)frames * sizeof(*dst)); return;
#if defined(__SSE2__)
	case 2: scatter_stereo(dst, buf, frames, c); return;
#else
	case 2: scatter_fixed<2>(dst, buf, frames, c); return;
#endif
	case 3: scatter_fixed<3>(dst, buf, frames, c); return;
	case 4: scatter_fixed<4>(dst, buf, frames, c); return;
	default: break;
	}
	for (uint32_t k = 0; k < frames; k++)
		dst[(size_t)k * channels + c] = buf[k];
}

/*
 * Shared chunk loop of both FIR directions. Each chunk of one channel is
 * gathered into sample_buf, converted there in place, and scattered back.
 * A chunk the stage refuses (only when the host's period breaks the stage's
 * block-length rules) comes out as silence on that channel, and the channel's
 * history stays as it was. Output never goes past dst_frames: what does not
 * fit is converted (so the history stays continuous) but dropped. Returns
 * whether anything was dropped, for the caller to report under its own name.
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
		for (uint32_t c = 0; c < channels; c++) {
			int16_t *buf = rate->sample_buf;
			gather_channel(buf, src, chunk, channels, c);
			const uint32_t status = up ? RSMPL_Up(rate->rsmpl_ctx[c], buf, buf, (int32_t)chunk, index)
						   : RSMPL_Down(rate->rsmpl_ctx[c], buf, buf, (int32_t)chunk, index);
			if (status != RSMPL_OK)
				memset(buf, 0, out * sizeof(*buf));
			scatter_channel(dst, buf, keep, channels, c);
		}
		src += (size_t)chunk * channels;
		dst += (size_t)keep * channels;
		room -= keep;
		remaining -= chunk;
	}
	return overflow;
}

static void rsmplrate_Up(void *obj, int16_t *dst, unsigned int dst_frames,
                         const int16_t *src, unsigned int src_frames)
{
	if (rsmplrate_convert((struct rsmpl_rate *)obj, true, dst, dst_frames, src, src_frames))
		snd_lib_error(rsmpl_file, __LINE__, __func__, 0, "dst_frames overflow");
}

static void rsmplrate_Down(void *obj, int16_t *dst, unsigned int dst_frames,
                           const int16_t *src, unsigned int src_frames)
{
	if (rsmplrate_convert((struct rsmpl_rate *)obj, false, dst, dst_frames, src, src_frames))
		snd_lib_error(rsmpl_file, __LINE__, __func__, 0, "dst_frames overflow");
}

/* ---- Linear path ----------------------------------------------------------- */

/*
 * Output above input rate. Writes exactly dst_frames frames and reads at most
 * src_frames; a shortage of input holds the last sample. Each call restarts
 * the fractional position: its first frame is the previous call's last input.
 * The inner loops are the kernel engine's (rsmpl/linear_kernels.hpp); the
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

	if (in == 0 || out == 0)
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
