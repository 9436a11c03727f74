#ifndef __AVXVNNI__
#error "this file needs -mavxvnni"
#endif
#include "render/int8conv/vnni256.h"

namespace zorv {

const Int8ConvKernels kInt8ConvAvxVnni = {Vnni256::kBlock,
                                          false,
                                          true,
                                          128e6,
                                          minMaxLanes<Lanes256>,
                                          quantiseRowLanes<Lanes256>,
                                          convolveRowsLanes<Vnni256>,
                                          convolveEnlargedLanes<Vnni256>};

}  // namespace zorv
