// A tracer inside the test process: it puts a breakpoint on each static probe that a test watches, as bpftrace and gdb
// do, and reads the arguments from where the note of the probe says that they are. x86-64 alone, and not under
// sanitizers, which have signals of their own.
#ifndef TESTS_SUPPORT_TRACER_H
#define TESTS_SUPPORT_TRACER_H

#include <string>
#include <vector>

namespace tracer
{
// Watches these probes from now on, for the rest of the process. A name that no probe has fails the test.
void watch(const std::vector<std::string> &names);

// What has fired since the last look, in order: the name and the arguments, with blanks between.
std::vector<std::string> take();
} // namespace tracer

#endif
