#include <stdio.h>
#include <zorv_core.h>

int main(int argc, char** argv) {
    zorv_ctx* ctx = zorv_create(argc > 1 ? argv[1] : "/no such dir", "render", 1, NULL);
    puts(ctx ? "opened" : zorv_last_error());
    zorv_destroy(ctx);
    return zorv_version() == ZORV_VERSION ? 0 : 1;
}
