// The same as C++.
#include "c_test.c"
