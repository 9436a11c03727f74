#include "zorv_core.h"

int zorv_version(void) {
    return ZORV_VERSION;
}
