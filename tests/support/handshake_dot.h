// The picture of the handshake's table, in Graphviz's language.
#ifndef TESTS_SUPPORT_HANDSHAKE_DOT_H
#define TESTS_SUPPORT_HANDSHAKE_DOT_H

#include <string>

std::string handshake_dot();

#endif
