// The linear converter's loops with AVX2, compiled with -mavx2 alone.
#include "rsmpl/engine/isa_kernels.hpp"
#include "rsmpl/linear/linear_x86.hpp"

namespace rsmpl {

void linear_expand_avx2(const int16_t *src, uint32_t src_frames, int16_t *dst, uint32_t dst_frames,
                        uint32_t channels, uint32_t pitch, uint32_t shift, int16_t *last) {
    linear_expand_frames<FrameOps>(src, src_frames, dst, dst_frames, channels, pitch, shift, last);
}
bool linear_shrink_avx2(const int16_t *src, uint32_t src_frames, int16_t *dst, uint32_t dst_frames,
                        uint32_t channels, uint32_t pitch) {
    return linear_shrink_frames<FrameOps>(src, src_frames, dst, dst_frames, channels, pitch);
}

}  // namespace rsmpl
