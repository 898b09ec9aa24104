// Vector distances of float vectors: dot product, city-block, Euclidean and
// the two weighted (Mahalanobis) forms. Results are doubles; no state, no
// allocation. The kernels are in qx_dist.h, shared with the 16-bit forms.
//
// Each measure checks its arguments in order, reporting every failed check,
// then returns 0 while an error is pending. The exported functions first test
// whether any check can fail at all: when none can, the measure is computed
// and the status read afterwards (the vectors are only read), and the checks
// with their reports stay in a separate cold function. This keeps the call
// cheap for the short vectors these measures are mostly used on.
#include "kvxpx.h"
#include "qx_dist.h"
#include "qx_report.h"

namespace {

double unless_pending(double result) noexcept { return qx::Report::failed() ? 0.0 : result; }

// The checks with their reports, out of the exported functions' fast path:
// called only when one of them fails, so the result is 0. Reported at the
// caller's line.
[[gnu::cold, gnu::noinline]] double refuse(const qx::Report& r, int n, const float* vect1, const float* vect2,
                                           const void* weights = nullptr, const char* weightsText = nullptr,
                                           qx::where loc = qx::where::current()) noexcept {
    qx::dist::vector_checks(r, n, vect1, vect2, weights, weightsText, loc);
    return 0.0;
}

}  // namespace

extern "C" {

QX_API double QXsDotP(const float* vect1, const float* vect2, int n) {
    constexpr qx::Report r{"QXsDotP"};
    if (n <= 0 || vect1 == nullptr || vect2 == nullptr) [[unlikely]]
        return refuse(r, n, vect1, vect2);
    return unless_pending(qx::dist::dot(vect1, vect2, n));
}

QX_API double QXsL1Norm(const float* vect1, const float* vect2, int n) {
    constexpr qx::Report r{"QXsL1Norm"};
    if (n <= 0 || vect1 == nullptr || vect2 == nullptr) [[unlikely]]
        return refuse(r, n, vect1, vect2);
    return unless_pending(qx::dist::l1(vect1, vect2, n));
}

QX_API double QXsL2Norm(const float* vect1, const float* vect2, int n, int doSqrt) {
    constexpr qx::Report r{"QXsL2Norm"};
    if (n <= 0 || vect1 == nullptr || vect2 == nullptr) [[unlikely]]
        return refuse(r, n, vect1, vect2);
    return unless_pending(qx::dist::l2(vect1, vect2, n, doSqrt));
}

QX_API double QXsMahalanobisD(const float* vect1, const float* vect2, const float* reciprocalVariance, int n,
                              int doSqrt) {
    constexpr qx::Report r{"QXsMahalanobisD"};
    if (n <= 0 || vect1 == nullptr || vect2 == nullptr || reciprocalVariance == nullptr) [[unlikely]]
        return refuse(r, n, vect1, vect2, reciprocalVariance, "reciprocalVariance==0");
    return unless_pending(qx::dist::mahalanobis_diag(vect1, vect2, reciprocalVariance, n, doSqrt));
}

QX_API double QXsMahalanobis(const float* vect1, const float* vect2, float** inverseCovarianceMatrix, int n,
                             int doSqrt) {
    constexpr qx::Report r{"QXsMahalanobis"};
    if (n <= 0 || vect1 == nullptr || vect2 == nullptr || inverseCovarianceMatrix == nullptr) [[unlikely]]
        return refuse(r, n, vect1, vect2, inverseCovarianceMatrix, "inverseCovarianceMatrix==0");
    return unless_pending(qx::dist::mahalanobis_full(vect1, vect2, inverseCovarianceMatrix, n, doSqrt));
}

}  // extern "C"
