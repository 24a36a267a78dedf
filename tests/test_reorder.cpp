#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <random>
#include <vector>

#include "support.hpp"
#include <rsmpl/rsmpl_util.h>

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
    EXPECT_TRUE(dst.guards_intact()) << "length " << n << " mode " << int{mode};
    return Bytes(dst.data(), dst.data() + n);
}

TEST(Reorder, Examples) {
    EXPECT_EQ(reorder_exact({1, 2, 3, 4}, 6), (Bytes{4, 3, 2, 1}));
    EXPECT_EQ(reorder_exact({0x01}, 1), (Bytes{0x80}));
    EXPECT_EQ(reorder_exact({0x0F}, 1), (Bytes{0xF0}));
}

// Every mode over lengths covering whole groups and every short final group,
// with the source exactly sized, and in place.
TEST(Reorder, AllModesAndLengthsMatchModelInPlaceToo) {
    auto check = [](const Bytes &in, uint8_t mode) {
        const Bytes want = model_reorder(in, mode);
        ASSERT_EQ(reorder_exact(in, mode), want) << "mode " << int{mode} << " length " << in.size();
        Bytes buf = in;
        ASSERT_EQ(UTIL_ReorderBitstream(buf.data(), static_cast<int16_t>(buf.size()), mode, buf.data()), 0);
        ASSERT_EQ(buf, want) << "in place, mode " << int{mode} << " length " << in.size();
    };
    for (int mode = 0; mode < 256; ++mode)
        for (size_t n = 1; n <= 19; ++n)
            check(random_bytes(n, static_cast<uint32_t>(mode * 100 + n)), static_cast<uint8_t>(mode));
    const Bytes big = random_bytes(INT16_MAX, 77);
    for (uint8_t mode = 0; mode < 8; ++mode) check(big, mode);
}

TEST(Reorder, RejectsNullAndPartialOverlapChangingNothing) {
    const Bytes orig = random_bytes(64, 3);
    struct Case { const char *what; ptrdiff_t src_off, dst_off; int length; bool null_src, null_dst; int32_t status; };
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
            const Bytes moved = model_reorder({orig.begin() + c.src_off, orig.begin() + c.src_off + c.length}, 6);
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
