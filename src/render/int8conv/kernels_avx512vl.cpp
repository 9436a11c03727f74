#if !defined(__AVX512VNNI__) || !defined(__AVX512VL__) || defined(__AVXVNNI__)
#error "this file needs -mavx512vnni -mavx512vl without -mavxvnni"
#endif
#include "render/int8conv/vnni256.h"

namespace zorv {

const Int8ConvKernels kInt8ConvAvx512Vl = {Vnni256::kBlock,
                                           false,
                                           true,
                                           128e6,
                                           minMaxLanes<Lanes256>,
                                           quantiseRowLanes<Lanes256>,
                                           convolveRowsLanes<Vnni256>,
                                           convolveEnlargedLanes<Vnni256>};

}  // namespace zorv
