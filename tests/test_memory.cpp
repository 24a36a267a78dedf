#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <numeric>
#include <vector>

#include "util/rsmpl_util.h"

namespace {

void *const kUntouched = reinterpret_cast<void *>(uintptr_t{0x1234});

TEST(AlignedAlloc, RejectsBadArgumentsWithoutTouchingRawOut) {
    struct Case { uint32_t size, alignment; };
    for (Case c : {Case{0, 16}, Case{64, 0}, Case{64, 1}, Case{64, 3}, Case{64, 6}, Case{64, 24}, Case{64, 0x80000001u}}) {
        void *raw = kUntouched;
        EXPECT_EQ(UTIL_MemAllocNByteAligned(c.size, c.alignment, &raw), nullptr) << c.size << "/" << c.alignment;
        EXPECT_EQ(raw, kUntouched) << c.size << "/" << c.alignment;
    }
    EXPECT_EQ(UTIL_MemAllocNByteAligned(64, 16, nullptr), nullptr);
}

TEST(AlignedAlloc, ResultIsAlignedInsideTheBlockWithRoomForSize) {
    for (uint32_t alignment : {2u, 4u, 16u, 64u, 4096u}) {
        for (uint32_t size : {1u, 7u, 1000u}) {
            void *raw = kUntouched;
            void *p = UTIL_MemAllocNByteAligned(size, alignment, &raw);
            ASSERT_NE(p, nullptr);
            ASSERT_NE(raw, nullptr);
            const auto addr = reinterpret_cast<uintptr_t>(p), base = reinterpret_cast<uintptr_t>(raw);
            EXPECT_EQ(addr % alignment, 0u);
            EXPECT_GE(addr, base);
            EXPECT_LE(addr - base, alignment - 1);
            std::memset(p, 0x5A, size);  // the whole size is usable (ASan checks the end)
            std::free(raw);
        }
    }
}

TEST(AlignedAlloc, SizePlusAlignmentBeyond32BitsFailsInsteadOfWrapping) {
    void *raw = kUntouched;
    EXPECT_EQ(UTIL_MemAllocNByteAligned(UINT32_MAX - 8, 16, &raw), nullptr);
    EXPECT_EQ(raw, nullptr);
    raw = kUntouched;
    EXPECT_EQ(UTILMemAllocNByteAligned(UINT32_MAX, 2, &raw), nullptr);
    EXPECT_EQ(raw, nullptr);
}

std::vector<uint8_t> ramp(size_t n) {
    std::vector<uint8_t> v(n);
    std::iota(v.begin(), v.end(), uint8_t{1});
    return v;
}

TEST(MemoryHelpers, MovesHandleOverlapInBothDirections) {
    using Move = void *(*)(void *, const void *, uint32_t);
    for (Move move : {Move{UTIL_Memmove}, Move{UTIL_MemmoveExternal}}) {
        for (int shift : {-5, 5}) {
            std::vector<uint8_t> buf = ramp(64), want = buf;
            uint8_t *src = buf.data() + 20, *dst = src + shift;
            std::memmove(want.data() + 20 + shift, want.data() + 20, 30);
            EXPECT_EQ(move(dst, src, 30), dst);
            EXPECT_EQ(buf, want) << "shift " << shift;
        }
    }
}

TEST(MemoryHelpers, CopiesAndFillsReturnDestination) {
    using Copy = void *(*)(void *, const void *, uint32_t);
    const std::vector<uint8_t> src = ramp(40);
    for (Copy copy : {Copy{UTIL_Memcpy}, Copy{UTIL_MemcpyIntFromExt}, Copy{UTIL_MemcpyExtFromInt}}) {
        std::vector<uint8_t> dst(48, 0xEE);
        EXPECT_EQ(copy(dst.data() + 4, src.data(), 40), dst.data() + 4);
        EXPECT_TRUE(std::equal(src.begin(), src.end(), dst.begin() + 4));
        EXPECT_EQ(dst[3], 0xEE);
        EXPECT_EQ(dst[44], 0xEE);
    }
    std::vector<uint8_t> buf(16, 0);
    EXPECT_EQ(UTIL_Memset(buf.data() + 2, 0x1FF, 10), buf.data() + 2);  // only the low byte counts
    EXPECT_EQ(buf, (std::vector<uint8_t>{0, 0, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 0, 0}));
}

}  // namespace
