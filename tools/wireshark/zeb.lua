-- Dissects the messages of ZEB in Wireshark and tshark: what TIPC carries to names of type 2303. docs/wire-format.md has the
-- format, docs/dissector.md the fields and how to install this file.
--
-- Wireshark calls zeb.dissector for each message of a frame, in the order of the capture the first time (pinfo.visited is false),
-- in any order later. What links frames is found the first time, kept in the tables of `seen`, and only looked up later.
-- Nothing here may fail: each read is within what was captured.

local NAME_TYPE = 2303
local HEADER_LEN = 36
local ELEMENT_LEN = 4
local DATAGRAM_MAX = 61476
local RETURNED_MAX = 1024 -- bytes that TIPC returns of a message
local ELEMENTS_SHOWN = 1000 -- of one message; a datagram can have 15,360

local zeb = Proto("zeb", "ZEB message")

local GUESS, LITTLE, BIG = 0, 1, 2
zeb.prefs.byte_order = Pref.enum("Byte order of the boards", GUESS,
    "Of the values that travel in the byte order of their sender: the versions of status 3, debug switch, application information",
    { { 1, "guess from the values", GUESS }, { 2, "little-endian", LITTLE }, { 3, "big-endian", BIG } }, false)

-- Payload dissectors of applications register here, by application id.
local applications = DissectorTable.new("zeb.application", "ZEB application", ftypes.UINT32, base.DEC, zeb)

local SYNC, REQUEST, ACK, MNG = 1, 2, 4, 8
local KINDS = {
    [0] = "one-way", [SYNC] = "synchronisation", [REQUEST] = "request", [REQUEST + ACK] = "reply", [MNG] = "management",
    [MNG + REQUEST] = "management request", [MNG + REQUEST + ACK] = "management reply",
}
local MISMATCH, UNAVAILABLE, APP_MISMATCH, SYSTEM_ERROR, TIME_OUT = 1, 2, 3, 4, 5
local STATUS = {
    [0] = "success", [MISMATCH] = "library version mismatch", [UNAVAILABLE] = "the server does not know the caller's instance",
    [APP_MISMATCH] = "no dispatcher for the version", [SYSTEM_ERROR] = "system error", [TIME_OUT] = "time-out",
}
local TIPC_ERRORS = { "no name", "no port", "no node", "overload", "connection shut down", "connection error" }

local NUM_ACK, SYNC_INST, SYNC_ACK, DEBUG, INFO, STAT, PING, ECHO, RELOAD, SEQ_ACK = 0, 1, 2, 3, 4, 5, 6, 7, 8, 9
local TYPES = {
    [NUM_ACK] = "processed messages acknowledged", [SYNC_INST] = "SYNC_INST", [SYNC_ACK] = "SYNC_INST_ACK", [DEBUG] = "debug switch",
    [INFO] = "application information", [STAT] = "application statistics", [PING] = "ping", [ECHO] = "ping echo",
    [RELOAD] = "reload", [SEQ_ACK] = "SYNC_INST_SEQ_ACK",
}
local IS_SYNC = { [SYNC_INST] = true, [SYNC_ACK] = true, [SEQ_ACK] = true }
local RECORD_LEN = { [NUM_ACK] = 4, [SYNC_INST] = 20, [SYNC_ACK] = 20, [DEBUG] = 8, [SEQ_ACK] = 24 } -- others take none
local INFO_LEN = 12 -- of a reply

local YES_NO = { "yes", "no" }
local f = {
    ver = ProtoField.uint8("zeb.ver", "Protocol version"),
    rsvd = ProtoField.uint8("zeb.rsvd", "Reserved"),
    flag = ProtoField.uint8("zeb.flag", "Flags", base.HEX, KINDS),
    flag_sync = ProtoField.bool("zeb.flag.sync", "Synchronisation", 8, YES_NO, SYNC),
    flag_request = ProtoField.bool("zeb.flag.request", "Request", 8, YES_NO, REQUEST),
    flag_ack = ProtoField.bool("zeb.flag.ack", "Reply", 8, YES_NO, ACK),
    flag_mng = ProtoField.bool("zeb.flag.mng", "Management", 8, YES_NO, MNG),
    qos = ProtoField.uint8("zeb.qos", "QoS"),
    len = ProtoField.uint32("zeb.len", "Length"),
    src_node = ProtoField.uint32("zeb.src_node", "Source node"),
    dst_node = ProtoField.uint32("zeb.dst_node", "Destination node"),
    src_app = ProtoField.uint32("zeb.src_app", "Source application"),
    dst_app = ProtoField.uint32("zeb.dst_app", "Destination application"),
    app = ProtoField.uint32("zeb.app", "Source or destination application"),
    node = ProtoField.uint32("zeb.node", "Source or destination node"),
    app_ver = ProtoField.uint32("zeb.app_ver", "Application message version"),
    seq = ProtoField.uint32("zeb.seq", "Sequence number"),
    rpc_stat = ProtoField.int32("zeb.rpc_stat", "Status", base.DEC, STATUS),
    data = ProtoField.bytes("zeb.data", "Payload"),

    returned = ProtoField.uint8("zeb.returned", "Returned by TIPC", base.DEC, TIPC_ERRORS),
    request_in = ProtoField.framenum("zeb.request_in", "Request in frame", base.NONE, frametype.REQUEST),
    reply_in = ProtoField.framenum("zeb.reply_in", "Reply in frame", base.NONE, frametype.RESPONSE),
    time = ProtoField.relative_time("zeb.time", "Time since the request"),

    low = ProtoField.uint32("zeb.mismatch.low", "Lowest version"),
    high = ProtoField.uint32("zeb.mismatch.high", "Highest version"),

    element = ProtoField.none("zeb.element", "Element"),
    element_len = ProtoField.uint16("zeb.element.len", "Length"),
    element_type = ProtoField.uint16("zeb.element.type", "Type", base.DEC, TYPES),
    element_value = ProtoField.bytes("zeb.element.value", "Value"),
    refused = ProtoField.bytes("zeb.element.refused", "Refused rest of the list"),

    sync_seq = ProtoField.uint32("zeb.sync.seq", "Sequence number of the synchronisation"),
    sync_id = ProtoField.uint32("zeb.sync.id", "Process id"),
    sync_server = ProtoField.uint32("zeb.sync.is_server", "Is a server"),
    sync_resume = ProtoField.uint32("zeb.sync.resume", "Resume"),
    sync_ttl = ProtoField.uint32("zeb.sync.ttl", "Time to live"),
    sync_pseq = ProtoField.uint32("zeb.sync.pseq", "Sequence number of the acknowledger's own synchronisation"),
    sync_in = ProtoField.framenum("zeb.sync_in", "Synchronisation in frame", base.NONE, frametype.REQUEST),
    sync_time = ProtoField.relative_time("zeb.sync_time", "Time since the synchronisation"),

    ack_num = ProtoField.uint32("zeb.ack_num", "Acknowledged messages"),
    dbg_level = ProtoField.int32("zeb.debug.level", "Level"),
    dbg_on = ProtoField.int32("zeb.debug.on", "On"),
    info_app = ProtoField.uint32("zeb.info.app", "Application"),
    info_pid = ProtoField.int32("zeb.info.pid", "Process id"),
    info_mask = ProtoField.uint32("zeb.info.mask", "Debug mask", base.HEX),
    stat_text = ProtoField.string("zeb.stat.text", "Statistics"),
}
zeb.fields = f

local MALFORMED, PROTOCOL, SEQUENCE = expert.group.MALFORMED, expert.group.PROTOCOL, expert.group.SEQUENCE
local ERROR, WARN, NOTE = expert.severity.ERROR, expert.severity.WARN, expert.severity.NOTE
local e = {
    length = ProtoExpert.new("zeb.bad_length", "Wrong length", MALFORMED, ERROR),
    element = ProtoExpert.new("zeb.bad_element", "Wrong length of an element", MALFORMED, ERROR),
    header = ProtoExpert.new("zeb.bad_header", "A value that no sender writes", PROTOCOL, WARN),
    address = ProtoExpert.new("zeb.address_mismatch", "Header and TIPC name do not match", PROTOCOL, WARN),
    version = ProtoExpert.new("zeb.version_mismatch", "Versions do not match", expert.group.RESPONSE_CODE, WARN),
    status = ProtoExpert.new("zeb.failed_reply", "The call failed", expert.group.RESPONSE_CODE, WARN),
    pseq = ProtoExpert.new("zeb.pseq_mismatch", "The acknowledgement does not complete the pair", SEQUENCE, NOTE),
    returned = ProtoExpert.new("zeb.returned_message", "TIPC returned the message", SEQUENCE, WARN),
    skipped = ProtoExpert.new("zeb.skipped_element", "An element that the receiver skips", PROTOCOL, WARN),
    cut = ProtoExpert.new("zeb.cut", "Not all is here", expert.group.UNDECODED, NOTE),
}
zeb.experts = e

-- What TIPC says of the message. Without a tree Wireshark keeps no fields: then it is not known.
local tipc_error = Field.new("tipcv2.errorcode")
local tipc_name_type = Field.new("tipcv2.port_name_type")
local tipc_instance = Field.new("tipcv2.port_name_instance")

-- exchanges: the newest call of a key. links: call of a message. syncs: the last synchronisation from one instance to another.
-- numbered: the same by its number. acks: what an acknowledgement answers. A capture bounds them.
local seen
local function forget() -- before each capture
    seen = { exchanges = {}, links = {}, syncs = {}, numbered = {}, acks = {} }
end
zeb.init = forget
forget()

local function has(flag, bit)
    return math.floor(flag / bit) % 2 == 1
end

local function valid_app(app)
    return (app > 0 and app < 8192) or (app >= 16384 and app < 20480)
end

local function last(field) -- of several messages in a frame the one that is being dissected; also how many there are
    local all = { field() }
    return #all > 0 and all[#all].value or nil, #all
end

local function seconds(value)
    local whole = math.floor(value)
    return NSTime.new(whole, math.floor((value - whole) * 1000000000 + 0.5))
end

local text = string.format

-- Whether words in their sender's byte order are little-endian. Ids, versions and masks are small, so that reading is right whose
-- largest word is the smaller one.
local function little_endian(tvb, at, words)
    if zeb.prefs.byte_order ~= GUESS then
        return zeb.prefs.byte_order == LITTLE
    end
    local little, big = 0, 0
    for i = at, at + 4 * (words - 1), 4 do
        little = math.max(little, tvb(i, 4):le_uint())
        big = math.max(big, tvb(i, 4):uint())
    end
    return little <= big
end

local function add_words(tree, tvb, at, little, ...) -- fields
    local values = {}
    for i, field in ipairs({ ... }) do
        local range = tvb(at + 4 * (i - 1), 4)
        if little then
            tree:add_le(field, range)
        else
            tree:add(field, range)
        end
        values[i] = little and range:le_uint() or range:uint()
    end
    return values
end

local function show_handshake_link(m, item, type, seq, pseq)
    local mark = m.mark .. "/" .. m.elements
    if not m.pinfo.visited then
        seen.acks[mark] = { sync = seen.numbered[m.to .. ">" .. m.from .. "/" .. seq], peer = seen.syncs[m.from .. ">" .. m.to] }
    end
    local answered = seen.acks[mark] or {}
    if answered.sync then
        item:add(f.sync_in, answered.sync.frame):set_generated()
        item:add(f.sync_time, seconds(m.pinfo.rel_ts - answered.sync.at)):set_generated()
    end
    if type ~= SEQ_ACK then
        return
    end
    if pseq == 0 then
        item:add_proto_expert_info(e.pseq, "pseq 0: the acknowledger has not confirmed the peer's identity, so this does not complete the pair")
    elseif answered.peer and answered.peer.seq ~= pseq then
        item:add_proto_expert_info(e.pseq, text("pseq %d is not the last synchronisation, %d in frame %d, so this does not complete the pair",
            pseq, answered.peer.seq, answered.peer.frame))
    end
end

local function show_sync(m, item, at, type)
    local tvb = m.tvb
    local seq = tvb(at, 4):uint()
    item:add(f.sync_seq, tvb(at, 4))
    item:add(f.sync_id, tvb(at + 4, 4))
    item:add(f.sync_server, tvb(at + 8, 4))
    item:add(f.sync_resume, tvb(at + 12, 4))
    item:add(f.sync_ttl, tvb(at + 16, 4))
    local pseq
    if type == SEQ_ACK then
        pseq = tvb(at + 20, 4):uint()
        item:add(f.sync_pseq, tvb(at + 20, 4))
    end
    if type ~= SYNC_INST then
        show_handshake_link(m, item, type, seq, pseq)
        return text(pseq and " seq %d pseq %d" or " seq %d", seq, pseq)
    end
    local way = m.from .. ">" .. m.to
    if not m.pinfo.visited and not (seen.syncs[way] and seen.syncs[way].seq == seq) then -- a retry has the same number
        seen.syncs[way] = { seq = seq, frame = m.pinfo.number, at = m.pinfo.rel_ts }
        seen.numbered[way .. "/" .. seq] = seen.syncs[way]
    end
    return text(" seq %d", seq) .. (tvb(at + 12, 4):uint() ~= 0 and " resume" or "")
end

local function show_num_ack(m, item, at)
    item:add(f.ack_num, m.tvb(at, 4))
    return text(" %d", m.tvb(at, 4):uint())
end

local function show_debug(m, item, at)
    local words = add_words(item, m.tvb, at, little_endian(m.tvb, at, 2), f.dbg_level, f.dbg_on)
    return text(" %d %s", words[1], words[2] ~= 0 and "on" or "off")
end

local function show_info(m, item, at)
    local little, app = little_endian(m.tvb, at, 3), m.tvb(at, 4)
    if zeb.prefs.byte_order == GUESS and (app:uint() == m.src_app or app:le_uint() == m.src_app) then
        little = app:le_uint() == m.src_app -- who answers names itself, and its process id may be large
    end
    local words = add_words(item, m.tvb, at, little, f.info_app, f.info_pid, f.info_mask)
    return text(" pid %d", words[2])
end

local SHOW = {
    [NUM_ACK] = show_num_ack, [SYNC_INST] = show_sync, [SYNC_ACK] = show_sync, [SEQ_ACK] = show_sync, [DEBUG] = show_debug,
}

local function refuse(m, at, why)
    local here = m.tvb(at, math.min(m.stop, m.captured) - at)
    m.tree:add(f.refused, here):add_proto_expert_info(e.element, why .. ", so a receiver refuses the rest")
    table.insert(m.says, "refused rest")
end

local function show_element(m, at, len, type)
    local item = m.tree:add(f.element, m.tvb(at, len))
    item:set_text(text("Element: %s (%d)", TYPES[type] or "unknown", type))
    item:add(f.element_len, m.tvb(at, 2))
    item:add(f.element_type, m.tvb(at + 2, 2))
    local show, record = SHOW[type], RECORD_LEN[type] or 0
    if type == INFO and has(m.flag, ACK) then
        show, record = show_info, INFO_LEN
    end
    local said = show and show(m, item, at + ELEMENT_LEN, type) or ""
    if len > ELEMENT_LEN + record then
        item:add(f.element_value, m.tvb(at + ELEMENT_LEN + record, len - ELEMENT_LEN - record))
    end
    item:append_text(said)
    if TYPES[type] == nil or (IS_SYNC[type] or false) ~= has(m.flag, SYNC) then
        item:add_proto_expert_info(e.skipped, text("Type %d has no place in this message: the receiver skips it", type))
    end
    if #m.says < 4 then
        table.insert(m.says, (TYPES[type] or text("type %d", type)) .. said)
    end
end

-- Elements do not nest: a value is never looked into for more of them.
local function dissect_elements(m)
    local at = HEADER_LEN
    while at < m.stop do
        local left = m.stop - at
        if m.captured - at < math.min(left, ELEMENT_LEN) then
            m.tree:add_proto_expert_info(e.cut, "The capture ends within the elements")
            return
        end
        if left < ELEMENT_LEN then
            return refuse(m, at, text("%d bytes are left, and an element takes 4", left))
        end
        local len, type = m.tvb(at, 2):uint(), m.tvb(at + 2, 2):uint()
        local record = type == INFO and has(m.flag, ACK) and INFO_LEN or RECORD_LEN[type] or 0
        if len > left then
            return refuse(m, at, text("An element of %d bytes is longer than the %d that are left", len, left))
        end
        if len < ELEMENT_LEN + record then
            return refuse(m, at, text("An element of type %d takes %d bytes and has %d", type, ELEMENT_LEN + record, len))
        end
        if at + len > m.captured then
            m.tree:add_proto_expert_info(e.cut, "The capture ends within an element")
            return
        end
        m.elements = m.elements + 1
        if m.elements > ELEMENTS_SHOWN then
            m.tree:add_proto_expert_info(e.cut, text("Only the first %d elements are shown", ELEMENTS_SHOWN))
            return
        end
        show_element(m, at, len, type)
        at = at + len + (4 - len % 4) % 4
    end
end

-- The versions that a server takes. The library converts them for status 1 alone.
local function dissect_versions(m)
    if m.readable < HEADER_LEN + 8 then
        return
    end
    local little = m.stat == APP_MISMATCH and little_endian(m.tvb, HEADER_LEN, 2)
    local words = add_words(m.tree, m.tvb, HEADER_LEN, little, f.low, f.high)
    m.versions = text("%d to %d", words[1], words[2])
end

local function dissect_payload(m)
    m.has_payload = true
    if m.readable > HEADER_LEN then
        m.tree:add(f.data, m.tvb(HEADER_LEN, m.readable - HEADER_LEN))
    end
end

local function hand_payload_on(m) -- to the dissector of the application that serves it
    if m.has_payload and m.readable > HEADER_LEN and not m.returned then
        local owner = applications:get_dissector(has(m.flag, ACK) and m.src_app or m.dst_app)
        if owner then
            owner:call(m.tvb(HEADER_LEN, m.readable - HEADER_LEN):tvb(), m.pinfo, m.root)
        end
    end
end

local function dissect_management_reply(m)
    local tvb = m.tvb
    local is_info = m.readable == HEADER_LEN + ELEMENT_LEN + INFO_LEN and tvb(HEADER_LEN, 4):uint() == (ELEMENT_LEN + INFO_LEN) * 65536 + INFO
    if is_info then
        return dissect_elements(m)
    end
    local len = m.readable - HEADER_LEN
    if len > 0 then
        m.tree:add(f.stat_text, tvb(HEADER_LEN, len))
        table.insert(m.says, "text")
    end
end

local function dissect_reply(m)
    if m.stat == MISMATCH or m.stat == APP_MISMATCH then
        dissect_versions(m)
        local range = m.versions and "the server takes " .. m.versions or "without the server's versions"
        m.tree:add_proto_expert_info(e.version, text("%s: %s", STATUS[m.stat], range))
    elseif m.stat ~= 0 then
        m.tree:add_proto_expert_info(e.status, STATUS[m.stat] or text("unknown status %d", m.stat))
    end
    if m.stat ~= 0 then
        table.insert(m.says, STATUS[m.stat] or text("status %d", m.stat))
    end
    if m.stat ~= 0 and m.versions then
        return
    end
    if has(m.flag, MNG) and m.stat == 0 then
        return dissect_management_reply(m)
    end
    dissect_payload(m)
end

-- Calls and their replies. TIPC may show a request again, returned or on a second link: the first one counts until it is answered.
local function find_exchange(m)
    if m.pinfo.visited then
        return seen.links[m.mark]
    end
    local is_reply = has(m.flag, ACK)
    local key = (is_reply and m.to .. ">" .. m.from or m.from .. ">" .. m.to) .. "/" .. m.seq
    local exchange = seen.exchanges[key]
    if not is_reply and (exchange == nil or exchange.reply) then
        exchange = { request = m.pinfo.number, at = m.pinfo.rel_ts }
        seen.exchanges[key] = exchange
    elseif is_reply and exchange and not exchange.reply then
        exchange.reply = m.pinfo.number
    end
    seen.links[m.mark] = exchange
    return exchange
end

local function show_exchange(m)
    local exchange = find_exchange(m)
    if exchange == nil then
        return
    end
    local is_reply = has(m.flag, ACK)
    if is_reply or m.pinfo.number ~= exchange.request then
        m.tree:add(f.request_in, exchange.request):set_generated()
        m.tree:add(f.time, seconds(m.pinfo.rel_ts - exchange.at)):set_generated()
    elseif exchange.reply then
        m.tree:add(f.reply_in, exchange.reply):set_generated()
    end
end

local function check_address(m)
    local _, names = last(tipc_name_type)
    local instance, instances = last(tipc_instance)
    if not m.by_name or names ~= instances then -- a message to a range of names has no instance
        return
    end
    if instance and instance ~= m.dst_app * 65536 + m.dst_node % 65536 then
        m.tree:add_proto_expert_info(e.address, text("The header names %s, the TIPC name %d/%d", m.to, math.floor(instance / 65536),
            instance % 65536))
    end
end

local function check_header(m)
    local function wrong(...)
        m.tree:add_proto_expert_info(e.header, text(...))
    end
    local statistics = m.flag == MNG + REQUEST + ACK -- printed into a message of its own, without a version
    if m.ver ~= 1 and m.ver ~= 2 and not (m.ver == 0 and statistics) then
        wrong("Version %d; 1 and 2 are known", m.ver)
    end
    if m.rsvd ~= 0 then
        wrong("Reserved byte %d, not 0", m.rsvd)
    end
    if KINDS[m.flag] == nil then
        wrong("Flags 0x%02x together", m.flag)
    end
    if not (valid_app(m.src_app) and valid_app(m.dst_app)) then
        wrong("An application id of %s -> %s is out of range", m.from, m.to)
    end
    if m.src_node > 65535 or m.dst_node > 65535 then
        wrong("A node id of %s -> %s is out of range", m.from, m.to)
    end
    if m.stat ~= 0 and not has(m.flag, ACK) then
        wrong("Status %d in a message that is no reply", m.stat)
    elseif m.stat == TIME_OUT then
        wrong("A time-out is made by the caller's own library and never sent")
    end
    check_address(m)
end

local function check_length(m)
    local returned_part = m.returned and m.size == RETURNED_MAX and m.len > m.size
    if returned_part then
        m.tree:add_proto_expert_info(e.cut, text("TIPC returned %d of %d bytes", m.size, m.len))
    elseif m.len ~= m.size then
        m.tree:add_proto_expert_info(e.length, text("The header says %d bytes, the datagram has %d: a receiver drops it", m.len, m.size))
    elseif m.len > DATAGRAM_MAX then
        m.tree:add_proto_expert_info(e.length, text("%d bytes; the longest message has %d", m.len, DATAGRAM_MAX))
    end
end

local function add_header(m)
    local tvb, tree = m.tvb, m.tree
    tree:add(f.ver, tvb(0, 1))
    tree:add(f.rsvd, tvb(1, 1))
    local flags = tree:add(f.flag, tvb(2, 1))
    flags:add(f.flag_sync, tvb(2, 1))
    flags:add(f.flag_request, tvb(2, 1))
    flags:add(f.flag_ack, tvb(2, 1))
    flags:add(f.flag_mng, tvb(2, 1))
    tree:add(f.qos, tvb(3, 1))
    tree:add(f.len, tvb(4, 4))
    tree:add(f.src_node, tvb(8, 4))
    tree:add(f.dst_node, tvb(12, 4))
    tree:add(f.src_app, tvb(16, 4))
    tree:add(f.dst_app, tvb(20, 4))
    tree:add(f.app_ver, tvb(24, 4))
    tree:add(f.seq, tvb(28, 4))
    tree:add(f.rpc_stat, tvb(32, 4))
    for field, offsets in pairs({ [f.node] = { 8, 12 }, [f.app] = { 16, 20 } }) do
        for _, at in ipairs(offsets) do
            tree:add(field, tvb(at, 4)):set_hidden()
        end
    end
end

local function read_header(m)
    local tvb = m.tvb
    m.ver, m.rsvd, m.flag = tvb(0, 1):uint(), tvb(1, 1):uint(), tvb(2, 1):uint()
    m.len = tvb(4, 4):uint()
    m.src_node, m.dst_node = tvb(8, 4):uint(), tvb(12, 4):uint()
    m.src_app, m.dst_app = tvb(16, 4):uint(), tvb(20, 4):uint()
    m.seq, m.stat = tvb(28, 4):uint(), tvb(32, 4):int()
    m.from = text("%d/%d", m.src_app, m.src_node)
    m.to = text("%d/%d", m.dst_app, m.dst_node)
    m.stop = math.min(m.len, m.size) -- where header and datagram both say that the message goes on until
    m.readable = math.max(math.min(m.stop, m.captured), HEADER_LEN)
end

local function dissect_body(m) -- in the order in which a receiver looks at the flags
    if has(m.flag, SYNC) then
        return dissect_elements(m)
    end
    if has(m.flag, REQUEST) then
        show_exchange(m)
    end
    if has(m.flag, REQUEST) and has(m.flag, ACK) then
        dissect_reply(m)
    elseif has(m.flag, MNG) then
        dissect_elements(m)
    else
        dissect_payload(m)
    end
end

local function describe(m)
    local kind = KINDS[m.flag] or text("flags 0x%02x", m.flag)
    local line = text("%s → %s %s", m.from, m.to, kind)
    if has(m.flag, REQUEST) and not has(m.flag, SYNC) then
        line = line .. text(" seq %d", m.seq)
    end
    if #m.says > 0 then
        line = line .. ": " .. table.concat(m.says, ", ")
    elseif not has(m.flag, SYNC) and not has(m.flag, MNG) then
        line = line .. text(", %d bytes", m.readable - HEADER_LEN)
    end
    if m.returned then
        line = line .. " [returned: " .. (TIPC_ERRORS[m.returned] or m.returned) .. "]"
    end
    m.pinfo.cols.info = line
    m.tree:append_text(", " .. line)
end

local function dissect(tvb, pinfo, root, by_name)
    local m = {
        tvb = tvb, captured = tvb:len(), size = tvb:reported_len(), pinfo = pinfo, root = root, by_name = by_name,
        mark = pinfo.number .. ":" .. tvb:offset(), elements = 0, says = {},
    }
    pinfo.cols.protocol = "ZEB"
    m.tree = root:add(zeb, tvb())
    if m.captured < HEADER_LEN then
        local cut = m.size >= HEADER_LEN
        m.tree:add_proto_expert_info(cut and e.cut or e.length,
            cut and "The capture ends within the header" or text("%d bytes; a header alone takes 36", m.size))
        pinfo.cols.info = text("no header: %d bytes", m.captured)
        return
    end
    read_header(m)
    local code = last(tipc_error)
    m.returned = code and code ~= 0 and code or nil
    add_header(m)
    if m.returned then
        m.tree:add(f.returned, m.returned):set_generated()
        m.tree:add_proto_expert_info(e.returned, "TIPC returned this message to its sender: " .. (TIPC_ERRORS[m.returned] or m.returned))
    end
    check_length(m)
    check_header(m)
    dissect_body(m)
    describe(m)
    hand_payload_on(m)
end

function zeb.dissector(tvb, pinfo, root)
    dissect(tvb, pinfo, root, true)
    return tvb:len()
end

DissectorTable.get("tipcv2.port_name_type"):add(NAME_TYPE, zeb)

-- A message that was sent to a port has no name. It is ours when nothing in its header speaks against it.
zeb:register_heuristic("tipc", function(tvb, pinfo, root)
    if tvb:len() < HEADER_LEN then
        return false
    end
    local m = { tvb = tvb, captured = tvb:len(), size = tvb:reported_len() }
    read_header(m)
    local ours = (m.ver == 1 or m.ver == 2) and m.rsvd == 0 and KINDS[m.flag] and m.len == m.size and valid_app(m.src_app) and
        valid_app(m.dst_app) and m.src_node < 65536 and m.dst_node < 65536
    if not ours then
        return false
    end
    dissect(tvb, pinfo, root, false)
    return true
end)
