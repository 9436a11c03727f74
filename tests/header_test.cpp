// The same program as C++17.
#include "header_test.c"
