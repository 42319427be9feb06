// The configuration file as the tools read it: any text is read, findings come in the order of its lines, and names
// are as short as the library keeps them.
#include "fuzz_tools.h"
#include "ops_conf.h"

using tools::require;

static uint32_t lines_of(const std::string &text)
{
    uint32_t lines = 1;
    for (char c : text)
        lines += c == '\n' ? 1 : 0;
    return lines;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    tools::input_t input(data, size);
    std::string text = input.rest();
    ops_conf_t conf = ops_conf_parse(text);
    for (const auto &app : conf.apps)
        require(app.second.name.size() <= 31);
    uint32_t last = 0;
    for (const ops_finding_t &finding : ops_conf_check(text)) {
        require(finding.line == 0 || finding.line >= last);
        require(finding.line <= lines_of(text) && !finding.what.empty());
        last = finding.line == 0 ? last : finding.line;
    }
    return 0;
}
