/* A model runtime that is too old for everything: it knows its version and offers no API. Laid
 * before the real one it shows what a program says that meets such a library. */
#include <stddef.h>
#include <stdint.h>

struct OrtApiBase {
    const void* (*GetApi)(uint32_t version);
    const char* (*GetVersionString)(void);
};

static const void* get_api(uint32_t version) {
    (void)version;
    return NULL;
}
static const char* get_version(void) {
    return "1.2.3";
}

const struct OrtApiBase* OrtGetApiBase(void);
const struct OrtApiBase* OrtGetApiBase(void) {
    static const struct OrtApiBase base = {get_api, get_version};
    return &base;
}
