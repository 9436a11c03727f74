/* The public header in plain C99, linked against the shared library only. */
#include <stdio.h>
#include <string.h>

#include "zorv_core.h"

static int fail(const char* what) {
    fprintf(stderr, "header_test: %s\n", what);
    return 1;
}

int main(void) {
    if (zorv_version() != ZORV_VERSION) return fail("library and header differ in version");
    if (zorv_create("/no such dir", "render", 1, NULL)) return fail("opened a missing bundle");
    if (strcmp(zorv_last_error(), "zorv_create: cannot open /no such dir/manifest.json") != 0) {
        return fail(zorv_last_error());
    }
    if (zorv_fca_create("/no such file", "/no such file", 1)) return fail("loaded missing models");
    if (strncmp(zorv_fca_last_error(), "zorv_fca_create: ", 17) != 0) return fail("no fca text");
    if (zorv_stream_create("/no such dir", "/no such file", 1, 0, 1.0f)) return fail("stream");
    if (strcmp(zorv_stream_last_error(),
               "zorv_create: zorv_create: cannot open /no such dir/manifest.json") != 0) {
        return fail(zorv_stream_last_error());
    }
    if (zorv_motion_create("/no such dir", 1, NULL)) return fail("opened a missing motion dir");
    if (strcmp(zorv_motion_last_error(),
               "zorv_motion_create: cannot open /no such dir/meta.json") != 0) {
        return fail(zorv_motion_last_error());
    }
    zorv_destroy(NULL);
    zorv_fca_destroy(NULL);
    zorv_stream_destroy(NULL);
    zorv_motion_destroy(NULL);
    return 0;
}
