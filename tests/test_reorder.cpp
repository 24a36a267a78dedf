#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <random>
#include <vector>

#include "support.hpp"
#include "util/rsmpl_util.h"

namespace {

using Bytes = std::vector<uint8_t>;

uint8_t reverse_bits_model(uint8_t b) {
    uint8_t r = 0;
    for (int i = 0; i < 8; ++i)
        if (b & (1u << i)) r = static_cast<uint8_t>(r | (0x80u >> i));
    return r;
}

// Output byte k of each group is input byte k ^ s; in a short final group a
// byte whose partner lies past the end keeps its place.
Bytes model_reorder(const Bytes &in, uint8_t mode) {
    const size_t s = (mode >> 1) & 3;
    Bytes out(in.size());
    for (size_t i = 0; i < in.size(); ++i) {
        const size_t group = i & ~size_t{3}, partner = group + ((i - group) ^ s);
        const uint8_t b = in[partner < in.size() ? partner : i];
        out[i] = (mode & 1) ? reverse_bits_model(b) : b;
    }
    return out;
}

Bytes random_bytes(size_t n, uint32_t seed) {
    std::mt19937 rng(seed);
    Bytes v(n);
    for (auto &b : v) b = static_cast<uint8_t>(rng());
    return v;
}

// Source on the heap with exactly `in.size()` bytes, so that a read past its
// end is an AddressSanitizer error; destination with guard bytes.
Bytes reorder_exact(const Bytes &in, uint8_t mode) {
    const size_t n = in.size();
    std::unique_ptr<uint8_t[]> src(new uint8_t[n == 0 ? 1 : n]);
    std::copy(in.begin(), in.end(), src.get());
    rsmpl_test::Guarded<uint8_t> dst(n);
    EXPECT_EQ(UTIL_ReorderBitstream(src.get(), static_cast<int16_t>(n), mode, dst.data()), 0);
    EXPECT_TRUE(dst.guard_intact()) << "length " << n << " mode " << int{mode};
    return Bytes(dst.data(), dst.data() + n);
}

TEST(Reorder, Examples) {
    EXPECT_EQ(reorder_exact({1, 2, 3, 4}, 6), (Bytes{4, 3, 2, 1}));
    EXPECT_EQ(reorder_exact({1, 2, 3, 4}, 2), (Bytes{2, 1, 4, 3}));
    EXPECT_EQ(reorder_exact({1, 2, 3, 4}, 4), (Bytes{3, 4, 1, 2}));
    EXPECT_EQ(reorder_exact({1, 2, 3, 4}, 0), (Bytes{1, 2, 3, 4}));
    EXPECT_EQ(reorder_exact({0x01}, 1), (Bytes{0x80}));
    EXPECT_EQ(reorder_exact({0x0F}, 1), (Bytes{0xF0}));
    EXPECT_EQ(reorder_exact({0x12, 0x34, 0x56, 0x78, 0x9A}, 7), (Bytes{0x1E, 0x6A, 0x2C, 0x48, 0x59}));
}

// Every mode over lengths covering whole groups and every short final group,
// with the source exactly sized.
TEST(Reorder, AllModesAndLengthsMatchModel) {
    for (int mode = 0; mode < 256; ++mode)
        for (size_t n = 1; n <= 19; ++n) {
            const Bytes in = random_bytes(n, static_cast<uint32_t>(mode * 100 + n));
            ASSERT_EQ(reorder_exact(in, static_cast<uint8_t>(mode)), model_reorder(in, static_cast<uint8_t>(mode)))
                << "mode " << mode << " length " << n;
        }
    const Bytes big = random_bytes(INT16_MAX, 77);
    for (uint8_t mode = 0; mode < 8; ++mode) EXPECT_EQ(reorder_exact(big, mode), model_reorder(big, mode)) << int{mode};
}

TEST(Reorder, ShortFinalGroupKeepsBytesWithoutPartner) {
    EXPECT_EQ(reorder_exact({1, 2, 3}, 6), (Bytes{1, 3, 2}));
    EXPECT_EQ(reorder_exact({1, 2, 3}, 4), (Bytes{3, 2, 1}));
    EXPECT_EQ(reorder_exact({1, 2, 3}, 2), (Bytes{2, 1, 3}));
    EXPECT_EQ(reorder_exact({1, 2}, 6), (Bytes{1, 2}));
    EXPECT_EQ(reorder_exact({1, 2, 3, 4, 5, 6}, 6), (Bytes{4, 3, 2, 1, 5, 6}));
    EXPECT_EQ(reorder_exact({1}, 7), (Bytes{0x80}));
}

// Applying a mode twice restores every stream, short final groups included.
TEST(Reorder, EachModeIsItsOwnInverse) {
    for (uint8_t mode = 0; mode < 8; ++mode)
        for (size_t n = 1; n <= 13; ++n) {
            const Bytes in = random_bytes(n, 1000u + mode * 20u + static_cast<uint32_t>(n));
            EXPECT_EQ(reorder_exact(reorder_exact(in, mode), mode), in) << int{mode} << " " << n;
        }
}

TEST(Reorder, InPlaceEqualsSeparateBuffers) {
    for (uint8_t mode = 0; mode < 8; ++mode)
        for (size_t n : {1u, 2u, 3u, 4u, 5u, 7u, 8u, 63u, 64u}) {
            const Bytes in = random_bytes(n, 500u + mode * 70u + static_cast<uint32_t>(n));
            Bytes buf = in;
            ASSERT_EQ(UTIL_ReorderBitstream(buf.data(), static_cast<int16_t>(n), mode, buf.data()), 0);
            EXPECT_EQ(buf, reorder_exact(in, mode)) << int{mode} << " " << n;
        }
}

TEST(Reorder, RejectsNullAndPartialOverlapChangingNothing) {
    const Bytes orig = random_bytes(64, 3);
    struct Case {
        const char *what;
        ptrdiff_t src_off, dst_off;
        int length;
        bool null_src, null_dst;
        int32_t status;
    };
    const Case cases[] = {
        {"null source", 0, 32, 16, true, false, 1},
        {"null destination", 0, 32, 16, false, true, 1},
        {"null with length 0", 0, 32, 0, true, false, 1},
        {"destination one after source", 0, 1, 16, false, false, 1},
        {"source one after destination", 1, 0, 16, false, false, 1},
        {"overlap by one byte", 0, 15, 16, false, false, 1},
        {"source overlaps from above", 15, 0, 16, false, false, 1},
        {"adjacent above", 0, 16, 16, false, false, 0},
        {"adjacent below", 16, 0, 16, false, false, 0},
        {"length 0 at overlapping offsets", 0, 1, 0, false, false, 0},
        {"negative length", 0, 1, -5, false, false, 0},
    };
    for (const Case &c : cases) {
        Bytes buf = orig;
        const int32_t status = UTIL_ReorderBitstream(c.null_src ? nullptr : buf.data() + c.src_off,
                                                     static_cast<int16_t>(c.length), 6,
                                                     c.null_dst ? nullptr : buf.data() + c.dst_off);
        EXPECT_EQ(status, c.status) << c.what;
        if (c.status != 0 || c.length <= 0) {
            EXPECT_EQ(buf, orig) << c.what;
        } else {
            Bytes want = orig;
            const Bytes part(orig.begin() + c.src_off, orig.begin() + c.src_off + c.length);
            const Bytes moved = model_reorder(part, 6);
            std::copy(moved.begin(), moved.end(), want.begin() + c.dst_off);
            EXPECT_EQ(buf, want) << c.what;
        }
    }
}

TEST(Reorder, BodyIgnoresLengthBelowOne) {
    Bytes buf = {9, 8, 7, 6};
    UTILReorderBitstream(buf.data(), 0, 7, buf.data());
    UTILReorderBitstream(buf.data(), INT16_MIN, 7, buf.data());
    EXPECT_EQ(buf, (Bytes{9, 8, 7, 6}));
}

}  // namespace
