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

[[gnu::cold, gnu::noinline]] double dot_checked(const float* vect1, const float* vect2, int n) noexcept {
    constexpr qx::Report r{"QXsDotP"};
    r.check(n <= 0, "n<=0");
    r.check(vect1 == nullptr, "vect1==0");
    r.check(vect2 == nullptr, "vect2==0");
    if (qx::Report::failed())
        return 0.0;
    return qx::dist::dot(vect1, vect2, n);
}

[[gnu::cold, gnu::noinline]] double l1_checked(const float* vect1, const float* vect2, int n) noexcept {
    constexpr qx::Report r{"QXsL1Norm"};
    r.check(n <= 0, "n<=0");
    r.check(vect1 == nullptr, "vect1==0");
    r.check(vect2 == nullptr, "vect2==0");
    if (qx::Report::failed())
        return 0.0;
    return qx::dist::l1(vect1, vect2, n);
}

[[gnu::cold, gnu::noinline]] double l2_checked(const float* vect1, const float* vect2, int n, int doSqrt) noexcept {
    constexpr qx::Report r{"QXsL2Norm"};
    r.check(n <= 0, "n<=0");
    r.check(vect1 == nullptr, "vect1==0");
    r.check(vect2 == nullptr, "vect2==0");
    if (qx::Report::failed())
        return 0.0;
    return qx::dist::l2(vect1, vect2, n, doSqrt);
}

[[gnu::cold, gnu::noinline]] double mahalanobis_d_checked(const float* vect1, const float* vect2,
                                                          const float* reciprocalVariance, int n,
                                                          int doSqrt) noexcept {
    constexpr qx::Report r{"QXsMahalanobisD"};
    r.check(n <= 0, "n<=0");
    r.check(vect1 == nullptr, "vect1==0");
    r.check(vect2 == nullptr, "vect2==0");
    r.check(reciprocalVariance == nullptr, "reciprocalVariance==0");
    if (qx::Report::failed())
        return 0.0;
    return qx::dist::mahalanobis_diag(vect1, vect2, reciprocalVariance, n, doSqrt);
}

[[gnu::cold, gnu::noinline]] double mahalanobis_checked(const float* vect1, const float* vect2,
                                                        float** inverseCovarianceMatrix, int n,
                                                        int doSqrt) noexcept {
    constexpr qx::Report r{"QXsMahalanobis"};
    r.check(n <= 0, "n<=0");
    r.check(vect1 == nullptr, "vect1==0");
    r.check(vect2 == nullptr, "vect2==0");
    r.check(inverseCovarianceMatrix == nullptr, "inverseCovarianceMatrix==0");
    if (qx::Report::failed())
        return 0.0;
    return qx::dist::mahalanobis_full(vect1, vect2, inverseCovarianceMatrix, n, doSqrt);
}

}  // namespace

extern "C" {

QX_API double QXsDotP(const float* vect1, const float* vect2, int n) {
    if (n <= 0 || vect1 == nullptr || vect2 == nullptr) [[unlikely]]
        return dot_checked(vect1, vect2, n);
    return unless_pending(qx::dist::dot(vect1, vect2, n));
}

QX_API double QXsL1Norm(const float* vect1, const float* vect2, int n) {
    if (n <= 0 || vect1 == nullptr || vect2 == nullptr) [[unlikely]]
        return l1_checked(vect1, vect2, n);
    return unless_pending(qx::dist::l1(vect1, vect2, n));
}

QX_API double QXsL2Norm(const float* vect1, const float* vect2, int n, int doSqrt) {
    if (n <= 0 || vect1 == nullptr || vect2 == nullptr) [[unlikely]]
        return l2_checked(vect1, vect2, n, doSqrt);
    return unless_pending(qx::dist::l2(vect1, vect2, n, doSqrt));
}

QX_API double QXsMahalanobisD(const float* vect1, const float* vect2, const float* reciprocalVariance, int n,
                              int doSqrt) {
    if (n <= 0 || vect1 == nullptr || vect2 == nullptr || reciprocalVariance == nullptr) [[unlikely]]
        return mahalanobis_d_checked(vect1, vect2, reciprocalVariance, n, doSqrt);
    return unless_pending(qx::dist::mahalanobis_diag(vect1, vect2, reciprocalVariance, n, doSqrt));
}

QX_API double QXsMahalanobis(const float* vect1, const float* vect2, float** inverseCovarianceMatrix, int n,
                             int doSqrt) {
    if (n <= 0 || vect1 == nullptr || vect2 == nullptr || inverseCovarianceMatrix == nullptr) [[unlikely]]
        return mahalanobis_checked(vect1, vect2, inverseCovarianceMatrix, n, doSqrt);
    return unless_pending(qx::dist::mahalanobis_full(vect1, vect2, inverseCovarianceMatrix, n, doSqrt));
}

}  // extern "C"
