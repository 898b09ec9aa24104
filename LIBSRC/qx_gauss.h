// Gaussian mixture servers: the records behind the opaque handles of the
// public header, and the shared exponential lookup tables.
#pragma once

#include "kvxpx.h"

// A server refers to the caller's arrays; it never copies them. Exactly one of
// InverseCov (full form) and InverseCovD (diagonal form) is non-null.
struct QXsGaussMixServer {
    float* weightVect;
    float** meanVect;
    float*** InverseCov;
    float** InverseCovD;
    int n;
    int nGauss;
    int useExpTable;
};

struct QXwGaussMixServer {
    short* weightVect;
    short** meanVect;
    short*** InverseCov;
    short** InverseCovD;
    int n;
    int nGauss;
    int useExpTable;
    int scaleExp;   // the quadratic form is multiplied by 2^scaleExp
};

namespace qx {

// exp(-k), k = 0..99, and exp(-k*0.001), k = 0..999; built by the first
// evaluation of a table-using server, released when such a server is freed.
extern float* integralExpTable;
extern float* fractionalExpTable;
extern int expTablesBuilt;

void BuildExpTables();

}  // namespace qx
