-- Shows captures of `vexo tap` in Wireshark and tshark: packets of the card's streams, and register accesses.
--
--     tshark -X lua_script:vexo.lua -r FILE
--
-- or copy it into the plug-in folder that Wireshark shows under Help, About, Folders. Works with Wireshark 4.0 and
-- later; as root, too.

-- ---- packets of a card-to-host stream ----

local stream = Proto("vexo", "Packet of the card")

local packet_types = {
    [2] = "Contract map",
    [17] = "Level-1, single-leg",
    [18] = "Level-5, single-leg",
    [19] = "Level-1, combination",
    [20] = "Level-5, combination",
}
local tables = { [0] = "single-leg", [1] = "combination" }

local f = {
    type = ProtoField.uint32("vexo.type", "Type", base.DEC, packet_types),
    length = ProtoField.uint32("vexo.length", "Length of the packet"),
    sequence = ProtoField.uint32("vexo.sequence", "Number of the packet in its stream"),
    unread = ProtoField.bytes("vexo.unread", "Rest of the head, of no known meaning"),
    payload = ProtoField.bytes("vexo.payload", "Payload, of no known layout"),
    simulated = ProtoField.bool("vexo.simulated", "Layout of the simulated card"),

    map_area = ProtoField.uint16("vexo.map.area", "Length of the message area"),
    map_message = ProtoField.bytes("vexo.map.message", "Message"),
    map_length = ProtoField.uint16("vexo.map.length", "Length of the message"),
    map_count = ProtoField.uint32("vexo.map.count", "Instruments that the card has learned"),
    map_table = ProtoField.uint8("vexo.map.table", "Table", base.DEC, tables),
    map_row = ProtoField.uint16("vexo.map.row", "Row (index of the instrument)"),
    map_id = ProtoField.string("vexo.map.id", "Id"),

    quote_sequence = ProtoField.uint64("vexo.quote.sequence", "Number of the quote in its stream"),
    quote_id = ProtoField.string("vexo.quote.id", "Id"),
    quote_row = ProtoField.uint16("vexo.quote.row", "Row (index of the instrument)"),
    quote_table = ProtoField.uint8("vexo.quote.table", "Table", base.DEC, tables),
    quote_level = ProtoField.uint8("vexo.quote.level", "Level"),
    quote_date = ProtoField.uint32("vexo.quote.date", "Exchange date"),
    quote_time = ProtoField.uint32("vexo.quote.time", "Exchange time"),
    quote_millis = ProtoField.uint32("vexo.quote.millis", "Exchange time, milliseconds"),
    quote_last = ProtoField.double("vexo.quote.last", "Last price"),
    quote_upper = ProtoField.double("vexo.quote.upper_limit", "Highest price of the day"),
    quote_lower = ProtoField.double("vexo.quote.lower_limit", "Lowest price of the day"),
    quote_turnover = ProtoField.double("vexo.quote.turnover", "Turnover"),
    quote_volume = ProtoField.uint64("vexo.quote.volume", "Volume"),
    quote_interest = ProtoField.uint64("vexo.quote.open_interest", "Open interest"),
    quote_bid_price = ProtoField.double("vexo.quote.bid_price", "Bid price"),
    quote_ask_price = ProtoField.double("vexo.quote.ask_price", "Ask price"),
    quote_bid_volume = ProtoField.uint32("vexo.quote.bid_volume", "Bid volume"),
    quote_ask_volume = ProtoField.uint32("vexo.quote.ask_volume", "Ask volume"),
}
stream.fields = f

local broken = ProtoExpert.new("vexo.broken", "Not as the card sends it", expert.group.MALFORMED, expert.severity.ERROR)
stream.experts = { broken }

local head_size = 12

-- The text of an id: it ends at its first zero byte or with the range. Ids are plain ASCII; other bytes become dots.
local function text_of(range) return (range:raw():match("^%Z*"):gsub("[^ -~]", ".")) end

-- The message area of a contract map; the first message has a longer header than the others.
local function show_map(buffer, info, tree)
    if buffer:len() < 15 then
        tree:add_proto_expert_info(broken, "Too short for a contract map")
        return
    end
    tree:add(f.map_area, buffer(12, 2))
    local at, messages = 14, 0
    local area_end = at + buffer(12, 2):uint()
    if area_end > buffer:len() then
        tree:add_proto_expert_info(broken, "The message area reaches past the packet")
        area_end = buffer:len()
    end
    while at < area_end - 1 do
        local header = messages == 0 and 9 or 5
        local length = buffer(at, 2):uint()
        if length < header or at + length > area_end then
            tree:add_proto_expert_info(broken, "A message of " .. length .. " bytes at byte " .. at)
            break
        end
        local message = tree:add(f.map_message, buffer(at, length))
        message:add(f.map_length, buffer(at, 2))
        if messages == 0 then message:add(f.map_count, buffer(at + 2, 4)) end
        message:add(f.map_table, buffer(at + header - 3, 1))
        message:add(f.map_row, buffer(at + header - 2, 2))
        local id = buffer(at + header, length - header)
        if id:len() > 0 then message:add(f.map_id, id) end
        local name = id:len() > 0 and text_of(id) or "(empty)"
        message:set_text(string.format("Message: row %d, %s", buffer(at + header - 2, 2):uint(), name))
        at, messages = at + length, messages + 1
    end
    info.cols.info:append(", " .. messages .. " messages")
end

-- The payload of the simulated card's quotes: level by packet type, and what lies where after the common part.
local levels = { [17] = 1, [18] = 5, [19] = 1, [20] = 5 }
local quote_sizes = { [1] = 128, [5] = 224 }
local common_size = 104

local function is_simulated_quote(buffer, packet_type)
    local level = levels[packet_type]
    if level == nil or buffer:len() ~= head_size + quote_sizes[level] then return false end
    local table_number = packet_type >= 19 and 1 or 0
    return buffer(4, 4):le_uint() == buffer:len() and buffer(head_size + 43, 1):uint() == level and
        buffer(head_size + 42, 1):uint() == table_number
end

-- Amounts of money are in 1/10000 yuan.
local function add_money(tree, field, range) tree:add(field, range, range:le_int64():tonumber() / 10000) end

local function show_quote(buffer, info, tree)
    local quote = buffer(head_size)
    local id = text_of(quote(8, 32))
    tree:add_le(f.quote_sequence, quote(0, 8))
    tree:add(f.quote_id, quote(8, 32), id)
    tree:add_le(f.quote_row, quote(40, 2))
    tree:add_le(f.quote_table, quote(42, 1))
    tree:add_le(f.quote_level, quote(43, 1))
    tree:add_le(f.quote_date, quote(44, 4))
    tree:add_le(f.quote_time, quote(48, 4))
    tree:add_le(f.quote_millis, quote(52, 4))
    add_money(tree, f.quote_last, quote(56, 8))
    add_money(tree, f.quote_upper, quote(64, 8))
    add_money(tree, f.quote_lower, quote(72, 8))
    add_money(tree, f.quote_turnover, quote(80, 8))
    tree:add_le(f.quote_volume, quote(88, 8))
    tree:add_le(f.quote_interest, quote(96, 8))
    local depth = quote(43, 1):uint()
    local volumes = common_size + 16 * depth
    for i = 0, depth - 1 do
        add_money(tree, f.quote_bid_price, quote(common_size + 8 * i, 8))
        tree:add_le(f.quote_bid_volume, quote(volumes + 4 * i, 4))
    end
    for i = 0, depth - 1 do
        add_money(tree, f.quote_ask_price, quote(common_size + 8 * (depth + i), 8))
        tree:add_le(f.quote_ask_volume, quote(volumes + 4 * (depth + i), 4))
    end
    info.cols.info:append(", " .. id)
end

-- Of the head the market-data library reads the type only; the simulated card's carries the packet's length.
local function show_head(buffer, tree)
    tree:add_le(f.type, buffer(0, 4))
    if buffer:len() < head_size then return end
    if buffer(4, 4):le_uint() == buffer:len() then
        tree:add_le(f.length, buffer(4, 4))
        tree:add_le(f.sequence, buffer(8, 4))
    else
        tree:add(f.unread, buffer(4, 8))
    end
end

function stream.dissector(buffer, info, root)
    info.cols.protocol = "VEXO"
    local tree = root:add(stream, buffer())
    if buffer:len() < head_size then
        tree:add_proto_expert_info(broken, "Too short for a packet's head")
        info.cols.info = "too short, " .. buffer:len() .. " bytes"
        if buffer:len() < 4 then return end
    end
    local packet_type = buffer(0, 4):le_uint()
    info.cols.info = packet_types[packet_type] or ("type " .. packet_type)
    show_head(buffer, tree)
    if packet_type == 2 then
        show_map(buffer, info, tree)
    elseif is_simulated_quote(buffer, packet_type) then
        tree:add(f.simulated, true):set_generated()
        show_quote(buffer, info, tree)
    elseif buffer:len() > head_size then
        tree:add(f.payload, buffer(head_size))
    end
end

-- ---- register accesses ----

local access = Proto("vexo_reg", "Register access")

-- By word index, as in the card's register map (interface/CardRegisters.h).
local register_names = {
    [0x10] = "Reset",
    [0x11] = "DecodeSwitch",
    [0x12] = "MapTransmit",
    [0x101] = "HardwareVersion",
    [0x102] = "SoftwareVersion",
    [0x103] = "VerdictOrFibre",
    [0x104] = "ExchangeTimeA",
    [0x105] = "ExchangeTimeB",
    [0x106] = "TradingDate",
    [0x200] = "L5MulticastA",
    [0x201] = "L5MulticastB",
    [0x202] = "L5MulticastPort",
    [0x203] = "L1MulticastA",
    [0x204] = "L1MulticastB",
    [0x205] = "L1MulticastPort",
    [0x300] = "L5OutputSwitch",
    [0x301] = "L5OutputDstMac",
    [0x302] = "L5OutputDstMacLow",
    [0x303] = "L5OutputDstIp",
    [0x304] = "L5OutputDstPort",
    [0x305] = "L5OutputSrcMac",
    [0x306] = "L5OutputSrcMacLow",
    [0x307] = "L5OutputSrcIp",
    [0x308] = "L5OutputSrcPort",
    [0x310] = "L1OutputSwitch",
    [0x311] = "L1OutputDstMac",
    [0x312] = "L1OutputDstMacLow",
    [0x313] = "L1OutputDstIp",
    [0x314] = "L1OutputDstPort",
    [0x315] = "L1OutputSrcMac",
    [0x316] = "L1OutputSrcMacLow",
    [0x317] = "L1OutputSrcIp",
    [0x318] = "L1OutputSrcPort",
    [0x200B] = "ParserCounters0",
    [0x200C] = "ParserCounters1",
    [0x200D] = "ParserCounters2",
    [0x200E] = "ParserCounters3",
    [0x210B] = "ParserCounters4",
    [0x210C] = "ParserCounters5",
    [0x210D] = "ParserCounters6",
    [0x210E] = "ParserCounters7",
    [0x11000] = "SingleLegCommand",
    [0x11001] = "SingleLegData",
    [0x11002] = "SingleLegSelect",
    [0x11003] = "SingleLegReadBack",
    [0x12000] = "CombinationCommand",
    [0x12001] = "CombinationData",
    [0x12002] = "CombinationSelect",
    [0x12003] = "CombinationReadBack",
}

local kinds = { [0] = "read", [1] = "write", [2] = "core reset" }
local cards = { [0xFF] = "unknown" }
local cores = { [0xFFFFFFFF] = "root core" }

local r = {
    magic = ProtoField.string("vexo_reg.magic", "Mark"),
    version = ProtoField.uint16("vexo_reg.version", "Version of the record"),
    kind = ProtoField.uint8("vexo_reg.kind", "Kind", base.DEC, kinds),
    card = ProtoField.uint8("vexo_reg.card", "Card", base.DEC, cards),
    core = ProtoField.uint32("vexo_reg.core", "Hardware id of the core", base.DEC, cores),
    bit_offset = ProtoField.uint8("vexo_reg.bit_offset", "Bit offset"),
    bit_width = ProtoField.uint8("vexo_reg.bit_width", "Width in bits"),
    address = ProtoField.uint64("vexo_reg.address", "Byte address", base.HEX),
    register = ProtoField.uint32("vexo_reg.register", "Register", base.HEX),
    name = ProtoField.string("vexo_reg.name", "Name"),
    value = ProtoField.uint64("vexo_reg.value", "Value", base.DEC_HEX),
    row = ProtoField.uint32("vexo_reg.row", "Row of the table"),
    word = ProtoField.uint32("vexo_reg.word", "Word of the row"),
    result = ProtoField.int32("vexo_reg.result", "Result"),
    error = ProtoField.int32("vexo_reg.errno", "errno"),
    duration = ProtoField.uint64("vexo_reg.duration", "Duration in nanoseconds"),
}
access.fields = r

local broken_access = ProtoExpert.new("vexo_reg.broken", "Not a register access that this script knows",
    expert.group.MALFORMED, expert.severity.ERROR)
access.experts = { broken_access }

local record_size, record_version = 48, 1
local core_reset = 2

local function show_register(buffer, tree)
    local word_index = math.floor(buffer(16, 8):le_uint64():tonumber() / 4)
    local name = register_names[word_index] or "unknown register"
    tree:add_le(r.address, buffer(16, 8))
    tree:add(r.register, buffer(16, 8), word_index):set_generated()
    tree:add(r.name, buffer(16, 8), name):set_generated()
    tree:add_le(r.bit_offset, buffer(12, 1))
    tree:add_le(r.bit_width, buffer(13, 1))
    tree:add_le(r.value, buffer(24, 8))
    if name:find("Command$") or name:find("Select$") then
        local place = buffer(24, 4):le_uint()
        tree:add(r.row, buffer(24, 8), math.floor(place / 64)):set_generated()
        tree:add(r.word, buffer(24, 8), place % 64):set_generated()
    end
    return string.format("%s (0x%x) %s 0x%s", name, word_index, "=", buffer(24, 8):le_uint64():tohex())
end

function access.dissector(buffer, info, root)
    info.cols.protocol = "VEXO-REG"
    local tree = root:add(access, buffer())
    if buffer:len() < record_size or buffer(0, 4):string() ~= "VXRA" or buffer(4, 2):le_uint() ~= record_version then
        tree:add_proto_expert_info(broken_access)
        info.cols.info = "not a register access"
        return
    end
    local kind = buffer(6, 1):uint()
    tree:add(r.magic, buffer(0, 4))
    tree:add_le(r.version, buffer(4, 2))
    tree:add_le(r.kind, buffer(6, 1))
    tree:add_le(r.card, buffer(7, 1))
    tree:add_le(r.core, buffer(8, 4))
    local what = kinds[kind] or ("kind " .. kind)
    if kind ~= core_reset then what = what .. " " .. show_register(buffer, tree) end
    tree:add_le(r.result, buffer(32, 4))
    tree:add_le(r.error, buffer(36, 4))
    tree:add_le(r.duration, buffer(40, 8))
    if buffer(32, 4):le_int() < 0 then what = what .. ", failed, errno " .. buffer(36, 4):le_int() end
    info.cols.info = what
end

local by_link_type = DissectorTable.get("wtap_encap")
by_link_type:add(wtap.USER0, stream)
by_link_type:add(wtap.USER1, access)
