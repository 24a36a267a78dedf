// The checking UTIL_* forwarders with hostile arguments: aligned allocation,
// the block FIR, byte reordering (with overlapping ranges) and the spline fit.
// Status codes must follow the rules in rsmpl/rsmpl_util.h in their order,
// rejected calls must touch nothing, and accepted ones must compute what the
// rules say (a model of each is kept here) without leaving their buffers.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "fuzz_support.hpp"
#include <rsmpl/rsmpl_util.h>

namespace {

using rsmpl_fuzz::Guarded;
using rsmpl_fuzz::Reader;

void mem_alloc(Reader &r) {
    const uint8_t kind = r.u8();
    uint32_t size = kind & 1 ? r.u32() : r.range(0, 70000);
    const uint32_t alignment = kind & 2 ? r.u32() : (kind & 4 ? uint32_t{1} << r.range(0, 31) : r.range(0, 300));
    const bool null_raw = (kind & 0x18) == 0x18;
    const uint64_t total = uint64_t{size} + alignment;
    const bool shape_ok = size != 0 && !null_raw && alignment != 0 && (alignment & (alignment - 1)) == 0 &&
                          (alignment & 1) == 0;
    // Whatever would really be allocated stays small enough for the fuzzer's
    // memory limit; blocks whose size overflows 32 bits allocate nothing.
    constexpr uint64_t kBig = uint64_t{64} << 20;
    if (shape_ok && total <= UINT32_MAX && total > kBig) {
        size = static_cast<uint32_t>(size % 70000) + 1;
        if (uint64_t{size} + alignment > kBig) return;
    }
    const bool fits = uint64_t{size} + alignment <= UINT32_MAX;

    void *const kUntouched = reinterpret_cast<void *>(uintptr_t{0x1234});
    void *raw = kUntouched;
    void *p = UTIL_MemAllocNByteAligned(size, alignment, null_raw ? nullptr : &raw);
    if (!shape_ok) {
        FUZZ_CHECK(p == nullptr);
        FUZZ_CHECK(raw == kUntouched);
        return;
    }
    if (!fits) {
        FUZZ_CHECK(p == nullptr && raw == nullptr);
        return;
    }
    FUZZ_CHECK(p != nullptr && raw != nullptr);
    const auto a = reinterpret_cast<uintptr_t>(p), b = reinterpret_cast<uintptr_t>(raw);
    FUZZ_CHECK(a % alignment == 0);
    FUZZ_CHECK(a >= b && a - b < alignment);
    std::memset(p, 0x5A, size);  // the whole usable part lies inside the block (ASan)
    std::free(raw);
}

// One output of the block FIR: sum * 2^(shift + 1) + 0x8000, >> 16, with
// anything beyond 32 bits saturated.
int16_t fir_model(int64_t sum, int shift) {
    if (sum == 0) return 0;
    if (shift > 40) return sum > 0 ? INT16_MAX : INT16_MIN;
    const __int128 v = static_cast<__int128>(sum) * (static_cast<__int128>(1) << (shift + 1)) + 0x8000;
    if (v > INT32_MAX) return INT16_MAX;
    if (v < INT32_MIN) return INT16_MIN;
    return static_cast<int16_t>(static_cast<int32_t>(v) >> 16);
}

void fir3(Reader &r) {
    const uint8_t nulls = r.u8();
    int16_t count = (r.u8() & 1) ? r.i16() : static_cast<int16_t>(r.range(0, 260));
    int16_t taps = (r.u8() & 1) ? r.i16() : static_cast<int16_t>(r.range(0, 70));
    const int16_t shift = (r.u8() & 1) ? r.i16() : static_cast<int16_t>(static_cast<int32_t>(r.range(0, 40)) - 2);
    const bool null_any = (nulls & 0x0F) != 0 && (nulls & 0x30) == 0x30;
    auto status = [&] {
        if (null_any) return 1;
        if (count < 1 || taps < 1 || count % 4 != 0 || taps % 4 != 0) return 2;
        if (shift < 0) return 3;
        return 0;
    };
    // Accepted calls stay cheap: count * taps products per call.
    if (status() == 0) {
        if (count > 1024) count = static_cast<int16_t>(4 + (count % 1024) / 4 * 4);
        if (taps > 256) taps = static_cast<int16_t>(4 + (taps % 256) / 4 * 4);
    }
    const int want = status();
    const size_t n = want == 0 ? static_cast<size_t>(count) : r.range(0, 16);
    const size_t t = want == 0 ? static_cast<size_t>(taps) : r.range(0, 16);
    Guarded<int16_t> samples(n), history(t), coefs(t), scratch(want == 0 ? n + t : r.range(0, 16));
    r.samples(samples.data(), n);
    r.samples(history.data(), t);
    r.samples(coefs.data(), t);

    const auto s0 = samples.bytes(), h0 = history.bytes(), c0 = coefs.bytes();
    const std::vector<int16_t> x(samples.data(), samples.data() + n), h(history.data(), history.data() + t);
    const bool nulled[4] = {null_any && (nulls & 1), null_any && (nulls & 2), null_any && (nulls & 4),
                            null_any && (nulls & 8)};
    const int got = UTIL_Fir3(nulled[0] ? nullptr : samples.data(), count, nulled[1] ? nullptr : history.data(),
                              nulled[2] ? nullptr : coefs.data(), taps, shift, nulled[3] ? nullptr : scratch.data());
    FUZZ_CHECK(got == want);
    FUZZ_CHECK(samples.guards_intact() && history.guards_intact() && coefs.guards_intact() && scratch.guards_intact());
    FUZZ_CHECK(coefs.bytes() == c0);
    if (got != 0) {
        FUZZ_CHECK(samples.bytes() == s0 && history.bytes() == h0 && scratch.untouched_from(0));
        return;
    }
    // The model: the stream is the history (newest last) followed by the block.
    std::vector<int16_t> stream(h);
    stream.insert(stream.end(), x.begin(), x.end());
    for (size_t i = 0; i < n; ++i) {
        int64_t sum = 0;
        for (size_t k = 0; k < t; ++k) sum += int64_t{coefs[k]} * stream[t + i - k];
        FUZZ_CHECK(samples[i] == fir_model(sum, shift));
    }
    FUZZ_CHECK(std::equal(stream.end() - static_cast<std::ptrdiff_t>(t), stream.end(), history.data()));
}

uint8_t reverse_bits(uint8_t b) {
    uint8_t out = 0;
    for (int i = 0; i < 8; ++i) out = static_cast<uint8_t>(out | (((b >> i) & 1) << (7 - i)));
    return out;
}

void reorder(Reader &r) {
    const uint8_t kind = r.u8();
    const int16_t length = (kind & 1) ? r.i16() : static_cast<int16_t>(static_cast<int32_t>(r.range(0, 300)) - 4);
    const uint8_t mode = r.u8();
    const size_t len = length > 0 ? static_cast<size_t>(length) : 0;
    // One buffer holds both ranges, at offsets that may overlap either way.
    const size_t span = std::min<size_t>(len, 600);
    const size_t src_off = r.range(0, static_cast<uint32_t>(span) + 8);
    const size_t dst_off = (kind & 6) == 6 ? src_off : r.range(0, static_cast<uint32_t>(span) + 8);
    Guarded<uint8_t> buf(std::max(src_off, dst_off) + len);
    for (size_t i = 0; i < buf.size(); ++i) buf[i] = static_cast<uint8_t>(r.u8() ^ (i * 37));
    const bool null_src = (kind & 0x30) == 0x10, null_dst = (kind & 0x30) == 0x20;

    const bool overlap = src_off != dst_off && (src_off > dst_off ? dst_off + len > src_off : src_off + len > dst_off);
    const int want = (null_src || null_dst || overlap) ? 1 : 0;
    const std::vector<uint8_t> before = buf.bytes();
    const int got = UTIL_ReorderBitstream(null_src ? nullptr : buf.data() + src_off, length, mode,
                                          null_dst ? nullptr : buf.data() + dst_off);
    FUZZ_CHECK(got == want);
    FUZZ_CHECK(buf.guards_intact());
    std::vector<uint8_t> expect = before;
    if (got == 0) {
        const size_t s = (mode >> 1) & 3;
        for (size_t g = 0; g < len; g += 4) {
            const size_t rest = std::min<size_t>(4, len - g);
            for (size_t k = 0; k < rest; ++k) {
                const size_t from = (k ^ s) < rest ? (k ^ s) : k;
                const uint8_t b = before[src_off + g + from];
                expect[dst_off + g + k] = (mode & 1) ? reverse_bits(b) : b;
            }
        }
    }
    FUZZ_CHECK(buf.bytes() == expect);
}

void spline(Reader &r) {
    const uint8_t kind = r.u8();
    int n = (kind & 1) ? r.i32() : static_cast<int>(r.range(0, 40)) - 2;
    int ne = (kind & 2) ? r.i32() : static_cast<int>(r.range(0, 80)) - 2;
    const bool null_any = (kind & 0xC0) == 0xC0;
    const int which_null = (kind >> 2) & 3;
    if (n > 4096) n = 4096 - n % 7;  // keep accepted calls small
    if (ne > 4096) ne = 4096 - ne % 7;
    const size_t nk = n > 0 ? static_cast<size_t>(n) : 0, npts = ne > 0 ? static_cast<size_t>(ne) : 0;
    Guarded<float> x(nk), f(nk), xe(npts), fe(npts);
    const bool sorted = (kind & 0x20) == 0;
    const bool tame = (kind & 0x10) == 0;  // moderate values: the shape checks apply
    float at = tame ? static_cast<float>(r.range(0, 200)) - 100.0f : 0.0f;
    for (size_t i = 0; i < nk; ++i) {
        if (tame) {
            at += sorted ? 0.25f + static_cast<float>(r.range(0, 400)) / 40.0f : static_cast<float>(r.range(0, 8)) - 4.0f;
            x[i] = at;
            f[i] = static_cast<float>(static_cast<int32_t>(r.range(0, 20000)) - 10000) / 8.0f;
        } else {
            x[i] = r.f32();
            f[i] = r.f32();
        }
    }
    for (size_t i = 0; i < npts; ++i)
        xe[i] = tame && nk > 0 ? x[0] - 5.0f + (x[nk - 1] - x[0] + 10.0f) * static_cast<float>(r.u16()) / 65535.0f
                               : r.f32();
    // Knots themselves, now and then, where the curve must pass exactly.
    const bool at_knots = tame && sorted && nk >= 2 && npts >= 1 && (kind & 0x08);
    if (at_knots)
        for (size_t i = 0; i < npts; ++i) xe[i] = x[i % (nk - 1)];

    int want;
    bool increasing = true;
    for (size_t i = 1; i < nk; ++i)
        if (!(x[i] > x[i - 1])) increasing = false;
    if (null_any) want = 1;
    else if (n < 1 || ne < 1) want = 2;
    else if (n < 2) want = -1;
    else if (!increasing) want = -3;
    else want = 0;

    const auto x0 = x.bytes(), f0 = f.bytes(), xe0 = xe.bytes();
    const int got = UTIL_SplineFit(n, null_any && which_null == 0 ? nullptr : x.data(),
                                   null_any && which_null == 1 ? nullptr : f.data(), ne,
                                   null_any && which_null == 2 ? nullptr : xe.data(),
                                   null_any && which_null == 3 ? nullptr : fe.data());
    FUZZ_CHECK(got == want);
    FUZZ_CHECK(x.guards_intact() && f.guards_intact() && xe.guards_intact() && fe.guards_intact());
    FUZZ_CHECK(x.bytes() == x0 && f.bytes() == f0 && xe.bytes() == xe0);
    if (got != 0) {
        FUZZ_CHECK(fe.untouched_from(0));
        return;
    }
    if (!tame || !sorted) return;
    for (size_t i = 0; i < npts; ++i) {
        FUZZ_CHECK(std::isfinite(fe[i]));
        if (at_knots) {
            FUZZ_CHECK(fe[i] == f[i % (nk - 1)]);
            continue;
        }
        // Inside the knots the curve never leaves the values of its piece.
        const float p = xe[i];
        if (p < x[0] || p > x[nk - 1]) continue;
        size_t k = 1;
        while (k < nk - 1 && !(p < x[k])) ++k;
        const float lo = std::min(f[k - 1], f[k]), hi = std::max(f[k - 1], f[k]);
        const float slack = 1e-3f * (1.0f + std::max(std::fabs(lo), std::fabs(hi)));
        FUZZ_CHECK(fe[i] >= lo - slack && fe[i] <= hi + slack);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    Reader r(data, size);
    for (int op = 0; op < 32 && !r.empty(); ++op) {
        switch (r.u8() % 4) {
            case 0: mem_alloc(r); break;
            case 1: fir3(r); break;
            case 2: reorder(r); break;
            default: spline(r); break;
        }
    }
    return 0;
}
