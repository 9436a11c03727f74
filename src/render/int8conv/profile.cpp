#include "render/int8conv/profile.h"

#include <cstdio>
#include <cstdlib>

namespace zorv {
namespace {

bool profileWanted() {
    const char* setting = std::getenv("ZORV_INT8_PROF");
    return setting && setting[0] == '1';
}

}  // namespace

Int8Profile Int8Profile::instance_;

Int8Profile::Int8Profile() : enabled(profileWanted()) {}

Int8Profile::~Int8Profile() {
    if (!enabled) return;
    const auto ms = [](const Total& total) { return static_cast<double>(total) / 1e6; };
    std::fprintf(stderr,
                 "[int8 prof] minmax %.0f  transpose %.0f  gemm %.0f  requant %.0f  (ms total over "
                 "all convs/runs)\n",
                 ms(minmax), ms(transpose), ms(gemm), ms(requant));
}

}  // namespace zorv
