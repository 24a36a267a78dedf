// A buffer with guard bytes on both sides, shared by the tests and the fuzz
// targets. No test framework here: the fuzz targets include it too.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace rsmpl_test {

// n elements with guard bytes before and after; a pattern fills everything
// at the start, so writes outside [0, n) and, where asked, writes past the
// part a call may touch both show.
template <typename T>
class Guarded {
public:
    static constexpr size_t kGuard = 32;
    static constexpr uint8_t kPattern = 0xA5;

    explicit Guarded(size_t n) : n_(n), raw_(kGuard + n * sizeof(T) + kGuard, kPattern) {}

    T *data() { return n_ == 0 ? end_marker() : reinterpret_cast<T *>(raw_.data() + kGuard); }
    const T *data() const { return const_cast<Guarded *>(this)->data(); }
    size_t size() const { return n_; }
    T &operator[](size_t i) { return data()[i]; }

    bool guards_intact() const {
        const auto ok = [](uint8_t b) { return b == kPattern; };
        return std::all_of(raw_.begin(), raw_.begin() + kGuard, ok) &&
               std::all_of(raw_.end() - kGuard, raw_.end(), ok);
    }
    // Elements from..n-1 still hold the fill pattern.
    bool untouched_from(size_t from) const {
        const size_t begin = kGuard + from * sizeof(T);
        return std::all_of(raw_.begin() + static_cast<std::ptrdiff_t>(std::min(begin, raw_.size())),
                           raw_.end(), [](uint8_t b) { return b == kPattern; });
    }
    std::vector<uint8_t> bytes() const {
        return {raw_.begin() + kGuard, raw_.begin() + static_cast<std::ptrdiff_t>(kGuard + n_ * sizeof(T))};
    }

private:
    // An empty buffer still has a valid, non-null address (its guard).
    T *end_marker() { return reinterpret_cast<T *>(raw_.data() + kGuard); }

    size_t n_;
    std::vector<uint8_t> raw_;
};

}  // namespace rsmpl_test
