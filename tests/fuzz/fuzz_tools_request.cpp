// What comes to zebd as records: lines of its Unix socket in pieces of any length, and the bodies of another zebd. What
// is taken is within its ranges, and a body that is written again reads the same.
#include <cerrno>

#include "fuzz_tools.h"
#include "ops_record.h"
#include "zebd_request.h"

using tools::require;

static bool valid(ops_inst_t inst)
{
    return zeb_valid_app_id(inst.app) != 0 && inst.node < ZEB_NODE_NUM;
}

static void check_taken(const zebd_request_t &request)
{
    require(request.id != 0 && request.type <= ZEBD_LOG && request.node < ZEB_NODE_NUM);
    bool timed = request.type == ZEBD_ASK || request.type == ZEBD_PROCESSES || request.type == ZEBD_LOG;
    require(!timed || request.timeout > 0);
    require((request.set | request.clear) <= 15 && request.since >= 0);
    require(request.type != ZEBD_HISTORY || valid(request.inst));
    require(request.type != ZEBD_LOG || request.pids.size() == 1);
    require(request.insts.size() <= OPS_VIEW_MAX && request.pids.size() <= OPS_PROCESSES_MAX);
    for (ops_inst_t inst : request.insts)
        require(valid(inst));
    for (int32_t pid : request.pids)
        require(pid > 0);
}

static void check_line(const std::string &line)
{
    zebd_request_t request;
    std::string why;
    int ret = zebd_request_parse(line, &request, &why);
    require(ret == 0 || ret == -EINVAL || ret == -ENOSYS);
    if (ret == 0)
        check_taken(request);
    else
        require(!why.empty());
}

static void check_body(const std::string &body)
{
    zebd_request_t request;
    zebd_request_t again;
    if (!zebd_request_parse_peer(body.data(), body.size(), &request))
        return;
    std::string written = zebd_request_peer(request);
    require(zebd_request_parse_peer(written.data(), written.size(), &again));
    require(again.type == request.type && again.pids == request.pids && again.offset == request.offset);
}

// The lines of a text that comes in pieces, each of `piece` bytes.
static void check_pieces(const std::string &text, size_t piece)
{
    std::string in;
    std::string line;
    std::string lines;
    size_t seen = 0;
    for (size_t at = 0; at < text.size(); at += piece) {
        in += text.substr(at, piece);
        while (zebd_line_take(&in, &seen, &line)) {
            require(line.find('\n') == std::string::npos);
            check_line(line);
            lines += line + "\n";
        }
        require(seen == in.size() && in.find('\n') == std::string::npos);
    }
    require(lines + in == text);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    tools::input_t input(data, size);
    size_t piece = 1 + input.number();
    std::string text = input.rest();
    check_pieces(text, piece);
    check_body(text);
    return 0;
}
