// Vector distances of float vectors: dot product, city-block, Euclidean and
// the two weighted (Mahalanobis) forms. Results are doubles; no state, no
// allocation. The kernels are in qx_dtw.h, shared with the 16-bit forms.
#include "kvxpx.h"
#include "qx_dtw.h"
#include "qx_report.h"

namespace {

constexpr qx::Report kDotP{"QXsDotP"};
constexpr qx::Report kL1{"QXsL1Norm"};
constexpr qx::Report kL2{"QXsL2Norm"};
constexpr qx::Report kMahalD{"QXsMahalanobisD"};
constexpr qx::Report kMahal{"QXsMahalanobis"};

}  // namespace

extern "C" {

QX_API double QXsDotP(const float* vect1, const float* vect2, int n) {
    kDotP.check(n <= 0, "n<=0");
    kDotP.check(vect1 == nullptr, "vect1==0");
    kDotP.check(vect2 == nullptr, "vect2==0");
    if (qx::Report::failed())
        return 0.0;
    return qx::dist::dot(vect1, vect2, n);
}

QX_API double QXsL1Norm(const float* vect1, const float* vect2, int n) {
    kL1.check(n <= 0, "n<=0");
    kL1.check(vect1 == nullptr, "vect1==0");
    kL1.check(vect2 == nullptr, "vect2==0");
    if (qx::Report::failed())
        return 0.0;
    return qx::dist::l1(vect1, vect2, n);
}

QX_API double QXsL2Norm(const float* vect1, const float* vect2, int n, int doSqrt) {
    kL2.check(n <= 0, "n<=0");
    kL2.check(vect1 == nullptr, "vect1==0");
    kL2.check(vect2 == nullptr, "vect2==0");
    if (qx::Report::failed())
        return 0.0;
    return qx::dist::l2(vect1, vect2, n, doSqrt);
}

QX_API double QXsMahalanobisD(const float* vect1, const float* vect2, const float* reciprocalVariance, int n,
                              int doSqrt) {
    kMahalD.check(n <= 0, "n<=0");
    kMahalD.check(vect1 == nullptr, "vect1==0");
    kMahalD.check(vect2 == nullptr, "vect2==0");
    kMahalD.check(reciprocalVariance == nullptr, "reciprocalVariance==0");
    if (qx::Report::failed())
        return 0.0;
    return qx::dist::mahalanobis_diag(vect1, vect2, reciprocalVariance, n, doSqrt);
}

QX_API double QXsMahalanobis(const float* vect1, const float* vect2, float** inverseCovarianceMatrix, int n,
                             int doSqrt) {
    kMahal.check(n <= 0, "n<=0");
    kMahal.check(vect1 == nullptr, "vect1==0");
    kMahal.check(vect2 == nullptr, "vect2==0");
    kMahal.check(inverseCovarianceMatrix == nullptr, "inverseCovarianceMatrix==0");
    if (qx::Report::failed())
        return 0.0;
    return qx::dist::mahalanobis_full(vect1, vect2, inverseCovarianceMatrix, n, doSqrt);
}

}  // extern "C"
