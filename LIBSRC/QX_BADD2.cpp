// In-place element-wise addition: srcDst[k] = srcDst[k] + src[k].
#include "qx_arith_forms.h"

extern "C" {

QX_ARITH_FORM2(Add, qx::Add, qx::FAdd, 0, 0, "QXybAdd2")

}  // extern "C"
