/*
 * Fixed-point DSP utility library: memory helpers, fixed-point primitives,
 * decibel conversion, smoothers, block FIR, byte reordering, spline fit.
 *
 * Usable from C and C++. Every UTIL_X forwards to the body UTILX; only the
 * forwarders that return a status check their arguments. Bodies check nothing.
 * Nothing here prints; fixed-point functions saturate instead of failing.
 */
#ifndef RSMPL_UTIL_H
#define RSMPL_UTIL_H

#include <stdint.h>

#ifndef RSMPL_API
#define RSMPL_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Memory and buffer helpers -------------------------------------------
 * Byte counts are unsigned 32-bit; each helper returns its destination.
 * "Internal" and "external" memory are the same process memory here.
 */
RSMPL_API void *UTIL_Memcpy(void *dst, const void *src, uint32_t bytes);
RSMPL_API void *UTIL_Memmove(void *dst, const void *src, uint32_t bytes);
RSMPL_API void *UTIL_Memset(void *dst, int32_t value, uint32_t bytes);
RSMPL_API void *UTIL_MemcpyIntFromExt(void *dst, const void *src, uint32_t bytes);
RSMPL_API void *UTIL_MemcpyExtFromInt(void *dst, const void *src, uint32_t bytes);
RSMPL_API void *UTIL_MemmoveExternal(void *dst, const void *src, uint32_t bytes);

RSMPL_API void *UTILMemcpy(void *dst, const void *src, uint32_t bytes);
RSMPL_API void *UTILMemmove(void *dst, const void *src, uint32_t bytes);
RSMPL_API void *UTILMemset(void *dst, int32_t value, uint32_t bytes);
RSMPL_API void *UTILMemcpyIntFromExt(void *dst, const void *src, uint32_t bytes);
RSMPL_API void *UTILMemcpyExtFromInt(void *dst, const void *src, uint32_t bytes);
RSMPL_API void *UTILMemmoveExternal(void *dst, const void *src, uint32_t bytes);

/*
 * Aligned allocation. Returns a pointer aligned to `alignment` with at least
 * `size` usable bytes, and stores the block to pass to free() in *rawOut.
 *
 * The forwarder returns NULL, allocates nothing and leaves *rawOut untouched
 * when size is 0, rawOut is NULL, or alignment is 0, odd or not a power of two.
 * When size + alignment does not fit in 32 bits, or malloc fails, both the
 * result and *rawOut are NULL: a block smaller than asked for is never given.
 */
RSMPL_API void *UTIL_MemAllocNByteAligned(uint32_t size, uint32_t alignment, void **rawOut);
RSMPL_API void *UTILMemAllocNByteAligned(uint32_t size, uint32_t alignment, void **rawOut);

/* ---- Fixed-point arithmetic ----------------------------------------------
 * EXP32: 64-bit word, bits 32..63 signed 32-bit mantissa m, bits 0..15 signed
 *        16-bit exponent e, bits 16..31 zero; value m * 2^e. Zero is m = 0,
 *        e = -32768. Readers ignore bits 16..31.
 * EXP16: 32-bit word, bits 16..31 mantissa rounded to 16 bits, bits 0..15 e.
 * Nothing here fails: results saturate. Null output pointers are skipped,
 * a null input pointer reads as 0.
 */
typedef uint64_t UTIL_EXP32;
typedef uint32_t UTIL_EXP16;

/* x * 2^n + 0.5 in double, clamped to 0..UINT32_MAX, truncated. NaN gives 0. */
RSMPL_API uint32_t ToUFix(int32_t n, float x);
/* x * 2^n in double, rounded half away from zero, clamped to int32. NaN gives 0. */
RSMPL_API int32_t ToSFix(int32_t n, float x);
/*
 * x clamped to -2^(bits-1) .. 2^(bits-1)-1. Meant for bits 1..32; the same
 * rule holds up to 64 (so 40 is the 40-bit range), bits of 64 or more
 * return x, bits below 1 act as 1 (range -1..0).
 */
RSMPL_API int64_t _SAT(int64_t x, int16_t bits);
/*
 * Smallest n >= 0 with |*x| * 2^n >= 2^30 (x > 0) or >= 2^31 (x < 0); 0 for
 * 0. For negative x this can exceed the redundant sign bits: -3 gives 30.
 */
RSMPL_API int16_t _EXPONENT32(const int32_t *x);
/*
 * x = mantissa * 2^exponent exactly, with 2^30 <= |mantissa| < 2^31;
 * exponent -30..1 (1 only for INT32_MIN). 0 -> (0, -32768).
 */
RSMPL_API void _NORMALIZE_S32(int32_t x, int32_t *mantissa, int16_t *exponent);
/*
 * 64-bit split. |x| < 2^31: exact left shift as _NORMALIZE_S32 (0 -> (0,
 * -32768)). Otherwise an arithmetic right shift by min(bit length - 31, 8),
 * which floors: for |x| < 2^39 the mantissa fits 32 bits with one redundant
 * sign bit, larger x keep a wider mantissa.
 */
RSMPL_API void _MANTNEXP(int64_t x, int64_t *mantissa, int16_t *exponent);
/* x saturated to -2^39 .. 2^39-1, split as _MANTNEXP, packed as EXP32. */
RSMPL_API UTIL_EXP32 _MANTEXPO32(int64_t x);
/* floor(m * 2^e) with e clamped to -31..31, saturated to int32. */
RSMPL_API int32_t _EXP32TOINT32(UTIL_EXP32 x);
/*
 * Mantissa rounded half up to its upper 16 bits, exponent bits kept.
 * Mantissas from 0x7FFF8000 up saturate to 0x7FFF instead of wrapping.
 */
RSMPL_API UTIL_EXP16 _EXP32TOEXP16(UTIL_EXP32 x);
/*
 * log10(x / 32768) in Q15, within 3 LSB; inputs <= 1 count as 1 (-147963,
 * -4.5155). Not strictly monotone at the LSB level.
 */
RSMPL_API int32_t _LOG10(int16_t x);

/*
 * 10^(dB/20) for dB in Q15, as EXP32 with a Q30 mantissa, within 0.1 %:
 * whole-decibel table value times a linear correction. Levels that round
 * above +90 dB give 2^15 (+90.3 dB), below -90 dB 2^-15; this holds for every
 * int32 input.
 */
RSMPL_API UTIL_EXP32 UTIL_dBToScaleExp32(int32_t dB);
RSMPL_API UTIL_EXP32 UTILdBToScaleExp32(int32_t dB);
/* The same in Q22 (0 dB = 0x400000), saturated at 0x7FFFFFFF from +54.18 dB. */
RSMPL_API int32_t UTIL_dBToScale(int32_t dB);
RSMPL_API int32_t UTILdBToScale(int32_t dB);

/* ---- Smoothers, block FIR, byte reordering -------------------------------
 * Coefficients are Q15 (0x7FFF = 1 - 2^-15).
 *
 * Smoothers move value toward target by coef * (target - value):
 *   16-bit: value + ((2 * coef * d + 0x8000) >> 16)   (rounded half up)
 *   32-bit: value + ((coef * d) >> 15)                (floored)
 * The asymmetric forms use rise when target > value and fall when below, add
 * one unit in the target's direction, and return value when equal.
 * d is the exact difference (never wrapped) and the result is saturated to
 * the value's width: values of opposite sign near full scale approach each
 * other through zero, and a step past a full-scale target stops there. With a
 * coefficient in 0..0x7FFF the symmetric result lies between value and target.
 */
RSMPL_API int16_t UTIL_Smooth(int16_t value, int16_t coef, int16_t target);
RSMPL_API int16_t UTILSmooth(int16_t value, int16_t coef, int16_t target);
RSMPL_API int32_t UTIL_Smooth32(int32_t value, int16_t coef, int32_t target);
RSMPL_API int32_t UTILSmooth32(int32_t value, int16_t coef, int32_t target);
RSMPL_API int16_t UTIL_SmoothAsym(int16_t value, int16_t rise, int16_t fall, int16_t target);
RSMPL_API int16_t UTILSmoothAsym(int16_t value, int16_t rise, int16_t fall, int16_t target);
RSMPL_API int32_t UTIL_SmoothAsym32(int32_t value, int16_t rise, int16_t fall, int32_t target);
RSMPL_API int32_t UTILSmoothAsym32(int32_t value, int16_t rise, int16_t fall, int32_t target);

/*
 * Block FIR in place over `count` samples with `taps` Q15 coefficients
 * (coefs[0] multiplies the current sample). history holds `taps` samples, the
 * newest last, and receives the newest `taps` samples for the next block;
 * scratch holds at least taps + count samples. Output: the exact sum of
 * products times 2^(shift + 1), plus 0x8000, >> 16, saturated to 16 bits
 * (any shift >= 0; nonzero sums saturate once the gain is large enough).
 * Status: 0 ok; 1 a null pointer; 2 count or taps below 1 or not a multiple
 * of 4; 3 negative shift (checked in this order). Rejected calls touch nothing.
 * The body clears the samples when taps < 1 and treats a negative shift as 0.
 */
RSMPL_API int32_t UTIL_Fir3(int16_t *samples, int16_t count, int16_t *history,
                            const int16_t *coefs, int16_t taps, int16_t shift,
                            int16_t *scratch);
RSMPL_API void UTILFir3(int16_t *samples, int16_t count, int16_t *history,
                        const int16_t *coefs, int16_t taps, int16_t shift,
                        int16_t *scratch);

/*
 * Byte reordering in groups of 4: mode bits 1..2 select output byte k = input
 * byte k ^ s; bit 0 also reverses the bits of each byte; other bits are
 * ignored. In a final group shorter than 4 bytes, a byte whose partner k ^ s
 * lies past the end keeps its place: nothing is read past src + length and
 * every mode is its own inverse. src == dst works in place; length < 1 does
 * nothing. Status: 0 ok; 1 a null pointer or partially overlapping ranges.
 */
RSMPL_API int32_t UTIL_ReorderBitstream(const uint8_t *src, int16_t length, uint8_t mode, uint8_t *dst);
RSMPL_API void UTILReorderBitstream(const uint8_t *src, int16_t length, uint8_t mode, uint8_t *dst);

/* ---- Monotone cubic spline (PCHIP) ---------------------------------------
 * Evaluates at xe[0..ne-1] (any order) the shape-preserving cubic through the
 * n knots (x strictly increasing, f) into fe[0..ne-1]; points outside the
 * knots use the end cubics. Single precision; one malloc of n floats per call.
 * UTIL_SplineFit: 1 a null pointer; 2 n or ne below 1; otherwise the result
 * of spline_pchip_val: 0 ok, -1 fewer than 2 knots, -3 abscissae not strictly
 * increasing (NaN included), -4 no evaluation points, -10 allocation failed,
 * -5 internal. Checks run in that order; argument and allocation errors
 * leave fe untouched.
 */
RSMPL_API int UTIL_SplineFit(int n, const float *x, const float *f, int ne, const float *xe, float *fe);
RSMPL_API int spline_pchip_val(int n, const float *x, const float *f, int ne, const float *xe, float *fe);

#ifdef __cplusplus
}
#endif

#endif /* RSMPL_UTIL_H */
