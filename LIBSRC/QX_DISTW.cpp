// Vector distances of 16-bit vectors. Each measure is accumulated in double
// exactly like the float forms (differences in 32-bit integers, so {32767}
// against {-32768} gives 65535 without wrapping), the optional root is taken
// on the double, and the result is brought to a 32-bit integer by the scaled
// double-to-int conversion with the caller's doScale and scaleFactor.
#include "kvxpx.h"
#include "qx_dist.h"
#include "qx_report.h"

extern "C" {

QX_API int QXwDotP(const short* vect1, const short* vect2, int n, int doScale, int* scaleFactor) {
    constexpr qx::Report r{"QXwDotP"};
    r.scaling(doScale, scaleFactor);
    if (qx::dist::vector_checks(r, n, vect1, vect2))
        return 0;
    return QXdiConvertDown(qx::dist::dot(vect1, vect2, n), doScale, scaleFactor);
}

QX_API int QXwL1Norm(const short* vect1, const short* vect2, int n, int doScale, int* scaleFactor) {
    constexpr qx::Report r{"QXwL1Norm"};
    r.scaling(doScale, scaleFactor);
    if (qx::dist::vector_checks(r, n, vect1, vect2))
        return 0;
    return QXdiConvertDown(qx::dist::l1(vect1, vect2, n), doScale, scaleFactor);
}

QX_API int QXwL2Norm(const short* vect1, const short* vect2, int n, int doSqrt, int doScale, int* scaleFactor) {
    constexpr qx::Report r{"QXwL2Norm"};
    r.scaling(doScale, scaleFactor);
    if (qx::dist::vector_checks(r, n, vect1, vect2))
        return 0;
    return QXdiConvertDown(qx::dist::l2(vect1, vect2, n, doSqrt), doScale, scaleFactor);
}

QX_API int QXwMahalanobisD(const short* vect1, const short* vect2, const short* reciprocalVariance, int n,
                           int doSqrt, int doScale, int* scaleFactor) {
    constexpr qx::Report r{"QXwMahalanobisD"};
    r.scaling(doScale, scaleFactor);
    if (qx::dist::vector_checks(r, n, vect1, vect2, reciprocalVariance, "reciprocalVariance==0"))
        return 0;
    return QXdiConvertDown(qx::dist::mahalanobis_diag(vect1, vect2, reciprocalVariance, n, doSqrt), doScale,
                           scaleFactor);
}

QX_API int QXwMahalanobis(const short* vect1, const short* vect2, short** inverseCovarianceMatrix, int n, int doSqrt,
                          int doScale, int* scaleFactor) {
    constexpr qx::Report r{"QXwMahalanobis"};
    r.scaling(doScale, scaleFactor);
    if (qx::dist::vector_checks(r, n, vect1, vect2, inverseCovarianceMatrix, "inverseCovarianceMatrix==0"))
        return 0;
    return QXdiConvertDown(qx::dist::mahalanobis_full(vect1, vect2, inverseCovarianceMatrix, n, doSqrt), doScale,
                           scaleFactor);
}

}  // extern "C"
