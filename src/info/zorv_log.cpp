#include <zorv_core.h>

#include "common/log.h"

void zorv_set_log(void (*line)(void* user, const char* text), void* user) {
    zorv::setLog(line, user);
}
