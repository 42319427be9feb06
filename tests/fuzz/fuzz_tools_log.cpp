// The log file of a process: where it goes on from its start, and that reading it from its oldest byte to its newest
// gives all of it once, whatever is in it.
#include <algorithm>
#include <cstring>

#include "fuzz_tools.h"
#include "ops_log.h"

using tools::require;

// Reads a file as a reader does that begins with the oldest byte.
static void check_read(int64_t size, int64_t seam, int64_t most)
{
    int64_t offset = -size;
    int64_t sum = 0;
    for (int64_t reads = 0;; reads++) {
        require(reads <= size / most + 3);
        ops_log_range_t range = ops_log_range(size, seam, offset, most);
        require(range.begin >= 0 && range.len >= 0 && range.len <= most && range.begin + range.len <= size);
        require(range.next >= 0 && range.next <= size);
        sum += range.len;
        offset = range.next;
        if (range.len == 0)
            break;
    }
    require(sum == size && offset == seam);
}

static void check_any(tools::input_t *input, int64_t size, int64_t seam)
{
    auto high = (int64_t)input->number(4);
    auto offset = (int64_t)((uint64_t)high << 32 | input->number(4));
    for (int64_t at : {offset, offset % (size + 2), -(offset % (size + 2))}) {
        ops_log_range_t range = ops_log_range(size, seam, at, 1 + input->number());
        require(range.begin >= 0 && range.len >= 0 && range.begin + range.len <= size);
        require(range.next >= 0 && range.next <= size);
    }
}

static void check_stamps(const std::string &text)
{
    for (size_t at = 0; at < text.size(); at++) {
        int64_t stamp = ops_log_stamp(text.data() + at, text.size() - at);
        require(stamp >= 0 && stamp <= 99991299999999);
    }
}

static void check_name(const std::string &text)
{
    for (const std::string &name : {text, "log-" + text + "-7-20260101-000000", "log-p-7-" + text}) {
        std::string program = ops_log_program(name, 7);
        require(program.empty() || name.compare(0, 4 + program.size() + 3, "log-" + program + "-7-") == 0);
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    tools::input_t input(data, size);
    auto most = (int64_t)(1 + input.number());
    tools::input_t numbers(data, std::min<size_t>(size, 12));
    std::string text = input.rest();
    size_t seam = ops_log_seam(text.data(), text.size());
    require(seam <= text.size());
    check_read((int64_t)text.size(), (int64_t)seam, most);
    check_read((int64_t)text.size(), std::min<int64_t>(most, (int64_t)text.size()), most);
    check_any(&numbers, (int64_t)text.size(), (int64_t)seam);
    check_stamps(text);
    check_name(text);
    return 0;
}
