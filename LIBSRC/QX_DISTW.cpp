// Vector distances of 16-bit vectors. Each measure is accumulated in double
// exactly like the float forms (differences in 32-bit integers, so {32767}
// against {-32768} gives 65535 without wrapping), the optional root is taken
// on the double, and the result is brought to a 32-bit integer by the scaled
// double-to-int conversion with the caller's doScale and scaleFactor.
#include "kvxpx.h"
#include "qx_dist.h"
#include "qx_report.h"

namespace {

constexpr qx::Report kDotP{"QXwDotP"};
constexpr qx::Report kL1{"QXwL1Norm"};
constexpr qx::Report kL2{"QXwL2Norm"};
constexpr qx::Report kMahalD{"QXwMahalanobisD"};
constexpr qx::Report kMahal{"QXwMahalanobis"};

}  // namespace

extern "C" {

QX_API int QXwDotP(const short* vect1, const short* vect2, int n, int doScale, int* scaleFactor) {
    kDotP.scaling(doScale, scaleFactor);
    kDotP.check(n <= 0, "n<=0");
    kDotP.check(vect1 == nullptr, "vect1==0");
    kDotP.check(vect2 == nullptr, "vect2==0");
    if (qx::Report::failed())
        return 0;
    return QXdiConvertDown(qx::dist::dot(vect1, vect2, n), doScale, scaleFactor);
}

QX_API int QXwL1Norm(const short* vect1, const short* vect2, int n, int doScale, int* scaleFactor) {
    kL1.scaling(doScale, scaleFactor);
    kL1.check(n <= 0, "n<=0");
    kL1.check(vect1 == nullptr, "vect1==0");
    kL1.check(vect2 == nullptr, "vect2==0");
    if (qx::Report::failed())
        return 0;
    return QXdiConvertDown(qx::dist::l1(vect1, vect2, n), doScale, scaleFactor);
}

QX_API int QXwL2Norm(const short* vect1, const short* vect2, int n, int doSqrt, int doScale, int* scaleFactor) {
    kL2.scaling(doScale, scaleFactor);
    kL2.check(n <= 0, "n<=0");
    kL2.check(vect1 == nullptr, "vect1==0");
    kL2.check(vect2 == nullptr, "vect2==0");
    if (qx::Report::failed())
        return 0;
    return QXdiConvertDown(qx::dist::l2(vect1, vect2, n, doSqrt), doScale, scaleFactor);
}

QX_API int QXwMahalanobisD(const short* vect1, const short* vect2, const short* reciprocalVariance, int n,
                           int doSqrt, int doScale, int* scaleFactor) {
    kMahalD.scaling(doScale, scaleFactor);
    kMahalD.check(n <= 0, "n<=0");
    kMahalD.check(vect1 == nullptr, "vect1==0");
    kMahalD.check(vect2 == nullptr, "vect2==0");
    kMahalD.check(reciprocalVariance == nullptr, "reciprocalVariance==0");
    if (qx::Report::failed())
        return 0;
    return QXdiConvertDown(qx::dist::mahalanobis_diag(vect1, vect2, reciprocalVariance, n, doSqrt), doScale,
                           scaleFactor);
}

QX_API int QXwMahalanobis(const short* vect1, const short* vect2, short** inverseCovarianceMatrix, int n, int doSqrt,
                          int doScale, int* scaleFactor) {
    kMahal.scaling(doScale, scaleFactor);
    kMahal.check(n <= 0, "n<=0");
    kMahal.check(vect1 == nullptr, "vect1==0");
    kMahal.check(vect2 == nullptr, "vect2==0");
    kMahal.check(inverseCovarianceMatrix == nullptr, "inverseCovarianceMatrix==0");
    if (qx::Report::failed())
        return 0;
    return QXdiConvertDown(qx::dist::mahalanobis_full(vect1, vect2, inverseCovarianceMatrix, n, doSqrt), doScale,
                           scaleFactor);
}

}  // extern "C"
