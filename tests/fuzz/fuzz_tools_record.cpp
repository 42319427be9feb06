// The lines between zebd and who uses it: each reader takes any line, and what it takes is written as a line that reads
// the same. Any bytes pass through a record.
#include "fuzz_tools.h"
#include "ops_record.h"

using tools::require;

static bool same(const ops_json_t &written, const ops_json_t &again)
{
    return ops_record_line(written) == ops_record_line(again);
}

static ops_json_t sent(const ops_json_t &record)
{
    std::string line = ops_record_line(record);
    require(!line.empty() && line.find('\n') == line.size() - 1);
    line.pop_back();
    ops_json_t got = ops_record_parse(line);
    require(got.is_object());
    return got;
}

static void check_reply(const ops_json_t &record)
{
    for (ops_ask_t ask : {OPS_ASK_INFO, OPS_ASK_STAT, OPS_ASK_DEBUG}) {
        ops_request_t request = {};
        ops_request_t again = {};
        request.ask = again.ask = ask;
        if (!ops_record_inst(record, &request.inst) || !ops_record_to_reply(record, &request))
            continue;
        require(request.outcome != OPS_WAITING);
        ops_json_t written = ops_record_of_reply(request);
        ops_json_t got = sent(written);
        require(ops_record_inst(got, &again.inst) && ops_record_to_reply(got, &again));
        require(same(written, ops_record_of_reply(again)));
    }
}

static void check_others(const ops_json_t &record)
{
    ops_event_t event = {};
    if (ops_record_to_event(record, &event)) {
        ops_json_t written = ops_record_of_event(event);
        require(ops_record_to_event(sent(written), &event) && same(written, ops_record_of_event(event)));
    }
    ops_seen_t seen = {};
    if (ops_record_to_seen(record, &seen)) {
        ops_json_t written = ops_record_of_seen(seen);
        require(ops_record_to_seen(sent(written), &seen) && same(written, ops_record_of_seen(seen)));
    }
    ops_process_t process = {};
    if (ops_record_to_process(record, &process)) {
        ops_json_t written = ops_record_of_process(process);
        require(ops_record_to_process(sent(written), &process) && same(written, ops_record_of_process(process)));
    }
}

static void check_bytes(const std::string &bytes)
{
    require(ops_record_narrow(ops_record_wide(bytes)) == bytes);
    (void)ops_record_narrow(bytes);
    std::string got;
    require(ops_record_text(sent({{"text", ops_record_wide(bytes)}}), "text", &got) && ops_record_narrow(got) == bytes);
    (void)sent({{"text", bytes}}); // not wide
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string line((const char *)data, size);
    check_bytes(line);
    ops_json_t record = ops_record_parse(line);
    if (!record.is_object())
        return 0;
    check_reply(record);
    check_others(record);
    return 0;
}
