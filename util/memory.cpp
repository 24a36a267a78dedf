// Memory helpers. Every primitive is a plain copy, move or fill of process memory.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include <rsmpl/rsmpl_util.h>

extern "C" {

void *UTILMemcpy(void *dst, const void *src, uint32_t bytes) { return std::memcpy(dst, src, bytes); }
void *UTILMemmove(void *dst, const void *src, uint32_t bytes) { return std::memmove(dst, src, bytes); }
void *UTILMemset(void *dst, int32_t value, uint32_t bytes) { return std::memset(dst, value, bytes); }
void *UTILMemcpyIntFromExt(void *dst, const void *src, uint32_t bytes) { return std::memcpy(dst, src, bytes); }
void *UTILMemcpyExtFromInt(void *dst, const void *src, uint32_t bytes) { return std::memcpy(dst, src, bytes); }
void *UTILMemmoveExternal(void *dst, const void *src, uint32_t bytes) { return UTILMemmove(dst, src, bytes); }

void *UTIL_Memcpy(void *dst, const void *src, uint32_t bytes) { return UTILMemcpy(dst, src, bytes); }
void *UTIL_Memmove(void *dst, const void *src, uint32_t bytes) { return UTILMemmove(dst, src, bytes); }
void *UTIL_Memset(void *dst, int32_t value, uint32_t bytes) { return UTILMemset(dst, value, bytes); }
void *UTIL_MemcpyIntFromExt(void *dst, const void *src, uint32_t bytes) { return UTILMemcpyIntFromExt(dst, src, bytes); }
void *UTIL_MemcpyExtFromInt(void *dst, const void *src, uint32_t bytes) { return UTILMemcpyExtFromInt(dst, src, bytes); }
void *UTIL_MemmoveExternal(void *dst, const void *src, uint32_t bytes) { return UTILMemmoveExternal(dst, src, bytes); }

void *UTILMemAllocNByteAligned(uint32_t size, uint32_t alignment, void **rawOut) {
    // The block is size + alignment bytes counted in 32 bits; a sum that wraps
    // would give a block smaller than asked for, so it fails like malloc would.
    const uint64_t total = uint64_t{size} + alignment;
    void *raw = total > UINT32_MAX ? nullptr : std::malloc(static_cast<size_t>(total));
    *rawOut = raw;
    if (raw == nullptr) return nullptr;
    const uintptr_t a = alignment;
    const uintptr_t aligned = (reinterpret_cast<uintptr_t>(raw) + a - 1) & (0 - a);
    return static_cast<char *>(raw) + (aligned - reinterpret_cast<uintptr_t>(raw));
}

void *UTIL_MemAllocNByteAligned(uint32_t size, uint32_t alignment, void **rawOut) {
    // Only powers of two make the mask a multiple of the alignment; 1 is odd.
    const bool power_of_two = alignment != 0 && (alignment & (alignment - 1)) == 0;
    if (size == 0 || rawOut == nullptr || (alignment & 1u) != 0 || !power_of_two) return nullptr;
    return UTILMemAllocNByteAligned(size, alignment, rawOut);
}

}  // extern "C"
