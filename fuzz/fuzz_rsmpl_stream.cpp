// Random sequences of RSMPL_Up, RSMPL_Down and RSMPL_Reset on one context,
// with admissible and inadmissible lengths and any stage index, switching
// stages and directions without a reset as a careless caller would. Every
// accepted call is made twice, in place on the context and with separate
// buffers on a copy of it: outputs and contexts must agree. Rejected calls
// must change nothing, and nothing may be written outside the room a call is
// given.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

#include "fuzz_support.hpp"
#include <rsmpl/rsmpl.h>

namespace {

using rsmpl_fuzz::Guarded;
using rsmpl_fuzz::Reader;

constexpr int32_t kFactor[] = {0, 2, 3, 4, 6};

struct Rule {
    int32_t lo, hi, multiple;  // hi: largest n accepted (up), or 0 for none (down)
};
constexpr Rule kUp[] = {{6, 960, 1}, {4, 720, 1}, {6, 480, 1}, {4, 360, 1}, {6, 240, 1}};
constexpr Rule kDown[] = {{18, 0, 6}, {8, 0, 4}, {18, 0, 6}, {16, 0, 4}, {36, 0, 6}};

bool accepts(const Rule &rule, int32_t n) {
    return n >= rule.lo && (rule.hi == 0 || n <= rule.hi) && n % rule.multiple == 0;
}

// Mostly admissible lengths, the edges around them, and now and then anything.
int32_t pick_length(Reader &r, const Rule &rule) {
    const uint8_t kind = r.u8();
    const int32_t top = rule.hi != 0 ? rule.hi : 4000;
    switch (kind % 8) {
        case 0: return r.i32() % 5000;
        case 1: return rule.lo - 1 - static_cast<int32_t>(r.range(0, 8));
        case 2: return top + 1 + static_cast<int32_t>(r.range(0, 8));
        case 3: return static_cast<int32_t>(r.range(0, static_cast<uint32_t>(top) + 16));
        default: {
            const int32_t steps = (top - rule.lo) / rule.multiple;
            return rule.lo + rule.multiple * static_cast<int32_t>(r.range(0, static_cast<uint32_t>(steps)));
        }
    }
}

int32_t room(bool up, uint32_t index, int32_t n) {
    if (up) return index == 0 ? 3 * (n / 2) + n % 2 : kFactor[index] * n;
    return index == 0 ? 2 * (n / 3) : n / kFactor[index];
}

struct Context {
    Guarded<uint8_t> mem{RSMPL_CONTEXT_SIZE};
    RSMPL_Ctx *get() { return reinterpret_cast<RSMPL_Ctx *>(mem.data()); }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    Reader r(data, size);
    Context ctx, twin;
    FUZZ_CHECK(RSMPL_InitContext(ctx.get()) == RSMPL_OK);
    FUZZ_CHECK(RSMPL_InitContext(twin.get()) == RSMPL_OK);
    const std::vector<uint8_t> fresh = ctx.mem.bytes();

    for (int op = 0; op < 64 && !r.empty(); ++op) {
        const uint8_t what = r.u8();
        if (what % 16 == 0) {
            FUZZ_CHECK(RSMPL_Reset(ctx.get()) == RSMPL_OK && RSMPL_Reset(twin.get()) == RSMPL_OK);
            FUZZ_CHECK(ctx.mem.bytes() == fresh && twin.mem.bytes() == fresh);
            continue;
        }
        const bool up = (what & 1) != 0;
        // Mostly the five stages, sometimes indices beyond them.
        const uint32_t index = (what & 0xE0) == 0xE0 ? r.u32() | 5u : r.range(0, 4);
        const Rule &rule = (up ? kUp : kDown)[index <= 4 ? index : 0];
        const int32_t n = pick_length(r, rule);
        const bool ok = index <= 4 && accepts(rule, n);

        const size_t len = ok ? static_cast<size_t>(n) : r.range(0, 32);
        const size_t out_len = ok ? static_cast<size_t>(room(up, index, n)) : r.range(0, 32);
        Guarded<int16_t> inout(std::max(len, out_len)), in(len), out(out_len);
        r.samples(in.data(), len);
        std::copy(in.data(), in.data() + len, inout.data());
        const std::vector<uint8_t> in_before = in.bytes(), inout_before = inout.bytes();
        const std::vector<uint8_t> ctx_before = ctx.mem.bytes(), twin_before = twin.mem.bytes();

        auto call = [&](RSMPL_Ctx *c, const int16_t *src, int16_t *dst) {
            return up ? RSMPL_Up(c, src, dst, n, index) : RSMPL_Down(c, src, dst, n, index);
        };
        const uint32_t a = call(ctx.get(), inout.data(), inout.data());
        const uint32_t b = call(twin.get(), in.data(), out.data());
        const uint32_t want = index > 4 ? RSMPL_ERR_BAD_INDEX : ok ? RSMPL_OK : RSMPL_ERR_BAD_LENGTH;
        FUZZ_CHECK(a == want && b == want);
        FUZZ_CHECK(ctx.mem.guards_intact() && twin.mem.guards_intact());
        FUZZ_CHECK(inout.guards_intact() && in.guards_intact() && out.guards_intact());
        FUZZ_CHECK(in.bytes() == in_before);  // read only
        if (!ok) {
            FUZZ_CHECK(ctx.mem.bytes() == ctx_before && twin.mem.bytes() == twin_before);
            FUZZ_CHECK(inout.bytes() == inout_before && out.untouched_from(0));
            continue;
        }
        // In place and separate buffers: the same outputs, the same history.
        const int32_t produced_n = !up ? room(false, index, n) : index == 0 ? 3 * (n / 2) : kFactor[index] * n;
        const size_t produced = static_cast<size_t>(produced_n);
        FUZZ_CHECK(std::equal(out.data(), out.data() + produced, inout.data()));
        FUZZ_CHECK(ctx.mem.bytes() == twin.mem.bytes());
        // The sinc parameters are never a stage's business.
        const auto after = ctx.mem.bytes();
        FUZZ_CHECK(std::equal(after.begin() + 2 * RSMPL_HISTORY_SAMPLES, after.end(),
                              fresh.begin() + 2 * RSMPL_HISTORY_SAMPLES));
    }
    return 0;
}
