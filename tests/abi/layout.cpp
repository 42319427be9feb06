// Layouts that are part of the ABI, as a C++ compiler sees them.
#define _Static_assert static_assert
#include "layout.h"
