#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <numeric>
#include <random>
#include <unistd.h>
#include <vector>

#include "support.hpp"
#include <rsmpl/rsmpl_util.h>

namespace {

using Floats = std::vector<float>;
using rsmpl_test::Guarded;

bool same_sign(double a, double b) { return (a > 0 && b > 0) || (a < 0 && b < 0); }

double limited_end(double d, double s_end, double s_next) {
    if (!same_sign(d, s_end)) return 0.0;
    if (same_sign(-s_end, s_next) && std::fabs(d) > std::fabs(3 * s_end)) return 3 * s_end;
    return d;
}

// Double-precision PCHIP: interior derivatives as the weighted harmonic mean
// 1 / (w1 / b + w2 / a) of the neighbouring slopes, the curve in Hermite
// basis form, the piece found by binary search.
struct Pchip {
    std::vector<double> x, f, d;

    Pchip(const Floats &xs, const Floats &fs) : x(xs.begin(), xs.end()), f(fs.begin(), fs.end()), d(xs.size()) {
        const size_t n = x.size();
        std::vector<double> h(n - 1), s(n - 1);
        for (size_t k = 0; k + 1 < n; ++k) {
            h[k] = x[k + 1] - x[k];
            s[k] = (f[k + 1] - f[k]) / h[k];
        }
        if (n == 2) {
            d[0] = d[1] = s[0];
            return;
        }
        for (size_t k = 1; k + 1 < n; ++k) {
            const double hs = h[k - 1] + h[k];
            const double w1 = (hs + h[k - 1]) / (3 * hs), w2 = (hs + h[k]) / (3 * hs);
            d[k] = same_sign(s[k - 1], s[k]) ? 1.0 / (w1 / s[k] + w2 / s[k - 1]) : 0.0;
        }
        const double hs0 = h[0] + h[1];
        d[0] = limited_end(((h[0] + hs0) / hs0) * s[0] - (h[0] / hs0) * s[1], s[0], s[1]);
        const double hs1 = h[n - 3] + h[n - 2];
        d[n - 1] = limited_end(((h[n - 2] + hs1) / hs1) * s[n - 2] - (h[n - 2] / hs1) * s[n - 3], s[n - 2], s[n - 3]);
    }

    double operator()(double xe) const {
        // Piece i joins knots i-1 and i; a point on x[i] belongs to piece i+1.
        size_t i = static_cast<size_t>(std::upper_bound(x.begin(), x.end(), xe) - x.begin());
        i = std::clamp<size_t>(i, 1, x.size() - 1);
        const double h = x[i] - x[i - 1], u = (xe - x[i - 1]) / h;
        const double h00 = (1 + 2 * u) * (1 - u) * (1 - u), h10 = u * (1 - u) * (1 - u);
        const double h01 = u * u * (3 - 2 * u), h11 = u * u * (u - 1);
        return h00 * f[i - 1] + h10 * h * d[i - 1] + h01 * f[i] + h11 * h * d[i];
    }
};

Floats random_knots(std::mt19937 &rng, size_t n, float x0) {
    std::uniform_real_distribution<float> step(0.05f, 2.0f);
    Floats x(n);
    x[0] = x0;
    for (size_t i = 1; i < n; ++i) x[i] = x[i - 1] + step(rng);
    return x;
}

// Runs the forwarder with fe followed by guard bytes.
Floats fit(const Floats &x, const Floats &f, const Floats &xe) {
    Guarded<float> fe(xe.size());
    EXPECT_EQ(UTIL_SplineFit(static_cast<int>(x.size()), x.data(), f.data(), static_cast<int>(xe.size()), xe.data(),
                             fe.data()), 0);
    EXPECT_TRUE(fe.guards_intact());
    return Floats(fe.data(), fe.data() + xe.size());
}

// Worked examples: the line through two knots, also outside them; flat where
// the neighbouring slopes are not of one strict sign, and never outside 0..2.
TEST(Spline, Examples) {
    EXPECT_EQ(fit({0, 1}, {0, 2}, {-1, 0.5f, 3, 0, 1}), (Floats{-2, 1, 6, 0, 2}));
    Floats xe;
    for (int i = 0; i <= 300; ++i) xe.push_back(static_cast<float>(i) / 100.0f);
    const Floats fe = fit({0, 1, 2, 3}, {0, 1, 1, 2}, xe);
    for (size_t i = 0; i < xe.size(); ++i) {
        EXPECT_TRUE(fe[i] >= 0.0f && fe[i] <= 2.0f) << xe[i];
        if (xe[i] >= 1.0f && xe[i] <= 2.0f) {
            EXPECT_EQ(fe[i], 1.0f) << xe[i];
        }
    }
}

TEST(Spline, StatusCodesInCheckOrderLeaveResultsUntouched) {
    const Floats x3 = {0, 1, 2}, bad = {0, 1, 1}, down = {0, 2, 1}, f3 = {1, 2, 3}, xe = {0.5f, 1.5f};
    const float nan = std::nanf("");
    const Floats xnan = {0, nan, 2};
    struct Case { const char *what; bool forwarder; int n; const float *x, *f; int ne; const float *xe; bool null_fe; int status; };
    const Case cases[] = {
        {"null x", true, 3, nullptr, f3.data(), 2, xe.data(), false, 1},
        {"null f", true, 3, x3.data(), nullptr, 2, xe.data(), false, 1},
        {"null xe", true, 3, x3.data(), f3.data(), 2, nullptr, false, 1},
        {"null fe", true, 3, x3.data(), f3.data(), 2, xe.data(), true, 1},
        {"null before count", true, 0, nullptr, f3.data(), 0, xe.data(), false, 1},
        {"n 0", true, 0, x3.data(), f3.data(), 2, xe.data(), false, 2},
        {"n negative", true, -1, x3.data(), f3.data(), 2, xe.data(), false, 2},
        {"ne 0", true, 3, x3.data(), f3.data(), 0, xe.data(), false, 2},
        {"ne negative", true, 3, x3.data(), f3.data(), -3, xe.data(), false, 2},
        {"n 1 through forwarder", true, 1, x3.data(), f3.data(), 2, xe.data(), false, -1},
        {"repeated abscissa through forwarder", true, 3, bad.data(), f3.data(), 2, xe.data(), false, -3},
        {"n 1", false, 1, bad.data(), f3.data(), 0, xe.data(), false, -1},
        {"n 0 body", false, 0, x3.data(), f3.data(), 2, xe.data(), false, -1},
        {"repeated abscissa before ne", false, 3, bad.data(), f3.data(), 0, xe.data(), false, -3},
        {"descending abscissa", false, 3, down.data(), f3.data(), 2, xe.data(), false, -3},
        {"NaN abscissa", false, 3, xnan.data(), f3.data(), 2, xe.data(), false, -3},
        {"ne 0 body", false, 3, x3.data(), f3.data(), 0, xe.data(), false, -4},
        {"accepted", true, 3, x3.data(), f3.data(), 2, xe.data(), false, 0},
    };
    for (const Case &c : cases) {
        Guarded<float> fe(2);
        fe[0] = fe[1] = -7.0f;
        float *out = c.null_fe ? nullptr : fe.data();
        const int st = c.forwarder ? UTIL_SplineFit(c.n, c.x, c.f, c.ne, c.xe, out)
                                   : spline_pchip_val(c.n, c.x, c.f, c.ne, c.xe, out);
        EXPECT_EQ(st, c.status) << c.what;
        if (c.status != 0) {
            EXPECT_EQ(fe[0], -7.0f) << c.what;
            EXPECT_EQ(fe[1], -7.0f) << c.what;
        }
        EXPECT_TRUE(fe.guards_intact()) << c.what;
    }
}

// Random knots and values (with plateaus), points inside and beyond the knots
// and the knots themselves, against the double-precision model; the tolerance
// is relative to the data's size or, where larger, to the value. Descending
// and shuffled points give exactly the ascending results; every knot but the
// last gives back its value exactly.
TEST(Spline, RandomDataMatchModelInAnyOrder) {
    std::mt19937 rng(2024);
    for (int round = 0; round < 300; ++round) {
        SCOPED_TRACE(round);
        const size_t n = 2 + rng() % 40;
        const Floats x = random_knots(rng, n, -5.0f);
        std::uniform_real_distribution<float> value(-100.0f, 100.0f);
        Floats f(n);
        for (size_t i = 0; i < n; ++i) f[i] = (round % 4 == 0 && i > 0 && rng() % 3 == 0) ? f[i - 1] : value(rng);
        std::uniform_real_distribution<float> where(x.front() - 1.0f, x.back() + 1.0f);
        Floats xe(200);
        for (auto &p : xe) p = where(rng);
        xe.insert(xe.end(), x.begin(), x.end());
        std::sort(xe.begin(), xe.end());
        const Floats up = fit(x, f, xe);
        const Pchip model(x, f);
        for (size_t j = 0; j < xe.size(); ++j) {
            // Far outside a short end interval the cubic grows large: relative there.
            const double want = model(xe[j]);
            ASSERT_LT(std::fabs(up[j] - want) / std::max(100.0, std::fabs(want)), 2e-5) << xe[j];
        }
        for (size_t i = 0; i + 1 < n; ++i)
            ASSERT_EQ(up[std::lower_bound(xe.begin(), xe.end(), x[i]) - xe.begin()], f[i]) << i;

        Floats down = fit(x, f, Floats(xe.rbegin(), xe.rend()));
        std::reverse(down.begin(), down.end());
        ASSERT_EQ(down, up);
        std::vector<size_t> order(xe.size());
        std::iota(order.begin(), order.end(), size_t{0});
        std::shuffle(order.begin(), order.end(), rng);
        Floats mixed(xe.size());
        for (size_t i = 0; i < order.size(); ++i) mixed[i] = xe[order[i]];
        const Floats got = fit(x, f, mixed);
        for (size_t i = 0; i < order.size(); ++i) ASSERT_EQ(got[i], up[order[i]]);
    }
}

TEST(Spline, MonotoneDataGiveMonotoneCurves) {
    std::mt19937 rng(77);
    for (int round = 0; round < 100; ++round) {
        const size_t n = 2 + rng() % 30;
        const Floats x = random_knots(rng, n, 0.0f);
        std::uniform_real_distribution<float> rise(0.0f, 10.0f);
        const float sign = (round % 2) ? 1.0f : -1.0f;
        Floats f(n);
        f[0] = 0;
        for (size_t i = 1; i < n; ++i) f[i] = f[i - 1] + sign * ((rng() % 4 == 0) ? 0.0f : rise(rng));
        Floats xe;
        for (size_t i = 0; i + 1 < n; ++i)
            for (int k = 0; k < 64; ++k) xe.push_back(x[i] + (x[i + 1] - x[i]) * static_cast<float>(k) / 64.0f);
        xe.push_back(x.back());
        const Floats fe = fit(x, f, xe);
        for (size_t j = 0; j < fe.size(); ++j) {
            ASSERT_GE(sign * fe[j], sign * fe[j > 0 ? j - 1 : 0]) << "round " << round << " at " << xe[j];
            // No overshoot: between the knots' values piece by piece.
            const size_t i = std::min<size_t>(j / 64, n - 2);
            ASSERT_TRUE(fe[j] >= std::min(f[i], f[i + 1]) && fe[j] <= std::max(f[i], f[i + 1])) << xe[j];
        }
    }
}

// Odd but comparable points: infinities and NaN evaluation points terminate,
// stay inside fe, and do not disturb the other points.
TEST(Spline, NonFinitePointsStayContained) {
    const Floats x = {0, 1, 2, 3}, f = {0, 1, 4, 9};
    const float inf = INFINITY, nan = std::nanf("");
    const Floats ref = fit(x, f, {0.5f, 2.5f});
    const Floats fe = fit(x, f, {2.5f, nan, -inf, 0.5f, inf, nan});
    EXPECT_EQ(fe[0], ref[1]);
    EXPECT_EQ(fe[3], ref[0]);
    EXPECT_TRUE(std::isnan(fe[1]));
}

// Allocation failure: -10 and fe untouched. Runs in a child process whose
// address space is capped just above its current size; sanitizers reserve
// huge address ranges and cannot run under such a cap.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
[[noreturn]] void spline_under_address_space_cap() {
    const int n = 1 << 22;  // 16 MiB of derivatives
    std::vector<float> x(n), f(n, 1.0f);
    for (int i = 0; i < n; ++i) x[i] = static_cast<float>(i);
    float xe[2] = {0.5f, 3.5f}, fe[2] = {-7.0f, -7.0f};
    long pages = 0;
    FILE *statm = std::fopen("/proc/self/statm", "r");
    if (statm == nullptr || std::fscanf(statm, "%ld", &pages) != 1) std::_Exit(2);
    std::fclose(statm);
    rlimit cap{};
    if (getrlimit(RLIMIT_AS, &cap) != 0) std::_Exit(3);
    cap.rlim_cur = static_cast<rlim_t>(pages * sysconf(_SC_PAGESIZE)) + (4u << 20);
    if (setrlimit(RLIMIT_AS, &cap) != 0) std::_Exit(3);
    const int st = UTIL_SplineFit(n, x.data(), f.data(), 2, xe, fe);
    std::_Exit(st == -10 && fe[0] == -7.0f && fe[1] == -7.0f ? 0 : 1);
}
#endif

TEST(Spline, AllocationFailureReportsAndLeavesResultsUntouched) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "address-space cap is incompatible with sanitizers";
#else
    // qemu-user accepts RLIMIT_AS but does not apply it to its guest.
    if (std::getenv("RSMPL_EMULATOR") != nullptr) GTEST_SKIP() << "no address-space cap under the emulator";
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(spline_under_address_space_cap(), ::testing::ExitedWithCode(0), "");
#endif
}

}  // namespace
