// Byte and bit reordering of a byte stream in groups of 4 bytes.
//
// Output byte k of a group is input byte k ^ s (s = mode bits 1..2), optionally
// bit-reversed (mode bit 0). Each group is assembled in a temporary before it
// is written, so src == dst works.
//
// A final group of r < 4 bytes: a byte whose partner k ^ s lies past the end
// stays in its place. The group stays a permutation of its own bytes, nothing
// is read past the end or lost, and applying a mode twice restores any stream,
// as it does for whole groups.
#include <cstdint>

#include <rsmpl/rsmpl_util.h>

namespace {

constexpr uint8_t nibbleReverse[16] = {0, 8, 4, 12, 2, 10, 6, 14, 1, 9, 5, 13, 3, 11, 7, 15};

constexpr uint8_t reverse_bits(uint8_t b) {
    return static_cast<uint8_t>(nibbleReverse[b & 0x0F] * 16 + nibbleReverse[b >> 4]);
}

}  // namespace

extern "C" {

void UTILReorderBitstream(const uint8_t *src, int16_t length, uint8_t mode, uint8_t *dst) {
    if (length < 1) return;
    const int s = (mode >> 1) & 3;
    const bool reverse = (mode & 1) != 0;
    const int32_t n = length;

    for (int32_t g = 0; g < n; g += 4) {
        const int r = n - g < 4 ? n - g : 4;
        uint8_t tmp[4];
        for (int k = 0; k < r; ++k) {
            const int from = (k ^ s) < r ? (k ^ s) : k;
            const uint8_t b = src[g + from];
            tmp[k] = reverse ? reverse_bits(b) : b;
        }
        for (int k = 0; k < r; ++k) dst[g + k] = tmp[k];
    }
}

int32_t UTIL_ReorderBitstream(const uint8_t *src, int16_t length, uint8_t mode, uint8_t *dst) {
    if (src == nullptr || dst == nullptr) return 1;
    // Addresses as integers: the two ranges may belong to unrelated objects.
    const uintptr_t a = reinterpret_cast<uintptr_t>(src), b = reinterpret_cast<uintptr_t>(dst);
    const uintptr_t n = length > 0 ? static_cast<uintptr_t>(length) : 0;
    if (a != b && ((a > b && b + n > a) || (b > a && a + n > b))) return 1;
    UTILReorderBitstream(src, length, mode, dst);
    return 0;
}

}  // extern "C"
