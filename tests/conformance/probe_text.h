// The words of the probe's commands and answers.
#ifndef TESTS_CONFORMANCE_PROBE_TEXT_H
#define TESTS_CONFORMANCE_PROBE_TEXT_H

#include <cstdint>
#include <linux/tipc.h>
#include <string>
#include <sys/socket.h>
#include <sys/types.h>
#include <vector>

using words = std::vector<std::string>;
using bytes = std::vector<unsigned char>;

std::string str(long long value);
std::string result(ssize_t ret);                                     // or the name of errno
long option(const words &w, const std::string &key, long otherwise); // the value of `key=value` among the words
bool has(const words &w, const std::string &word);
uint32_t number(const std::string &word);
words split(const std::string &text, char by);

// name:TYPE:INSTANCE[:DOMAIN], range:TYPE:LOWER:UPPER, id:REF:NODE or raw:FAMILY:ADDRTYPE:A:B:C
struct sockaddr_tipc address(const std::string &text);
std::string id_text(const struct tipc_portid &id);

// A message begins with its number, in four bytes. All other bytes follow from the number.
bytes message(uint32_t num, size_t len);

// Of a message or of its beginning: its number, and whether every byte is right.
std::string described(const unsigned char *data, size_t len, const std::string &prefix);

#endif
