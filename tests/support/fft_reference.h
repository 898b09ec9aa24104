// What the FFT tests share: a fixture that leaves no cached tables behind,
// random data, and the reference: a naive DFT in double read out in the
// layout of each transform shape.
#pragma once

#include <cmath>
#include <complex>
#include <numbers>
#include <random>
#include <vector>

#include "kvx_test.h"

namespace fftref {

using cd = std::complex<double>;

// Every test ends without cached tables, so that the next starts cold.
class FftTest : public kvxtest::LibTest {
protected:
    void TearDown() override {
        QXFreeFftTbls();
        LibTest::TearDown();
    }
};

template <class T>
std::vector<T> noise(std::size_t count, double amplitude, unsigned seed) {
    std::mt19937 gen(seed);
    std::uniform_real_distribution<double> u(-amplitude, amplitude);
    std::vector<T> v(count);
    for (T& x : v)
        x = static_cast<T>(u(gen));
    return v;
}

// Complex: n (re, im) pairs in and out. Real: n reals in, the packed spectrum
// out ([0] X(0), [1] X(n/2), [2k], [2k+1] X(k)). Packed: the reverse.
enum class Shape { Complex, Real, Packed };

// X(k) = sum_j z[j] e^(sign 2 pi i jk / n) of the n complex values z a
// transform of shape s works on, each bin computed once, on demand.
class Dft {
public:
    template <class T>
    Dft(Shape s, const std::vector<T>& in, int sign) : s_(s), z_(in.begin(), in.end()) {
        if (s == Shape::Complex) {
            for (std::size_t k = 0; k < in.size() / 2; ++k)
                z_[k] = {double(in[2 * k]), double(in[2 * k + 1])};
            z_.resize(in.size() / 2);
        } else if (s == Shape::Packed) {  // the conjugate-symmetric spectrum the packed values stand for
            if (in.size() > 1)
                z_[in.size() / 2] = double(in[1]);
            for (std::size_t k = 1; k < in.size() / 2; ++k)
                z_[in.size() - k] = std::conj(z_[k] = {double(in[2 * k]), double(in[2 * k + 1])});
        }
        const std::size_t n = z_.size();
        for (std::size_t m = 0; m < n; ++m) {
            const double a = 2.0 * std::numbers::pi * double(m) / double(n);
            w_.push_back({std::cos(a), sign * std::sin(a)});
        }
        X_.assign(n, cd(NAN, 0));
    }
    cd operator()(std::size_t k) {
        if (std::isnan(X_[k].real())) {
            X_[k] = 0;
            for (std::size_t j = 0; j < z_.size(); ++j)
                X_[k] += z_[j] * w_[(j * k) % z_.size()];
        }
        return X_[k];
    }
    // Output value i of the transform.
    double at(std::size_t i) {
        if (s_ == Shape::Packed)
            return (*this)(i).real();
        if (s_ == Shape::Real && i == 1)
            return (*this)(z_.size() / 2).real();
        const cd v = (*this)(i / 2);
        return i % 2 ? v.imag() : v.real();
    }

private:
    Shape s_;
    std::vector<cd> z_, w_, X_;
};

}  // namespace fftref
