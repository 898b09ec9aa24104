// Multiplication of a scalar: srcDst[k] = srcDst[k] * val.
#include "qx_arith_forms.h"

extern "C" {

QX_ARITH_FORM2S(Mpy, qx::Mul, qx::FMul)

}  // extern "C"
