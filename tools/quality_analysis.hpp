// Tone analysis shared by rsmpl-quality and the filter-property tests.
#pragma once

#include <cmath>
#include <complex>
#include <cstdint>
#include <numbers>
#include <vector>

namespace quality {

constexpr double kPi = std::numbers::pi;

// 7-term Blackman-Harris window: side lobes below -180 dB, main lobe +-7 bins.
inline std::vector<double> window(size_t n) {
    static constexpr double a[] = {0.27105140069342, 0.43329793923448, 0.21812299954311, 0.06592544638803,
                                   0.01081174209837, 0.00077658482522, 0.00001388721735};
    std::vector<double> w(n);
    for (size_t i = 0; i < n; ++i) {
        double v = 0;
        for (int k = 0; k < 7; ++k) v += (k % 2 ? -a[k] : a[k]) * std::cos(2 * kPi * k * double(i) / double(n));
        w[i] = v;
    }
    return w;
}

// Amplitude (1.0 = full scale) of the component at frequency f (Hz) of
// y[start, start + w.size()), from the windowed transform at exactly f.
inline double amplitude_at(const std::vector<int16_t> &y, size_t start, const std::vector<double> &w, double f, double rate) {
    const std::complex<double> rot = std::polar(1.0, -2 * kPi * f / rate);
    std::complex<double> z = 1.0, acc = 0.0;
    double wsum = 0;
    for (size_t i = 0; i < w.size(); ++i) {
        const double v = start + i < y.size() ? y[start + i] : 0.0;
        acc += w[i] * v * z;
        wsum += w[i];
        z *= rot;
        if ((i & 255) == 255) z /= std::abs(z);
    }
    return 2 * std::abs(acc) / wsum / 32768.0;
}

}  // namespace quality
