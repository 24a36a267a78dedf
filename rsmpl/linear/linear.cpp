// Scalar inner loops of the plug-in's linear converter: channel after
// channel, one 32-bit division per output sample.
#include "rsmpl/linear/linear_kernels.hpp"

#include <cstddef>

namespace rsmpl {
namespace {

inline uint32_t div_u32(uint32_t a, uint32_t b) { return b ? a / b : 0; }

// Bits 16..31 of a sum formed in 32-bit wrap-around arithmetic, as a sample.
inline int16_t high_half(uint32_t sum) { return static_cast<int16_t>(static_cast<uint16_t>(sum >> 16)); }

}  // namespace

// f is Q16: pos < pitch < 2^(16 + shift), so pos << (16 - shift) fits in 32
// bits. old * (65536 - f) + new * f is a convex combination of two 16-bit
// samples scaled by 2^16; it is formed in unsigned arithmetic so that no
// input can make it undefined. Each call restarts the fractional position:
// its first frame is the previous call's last input.
void linear_expand_scalar(const int16_t *src, uint32_t src_frames, int16_t *dst, uint32_t dst_frames,
                          uint32_t channels, uint32_t pitch, uint32_t shift, int16_t *last) {
    const uint32_t step = pitch >> shift;
    for (uint32_t c = 0; c < channels; c++) {
        int16_t new_sample = last[c];
        int16_t old_sample = 0;
        uint32_t pos = pitch;
        uint32_t fetched = 0;
        int16_t *out = dst + c;
        for (uint32_t k = 0; k < dst_frames; k++) {
            if (pos >= pitch) {
                pos -= pitch;
                old_sample = new_sample;
                if (fetched < src_frames) new_sample = src[static_cast<size_t>(fetched) * channels + c];
            }
            const uint32_t f = div_u32(pos << (16 - shift), step);
            const uint32_t sum = static_cast<uint32_t>(old_sample) * (65536u - f) + static_cast<uint32_t>(new_sample) * f;
            *out = high_half(sum);
            out += channels;
            pos += kLinearOne;
            if (pos >= pitch) fetched++;
        }
        last[c] = new_sample;
    }
}

// No state is carried: input frame 0 of every call yields an output equal to
// itself.
bool linear_shrink_scalar(const int16_t *src, uint32_t src_frames, int16_t *dst, uint32_t dst_frames,
                          uint32_t channels, uint32_t pitch) {
    const uint32_t step = pitch >> 3;
    bool overflow = false;
    for (uint32_t c = 0; c < channels; c++) {
        int16_t old_sample = 0;
        uint32_t pos = kLinearOne - pitch;
        uint32_t written = 0;
        const int16_t *in = src + c;
        int16_t *out = dst + c;
        for (uint32_t i = 0; i < src_frames; i++) {
            const int16_t new_sample = *in;
            in += channels;
            pos += pitch;
            if (pos >= kLinearOne) {
                const uint32_t over = pos - kLinearOne;
                const uint32_t f = div_u32(over << 13, step);
                const uint32_t sum = static_cast<uint32_t>(new_sample) * (65536u - f) + static_cast<uint32_t>(old_sample) * f;
                if (written == dst_frames) {
                    overflow = true;
                    break;
                }
                *out = high_half(sum);
                out += channels;
                written++;
                pos = over;
            }
            old_sample = new_sample;
        }
    }
    return overflow;
}

}  // namespace rsmpl
