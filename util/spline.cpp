// Shape-preserving piecewise cubic Hermite interpolation (PCHIP) in single
// precision: Fritsch-Butland knot derivatives with Brodlie's weighting and
// limited three-point end formulas, evaluated piece by piece.
//
// The one working array (knot derivatives) is allocated after every argument
// check has passed and freed on every path after that. Nothing is written
// outside fe[0..ne-1], and fe is only written once the derivatives exist.
#include <cmath>
#include <cstdint>
#include <cstdlib>

#include <rsmpl/rsmpl_util.h>

namespace {

enum : int {
    kOk = 0,
    kTooFewKnots = -1,
    kNotIncreasing = -3,
    kNoPoints = -4,
    kInternal = -5,
    kNoMemory = -10,
};

// Strict: zero has no sign here.
bool same_sign(float a, float b) { return (a > 0.0f && b > 0.0f) || (a < 0.0f && b < 0.0f); }
bool opposite_sign(float a, float b) { return (a > 0.0f && b < 0.0f) || (a < 0.0f && b > 0.0f); }

// Three-point end derivative for the end interval of width h_end with slope
// s_end, next to an interval of width h_next with slope s_next; limited so the
// end piece neither changes direction nor overshoots.
float end_derivative(float h_end, float h_next, float s_end, float s_next) {
    const float hsum = h_end + h_next;
    float d = ((h_end + hsum) / hsum) * s_end - (h_end / hsum) * s_next;
    if (!same_sign(d, s_end)) {
        d = 0.0f;
    } else if (opposite_sign(s_end, s_next) && std::fabs(3.0f * s_end) < std::fabs(d)) {
        d = 3.0f * s_end;
    }
    return d;
}

void knot_derivatives(int n, const float *x, const float *f, float *d) {
    if (n == 2) {
        d[0] = d[1] = (f[1] - f[0]) / (x[1] - x[0]);
        return;
    }
    const float h0 = x[1] - x[0], h1 = x[2] - x[1];
    d[0] = end_derivative(h0, h1, (f[1] - f[0]) / h0, (f[2] - f[1]) / h1);

    for (int k = 1; k <= n - 2; ++k) {
        const float ha = x[k] - x[k - 1], hb = x[k + 1] - x[k];
        const float a = (f[k] - f[k - 1]) / ha, b = (f[k + 1] - f[k]) / hb;
        if (!same_sign(a, b)) {
            d[k] = 0.0f;
            continue;
        }
        const float hsum = ha + hb;
        const float w1 = (hsum + ha) / (3.0f * hsum), w2 = (hsum + hb) / (3.0f * hsum);
        const float big = std::fmax(std::fabs(a), std::fabs(b)), small = std::fmin(std::fabs(a), std::fabs(b));
        d[k] = small / (w1 * (a / big) + w2 * (b / big));
    }

    const float ha = x[n - 2] - x[n - 3], hb = x[n - 1] - x[n - 2];
    d[n - 1] = end_derivative(hb, ha, (f[n - 1] - f[n - 2]) / hb, (f[n - 2] - f[n - 3]) / ha);
}

struct SideCounts {
    int left = 0, right = 0;
};

// Evaluates the cubic of piece i (knots i-1 and i) at xe[0..m-1] and counts
// the points that lie outside the piece on either side.
SideCounts eval_piece(const float *x, const float *f, const float *d, int i, int m, const float *xe, float *fe) {
    const float h = x[i] - x[i - 1];
    const float D = (f[i] - f[i - 1]) / h;
    const float e1 = (d[i - 1] - D) / h, e2 = (d[i] - D) / h;
    const float c3 = (e1 + e2) / h;
    const float lo = std::fmin(0.0f, h), hi = std::fmax(0.0f, h);
    SideCounts c;
    for (int j = 0; j < m; ++j) {
        const float t = xe[j] - x[i - 1];
        if (t < lo) ++c.left;
        if (t > hi) ++c.right;
        fe[j] = f[i - 1] + t * (d[i - 1] + t * (c3 * t - (2.0f * e1 + e2)));
    }
    return c;
}

// Runs of evaluation points, one piece at a time; a run that holds a point
// left of its piece means the points are not ascending, and evaluation backs
// up to the piece of that point. Every point ends up written last by its own
// piece (points before x[0] by the first, after x[n-2] by the last).
int evaluate(int n, const float *x, const float *f, const float *d, int ne, const float *xe, float *fe) {
    int first = 0;
    int piece = 1;
    while (piece <= n - 1 && first < ne) {
        int end = ne;
        if (piece < n - 1) {
            end = first;
            while (end < ne && xe[end] < x[piece]) ++end;
        }
        if (end > first) {
            const SideCounts c = eval_piece(x, f, d, piece, end - first, xe + first, fe + first);
            if (c.right > 0 && piece < n - 1) return kInternal;
            if (c.left > 0 && piece > 1) {
                int j = first;
                while (j < end && !(xe[j] < x[piece - 1])) ++j;
                if (j == end) return kInternal;
                int k = 0;  // first knot above xe[j]; k <= piece - 1 since xe[j] < x[piece - 1]
                while (k < piece - 1 && !(xe[j] < x[k])) ++k;
                first = j;
                piece = k > 1 ? k : 1;
                continue;
            }
        }
        first = end;
        ++piece;
    }
    return kOk;
}

}  // namespace

extern "C" {

int spline_pchip_val(int n, const float *x, const float *f, int ne, const float *xe, float *fe) {
    if (n < 2) return kTooFewKnots;
    for (int i = 1; i < n; ++i)
        if (!(x[i] > x[i - 1])) return kNotIncreasing;  // NaN abscissae are not increasing either
    if (ne < 1) return kNoPoints;

    float *d = static_cast<float *>(std::malloc(static_cast<size_t>(n) * sizeof(float)));
    if (d == nullptr) return kNoMemory;
    knot_derivatives(n, x, f, d);
    const int status = evaluate(n, x, f, d, ne, xe, fe);
    std::free(d);
    return status;
}

int UTIL_SplineFit(int n, const float *x, const float *f, int ne, const float *xe, float *fe) {
    if (x == nullptr || f == nullptr || xe == nullptr || fe == nullptr) return 1;
    if (n < 1 || ne < 1) return 2;
    return spline_pchip_val(n, x, f, ne, xe, fe);
}

}  // extern "C"
