#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <numeric>
#include <vector>

#include <rsmpl/rsmpl_util.h>

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

TEST(MemoryHelpers, CopiesMovesAndFillsReturnDestination) {
    using Copy = void *(*)(void *, const void *, uint32_t);
    std::vector<uint8_t> src(64);
    std::iota(src.begin(), src.end(), uint8_t{1});
    for (Copy copy : {Copy{UTIL_Memcpy}, Copy{UTIL_MemcpyIntFromExt}, Copy{UTIL_MemcpyExtFromInt}}) {
        std::vector<uint8_t> dst(48, 0xEE), want = dst;
        std::copy(src.begin(), src.begin() + 40, want.begin() + 4);
        EXPECT_EQ(copy(dst.data() + 4, src.data(), 40), dst.data() + 4);
        EXPECT_EQ(dst, want);
    }
    // Overlapping ranges in either direction copy as memmove does.
    for (Copy move : {Copy{UTIL_Memmove}, Copy{UTIL_MemmoveExternal}})
        for (int shift : {-5, 5}) {
            std::vector<uint8_t> buf = src, want = src;
            std::memmove(want.data() + 20 + shift, want.data() + 20, 30);
            EXPECT_EQ(move(buf.data() + 20 + shift, buf.data() + 20, 30), buf.data() + 20 + shift);
            EXPECT_EQ(buf, want) << "shift " << shift;
        }
    std::vector<uint8_t> buf(16, 0), want(16, 0);
    std::fill(want.begin() + 2, want.begin() + 12, 0xFF);
    EXPECT_EQ(UTIL_Memset(buf.data() + 2, 0x1FF, 10), buf.data() + 2);  // only the low byte counts
    EXPECT_EQ(buf, want);
}

}  // namespace
