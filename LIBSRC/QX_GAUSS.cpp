// Gaussian mixture servers: weighted sums of exponentials of quadratic forms,
// over weights, means and inverse covariances that the caller owns.
//
// value(x) = sum_k w[k] * exp(-0.5 * q_k),  q_k = (x - m_k)' C_k (x - m_k)
//
// C_k is either a full matrix (InverseCov[k][i][j]) or a diagonal of
// reciprocal variances (InverseCovD[k][i]). No normalising constant is applied:
// the weights carry it. With useExpTable the exponential comes from two shared
// tables, exp(-ip) * exp(-fp/1000), which costs two truncations, two loads and
// a multiply, at a relative error of up to about 0.1 %.
#include <cmath>
#include <cstdint>

#include "kvxpx.h"
#include "qx_alloc.h"
#include "qx_dist.h"
#include "qx_gauss.h"
#include "qx_report.h"

namespace qx {

float* integralExpTable = nullptr;
float* fractionalExpTable = nullptr;
int expTablesBuilt = 0;

namespace {

constexpr long double kLog2e = 1.442695040888963407359924681001892137L;

// exp(x) at extended precision, as 2^(x * log2 e).
inline long double exp_ext(long double x) { return std::exp2l(x * kLog2e); }

void release_exp_tables() {
    qx::free(integralExpTable);
    integralExpTable = nullptr;
    qx::free(fractionalExpTable);
    fractionalExpTable = nullptr;
    expTablesBuilt = 0;
}

}  // namespace

void BuildExpTables() {
    constexpr qx::Report r{"BuildExpTables"};
    // A table left over from a build that failed half-way is replaced here.
    qx::free(integralExpTable);
    integralExpTable = alloc_n<float>(100);
    if (integralExpTable == nullptr) {
        r.raise(QX_StsNoMem, "insufficiency of memory for pointer  integralExpTable");
        return;
    }
    fractionalExpTable = alloc_n<float>(1000);
    if (fractionalExpTable == nullptr) {
        r.raise(QX_StsNoMem, "insufficiency of memory for pointer  fractionalExpTable");
        return;
    }
    for (int k = 0; k < 100; ++k)
        integralExpTable[k] = static_cast<float>(exp_ext(-static_cast<long double>(k)));
    for (int k = 0; k < 1000; ++k)
        fractionalExpTable[k] = static_cast<float>(exp_ext(static_cast<long double>(k) * -0.001L));
    expTablesBuilt = 1;
}

namespace {

// exp(e) for e <= 0 from the tables; everything at or below -100 is 0.
// Returns false (after the report) for a positive exponent.
inline bool lookup_exp(double e, double& g) {
    if (e > 0.0) {
        constexpr qx::Report lookup{"LookupExponential (Macro)"};
        lookup.raise(QX_StsInternal, "Cannot lookup exponential of positive value");
        return false;
    }
    if (e <= -100.0) {
        g = 0.0;
        return true;
    }
    if (e != e) {   // not a number: no table index exists for it
        g = e;
        return true;
    }
    double a = -e;                                 // 0 <= a < 100
    int ip = static_cast<int>(a);                  // 0..99
    int fp = static_cast<int>((a - ip) * 1000.0);  // 0..999
    if (fp > 999)
        fp = 999;
    g = static_cast<double>(fractionalExpTable[fp]) * static_cast<double>(integralExpTable[ip]);
    return true;
}

// The mixture value, or 0 after a failed table lookup (`ok` cleared).
template <class Server, class T>
double mixture(const Server* s, const T* vect, int n, double formScale, bool& ok) {
    ok = true;
    double sum = 0.0;
    const bool tables = s->useExpTable != 0;
    for (int k = 0; k < s->nGauss; ++k) {
        const T* mean = s->meanVect[k];
        double q = 0.0;
        if (s->InverseCovD != nullptr) {
            q = dist::mahalanobis_diag(vect, mean, s->InverseCovD[k], n, 0);
        } else {
            T** ic = s->InverseCov[k];
            for (int i = 0; i < n; ++i) {
                const T* row = ic[i];
                double di = static_cast<double>(vect[i]) - static_cast<double>(mean[i]);
                for (int j = 0; j < n; ++j) {
                    double dj = static_cast<double>(vect[j]) - static_cast<double>(mean[j]);
                    q += (dj * static_cast<double>(row[j])) * di;
                }
            }
            if (q < 0.0)   // an indefinite matrix: use the form's magnitude
                q = -q;
        }
        double e = formScale * q * -0.5;
        double g;
        if (tables) {
            if (!lookup_exp(e, g)) {
                ok = false;
                return 0.0;
            }
        } else {
            g = static_cast<double>(exp_ext(e));
        }
        sum += static_cast<double>(s->weightVect[k]) * g;
    }
    return sum;
}

// The init of both flavours: checks, then one record pointing at the arrays.
template <class Server, class T>
Server* init_server(const Report& r, T* weightVect, T** meanVect, T*** InverseCov, T** InverseCovD, int n,
                    int nGauss, int useExpTable) {
    r.check(n < 1, "n<=0");
    r.check(nGauss < 1, "nGauss<=0");
    r.check(n < 1, "n<=0");
    r.check(weightVect == nullptr, "weightVect==0");
    r.check(meanVect == nullptr, "meanVect==0");
    if (qx::Report::failed())
        return nullptr;
    if ((InverseCov == nullptr) == (InverseCovD == nullptr)) {
        r.raise(QX_StsBadArg, "One of InverseCov or InverseCovD must be NULL and the other non NULL");
        return nullptr;
    }
    auto* s = calloc_n<Server>(1);
    if (s == nullptr) {
        r.raise(QX_StsNoMem, "insufficiency of memory for pointer  server");
        return nullptr;
    }
    s->weightVect = weightVect;
    s->meanVect = meanVect;
    s->InverseCov = InverseCov;
    s->InverseCovD = InverseCovD;
    s->n = n;
    s->nGauss = nGauss;
    s->useExpTable = useExpTable;
    return s;
}

// Evaluation of both flavours up to the double result; `ok` is false when the
// caller must return 0 without further work.
template <class Server, class T>
double eval_server(const Report& r, const Server* server, const T* vect, int n, double formScale, bool& ok) {
    ok = false;
    r.checks(n, {{server, "server==0"}, {vect, "vect==0"}});
    if (qx::Report::failed())
        return 0.0;
    if (server->useExpTable && !expTablesBuilt) {
        BuildExpTables();
        if (qx::Report::failed()) {
            r.raise(QX_StsBackTrace, "");
            return 0.0;
        }
    }
    if (server->nGauss < 1) {
        ok = true;
        return 0.0;
    }
    return mixture(server, vect, n, formScale, ok);
}

template <class Server>
void free_server(const Report& r, Server* server) {
    r.check(server == nullptr, "server==0");
    if (qx::Report::failed())
        return;
    if (server->useExpTable && expTablesBuilt)
        release_exp_tables();
    qx::free(server);
}

}  // namespace
}  // namespace qx

extern "C" {

QX_API QXsGaussMixServer* QXsInitGaussMixServer(float* weightVect, float** meanVect, float*** InverseCov,
                                                float** InverseCovD, int n, int nGauss, int useExpTable) {
    constexpr qx::Report r{"QXsInitGaussMixServer"};
    return qx::init_server<QXsGaussMixServer>(r, weightVect, meanVect, InverseCov, InverseCovD, n, nGauss,
                                              useExpTable);
}

QX_API QXwGaussMixServer* QXwInitGaussMixServer(short* weightVect, short** meanVect, short*** InverseCov,
                                                short** InverseCovD, int n, int nGauss, int useExpTable,
                                                int scaleExp) {
    constexpr qx::Report r{"QXwInitGaussMixServer"};
    QXwGaussMixServer* s = qx::init_server<QXwGaussMixServer>(r, weightVect, meanVect, InverseCov, InverseCovD, n,
                                                              nGauss, useExpTable);
    if (s != nullptr)
        s->scaleExp = scaleExp;
    return s;
}

QX_API double QXsEvalGaussMix(QXsGaussMixServer* server, const float* vect, int n) {
    constexpr qx::Report r{"QXsEvalGaussMix"};
    bool ok;
    double v = qx::eval_server(r, server, vect, n, 1.0, ok);
    return ok ? v : 0.0;
}

QX_API int QXwEvalGaussMix(QXwGaussMixServer* server, const short* vect, int n, int doScale, int* scaleFactor) {
    constexpr qx::Report r{"QXwEvalGaussMix"};
    bool ok;
    double scale = (server != nullptr) ? QXPower2(server->scaleExp) : 1.0;
    double v = qx::eval_server(r, server, vect, n, scale, ok);
    if (!ok)
        return 0;
    return QXdiConvertDown(v, doScale, scaleFactor);
}

QX_API void QXsFreeGaussMixServer(QXsGaussMixServer* server) {
    constexpr qx::Report r{"QXsFreeGaussMixServer"};
    qx::free_server(r, server);
}

QX_API void QXwFreeGaussMixServer(QXwGaussMixServer* server) {
    constexpr qx::Report r{"QXwFreeGaussMixServer"};
    qx::free_server(r, server);
}

}  // extern "C"
