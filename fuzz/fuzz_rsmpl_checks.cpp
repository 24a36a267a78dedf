// Every checking RSMPL_* function with hostile arguments: null pointers in
// any combination, lengths and indices of any value, ratios and delays of any
// bit pattern (NaN, infinities, denormals). The status must be the one the
// rules in rsmpl/rsmpl.h give, checked in their order; a rejected call must
// change nothing (context, buffers, result locations); an accepted one must
// stay inside the room it is given.
#include <cmath>
#include <cstdint>
#include <cstring>

#include "fuzz_support.hpp"
#include "rsmpl/interface/context.hpp"
#include <rsmpl/rsmpl.h>

namespace {

using rsmpl_fuzz::Guarded;
using rsmpl_fuzz::Reader;

constexpr uint32_t kSentinel = 0xC0FFEE11u;
constexpr int32_t kMaxFolded = 16384;  // accepted down blocks are kept this small

// The length rules, written out again from the header's table.
bool up_accepts(uint32_t index, int32_t n) {
    const int64_t m = n;
    switch (index) {
        case 0: return m >= 6 && 3 * m <= 2880;
        case 1: return m >= 4 && m <= 720;
        case 2: return m >= 6 && 3 * m <= 1440;
        case 3: return m >= 4 && m <= 360;
        case 4: return m >= 6 && 6 * m <= 1440;
        default: return false;
    }
}

bool down_accepts(uint32_t index, int32_t n) {
    switch (index) {
        case 0: return n >= 18 && n % 6 == 0;
        case 1: return n >= 8 && n % 4 == 0;
        case 2: return n >= 18 && n % 6 == 0;
        case 3: return n >= 16 && n % 4 == 0;
        case 4: return n >= 36 && n % 6 == 0;
        default: return false;
    }
}

// Samples an accepted call may write to `out`, the 3:2 stage's odd input included.
int32_t up_room(uint32_t index, int32_t n) {
    constexpr int32_t kFactor[] = {0, 2, 3, 4, 6};
    return index == 0 ? 3 * (n / 2) + n % 2 : kFactor[index] * n;
}

int32_t down_outputs(uint32_t index, int32_t n) {
    constexpr int32_t kFactor[] = {0, 2, 3, 4, 6};
    return index == 0 ? 2 * (n / 3) : n / kFactor[index];
}

int32_t pick_length(Reader &r) {
    static constexpr int32_t kEdges[] = {INT32_MIN, -1, 0, 1, 3, 4, 5, 6, 8, 12, 16, 17, 18, 30, 35, 36, 240,
                                         241, 360, 361, 480, 481, 720, 721, 960, 961, 1024, 1026, 1439, 1440,
                                         1441, 1442, 2880, INT32_MAX};
    switch (r.u8() % 4) {
        case 0: return r.i32();
        case 1: return static_cast<int32_t>(r.range(0, 1510)) - 8;
        case 2: return kEdges[r.u8() % (sizeof kEdges / sizeof kEdges[0])];
        default: return static_cast<int32_t>(r.range(0, 4000));
    }
}

uint32_t pick_index(Reader &r) { return (r.u8() & 3) == 0 ? r.u32() : r.range(0, 6); }

float pick_float(Reader &r, float lo, float hi) {
    switch (r.u8() % 4) {
        case 0: return r.f32();  // any bit pattern
        case 1: {
            static constexpr float kEdges[] = {0.0f, -0.0f, 0.1f, 0.124999f, 0.125f, 0.5f, 1.0f, 1.0000001f,
                                               8.0f, 8.000001f, 8.5f, -1.0f, INFINITY, -INFINITY, NAN, 1e-40f};
            return kEdges[r.u8() % (sizeof kEdges / sizeof kEdges[0])];
        }
        default: return lo + (hi - lo) * static_cast<float>(r.u16()) / 65535.0f;
    }
}

// The context with its guards, plus what a rejected call must leave alone.
struct World {
    Guarded<uint8_t> ctx_mem{RSMPL_CONTEXT_SIZE};
    RSMPL_Ctx *ctx() { return reinterpret_cast<RSMPL_Ctx *>(ctx_mem.data()); }
};

void check_fresh(World &w) {
    Guarded<uint8_t> fresh(RSMPL_CONTEXT_SIZE);
    FUZZ_CHECK(RSMPL_InitContext(reinterpret_cast<RSMPL_Ctx *>(fresh.data())) == RSMPL_OK);
    FUZZ_CHECK(w.ctx_mem.bytes() == fresh.bytes());
}

void fixed_ratio(World &w, Reader &r, bool up) {
    const uint8_t nulls = r.u8();
    const uint32_t index = pick_index(r);
    int32_t n = pick_length(r);
    const bool in_place = r.flag();
    auto accepts = [&](int32_t len) { return up ? up_accepts(index, len) : down_accepts(index, len); };
    if (accepts(n) && n > kMaxFolded) n %= kMaxFolded + 1;

    RSMPL_Ctx *ctx = (nulls & 1) ? nullptr : w.ctx();
    const bool null_in = (nulls & 6) == 2, null_out = (nulls & 6) == 4;
    uint32_t want = ctx == nullptr                ? RSMPL_ERR_NULL_CONTEXT
                    : (null_in || null_out)       ? RSMPL_ERR_NULL_POINTER
                    : index > 4                   ? RSMPL_ERR_BAD_INDEX
                    : !accepts(n)                 ? RSMPL_ERR_BAD_LENGTH
                                                  : RSMPL_OK;

    // Accepted calls get exactly the room they may use; rejected ones a small
    // buffer that they must not touch.
    const size_t in_len = want == RSMPL_OK ? static_cast<size_t>(n) : r.range(0, 64);
    const size_t out_len = want != RSMPL_OK ? r.range(0, 64)
                           : up            ? static_cast<size_t>(up_room(index, n))
                                           : static_cast<size_t>(down_outputs(index, n));
    Guarded<int16_t> in(in_place ? std::max(in_len, out_len) : in_len), out(out_len);
    r.samples(in.data(), in.size());
    const int16_t *in_ptr = null_in ? nullptr : in.data();
    int16_t *out_ptr = null_out ? nullptr : in_place ? in.data() : out.data();

    const auto ctx_before = w.ctx_mem.bytes();
    const auto in_before = in.bytes();
    const uint32_t got = up ? RSMPL_Up(ctx, in_ptr, out_ptr, n, index) : RSMPL_Down(ctx, in_ptr, out_ptr, n, index);
    FUZZ_CHECK(got == want);
    FUZZ_CHECK(w.ctx_mem.guards_intact() && in.guards_intact() && out.guards_intact());
    if (got != RSMPL_OK) {
        FUZZ_CHECK(w.ctx_mem.bytes() == ctx_before);
        FUZZ_CHECK(in.bytes() == in_before);
        FUZZ_CHECK(out.untouched_from(0));
    } else if (!in_place) {
        FUZZ_CHECK(in.bytes() == in_before);  // input is read only
        // The sinc parameters belong to the interpolator, never to a stage.
        const auto after = w.ctx_mem.bytes();
        FUZZ_CHECK(std::equal(after.begin() + 2 * RSMPL_HISTORY_SAMPLES, after.end(),
                              ctx_before.begin() + 2 * RSMPL_HISTORY_SAMPLES));
    }
}

void resample(World &w, Reader &r) {
    const uint8_t nulls = r.u8();
    const int32_t n = pick_length(r);
    RSMPL_Ctx *ctx = (nulls & 1) ? nullptr : w.ctx();
    const bool null_in = (nulls & 14) == 2, null_out = (nulls & 14) == 4, null_count = (nulls & 14) == 8;
    const int64_t growth = int64_t{w.ctx()->targetHalfLength} - w.ctx()->halfLength;
    const uint32_t want = ctx == nullptr                          ? RSMPL_ERR_NULL_CONTEXT
                          : (null_in || null_out || null_count)   ? RSMPL_ERR_NULL_POINTER
                          : (n < 1 || n > RSMPL_MAX_BLOCK)        ? RSMPL_ERR_BAD_LENGTH
                          : growth >= n                           ? RSMPL_ERR_BAD_LENGTH
                                                                  : RSMPL_OK;
    constexpr size_t kRoom = RSMPL_MAX_BLOCK * 8 + 2;  // always enough, says the header
    Guarded<int16_t> in(want == RSMPL_OK ? static_cast<size_t>(n) : r.range(0, 64));
    Guarded<int16_t> out(want == RSMPL_OK ? kRoom : r.range(0, 64));
    Guarded<uint32_t> count(1);
    r.samples(in.data(), in.size());
    const auto ctx_before = w.ctx_mem.bytes();
    const auto in_before = in.bytes();
    const uint32_t got = RSMPL_Resample(ctx, null_in ? nullptr : in.data(), null_out ? nullptr : out.data(), n,
                                        null_count ? nullptr : count.data());
    FUZZ_CHECK(got == want);
    FUZZ_CHECK(w.ctx_mem.guards_intact() && in.guards_intact() && out.guards_intact() && count.guards_intact());
    FUZZ_CHECK(in.bytes() == in_before);
    if (got != RSMPL_OK) {
        FUZZ_CHECK(w.ctx_mem.bytes() == ctx_before);
        FUZZ_CHECK(out.untouched_from(0) && count.untouched_from(0));
    } else {
        FUZZ_CHECK(count[0] >= 1 && count[0] <= kRoom);
        FUZZ_CHECK(out.untouched_from(count[0]));  // exactly *out_count samples written
    }
}

void set_ratio(World &w, Reader &r) {
    const uint8_t nulls = r.u8();
    const float ratio = pick_float(r, 0.1f, 8.5f);
    RSMPL_Ctx *ctx = (nulls & 1) ? nullptr : w.ctx();
    const uint32_t want = ctx == nullptr ? RSMPL_ERR_NULL_CONTEXT
                          : !(ratio >= 0.125f && ratio <= 8.0f) ? RSMPL_ERR_BAD_INDEX
                                                                : RSMPL_OK;
    uint32_t lo = kSentinel, hi = kSentinel, extra = kSentinel;
    const auto ctx_before = w.ctx_mem.bytes();
    const int32_t held = w.ctx()->halfLength;
    const uint32_t got = RSMPL_SetResampleRatio(ctx, (nulls & 2) ? nullptr : &lo, (nulls & 4) ? nullptr : &hi,
                                                (nulls & 8) ? nullptr : &extra, ratio);
    FUZZ_CHECK(got == want);
    FUZZ_CHECK(w.ctx_mem.guards_intact());
    if (got != RSMPL_OK) {
        FUZZ_CHECK(w.ctx_mem.bytes() == ctx_before);
        FUZZ_CHECK(lo == kSentinel && hi == kSentinel && extra == kSentinel);
        return;
    }
    // History and position stay; the targets follow the ratio.
    const RSMPL_Ctx &c = *w.ctx();
    const auto after = w.ctx_mem.bytes();
    FUZZ_CHECK(std::equal(after.begin(), after.begin() + 2 * RSMPL_HISTORY_SAMPLES, ctx_before.begin()));
    FUZZ_CHECK(c.halfLength == held);
    FUZZ_CHECK(c.targetHalfLength >= 13 && c.targetHalfLength <= 104);
    FUZZ_CHECK(c.ratio == ratio);
    const int32_t d = c.targetHalfLength - held;
    FUZZ_CHECK((nulls & 2) || lo == static_cast<uint32_t>(d + 1 > 1 ? d + 1 : 1));
    FUZZ_CHECK((nulls & 4) || hi == RSMPL_MAX_BLOCK);
    FUZZ_CHECK((nulls & 8) || (extra >= 1 && extra <= 1 + 8 * 91 + 1));
}

void set_delay(World &w, Reader &r) {
    const uint8_t nulls = r.u8();
    const float delay = pick_float(r, -0.1f, 1.1f);
    RSMPL_Ctx *ctx = (nulls & 1) ? nullptr : w.ctx();
    const uint32_t want = ctx == nullptr ? RSMPL_ERR_NULL_CONTEXT
                          : !(delay >= 0.0f && delay <= 1.0f) ? RSMPL_ERR_BAD_DELAY  // range before pointers
                          : (nulls & 6) != 0                  ? RSMPL_ERR_NULL_POINTER
                                                              : RSMPL_OK;
    uint32_t lo = kSentinel, hi = kSentinel;
    const auto ctx_before = w.ctx_mem.bytes();
    const uint32_t got = RSMPL_SetFracDelay(ctx, (nulls & 2) ? nullptr : &lo, (nulls & 4) ? nullptr : &hi, delay);
    FUZZ_CHECK(got == want);
    FUZZ_CHECK(w.ctx_mem.guards_intact());
    if (got != RSMPL_OK) {
        FUZZ_CHECK(w.ctx_mem.bytes() == ctx_before);
        FUZZ_CHECK(lo == kSentinel && hi == kSentinel);
        return;
    }
    FUZZ_CHECK(lo == 1 && hi == RSMPL_MAX_BLOCK);
    const RSMPL_Ctx &c = *w.ctx();
    FUZZ_CHECK(c.ratio == 1.0f && c.halfLength == 13 && c.targetHalfLength == 13);
    FUZZ_CHECK(c.position <= 0x10000u);
}

void num_in(World &w, Reader &r) {
    const uint8_t nulls = r.u8();
    const int32_t n_out = (r.u8() & 1) ? pick_length(r) : static_cast<int32_t>(r.range(0, 11600));
    RSMPL_Ctx *ctx = (nulls & 1) ? nullptr : w.ctx();
    const float ratio = w.ctx()->ratio;
    const uint32_t want = ctx == nullptr                                           ? RSMPL_ERR_NULL_CONTEXT
                          : n_out < 1                                              ? RSMPL_ERR_BAD_LENGTH
                          : n_out > static_cast<int32_t>(ratio * 1440.0f)          ? RSMPL_ERR_BAD_LENGTH
                          : (nulls & 2)                                            ? RSMPL_ERR_NULL_POINTER
                                                                                   : RSMPL_OK;
    int32_t n_in = static_cast<int32_t>(kSentinel);
    const auto ctx_before = w.ctx_mem.bytes();
    const uint32_t got = RSMPL_GetNumInSamples(ctx, n_out, (nulls & 2) ? nullptr : &n_in);
    FUZZ_CHECK(got == want);
    FUZZ_CHECK(w.ctx_mem.bytes() == ctx_before);  // a query, accepted or not
    if (got != RSMPL_OK) FUZZ_CHECK(n_in == static_cast<int32_t>(kSentinel));
}

void get_delay(World &w, Reader &r) {
    const uint8_t nulls = r.u8();
    RSMPL_Ctx *ctx = (nulls & 1) ? nullptr : w.ctx();
    uint32_t delay = kSentinel;
    const auto ctx_before = w.ctx_mem.bytes();
    const uint32_t got = RSMPL_GetResampleDelay(ctx, (nulls & 2) ? nullptr : &delay);
    FUZZ_CHECK(got == (ctx == nullptr ? RSMPL_ERR_NULL_CONTEXT : (nulls & 2) ? RSMPL_ERR_NULL_POINTER : RSMPL_OK));
    FUZZ_CHECK(w.ctx_mem.bytes() == ctx_before);
    if (got == RSMPL_OK)
        FUZZ_CHECK(delay == static_cast<uint32_t>(w.ctx()->targetHalfLength) && delay >= 13 && delay <= 104);
    else
        FUZZ_CHECK(delay == kSentinel);
}

void init_or_reset(World &w, Reader &r, bool init) {
    if (r.flag()) {
        FUZZ_CHECK((init ? RSMPL_InitContext(nullptr) : RSMPL_Reset(nullptr)) == RSMPL_ERR_NULL_CONTEXT);
        return;
    }
    FUZZ_CHECK((init ? RSMPL_InitContext(w.ctx()) : RSMPL_Reset(w.ctx())) == RSMPL_OK);
    FUZZ_CHECK(w.ctx_mem.guards_intact());
    check_fresh(w);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    Reader r(data, size);
    World w;
    FUZZ_CHECK(RSMPL_GetContextSize() == RSMPL_CONTEXT_SIZE);
    FUZZ_CHECK(RSMPL_InitContext(w.ctx()) == RSMPL_OK);
    InitRsmplCoeff_2_1(), InitRsmplCoeff_3_2(), InitRsmplCoeff_3_1(), InitRsmplCoeff_4_1(), InitRsmplCoeff_6_1();
    for (int op = 0; op < 48 && !r.empty(); ++op) {
        switch (r.u8() % 9) {
            case 0: fixed_ratio(w, r, true); break;
            case 1: fixed_ratio(w, r, false); break;
            case 2: resample(w, r); break;
            case 3: set_ratio(w, r); break;
            case 4: set_delay(w, r); break;
            case 5: num_in(w, r); break;
            case 6: get_delay(w, r); break;
            case 7: init_or_reset(w, r, true); break;
            default: init_or_reset(w, r, false); break;
        }
        FUZZ_CHECK(w.ctx_mem.guards_intact());
    }
    return 0;
}
