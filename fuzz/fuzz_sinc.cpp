// Random sequences of ratio changes, fractional delays, resets and block
// lengths on the sinc interpolator through the RSMPL interface. Each block
// gets exactly the output room rsmpl/rsmpl.h promises is enough
// (floor(L * r) + 2 for L consumed positions at the ratio r in use), with
// guards after it; the count reported must cover exactly what was written.
// The lengths the control calls report must be the ones RSMPL_Resample then
// accepts, and a block of RSMPL_GetNumInSamples(n) inputs must give n outputs
// (at most n above ratio 1).
#include <cmath>
#include <cstdint>
#include <vector>

#include "fuzz_support.hpp"
#include "rsmpl/interface/context.hpp"
#include <rsmpl/rsmpl.h>

namespace {

using rsmpl_fuzz::Guarded;
using rsmpl_fuzz::Reader;

float pick_ratio(Reader &r) {
    static constexpr float kNice[] = {0.125f, 0.126f, 0.2f, 0.25f, 1.0f / 3.0f, 0.5f, 0.51f, 0.75f, 0.999f, 1.0f,
                                      1.001f, 1.5f, 2.0f, 3.0f, 4.0f, 6.0f, 7.99f, 8.0f, 0.1f, 8.5f, NAN};
    switch (r.u8() % 3) {
        case 0: return kNice[r.u8() % (sizeof kNice / sizeof kNice[0])];
        case 1: return 0.125f + 7.875f * static_cast<float>(r.u16()) / 65535.0f;
        default: return (r.u8() & 1) ? r.f32() : 0.125f * std::exp2(6.0f * static_cast<float>(r.u16()) / 65535.0f);
    }
}

struct State {
    Guarded<uint8_t> mem{RSMPL_CONTEXT_SIZE};
    float in_use = 1.0f;  // ratio of the next block
    float target = 1.0f;  // ratio of the blocks after it
    RSMPL_Ctx *ctx() { return reinterpret_cast<RSMPL_Ctx *>(mem.data()); }
    int32_t growth() { return ctx()->targetHalfLength - ctx()->halfLength; }
};

// One block of n inputs, with the promised room. Returns the outputs, or -1
// when the block was (rightly) refused.
int64_t block(State &s, Reader &r, int32_t n) {
    const int32_t d = s.growth();
    const bool ok = n >= 1 && n <= RSMPL_MAX_BLOCK && n > d;
    const int64_t consumed = int64_t{n} - d;
    const size_t room = ok ? static_cast<size_t>(std::floor(static_cast<double>(consumed) * s.in_use)) + 2 : 4;
    Guarded<int16_t> in(ok ? static_cast<size_t>(n) : 4), out(room);
    r.samples(in.data(), in.size());
    uint32_t count = 0xFFFFFFFFu;
    const auto before = s.mem.bytes();
    const uint32_t status = RSMPL_Resample(s.ctx(), in.data(), out.data(), n, &count);
    FUZZ_CHECK(s.mem.guards_intact() && in.guards_intact() && out.guards_intact());
    if (!ok) {
        FUZZ_CHECK(status == RSMPL_ERR_BAD_LENGTH);
        FUZZ_CHECK(s.mem.bytes() == before && out.untouched_from(0) && count == 0xFFFFFFFFu);
        return -1;
    }
    FUZZ_CHECK(status == RSMPL_OK);
    FUZZ_CHECK(count >= 1 && count <= room);
    FUZZ_CHECK(out.untouched_from(count));
    // The targets are now in use.
    const RSMPL_Ctx &c = *s.ctx();
    FUZZ_CHECK(c.halfLength == c.targetHalfLength && c.step == c.targetStep && c.gain == c.targetGain &&
               c.tableStep == c.targetTableStep);
    FUZZ_CHECK(c.position <= (uint32_t{RSMPL_HISTORY_SAMPLES} << 16));
    s.in_use = s.target;
    return count;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    Reader r(data, size);
    State s;
    FUZZ_CHECK(RSMPL_InitContext(s.ctx()) == RSMPL_OK);

    for (int op = 0; op < 96 && !r.empty(); ++op) {
        const uint8_t what = r.u8();
        switch (what % 8) {
            case 0: {  // ratio change; the lengths it reports must hold
                const float ratio = pick_ratio(r);
                uint32_t lo = 0, hi = 0, extra = 0;
                const uint32_t status = RSMPL_SetResampleRatio(s.ctx(), &lo, &hi, &extra, ratio);
                if (!(ratio >= 0.125f && ratio <= 8.0f)) {
                    FUZZ_CHECK(status == RSMPL_ERR_BAD_INDEX);
                    break;
                }
                FUZZ_CHECK(status == RSMPL_OK && hi == RSMPL_MAX_BLOCK && lo >= 1);
                s.target = ratio;
                FUZZ_CHECK(static_cast<int64_t>(lo) == std::max<int64_t>(1, int64_t{s.growth()} + 1));
                if (what & 0x80) {
                    // The smallest block it names is accepted, one less is not.
                    if (lo > 1) FUZZ_CHECK(block(s, r, static_cast<int32_t>(lo) - 1) < 0);
                    FUZZ_CHECK(block(s, r, static_cast<int32_t>(lo)) >= 1);
                }
                break;
            }
            case 1: {  // fractional delay: a restart at ratio 1
                const float delay = (what & 0x80) ? r.f32() : static_cast<float>(r.u16()) / 65535.0f;
                uint32_t lo = 0, hi = 0;
                const uint32_t status = RSMPL_SetFracDelay(s.ctx(), &lo, &hi, delay);
                if (!(delay >= 0.0f && delay <= 1.0f)) {
                    FUZZ_CHECK(status == RSMPL_ERR_BAD_DELAY);
                    break;
                }
                FUZZ_CHECK(status == RSMPL_OK && lo == 1 && hi == RSMPL_MAX_BLOCK);
                s.in_use = s.target = 1.0f;
                break;
            }
            case 2:
                if ((what & 0xF0) == 0) {
                    FUZZ_CHECK(RSMPL_Reset(s.ctx()) == RSMPL_OK);
                    s.in_use = s.target = 1.0f;
                    break;
                }
                [[fallthrough]];
            case 3: {  // ask for n outputs, then feed what was asked for
                const int32_t want = static_cast<int32_t>(r.range(1, 11520));
                int32_t n_in = 0;
                const uint32_t status = RSMPL_GetNumInSamples(s.ctx(), want, &n_in);
                if (want > static_cast<int32_t>(s.ctx()->ratio * 1440.0f)) {
                    FUZZ_CHECK(status == RSMPL_ERR_BAD_LENGTH);
                    break;
                }
                FUZZ_CHECK(status == RSMPL_OK);
                if (n_in < 1 || n_in > RSMPL_MAX_BLOCK || n_in <= s.growth()) break;
                const float ratio = s.in_use;
                const int64_t got = block(s, r, n_in);
                if (ratio <= 1.0f)
                    FUZZ_CHECK(got == want);
                else
                    FUZZ_CHECK(got >= 1 && got <= want);
                break;
            }
            default: {  // a block of any length, mostly admissible
                int32_t n;
                switch (r.u8() % 4) {
                    case 0: n = r.i32(); break;
                    case 1: n = static_cast<int32_t>(r.range(0, 24)); break;
                    case 2: n = static_cast<int32_t>(r.range(1400, 1450)); break;
                    default: n = static_cast<int32_t>(r.range(1, RSMPL_MAX_BLOCK)); break;
                }
                block(s, r, n);
                break;
            }
        }
        FUZZ_CHECK(s.mem.guards_intact());
    }
    return 0;
}
