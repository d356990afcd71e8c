-- Wireshark dissector for captures of "tavctl monitor --pcap": each packet is the record of a module
-- (tav_ipc_monitor.h), then the datagram's header and payload (docs/wire.md), in the byte order of the
-- machine that captured them. The link type is USER0 (147).
--
-- Installed, it is in the directory for Lua plugins that "tshark -G folders" names; elsewhere load it with
-- -X lua_script:tavipc.lua.
local proto = Proto("tavipc", "tavipc message")

local events = {[0] = "hello", "sent", "waiting", "dropped", "received", "refused"}
-- by the order in tav_ipc_stats.h
local reasons = {[0] = "none", [7] = "no peer", [8] = "would block", [9] = "budget", [10] = "no memory", [11] = "closed",
                 [12] = "other", [26] = "short", [27] = "check", [28] = "size", [29] = "fragment",
                 [30] = "compressed", [31] = "other"}
-- kinds in the order in which a receiver looks at their flags
local kinds = {{0x20, "answer"}, {0x1, "ack"}, {0x4, "file"}, {0x8, "probe"}, {0x10, "request"}}

local f = {
    version = ProtoField.uint16("tavipc.version", "Record version"),
    pid = ProtoField.uint32("tavipc.pid", "Process"),
    event = ProtoField.uint16("tavipc.event", "Outcome", base.DEC, events),
    reason = ProtoField.uint16("tavipc.reason", "Reason", base.DEC, reasons),
    missed = ProtoField.uint64("tavipc.missed", "Copies missed before"),
    captured = ProtoField.uint32("tavipc.captured", "Captured payload bytes"),
    tries = ProtoField.uint32("tavipc.tries", "Attempts to send"),
    endpoint = ProtoField.string("tavipc.endpoint", "Endpoint"),
    location = ProtoField.int32("tavipc.location", "Location"),
    dest_host = ProtoField.uint32("tavipc.dest.host", "Destination host id"),
    dest = ProtoField.string("tavipc.dest", "Destination"),
    dest_loc = ProtoField.uint8("tavipc.dest.loc", "Destination location"),
    dest_flags = ProtoField.uint8("tavipc.dest.flags", "Destination flags", base.HEX),
    src_host = ProtoField.uint32("tavipc.src.host", "Source host id"),
    src = ProtoField.string("tavipc.src", "Source"),
    src_loc = ProtoField.uint8("tavipc.src.loc", "Source location"),
    src_flags = ProtoField.uint8("tavipc.src.flags", "Source flags", base.HEX),
    kind = ProtoField.string("tavipc.kind", "Kind"),
    reqid = ProtoField.uint32("tavipc.reqid", "Message id"),
    flags = ProtoField.uint16("tavipc.flags", "Flags", base.HEX),
    rflags = ProtoField.uint16("tavipc.rflags", "Second flags", base.HEX),
    cmd = ProtoField.uint32("tavipc.cmd", "Command"),
    size = ProtoField.uint32("tavipc.size", "Payload size"),
    frag_orig = ProtoField.uint32("tavipc.frag.orig", "Size of the whole message"),
    fragment = ProtoField.bool("tavipc.frag", "Fragment"),
    sequence = ProtoField.uint16("tavipc.frag.number", "Fragment number"),
    count = ProtoField.uint16("tavipc.frag.count", "Fragments of the message"),
    frag_id = ProtoField.uint16("tavipc.frag.id", "Fragment id"),
    magic = ProtoField.uint32("tavipc.check", "Check value", base.HEX),
    right = ProtoField.bool("tavipc.check.right", "Check value is right"),
    app = ProtoField.bool("tavipc.app", "Application message"),
    app_method = ProtoField.uint16("tavipc.app.method", "Method", base.DEC, {[0] = "plain", [4] = "compressed"}),
    app_priority = ProtoField.uint8("tavipc.app.priority", "Priority"),
    app_length = ProtoField.uint32("tavipc.app.length", "Body length"),
    payload = ProtoField.bytes("tavipc.payload", "Payload"),
}
local bits = { -- of the flags
    {0x1, "ack", "Acknowledgement"}, {0x2, "need_ack", "Asks for an acknowledgement"}, {0x4, "file", "File chunk"},
    {0x8, "probe", "Probe"}, {0x10, "request", "Request"}, {0x20, "response", "Response"}, {0x40, "trace", "Traced"},
    {0x100, "compressed", "Compressed"}, {0x200, "app_msg", "Application message"},
}
local fields = {}
for _, field in pairs(f) do fields[#fields + 1] = field end
for _, one in ipairs(bits) do
    one.field = ProtoField.bool("tavipc.flags." .. one[2], one[3], 16, nil, one[1])
    fields[#fields + 1] = one.field
end
proto.fields = fields

local bad = ProtoExpert.new("tavipc.bad", "The receiver drops this datagram", expert.group.PROTOCOL, expert.severity.WARN)
local lost = ProtoExpert.new("tavipc.lost", "Dropped", expert.group.SEQUENCE, expert.severity.WARN)
local damaged = ProtoExpert.new("tavipc.damaged", "Not a record", expert.group.MALFORMED, expert.severity.ERROR)
proto.experts = {bad, lost, damaged}

local WORD = 4294967296 -- 2^32
local LARGEST, FRAGMENT = 65471999, 64000 -- bytes of a message and of a fragment

-- a * b modulo 2^32; a product of 48 bits is exact, also as a floating-point number.
local function times(a, b)
    return (a * (b % 65536) + (a * math.floor(b / 65536)) % 65536 * 65536) % WORD
end

local function xor(a, b) return bit.bxor(a, b) % WORD end

local function name_of(range) -- up to its first zero byte, at most 10 bytes
    local name = range:raw()
    return name:match("^[^%z]*")
end

local function check_value(src, dest, reqid, cmd, size)
    local h = 0x19D699A5
    for i = 1, #src do h = xor(h, times(src:byte(i), 0x1C231)) end
    for i = 1, #dest do h = xor(h, times(dest:byte(i), 0x4DE1)) end
    h = xor(h, times(reqid, 0x132A3B3D))
    h = xor(h, times(cmd, 0x53C93455))
    return xor(h, times(size, 0x05A0B809))
end

local function kind_of(flags)
    for _, kind in ipairs(kinds) do
        if bit.band(flags, kind[1]) ~= 0 then return kind[2] end
    end
    return "message"
end

local function outcome_of(event, reason)
    local text = events[event] or ("event " .. event)
    return reason == 0 and text or text .. ": " .. (reasons[reason] or reason)
end

-- Reads numbers and adds fields in the byte order of the capture.
local Reader = {}
Reader.__index = Reader
function Reader:number(at, length)
    local range = self.buffer(at, length)
    return self.little and range:le_uint() or range:uint()
end
function Reader:add(tree, field, at, length)
    if self.little then return tree:add_le(field, self.buffer(at, length)) end
    return tree:add(field, self.buffer(at, length))
end

local function add_address(reader, tree, at, prefix)
    local name = name_of(reader.buffer(at + 4, 10))
    reader:add(tree, f[prefix .. "_host"], at, 4)
    tree:add(f[prefix], reader.buffer(at + 4, 10), name)
    reader:add(tree, f[prefix .. "_loc"], at + 14, 1)
    reader:add(tree, f[prefix .. "_flags"], at + 15, 1)
    return name
end

local function add_fragment(reader, tree, at)
    local word = reader.buffer(at + 52, 2)
    local low, high = word(0, 1):uint(), word(1, 1):uint()
    local is_fragment, orig = low % 2 == 1, reader:number(at + 48, 4)
    reader:add(tree, f.frag_orig, at + 48, 4)
    tree:add(f.fragment, word, is_fragment)
    local text = ""
    if is_fragment and orig <= LARGEST then
        local number, count = math.floor(low / 2) + high % 8 * 128, math.floor((orig + FRAGMENT - 1) / FRAGMENT)
        tree:add(f.sequence, word, number)
        tree:add(f.count, reader.buffer(at + 48, 4), count):set_generated()
        text = string.format(", fragment %d of %d", number + 1, count)
    end
    reader:add(tree, f.frag_id, at + 54, 2)
    return text
end

local function add_header(reader, tree, at)
    local dest, src = add_address(reader, tree, at, "dest"), add_address(reader, tree, at + 16, "src")
    local reqid, flags, cmd, size = reader:number(at + 32, 4), reader:number(at + 36, 2), reader:number(at + 40, 4),
        reader:number(at + 44, 4)
    tree:add(f.kind, reader.buffer(at + 36, 2), kind_of(flags)):set_generated()
    reader:add(tree, f.reqid, at + 32, 4)
    local flag_tree = reader:add(tree, f.flags, at + 36, 2)
    for _, one in ipairs(bits) do reader:add(flag_tree, one.field, at + 36, 2) end
    reader:add(tree, f.rflags, at + 38, 2)
    reader:add(tree, f.cmd, at + 40, 4)
    reader:add(tree, f.size, at + 44, 4)
    local fragment = add_fragment(reader, tree, at)
    local right = reader:number(at + 56, 4) == check_value(src, dest, reqid, cmd, size)
    local item = reader:add(tree, f.magic, at + 56, 4)
    tree:add(f.right, reader.buffer(at + 56, 4), right):set_generated()
    if not right then item:add_proto_expert_info(bad, "The check value is wrong") end
    return src, dest, string.format("%s %d, %d bytes%s", kind_of(flags), cmd, size, fragment)
end

local function add_payload(reader, tree, at, length)
    local range = reader.buffer(at, length)
    if length >= 20 and range(0, 4):raw() == "3200" then -- its own fields are big-endian
        local app = tree:add(f.app, range(0, 20), true)
        app:add(f.app_method, range(6, 2))
        app:add(f.app_priority, range(15, 1))
        app:add(f.app_length, range(16, 4))
    end
    tree:add(f.payload, range)
end

function proto.dissector(buffer, pinfo, root)
    pinfo.cols.protocol = "TAVIPC"
    local tree = root:add(proto, buffer())
    local magic = buffer:len() >= 64 and buffer(0, 4):raw() or ""
    local reader = setmetatable({buffer = buffer, little = magic == "TMON"}, Reader)
    local at = magic ~= "" and reader:number(6, 2) or 0
    if (magic ~= "TMON" and magic ~= "NOMT") or at < 64 or at > buffer:len() then
        tree:add_proto_expert_info(damaged)
        return
    end
    local record = tree:add(buffer(0, at), "Record of the module")
    local event, reason, captured = reader:number(20, 2), reader:number(22, 2), reader:number(32, 4)
    reader:add(record, f.version, 4, 2)
    reader:add(record, f.pid, 16, 4)
    local item = reader:add(record, f.event, 20, 2)
    reader:add(record, f.reason, 22, 2)
    reader:add(record, f.missed, 24, 8)
    reader:add(record, f.captured, 32, 4)
    reader:add(record, f.tries, 36, 4)
    record:add(f.endpoint, buffer(40, 16), name_of(buffer(40, 16)))
    reader:add(record, f.location, 56, 4)
    local outcome = outcome_of(event, reason)
    if event == 3 or event == 5 then item:add_proto_expert_info(lost, outcome) end
    pinfo.cols.info = outcome
    if buffer:len() < at + 60 then return end
    local src, dest, info = add_header(reader, tree:add(buffer(at, 60), "Header"), at)
    pinfo.cols.src, pinfo.cols.dst = (src:gsub("%c", "?")), (dest:gsub("%c", "?")) -- for a terminal
    pinfo.cols.info = info .. ", " .. outcome
    local length = math.min(captured, buffer:len() - at - 60)
    if length > 0 then add_payload(reader, tree, at + 60, length) end
end

DissectorTable.get("wtap_encap"):add(wtap.USER0, proto)
