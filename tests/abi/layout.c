/* Layouts that are part of the ABI, as a C compiler sees them. */
#include "layout.h"
