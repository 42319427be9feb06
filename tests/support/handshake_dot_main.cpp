// Prints the picture of the handshake's table: `make docs` draws docs/handshake.svg from it.
#include "handshake_dot.h"

#include <cstdio>

int main()
{
    (void)fputs(handshake_dot().c_str(), stdout);
    return 0;
}
