-- Wireshark/tshark dissector for the terminal's update protocol.
--
--   tshark -X lua_script:swu.lua -r capture.pcapng -Y swu
--   or copy to ~/.local/lib/wireshark/plugins/
--
-- Decodes every message on UDP 12225 (advertisements) and 12226 (requests),
-- and on the ports a connection request announces for its answers. Expert
-- info marks a segment ahead of the expected one, a repeated segment and a
-- repeated acknowledgement.

local swu = Proto("swu", "Terminal software update")

local opcodes = {
    [0x21] = "CONNECTION_REQST", [0x22] = "STATUS_REQST", [0x23] = "STREAM_REQST",
    [0x24] = "PCKT_TRNSFR", [0x25] = "FILE_STREAM_END", [0x26] = "ERROR_RECEIVED",
    [0x27] = "TERMINAL_REBOOT_REQ", [0x70] = "SWU_SELF_ADVERTISE_OPCD",
    [0x71] = "CONNECTION_RSPNS", [0x72] = "STATUS_RSPNS", [0x73] = "FILE_STREAM_RSPNS",
    [0x74] = "PCKT_TRNSFR_ACK", [0x75] = "FILE_STREAM_END_RSPNS",
    [0x76] = "RESTARTING_UPDATE_PROC", [0x77] = "TERMINAL_REBOOT_RSPNS",
}
local connection_results = {
    [0] = "already connected", [1] = "connection confirmed", [2] = "battery too low",
    [3] = "upgrading",
}
local power_sources = { [0] = "battery", [1] = "external" }
local adv_states = { [0] = "free", [1] = "busy" }
local term_types = { [0] = "static", [1] = "dynamic" }
local stage_texts = {
    [0] = "idle", [1] = "connected: Terminal is in update mode, connected...",
    [2] = "stream: Terminal is receiving update stream...",
    [3] = "verify: Terminal verifiying upgrade package...",
    [4] = "upgrade: Terminal in upgradded to new version...",
    [5] = "error: Terminal encountered a major error, returning to initial state, re-connect to continue",
    [6] = "finish: Terminal is rebooting...",
}
local status_texts = {
    [0] = "operation compleated successfully...", [1] = "invalid stream request...",
    [2] = "invalid stream, some packets are missing...", [3] = "memory allocation failure",
    [4] = "file system failure", [5] = "invalid package",
}

local f = {
    seq = ProtoField.uint16("swu.seq", "Sequence number"),
    opcode = ProtoField.uint8("swu.opcode", "Opcode", base.HEX, opcodes),
    reserved = ProtoField.uint8("swu.reserved", "Reserved"),
    app_id = ProtoField.uint8("swu.app_id", "Application id"),
    rx_port = ProtoField.uint16("swu.rx_port", "Client rx port"),
    stream_port = ProtoField.uint16("swu.stream_port", "Client stream port"),
    session_id = ProtoField.bytes("swu.session_id", "Session id"),
    umd_id_len = ProtoField.uint16("swu.umd_id_len", "Client id length"),
    umd_id = ProtoField.string("swu.umd_id", "Client id"),
    connection_status = ProtoField.uint8("swu.connection_status", "Connection", base.DEC,
                                         connection_results),
    power_source = ProtoField.uint8("swu.power_source", "Power source", base.DEC, power_sources),
    battery = ProtoField.uint8("swu.battery", "Battery (%)"),
    reason = ProtoField.uint8("swu.reason", "Update reason bits", base.HEX),
    data_length = ProtoField.uint16("swu.data_length", "Report buffer size"),
    status_json = ProtoField.string("swu.status_json", "Status report"),
    stage_code = ProtoField.uint8("swu.stage_code", "Stage", base.DEC, stage_texts),
    status_code = ProtoField.uint8("swu.status_code", "Status", base.DEC, status_texts),
    fsize = ProtoField.uint64("swu.fsize", "Package size"),
    fname_len = ProtoField.uint16("swu.fname_len", "Name length"),
    fname = ProtoField.string("swu.fname", "Package name"),
    payload_max = ProtoField.uint16("swu.payload_max", "Largest payload"),
    transfer_status = ProtoField.uint8("swu.transfer_status", "Transfer status"),
    seg_number = ProtoField.uint64("swu.seg_number", "Segment"),
    seg_count = ProtoField.uint64("swu.seg_count", "Segments"),
    payload_len = ProtoField.uint32("swu.payload_len", "Payload length"),
    adv_state = ProtoField.uint8("swu.adv_state", "Terminal", base.DEC, adv_states),
    tx_port = ProtoField.uint16("swu.tx_port", "Terminal tx port"),
    adv_rx_port = ProtoField.uint16("swu.adv_rx_port", "Terminal rx port"),
    version = ProtoField.string("swu.version", "Installed version"),
    factory_version = ProtoField.string("swu.factory_version", "Factory version"),
    conf_ver = ProtoField.uint16("swu.conf_ver", "Configuration version"),
    term_type = ProtoField.uint8("swu.term_type", "Terminal type", base.DEC, term_types),
    identity = ProtoField.string("swu.identity", "Identity"),
}
swu.fields = {}
for _, field in pairs(f) do table.insert(swu.fields, field) end

local ahead = ProtoExpert.new("swu.seg_ahead", "Segment ahead of the expected one",
                              expert.group.SEQUENCE, expert.severity.WARN)
local repeated = ProtoExpert.new("swu.seg_repeated", "Repeated segment",
                                 expert.group.SEQUENCE, expert.severity.NOTE)
local repeated_ack = ProtoExpert.new("swu.ack_repeated", "Repeated acknowledgement",
                                     expert.group.SEQUENCE, expert.severity.NOTE)
swu.experts = { ahead, repeated, repeated_ack }

-- Stream order per terminal, worked out on the first pass and kept per frame.
local expected, acked, verdict = {}, {}, {}

local udp_table = DissectorTable.get("udp.port")

local function version(tvb, at)
    return string.format("%d.%d.%d", tvb(at, 2):le_uint(), tvb(at + 2, 2):le_uint(),
                         tvb(at + 4, 2):le_uint())
end

local function judge(pinfo, key, kind, seg)
    if not pinfo.visited then
        if kind == "packet" then
            if seg == 1 then expected[key] = 1 end
            local e = expected[key] or 1
            if seg > e then
                verdict[pinfo.number] = "ahead"
            elseif seg < e then
                verdict[pinfo.number] = "repeated"
            else
                expected[key] = e + 1
            end
        else
            if seg == 1 then acked[key] = 0 end
            if seg <= (acked[key] or 0) then verdict[pinfo.number] = "repeated_ack" end
            if seg > (acked[key] or 0) then acked[key] = seg end
        end
    end
    return verdict[pinfo.number]
end

function swu.dissector(tvb, pinfo, tree)
    local len = tvb:len()
    if len < 4 then return 0 end
    local op = tvb(2, 1):uint()
    local name = opcodes[op]
    if name == nil then return 0 end
    pinfo.cols.protocol = "SWU"
    local t = tree:add(swu, tvb(), "Terminal software update, " .. name)
    t:add_le(f.seq, tvb(0, 2))
    t:add(f.opcode, tvb(2, 1))
    t:add(f.reserved, tvb(3, 1))
    local info = name

    if op == 0x21 and len >= 19 then
        t:add(f.app_id, tvb(4, 1))
        t:add_le(f.rx_port, tvb(5, 2))
        t:add_le(f.stream_port, tvb(7, 2))
        t:add(f.session_id, tvb(9, 8))
        t:add_le(f.umd_id_len, tvb(17, 2))
        local n = math.min(tvb(17, 2):le_uint(), len - 19)
        if n > 0 then t:add(f.umd_id, tvb(19, n)) end
        -- Follow the session: its answers go to the ports it announces.
        udp_table:add(tvb(5, 2):le_uint(), swu)
        udp_table:add(tvb(7, 2):le_uint(), swu)
        info = info .. string.format(" rx %d stream %d", tvb(5, 2):le_uint(), tvb(7, 2):le_uint())
    elseif op == 0x71 and len >= 8 then
        t:add(f.connection_status, tvb(4, 1))
        t:add(f.power_source, tvb(5, 1))
        t:add(f.battery, tvb(6, 1))
        t:add(f.reason, tvb(7, 1))
        info = info .. " " .. (connection_results[tvb(4, 1):uint()] or "?")
    elseif op == 0x72 and len >= 6 then
        t:add_le(f.data_length, tvb(4, 2))
        if len > 6 then
            local text = tvb(6, len - 6):string()
            local j = t:add(f.status_json, tvb(6, len - 6))
            local stage = tonumber(text:match('"stage_code"%s*:%s*(%d+)'))
            local status = tonumber(text:match('"status_code"%s*:%s*(%d+)'))
            if stage then j:add(f.stage_code, tvb(6, len - 6), stage) end
            if status then j:add(f.status_code, tvb(6, len - 6), status) end
            info = info .. string.format(" stage %s status %s", stage or "?", status or "?")
        end
    elseif op == 0x23 and len >= 14 then
        t:add_le(f.fsize, tvb(4, 8))
        t:add_le(f.fname_len, tvb(12, 2))
        if len > 14 then t:add(f.fname, tvb(14, len - 14)) end
        info = info .. " " .. (len > 14 and tvb(14, len - 14):string() or "")
    elseif op == 0x73 and len >= 7 then
        t:add_le(f.payload_max, tvb(4, 2))
        t:add(f.transfer_status, tvb(6, 1))
    elseif (op == 0x24 and len >= 20) or (op == 0x74 and len >= 12) then
        local seg = tvb(4, 8):le_uint64():tonumber()
        t:add_le(f.seg_number, tvb(4, 8))
        local key = (op == 0x24 and tostring(pinfo.dst) or tostring(pinfo.src))
        if op == 0x24 then
            t:add_le(f.seg_count, tvb(12, 8))
            t:add(f.payload_len, tvb(20, len - 20), len - 20)
        end
        local v = judge(pinfo, key, op == 0x24 and "packet" or "ack", seg)
        if v == "ahead" then t:add_proto_expert_info(ahead) end
        if v == "repeated" then t:add_proto_expert_info(repeated) end
        if v == "repeated_ack" then t:add_proto_expert_info(repeated_ack) end
        info = info .. " seg " .. seg .. (v and (" [" .. v .. "]") or "")
    elseif op == 0x70 and len >= 57 then
        t:add(f.adv_state, tvb(4, 1))
        t:add_le(f.tx_port, tvb(5, 2))
        t:add_le(f.adv_rx_port, tvb(7, 2))
        t:add(f.version, tvb(9, 6), version(tvb, 9))
        t:add(f.factory_version, tvb(15, 6), version(tvb, 15))
        t:add_le(f.conf_ver, tvb(21, 2))
        t:add(f.term_type, tvb(23, 1))
        local n = math.min(tvb(24, 1):uint(), 32)
        if n > 0 then t:add(f.identity, tvb(25, n)) end
        info = info .. " " .. version(tvb, 9)
    end
    pinfo.cols.info = info
    return len
end

udp_table:add(12225, swu)
udp_table:add(12226, swu)
