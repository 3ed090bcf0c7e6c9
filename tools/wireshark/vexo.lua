-- Shows captures of `vexo tap` in Wireshark and tshark: packets of the card's streams, and register accesses.
--
--     tshark -X lua_script:vexo.lua -r FILE
--
-- or copy it, with the folder "layouts", into the plug-in folder that Wireshark shows under Help, About, Folders. Works
-- with Wireshark 4.0 and later; as root, too.
--
-- What the payload of a quote looks like comes from layout files (tools/layouts). VEXO_LAYOUT names them, with colons
-- between them; the word "simulated" stands for the simulated card's, which is also used without the variable.
-- `vexo export --list-columns --layout FILE` says what is wrong with a layout file.

-- ---- layout files ----

-- The folder "layouts" lies beside this script once installed, and in the folder above it in the sources.
local here = debug.getinfo(1, "S").source:match("^@(.*[/\\])") or "./"
local folder, read_layout
for _, name in ipairs({ here .. "layouts/", here .. "../layouts/" }) do
    local file = folder == nil and io.open(name .. "reader.lua", "rb")
    if file then
        file:close()
        folder, read_layout = name, dofile(name .. "reader.lua")
    end
end

local function layout_of(name)
    if folder == nil then return nil, name .. ": there is no folder layouts beside this script; copy it" end
    if name ~= "simulated" then return read_layout(name) end
    local layout, problem = read_layout(folder .. "simulated.ini")
    if layout ~= nil then layout.is_simulated = true end
    return layout, problem
end

local layouts = {}
local wanted_layouts = os.getenv("VEXO_LAYOUT")
if wanted_layouts == nil or wanted_layouts == "" then wanted_layouts = "simulated" end
for name in wanted_layouts:gmatch("[^:]+") do
    local layout, problem = layout_of(name)
    if layout ~= nil then
        table.insert(layouts, layout)
    else
        io.stderr:write("vexo.lua: " .. tostring(problem) .. "; payloads are shown without this layout\n")
    end
end

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
    layout = ProtoField.string("vexo.layout", "Layout"),
    simulated = ProtoField.bool("vexo.simulated", "Layout of the simulated card"),

    map_area = ProtoField.uint16("vexo.map.area", "Length of the message area"),
    map_message = ProtoField.bytes("vexo.map.message", "Message"),
    map_length = ProtoField.uint16("vexo.map.length", "Length of the message"),
    map_count = ProtoField.uint32("vexo.map.count", "Instruments that the card has learned"),
    map_table = ProtoField.uint8("vexo.map.table", "Table", base.DEC, tables),
    map_row = ProtoField.uint16("vexo.map.row", "Row (index of the instrument)"),
    map_id = ProtoField.string("vexo.map.id", "Id"),
}

-- How a field of a layout is shown. Nil for a kind that does not exist.
local function proto_field(field, value_names)
    local name, meaning = "vexo.quote." .. field.name, field.meaning
    if field.kind == "char" then return ProtoField.string(name, meaning) end
    if field.kind == "bytes" then return ProtoField.bytes(name, meaning) end
    if field.scale ~= 1 or field.kind == "f32" or field.kind == "f64" then return ProtoField.double(name, meaning) end
    local bits = tostring(field.width * 8)
    local make = ProtoField[(field.kind:sub(1, 1) == "u" and "uint" or "int") .. bits]
    if value_names ~= nil and field.width < 8 then return make(name, meaning, base.DEC, value_names) end
    return make(name, meaning)
end

-- Fields of one name in several payloads are one field of Wireshark. The first layout decides what it looks like; one that
-- looks different elsewhere is shown as bytes there.
local shown = {}
local function look_of(field)
    return (field.scale ~= 1 or field.kind == "f32" or field.kind == "f64") and "double" or field.kind
end
for _, layout in ipairs(layouts) do
    for _, payload in ipairs(layout.in_order) do
        for _, field in ipairs(payload.fields) do
            if shown[field.name] == nil then
                shown[field.name] = { look = look_of(field), proto = proto_field(field, layout.value_names[field.name]) }
                f["quote_" .. field.name] = shown[field.name].proto
            end
            if shown[field.name].look == look_of(field) then field.proto = shown[field.name].proto end
        end
    end
end
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

-- ---- payloads, by their layout ----

local function number_of(field, range)
    local unsigned = field.kind:sub(1, 1) == "u"
    if field.width == 8 then
        local value
        if unsigned then value = field.big and range:uint64() or range:le_uint64()
        else value = field.big and range:int64() or range:le_int64() end
        return value:tonumber()
    end
    if unsigned then return field.big and range:uint() or range:le_uint() end
    return field.big and range:int() or range:le_int()
end

local function has_layout(payload, layout, buffer)
    if payload == nil or buffer:len() ~= head_size + payload.size then return false end
    if layout.length_at ~= nil and buffer(layout.length_at, 4):le_uint() ~= buffer:len() then return false end
    for _, fixed in ipairs(payload.fixed) do
        local range = buffer(head_size + fixed.field.offset, fixed.field.width)
        if number_of(fixed.field, range) ~= fixed.value then return false end
    end
    return true
end

-- The first layout that describes the packet. Nothing is guessed: without one, the payload is shown as bytes.
local function find_layout(buffer, packet_type)
    for _, layout in ipairs(layouts) do
        local payload = layout.payloads[packet_type]
        if has_layout(payload, layout, buffer) then return layout, payload end
    end
    return nil
end

local function show_value(tree, field, range)
    if field.kind == "char" then
        tree:add(field.proto, range, text_of(range))
    elseif field.kind == "bytes" then
        tree:add(field.proto, range)
    elseif field.kind == "f32" or field.kind == "f64" then
        tree:add(field.proto, range, field.big and range:float() or range:le_float())
    elseif field.scale ~= 1 then
        tree:add(field.proto, range, number_of(field, range) / field.scale)
    elseif field.big then
        tree:add(field.proto, range)
    else
        tree:add_le(field.proto, range)
    end
end

local function show_payload(layout, payload, buffer, info, tree)
    tree:add(f.layout, layout.name):set_generated()
    if layout.is_simulated then tree:add(f.simulated, true):set_generated() end
    for _, field in ipairs(payload.fields) do
        for i = 0, field.count - 1 do
            local range = buffer(head_size + field.offset + i * field.width, field.width)
            if field.proto ~= nil then show_value(tree, field, range) else tree:add(f.payload, range) end
        end
    end
    local id = payload.by_name[layout.id_field or ""]
    if id ~= nil then info.cols.info:append(", " .. text_of(buffer(head_size + id.offset, id.width))) end
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
        return
    end
    local layout, payload = find_layout(buffer, packet_type)
    if layout ~= nil then
        show_payload(layout, payload, buffer, info, tree)
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
