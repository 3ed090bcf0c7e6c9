-- Reads layout files for the dissector, vexo.lua. It takes and refuses the files that the programs take and refuse, and
-- says the same.

-- A file that asks for more than this would take minutes, or all the memory.
local most = { file = 1048576, line = 4096, sections = 1000, keys = 10000, name = 32, types = 256, groups = 64,
    fields = 1024, fixed = 64, columns = 4096, payload = 65536, values = 64, text = 1024, scale = 1000000000 }

-- No byte of a file commands a terminal.
local function harmless(text)
    return (text:gsub("[^\t -~]", function(byte) return string.format("\\x%02X", byte:byte()) end))
end

-- Ends the reading of a file with a message. Line 0: the file as a whole.
local function reject(file, line, what)
    error({ text = harmless(file) .. (line > 0 and ":" .. line or "") .. ": " .. harmless(what) }, 0)
end

local function limit(file, count, largest, line, what)
    if count > largest then
        reject(file, line, "more than " .. largest .. " " .. what .. "; leave some out")
    end
end

local blanks = { [9] = true, [13] = true, [32] = true }

-- Byte by byte: a pattern for this takes the square of the time.
local function trim(text)
    local first, last = 1, #text
    while first <= last and blanks[text:byte(first)] do first = first + 1 end
    while last >= first and blanks[text:byte(last)] do last = last - 1 end
    return text:sub(first, last)
end

-- The pieces between commas. The last of so many pieces may have commas.
local function split_at_commas(text, pieces_at_most)
    local pieces, begin = {}, 1
    while true do
        local comma = #pieces + 1 < (pieces_at_most or math.huge) and text:find(",", begin, true)
        table.insert(pieces, trim(text:sub(begin, (comma or 0) - 1)))
        if not comma then return pieces end
        begin = comma + 1
    end
end

-- A number of 64 bits, or nil. One that a double does not hold exactly is given as infinite.
local function read_number(text, largest)
    local digits, base = text:match("^0[xX](%x+)$"), 16
    if digits == nil then digits, base = text:match("^%d+$"), 10 end
    if digits == nil then return nil end
    digits = digits:gsub("^0+(.)", "%1")
    if #digits > (base == 16 and 16 or 20) then return nil end
    if base == 10 and #digits == 20 and digits > "18446744073709551615" then return nil end
    local number = #digits <= 12 and tonumber(digits, base) or math.huge
    if largest ~= nil and number > largest then return nil end
    return number
end

local function number_between(file, line, text, least, largest, what)
    local number = read_number(text, largest)
    if number == nil or number < least then
        reject(file, line, what .. " is a number from " .. least .. " to " .. largest .. ", not " .. text)
    end
    return number
end

local function is_name(text) return #text <= most.name and text:find("^[a-z][a-z0-9_]*$") ~= nil end

local function name_rule(what)
    return "the name of " .. what .. " has a-z, 0-9 and _, begins with a letter and is not longer than " .. most.name
end

local function begin_section(all, line, number)
    if line:sub(-1) ~= "]" then reject(all.file, number, "the section's line does not end with ]") end
    local inside = trim(line:sub(2, -2))
    local kind, name = inside:match("^([^ \t\r]*)(.*)$")
    local section = { kind = kind, name = trim(name), line = number, entries = {}, by_key = {} }
    local key = section.kind .. " " .. section.name
    if all.by_name[key] ~= nil then
        reject(all.file, number, "the section [" .. inside .. "] is there twice; join the two")
    end
    if #all.sections == most.sections then
        reject(all.file, number, "more than " .. most.sections .. " sections; this is no layout file")
    end
    all.by_name[key] = section
    table.insert(all.sections, section)
end

local function take_line(all, line, number)
    if #line > most.line then reject(all.file, number, "the line is longer than " .. most.line .. " bytes") end
    if line == "" or line:find("^[;#]") then return end
    if line:gsub("\t", ""):find("%c") then
        reject(all.file, number, "the line has control characters; a layout file is plain text")
    end
    if line:sub(1, 1) == "[" then return begin_section(all, line, number) end
    local equals = line:find("=", 1, true)
    if equals == nil then reject(all.file, number, "no KEY = VALUE; begin a comment with ; or #") end
    local section = all.sections[#all.sections]
    if section == nil then reject(all.file, number, "a key before the first section; begin with [layout]") end
    all.keys = all.keys + 1
    if all.keys > most.keys then
        reject(all.file, number, "more than " .. most.keys .. " keys; this is no layout file")
    end
    local entry = { key = trim(line:sub(1, equals - 1)), value = trim(line:sub(equals + 1)), line = number }
    if entry.key == "" or entry.value == "" then
        reject(all.file, number, "key or value is missing; write KEY = VALUE")
    end
    if section.by_key[entry.key] ~= nil then
        reject(all.file, number, entry.key .. " is in this section twice; remove one of the two lines")
    end
    section.by_key[entry.key] = entry
    table.insert(section.entries, entry)
end

local function text_of_file(path)
    local file, problem = io.open(path, "rb")
    if file == nil then reject(problem, 0, "name a layout file, or simulated") end
    local text
    text, problem = file:read(most.file + 1)
    file:close()
    if problem == "Is a directory" then reject(path, 0, "this is a directory, not a layout file") end
    if problem ~= nil then reject(path, 0, "the file cannot be read") end
    text = text or ""
    if #text > most.file then reject(path, 0, "longer than a megabyte; this is no layout file") end
    return text
end

local function sections_of(path)
    local all, number = { file = path, sections = {}, by_name = {}, keys = 0 }, 0
    for line in (text_of_file(path) .. "\n"):gmatch("([^\n]*)\n") do
        number = number + 1
        take_line(all, trim(line), number)
    end
    return all
end

local function required(all, section, key)
    local entry = section.by_key[key]
    if entry == nil then reject(all.file, section.line, "the section has no " .. key .. "; add the key") end
    return entry
end

local function allow_only(all, section, keys)
    for _, entry in ipairs(section.entries) do
        if not (", " .. keys .. ","):find(" " .. entry.key .. ",", 1, true) or entry.key:find(",", 1, true) then
            reject(all.file, entry.line, "unknown key " .. entry.key .. "; this section has " .. keys)
        end
    end
end

local widths = { u8 = 1, u16 = 2, u32 = 4, u64 = 8, i8 = 1, i16 = 2, i32 = 4, i64 = 8, f32 = 4, f64 = 8,
    char = 0, bytes = 0 }

local function take_type_of_field(file, field, text, line)
    local unknown = "unknown type " .. text .. "; types are u8, u16, u32, u64, i8, i16, i32, i64, f32, f64, each with " ..
        "be for big-endian, such as u16be, and with [N] for a list; char[N] and bytes[N]"
    local base, rest = text:match("^([^%[]*)(.*)$")
    field.big = #base > 2 and base:sub(-2) == "be"
    field.kind = field.big and base:sub(1, -3) or base
    field.width = widths[field.kind]
    if field.width == nil then reject(file, line, unknown) end
    local is_number, count = field.width > 0, 0
    if rest ~= "" then
        if #rest < 3 or rest:sub(-1) ~= "]" then reject(file, line, unknown) end
        local largest = is_number and most.values or most.text
        count = number_between(file, line, rest:sub(2, -2), 1, largest, "the number in brackets")
    end
    if is_number and field.big and field.width == 1 then reject(file, line, "one byte has no order; leave out be") end
    if not is_number and (count == 0 or field.big) then reject(file, line, unknown) end
    if not is_number then field.width = count end
    field.is_list = is_number and count > 0
    field.count = field.is_list and count or 1
end

local function take_scale(file, field, text, line)
    field.scale = number_between(file, line, text, 1, most.scale, "the scale")
    local power = 1
    while power < field.scale do power = power * 10 end
    if power ~= field.scale then reject(file, line, "the scale is 1, 10, 100 and so on, not " .. text) end
    if power ~= 1 and not field.kind:find("^[ui]%d") then
        reject(file, line, "only whole numbers have a scale; write 1")
    end
end

local function read_field(file, entry)
    if not is_name(entry.key) then reject(file, entry.line, name_rule("a field")) end
    local parts = split_at_commas(entry.value, 4)
    if #parts ~= 4 then reject(file, entry.line, "write NAME = OFFSET, TYPE, SCALE, MEANING") end
    local field = { name = entry.key, meaning = parts[4], line = entry.line }
    field.offset = number_between(file, entry.line, parts[1], 0, most.payload, "the offset")
    take_type_of_field(file, field, parts[2], entry.line)
    take_scale(file, field, parts[3], entry.line)
    field.stop = field.offset + field.width * field.count
    return field
end

-- A field of one name is one column, whatever the packet type.
local function require_same_everywhere(all, field, packet_type)
    local known = all.known[field.name]
    if known == nil then
        known = { field = field, type = packet_type, count = 0 }
        all.known[field.name] = known
    end
    local other = known.field
    if other.kind ~= field.kind or other.width ~= field.width or other.scale ~= field.scale or
        other.is_list ~= field.is_list then
        reject(all.file, field.line, field.name .. " has another type or scale in type " .. known.type ..
            "; give one of them another name")
    end
    if field.count <= known.count then return end
    all.columns = all.columns + field.count - known.count
    known.count = field.count
    limit(all.file, all.columns, most.columns, field.line, "columns")
end

local function add_field(all, payload, entry)
    -- Types that share a group share its fields.
    entry.field = entry.field or read_field(all.file, entry)
    local field = entry.field
    if field.stop > payload.size then
        reject(all.file, entry.line, field.name .. " ends at byte " .. field.stop .. ", past the payload of type " ..
            payload.type .. " with " .. payload.size .. " bytes; correct offset, type or size")
    end
    if payload.by_name[field.name] ~= nil then
        reject(all.file, entry.line, "type " .. payload.type .. " has two fields " .. field.name ..
            "; give them different names")
    end
    require_same_everywhere(all, field, payload.type)
    payload.by_name[field.name] = field
    table.insert(payload.fields, field)
end

local function take_groups(all, payload, groups)
    local names = split_at_commas(groups.value)
    limit(all.file, #names, most.groups, groups.line, "groups of fields in a type")
    for _, name in ipairs(names) do
        local group = all.by_name["fields " .. name]
        if group == nil then
            reject(all.file, groups.line, "there is no section [fields " .. name .. "]; add it")
        end
        group.is_used = true
        for _, entry in ipairs(group.entries) do
            limit(all.file, #payload.fields + 1, most.fields, entry.line, "fields in a type")
            add_field(all, payload, entry)
        end
    end
end

local function sort_fields(all, payload, line)
    local places = {}
    for place, field in ipairs(payload.fields) do places[field] = place end
    table.sort(payload.fields, function(one, other)
        if one.offset ~= other.offset then return one.offset < other.offset end
        return places[one] < places[other]
    end)
    for i = 2, #payload.fields do
        local before, field = payload.fields[i - 1], payload.fields[i]
        if before.stop > field.offset then
            reject(all.file, line, "in type " .. payload.type .. ", " .. before.name .. " and " .. field.name ..
                " lie on the same bytes; correct an offset or a type")
        end
    end
end

local function take_fixed(all, payload, entry)
    local values = split_at_commas(entry.value)
    limit(all.file, #values, most.fixed, entry.line, "fixed values")
    for _, text in ipairs(values) do
        local name, value = text:match("^([^ ]*) +(.*)$")
        local field = name ~= nil and payload.by_name[name]
        if not field then
            reject(all.file, entry.line, "write FIELD VALUE, such as level 1, with a field of this type, not " .. text)
        end
        if field.kind:sub(1, 1) ~= "u" or field.is_list or field.width > 4 then
            reject(all.file, entry.line, field.name .. " cannot be fixed; only one of u8, u16, u32 can")
        end
        local number = read_number(value, 2 ^ (8 * field.width) - 1)
        if number == nil then
            reject(all.file, entry.line, "the value of " .. field.name .. " is no number that the field can hold")
        end
        table.insert(payload.fixed, { field = field, value = number })
    end
end

-- What the fields are for that [layout] names: a number, a text, or either.
local roles = { { key = "sequence_field", number = true }, { key = "id_field", text = true },
    { key = "time_field", number = true, text = true }, { key = "millis_field", number = true } }

local function check_roles(all, payload, head)
    for _, role in ipairs(roles) do
        local entry = head.by_key[role.key]
        if entry ~= nil and payload.by_name[entry.value] == nil then
            reject(all.file, entry.line, "type " .. payload.type .. " has no field " .. entry.value ..
                "; add it, or leave out " .. role.key)
        end
    end
    for _, role in ipairs(roles) do
        local entry = head.by_key[role.key]
        local field = entry ~= nil and payload.by_name[entry.value]
        local is_number = field and field.kind:sub(1, 1) == "u" and not field.is_list and field.scale == 1
        if field and not (is_number and role.number) and not (field.kind == "char" and role.text) then
            reject(all.file, entry.line, field.name .. " has a type that " .. role.key .. " cannot have; it is " ..
                (role.number and "one unsigned number" or "char[N]") ..
                (role.number and role.text and " HHMMSS, or char[N]" or ""))
        end
    end
end

local function take_type(all, layout, section, head)
    allow_only(all, section, "meaning, size, fields, fixed")
    limit(all.file, #layout.in_order + 1, most.types, section.line, "types")
    local payload = { fields = {}, by_name = {}, fixed = {} }
    payload.type = number_between(all.file, section.line, section.name, 0, 4294967295, "the packet type")
    if layout.payloads[payload.type] ~= nil then
        reject(all.file, section.line, "the type is there twice; remove one section")
    end
    required(all, section, "meaning")
    local size = required(all, section, "size")
    payload.size = number_between(all.file, size.line, size.value, 1, most.payload, "the size of the payload in bytes")
    local groups = required(all, section, "fields")
    take_groups(all, payload, groups)
    sort_fields(all, payload, groups.line)
    if section.by_key.fixed ~= nil then take_fixed(all, payload, section.by_key.fixed) end
    check_roles(all, payload, head)
    layout.payloads[payload.type] = payload
    table.insert(layout.in_order, payload)
end

local function take_values(all, layout, section)
    local names = {}
    for _, entry in ipairs(section.entries) do
        local number = read_number(entry.key)
        if number == nil then reject(all.file, entry.line, "write VALUE = NAME, such as 0 = call") end
        if number <= 4294967295 then names[number] = entry.value end
    end
    layout.value_names[section.name] = names
end

-- A group that no type uses, or values of a field that is not there, is most likely a typing mistake.
local function require_use(all, section)
    if section.kind == "fields" and not section.is_used then
        reject(all.file, section.line, "no type uses these fields; name the section in the fields of a type")
    end
    if section.kind ~= "values" then return end
    local known = all.known[section.name]
    if known == nil or known.field.kind:sub(1, 1) ~= "u" then
        reject(all.file, section.line, "there is no unsigned field " .. section.name .. "; correct the name")
    end
end

local function check_number_fields(all, layout, entry)
    for _, payload in ipairs(layout.in_order) do
        local field = payload.by_name[entry.value]
        if field.big ~= layout.in_order[1].by_name[entry.value].big then
            reject(all.file, entry.line, field.name .. " has another byte order in type " .. payload.type ..
                "; number the packets by a field that is the same everywhere")
        end
    end
end

local function check_numbering(all, layout, head)
    local scope, at, field = head.by_key.sequence_scope, head.by_key.sequence_at, head.by_key.sequence_field
    if scope ~= nil and scope.value ~= "stream" and scope.value ~= "type" then
        reject(all.file, scope.line, "the numbers count in the whole stream or for each type; write stream or type")
    end
    if at ~= nil then
        local byte = number_between(all.file, at.line, at.value, 4, 8, "the byte of the packet's number")
        if layout.length_at ~= nil and math.abs(byte - layout.length_at) < 4 then
            reject(all.file, at.line, "sequence_at and length_at lie on the same bytes; correct one of them")
        end
        if scope ~= nil and scope.value == "type" then
            reject(all.file, scope.line,
                "sequence_at counts all packets of a stream; leave out sequence_at or sequence_scope")
        end
    elseif field ~= nil then
        check_number_fields(all, layout, field)
    elseif scope ~= nil then
        reject(all.file, scope.line, "there are no numbers; add sequence_field, or leave out sequence_scope")
    end
end

local function check_sections(all)
    for _, section in ipairs(all.sections) do
        local is_named = section.kind == "type" or section.kind == "fields" or section.kind == "values"
        if not is_named and section.kind ~= "layout" then
            reject(all.file, section.line,
                "unknown section; there are [layout], [type N], [fields NAME], [values FIELD]")
        end
        if (section.name == "") == is_named then
            reject(all.file, section.line, "the section's name is missing, or too much")
        end
    end
end

local function take_head(all, layout, head)
    allow_only(all, head,
        "name, meaning, length_at, sequence_at, sequence_field, sequence_scope, id_field, time_field, millis_field")
    local name = required(all, head, "name")
    if not is_name(name.value) then reject(all.file, name.line, name_rule("the layout")) end
    layout.name = name.value
    required(all, head, "meaning")
    local at = head.by_key.length_at
    if at ~= nil then
        layout.length_at = number_between(all.file, at.line, at.value, 4, 8, "the byte of the packet's length")
    end
    layout.id_field = head.by_key.id_field ~= nil and head.by_key.id_field.value or nil
end

local function make_layout(path)
    local all = sections_of(path)
    all.known, all.columns = {}, 0
    check_sections(all)
    local head = all.by_name["layout "]
    if head == nil then reject(path, 0, "there is no section [layout]; add one with name and meaning") end
    local layout = { payloads = {}, in_order = {}, value_names = {} }
    take_head(all, layout, head)
    for _, section in ipairs(all.sections) do
        if section.kind == "type" then take_type(all, layout, section, head) end
        if section.kind == "values" then take_values(all, layout, section) end
    end
    if #layout.in_order == 0 then
        reject(path, 0, "there is no section [type N]; add one for each packet type with its size and fields")
    end
    for _, section in ipairs(all.sections) do require_use(all, section) end
    check_numbering(all, layout, head)
    return layout
end

-- A layout: its name, the payloads in their order and by packet type, the names of values by field. Nil and the reason if
-- the file is none.
return function(path)
    local is_read, result = pcall(make_layout, path)
    if is_read then return result end
    return nil, type(result) == "table" and result.text or tostring(result)
end
