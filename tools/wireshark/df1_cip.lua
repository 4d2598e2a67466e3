-- Dissector for traces of the serial line: DF1 full-duplex frames that carry CIP.
--
-- A packet is one frame, or link bytes alone, as they were on the wire (link type USER0).
--   wireshark -X lua_script:df1_cip.lua trace.pcapng
--   tshark    -X lua_script:df1_cip.lua -r trace.pcapng -T fields -e df1.tns -e df1.tag
-- docs/wireshark.md says how to install it and names the fields.
-- Written from the protocol alone and without code of the driver, so that it can check what the driver sends.

-- Wireshark finds it as a plugin and may be given it as a script as well.
if package.loaded.micro850_df1 then return end
package.loaded.micro850_df1 = true

local df1 = Proto("df1", "DF1 full-duplex with CIP")

local DLE, STX, ETX, ENQ, ACK, NAK = 0x10, 0x02, 0x03, 0x05, 0x06, 0x15
local LINK = { [ENQ] = "ENQ", [ACK] = "ACK", [NAK] = "NAK" }
local COMMANDS = {
  [0x0A] = "connected request", [0x0B] = "unconnected request",
  [0x4A] = "connected reply", [0x4B] = "unconnected reply",
}
local REPLY_COMMAND, REPLY_SERVICE = 0x40, 0x80
local IDENTITY, CLOSE, READ, WRITE, OPEN = 0x01, 0x4E, 0x52, 0x53, 0x54
local SERVICES = {
  [IDENTITY] = "Get_Attributes_All", [CLOSE] = "Forward_Close", [READ] = "Read Tag Fragmented",
  [WRITE] = "Write Tag Fragmented", [OPEN] = "Forward_Open",
}
local SUCCESS, PARTIAL = 0x00, 0x06
local STATUSES = {
  [SUCCESS] = "Success", [0x01] = "Connection failure", [0x02] = "Resource unavailable",
  [0x03] = "Invalid parameter value", [0x04] = "Path segment error", [0x05] = "Path destination unknown",
  [PARTIAL] = "Partial transfer", [0x07] = "Connection lost", [0x08] = "Service not supported",
  [0x09] = "Invalid attribute value", [0x0C] = "Object state conflict", [0x0D] = "Object already exists",
  [0x0E] = "Attribute not settable", [0x0F] = "Privilege violation", [0x10] = "Device state conflict",
  [0x11] = "Reply too large", [0x13] = "Not enough data", [0x14] = "Attribute not supported",
  [0x15] = "Too much data", [0x16] = "Object does not exist", [0x1A] = "Request too large for routing",
  [0x1B] = "Reply too large for routing", [0x1E] = "Embedded service error", [0x1F] = "Vendor-specific error",
  [0x20] = "Invalid parameter", [0x26] = "Invalid path size", [0xFF] = "General error",
}
-- By general and extended status.
local EXTENDED = {
  [0x01] = {
    [0x0100] = "connection in use", [0x0103] = "transport not supported", [0x0106] = "owner conflict",
    [0x0107] = "connection not found", [0x0108] = "connection parameters not valid",
    [0x0109] = "connection size not supported", [0x0111] = "interval not supported",
    [0x0113] = "out of connections", [0x0203] = "connection timed out", [0x0204] = "unconnected request timed out",
    [0x0315] = "path segment not valid",
  },
  [0xFF] = {
    [0x2104] = "offset beyond the end of the tag", [0x2105] = "access beyond the end of the tag",
    [0x2107] = "type does not match the tag",
  },
}
-- Class, instance and element segments: size of the number, after a pad byte if it is longer than one byte.
local SEGMENTS = {
  [0x20] = { "class", 1 }, [0x21] = { "class", 2 }, [0x24] = { "instance", 1 }, [0x25] = { "instance", 2 },
  [0x28] = { "element", 1 }, [0x29] = { "element", 2 }, [0x2A] = { "element", 4 },
  [0x30] = { "attribute", 1 }, [0x31] = { "attribute", 2 },
}
-- By type code: name, bytes of an element, and its kind; of a text, the bytes of its length and of a character.
local TYPES = {
  [0xC1] = { "BOOL", 1, "bool" }, [0xC2] = { "SINT", 1, "int" }, [0xC3] = { "INT", 2, "int" },
  [0xC4] = { "DINT", 4, "int" }, [0xC5] = { "LINT", 8, "int" }, [0xC6] = { "USINT", 1, "uint" },
  [0xC7] = { "UINT", 2, "uint" }, [0xC8] = { "UDINT", 4, "uint" }, [0xC9] = { "ULINT", 8, "uint" },
  [0xCA] = { "REAL", 4, "real" }, [0xCB] = { "LREAL", 8, "real" }, [0xCC] = { "STIME", 4, "int" },
  [0xCD] = { "DATE", 2, "uint" }, [0xCE] = { "TIME_OF_DAY", 4, "uint" }, [0xCF] = { "DATE_AND_TIME", 8, "uint" },
  [0xD0] = { "STRING", 2, "text", 1 }, [0xD1] = { "BYTE", 1, "bits" }, [0xD2] = { "WORD", 2, "bits" },
  [0xD3] = { "DWORD", 4, "bits" }, [0xD4] = { "LWORD", 8, "bits" }, [0xD5] = { "STRING2", 2, "text", 2 },
  [0xD6] = { "FTIME", 4, "int" }, [0xD7] = { "LTIME", 8, "int" }, [0xD8] = { "ITIME", 2, "int" },
  [0xD9] = { "STRINGN", 2, "text", 1 }, [0xDA] = { "SHORT_STRING", 1, "text", 1 }, [0xDB] = { "TIME", 4, "int" },
}
local TYPE_NAMES = {}
for code, kind in pairs(TYPES) do TYPE_NAMES[code] = kind[1] end
local SHOWN_ELEMENTS, SHOWN_CHARACTERS = 8, 40 -- in the Info column

local f = {
  ack = ProtoField.string("df1.link", "Link bytes"),
  destination = ProtoField.uint8("df1.dst", "Destination node"),
  source = ProtoField.uint8("df1.src", "Source node"),
  command = ProtoField.uint8("df1.command", "Command", base.HEX, COMMANDS),
  status = ProtoField.uint8("df1.status", "Status", base.HEX),
  tns = ProtoField.uint16("df1.tns", "Transaction number"),
  connection = ProtoField.uint16("df1.connection", "Connection identifier, low half", base.HEX),
  sequence = ProtoField.uint8("df1.sequence", "Sequence byte"),
  service = ProtoField.uint8("df1.service", "Service", base.HEX, SERVICES, 0x7F),
  response = ProtoField.bool("df1.response", "Response", 8, nil, 0x80),
  path = ProtoField.bytes("df1.path", "Path"),
  class = ProtoField.uint16("df1.class", "Class", base.HEX),
  instance = ProtoField.uint16("df1.instance", "Instance"),
  attribute = ProtoField.uint16("df1.attribute", "Attribute"),
  tag = ProtoField.string("df1.tag", "Tag"),
  element = ProtoField.uint32("df1.element", "Element"),
  general = ProtoField.uint8("df1.cip_status", "General status", base.HEX, STATUSES),
  extended = ProtoField.uint16("df1.cip_extended", "Extended status", base.HEX),
  error = ProtoField.string("df1.error", "Refused"),
  type = ProtoField.uint16("df1.type", "Type code", base.HEX, TYPE_NAMES),
  count = ProtoField.uint16("df1.count", "Element count"),
  offset = ProtoField.uint32("df1.offset", "Byte offset"),
  value = ProtoField.bytes("df1.value", "Value"),
  shown = ProtoField.string("df1.shown", "Value as shown"),
  vendor = ProtoField.uint16("df1.identity.vendor", "Vendor"),
  device_type = ProtoField.uint16("df1.identity.device_type", "Device type"),
  product_code = ProtoField.uint16("df1.identity.product_code", "Product code"),
  major = ProtoField.uint8("df1.identity.major", "Major revision"),
  minor = ProtoField.uint8("df1.identity.minor", "Minor revision"),
  state = ProtoField.uint16("df1.identity.status", "Status word", base.HEX),
  serial = ProtoField.uint32("df1.identity.serial", "Serial number", base.HEX),
  name = ProtoField.string("df1.identity.name", "Product name"),
  tick = ProtoField.uint8("df1.open.tick", "Priority and time tick", base.HEX),
  ticks = ProtoField.uint8("df1.open.ticks", "Time-out in ticks"),
  ot_id = ProtoField.uint32("df1.open.ot_id", "O->T connection identifier", base.HEX),
  to_id = ProtoField.uint32("df1.open.to_id", "T->O connection identifier", base.HEX),
  open_serial = ProtoField.uint16("df1.open.serial", "Connection serial number", base.HEX),
  originator_vendor = ProtoField.uint16("df1.open.vendor", "Originator vendor", base.HEX),
  originator_serial = ProtoField.uint32("df1.open.originator_serial", "Originator serial number", base.HEX),
  multiplier = ProtoField.uint8("df1.open.multiplier", "Time-out multiplier", base.DEC,
    { [0] = "x4", "x8", "x16", "x32", "x64", "x128", "x256", "x512" }),
  ot_interval = ProtoField.uint32("df1.open.ot_interval", "O->T interval in microseconds"),
  ot_parameters = ProtoField.uint16("df1.open.ot_parameters", "O->T parameters", base.HEX),
  to_interval = ProtoField.uint32("df1.open.to_interval", "T->O interval in microseconds"),
  to_parameters = ProtoField.uint16("df1.open.to_parameters", "T->O parameters", base.HEX),
  transport = ProtoField.uint8("df1.open.transport", "Transport class and trigger", base.HEX),
  application_size = ProtoField.uint8("df1.open.application_size", "Application reply in words"),
  remaining_path = ProtoField.uint8("df1.open.remaining_path", "Remaining path in words"),
  request_in = ProtoField.framenum("df1.request_in", "Request in frame", base.NONE, frametype.REQUEST),
  response_in = ProtoField.framenum("df1.response_in", "Response in frame", base.NONE, frametype.RESPONSE),
  repeat_of = ProtoField.framenum("df1.repeat_of", "Repeats the request in frame", base.NONE, frametype.RETRANS_PREV),
  time = ProtoField.relative_time("df1.response_time", "Response time"),
  crc = ProtoField.uint16("df1.crc", "CRC", base.HEX),
  crc_good = ProtoField.bool("df1.crc_good", "CRC is right"),
}
for _, field in pairs(f) do df1.fields[#df1.fields + 1] = field end

local bad_crc = ProtoExpert.new("df1.bad_crc", "CRC is wrong", expert.group.CHECKSUM, expert.severity.ERROR)
local cip_error = ProtoExpert.new("df1.cip_error", "CIP error", expert.group.RESPONSE_CODE, expert.severity.WARN)
local link_error = ProtoExpert.new("df1.link_error", "Link error", expert.group.RESPONSE_CODE, expert.severity.WARN)
local truncated = ProtoExpert.new("df1.truncated", "Message is cut short", expert.group.MALFORMED, expert.severity.WARN)
local bad_segment = ProtoExpert.new("df1.bad_segment", "Path segment is not known", expert.group.UNDECODED,
  expert.severity.WARN)
df1.experts = { bad_crc, cip_error, link_error, truncated, bad_segment }

local cip = Dissector.get("cip")

-- ---- Bytes ------------------------------------------------------------------------------------------------------

-- CRC-16/ARC of the data and the ETX.
local function crc16(bytes)
  local crc = 0
  local function add(byte)
    crc = bit.bxor(crc, byte)
    for _ = 1, 8 do
      local odd = bit.band(crc, 1) == 1
      crc = bit.rshift(crc, 1)
      if odd then crc = bit.bxor(crc, 0xA001) end
    end
  end
  for i = 0, bytes:len() - 1 do add(bytes:get_index(i)) end
  add(ETX)
  return crc
end

-- Parses the packet: link bytes, then the data of the message, undoubled, then the CRC.
local function split(buffer)
  local parts, i, length = { link = {}, data = ByteArray.new() }, 0, buffer:len()
  while i + 1 < length and buffer(i, 1):uint() == DLE and LINK[buffer(i + 1, 1):uint()] do
    parts.link[#parts.link + 1] = LINK[buffer(i + 1, 1):uint()]
    i = i + 2
  end
  parts.link_size = i
  if i + 1 >= length or buffer(i, 1):uint() ~= DLE or buffer(i + 1, 1):uint() ~= STX then return parts end
  i = i + 2
  while i < length do
    local byte = buffer(i, 1):uint()
    if byte == DLE then
      local next_byte = i + 1 < length and buffer(i + 1, 1):uint() or nil
      if next_byte == ETX then
        parts.crc_at = i + 2
        return parts
      elseif next_byte == DLE then
        i = i + 1
      elseif next_byte and LINK[next_byte] then -- a response within the message is not data
        parts.link[#parts.link + 1] = LINK[next_byte]
        byte = nil
        i = i + 1
      end
    end
    if byte then
      parts.data:set_size(parts.data:len() + 1)
      parts.data:set_index(parts.data:len() - 1, byte)
    end
    i = i + 1
  end
  return parts
end

-- Reads a range from front to back. What is asked for beyond its end is nil.
local Reader = {}
Reader.__index = Reader

function Reader.new(range)
  return setmetatable({ range = range, at = 0, size = range:len() }, Reader)
end

function Reader:left() return self.size - self.at end

function Reader:take(size)
  if size < 1 or self:left() < size then return nil end
  self.at = self.at + size
  return self.range(self.at - size, size)
end

function Reader:rest() return self:take(self:left()) end

-- Adds the field with the next `size` bytes. Returns their number; nil, with a note in the tree, if they are missing.
function Reader:add(tree, field, size)
  local bytes = self:take(size)
  if not bytes then
    tree:add_proto_expert_info(truncated)
    self.at = self.size
    return nil
  end
  tree:add_le(field, bytes)
  return bytes:le_uint()
end

-- Adds fields, each with its size, until one is missing. True if all are there.
function Reader:add_all(tree, fields)
  for _, field in ipairs(fields) do
    if not self:add(tree, field[1], field[2]) then return false end
  end
  return true
end

-- Text as a reader sees it: what is no printable ASCII character becomes an escape.
local function visible(text)
  return (text:gsub("[^\32-\126]", function(byte) return string.format("\\x%02x", byte:byte()) end))
end

-- ---- Values -----------------------------------------------------------------------------------------------------

-- The shortest text that reads as the same number.
local function real_text(bytes)
  local number, single = bytes:le_float(), bytes:len() == 4
  for digits = single and 6 or 15, single and 9 or 17 do
    local text = string.format("%." .. digits .. "g", number)
    local back = tonumber(text)
    if back and single then back = Struct.unpack("<f", Struct.pack("<f", back)) end
    if back == number then return text end
  end
  return string.format("%g", number) -- an infinity, or no number
end

local function integer_text(bytes, kind)
  if bytes:len() == 8 then return tostring(kind == "int" and bytes:le_int64() or bytes:le_uint64()) end
  return string.format("%d", kind == "int" and bytes:le_int() or bytes:le_uint())
end

local function element_text(bytes, kind)
  if kind == "bool" then return bytes:le_uint() ~= 0 and "true" or "false" end
  if kind == "real" then return real_text(bytes) end
  if kind == "bits" then return "0x" .. tostring(bytes:bytes()):reverse():gsub("(%x)(%x)", "%2%1") end
  return integer_text(bytes, kind)
end

-- A text in quotes: the bytes of its length, then its characters. Nil if it is cut short.
local function string_text(reader, length_size, character_size)
  local length = reader:take(length_size)
  if not length then return nil end
  local size = length:le_uint() * character_size
  if size > reader:left() then return nil end
  local bytes = size > 0 and reader:take(math.min(size, SHOWN_CHARACTERS * character_size))
  if size > SHOWN_CHARACTERS * character_size then reader:take(size - SHOWN_CHARACTERS * character_size) end
  local text = bytes and bytes:raw() or ""
  if character_size == 2 then text = text:gsub("([\32-\126])%z", "%1") end
  return '"' .. visible(text:gsub('[\\"]', "\\%0")) .. (size > SHOWN_CHARACTERS * character_size and '"...' or '"')
end

-- The elements of a value with the name of their type; nil for a type that is not known.
local function value_text(code, range)
  local type = TYPES[code]
  if not type then return nil end
  local reader, texts = Reader.new(range), {}
  while reader:left() > 0 do
    if #texts == SHOWN_ELEMENTS then
      texts[#texts + 1] = "..."
      break
    end
    local text
    if type[3] == "text" then
      text = string_text(reader, type[2], type[4])
    else
      local bytes = reader:take(type[2])
      text = bytes and element_text(bytes, type[3])
    end
    texts[#texts + 1] = text or "(cut short)"
    if not text then break end
  end
  return type[1] .. " " .. table.concat(texts, ", ")
end

-- Adds type and value. Returns the value as text.
local function add_value(tree, code, reader)
  local bytes = reader:rest()
  if not code or not bytes then return nil end
  tree:add(f.value, bytes)
  local text = value_text(code, bytes)
  if text then tree:add(f.shown, bytes, text) end
  return text
end

-- ---- Paths ------------------------------------------------------------------------------------------------------

local function add_symbol(tree, reader)
  local length = reader:take(1)
  local name = length and reader:take(length:uint())
  if not name then return nil end
  if length:uint() % 2 == 1 then reader:take(1) end
  local text = visible(name:raw())
  tree:add(f.tag, name, text)
  return text
end

-- A number in a path. `segment` is its first byte. Returns the name and the number.
local function add_number(tree, reader, segment, after_symbol)
  local name, size = SEGMENTS[segment][1], SEGMENTS[segment][2]
  -- Above 65535 the driver sends the element so: 30 00 and four bytes.
  if segment == 0x30 and after_symbol and reader:left() >= 5 then name, size = "element", 4 end
  if size > 1 then reader:take(1) end
  local bytes = reader:take(size)
  if not bytes then return nil end
  tree:add_le(f[name], bytes)
  return name, bytes:le_uint()
end

-- Adds what a path of `words` words names. Returns it as text: a tag with its element, or class and instance.
local function add_path(tree, reader, words)
  if words == 0 then return nil end
  local range = reader:take(2 * words)
  if not range then
    tree:add_proto_expert_info(truncated)
    range = reader:rest()
    if not range then return nil end
  end
  local inner, path, text = tree:add(f.path, range), Reader.new(range), nil
  while path:left() > 0 do
    local segment = path:take(1):uint()
    if segment == 0x91 then
      local name = add_symbol(inner, path)
      if not name then return text, inner:add_proto_expert_info(truncated) end
      text = (text and text .. "." or "") .. name
    elseif SEGMENTS[segment] then
      local name, number = add_number(inner, path, segment, text ~= nil)
      if not name then return text, inner:add_proto_expert_info(truncated) end
      if name == "element" then text = string.format("%s[%.0f]", text or "", number) end
    else
      return text, inner:add_proto_expert_info(bad_segment)
    end
  end
  return text
end

-- ---- Requests and replies ---------------------------------------------------------------------------------------

local TRIPLE = { { f.open_serial, 2 }, { f.originator_vendor, 2 }, { f.originator_serial, 4 } }

-- Each adds what follows the request's path. Returns a text for the list.
local REQUESTS = {
  [READ] = function(tree, reader, tag)
    local count = reader:add(tree, f.count, 2)
    local offset = reader:add(tree, f.offset, 4)
    if not offset then return tag end
    return tag .. (count ~= 1 and " x" .. count or "") .. (offset > 0 and string.format(" from byte %.0f", offset) or "")
  end,
  [WRITE] = function(tree, reader, tag)
    local code = reader:add(tree, f.type, 2)
    local count = reader:add(tree, f.count, 2)
    if not reader:add(tree, f.offset, 4) then return tag end
    local text = add_value(tree, code, reader)
    return tag .. (count ~= 1 and " x" .. count or "") .. (text and " = " .. text or "")
  end,
  [OPEN] = function(tree, reader)
    local complete = reader:add_all(tree, { { f.tick, 1 }, { f.ticks, 1 }, { f.ot_id, 4 }, { f.to_id, 4 } })
      and reader:add_all(tree, TRIPLE) and reader:add(tree, f.multiplier, 1)
    if complete then reader:take(3) end
    complete = complete and reader:add_all(tree, { { f.ot_interval, 4 }, { f.ot_parameters, 2 },
      { f.to_interval, 4 }, { f.to_parameters, 2 }, { f.transport, 1 } })
    local words = complete and reader:take(1)
    if words then add_path(tree, reader, words:uint()) end
  end,
  [CLOSE] = function(tree, reader)
    local complete = reader:add_all(tree, { { f.tick, 1 }, { f.ticks, 1 } }) and reader:add_all(tree, TRIPLE)
    local words = complete and reader:take(1)
    if words then
      reader:take(1)
      add_path(tree, reader, words:uint())
    end
  end,
}

-- Each adds what follows the status of a reply without an error. Returns a text for the list.
local REPLIES = {
  [IDENTITY] = function(tree, reader)
    if not reader:add_all(tree, { { f.vendor, 2 }, { f.device_type, 2 }, { f.product_code, 2 }, { f.major, 1 },
      { f.minor, 1 }, { f.state, 2 }, { f.serial, 4 } }) then return nil end
    local length = reader:take(1)
    local name = length and length:uint() > 0 and reader:take(math.min(length:uint(), reader:left()))
    if not length or length:uint() > (name and name:len() or 0) then tree:add_proto_expert_info(truncated) end
    if not name then return nil end
    tree:add(f.name, name, visible(name:raw()))
    return '"' .. visible(name:raw()) .. '"'
  end,
  [OPEN] = function(tree, reader)
    if reader:add_all(tree, { { f.ot_id, 4 }, { f.to_id, 4 } }) and reader:add_all(tree, TRIPLE) then
      reader:add_all(tree, { { f.ot_interval, 4 }, { f.to_interval, 4 }, { f.application_size, 1 } })
    end
  end,
  [CLOSE] = function(tree, reader)
    if reader:add_all(tree, TRIPLE) then reader:add(tree, f.application_size, 1) end
  end,
  [READ] = function(tree, reader) return add_value(tree, reader:add(tree, f.type, 2), reader) end,
}

local function add_request(tree, reader, service)
  local words = reader:take(1)
  if not words then return tree:add_proto_expert_info(truncated) and nil end
  local text = add_path(tree, reader, words:uint())
  local add = REQUESTS[service]
  local rest = add and add(tree, reader, text or "(no tag)")
  return rest or text, text
end

-- Adds the status. Returns the general status, and the error as text if it is one.
local function add_status(tree, reader)
  reader:take(1)
  local bytes, words = reader:take(1), reader:take(1)
  if not words then
    tree:add_proto_expert_info(truncated)
    return nil
  end
  local status, extended = bytes:uint(), nil
  tree:add(f.general, bytes)
  for _ = 1, words:uint() do
    local word = reader:take(2)
    if not word then
      tree:add_proto_expert_info(truncated)
      break
    end
    local name = EXTENDED[status] and EXTENDED[status][word:le_uint()]
    local item = tree:add_le(f.extended, word)
    if name then item:append_text(" (" .. name .. ")") end
    extended = extended or word:le_uint()
  end
  if status == SUCCESS or status == PARTIAL then return status end
  local name = extended and EXTENDED[status] and EXTENDED[status][extended]
  local text = (STATUSES[status] or "Unknown status") .. (name and ": " .. name or "")
  return status, text .. string.format(extended and " (status %02X/%04X)" or " (status %02X)", status, extended)
end

local function add_reply(tree, reader, service)
  local status, error = add_status(tree, reader)
  if not status then return nil end
  if error then
    tree:add(f.error, error):set_generated()
    tree:add_proto_expert_info(cip_error)
    -- Which connection is refused.
    if (service == OPEN or service == CLOSE) and reader:left() >= 8 and reader:add_all(tree, TRIPLE)
      and reader:left() > 0 then reader:add(tree, f.remaining_path, 1) end
    return error, true
  end
  local add = REPLIES[service]
  local text = add and add(tree, reader)
  if status == PARTIAL then text = (text and text .. " " or "") .. "(partial)" end
  return text
end

-- ---- Requests and their replies ---------------------------------------------------------------------------------

local exchanges -- by frame number: what a frame has to do with others
local latest -- by transaction number, command and service: the request that a reply belongs to

function df1.init()
  exchanges, latest = {}, {}
end

local function key_of(message)
  return string.format("%d/%d/%d", message.tns, bit.band(message.command, 0x0F), message.service or 0)
end

-- Notes what the frame has to do with those before it. A corrupt frame answers nothing.
local function link(message, pinfo)
  local key = key_of(message)
  if not message.is_reply then
    local before = latest[key]
    local repeats = before and not before.response_in and before.content == message.content
    local exchange = { tag = message.tag, content = message.content, time = pinfo.rel_ts, request = pinfo.number,
      repeat_of = repeats and (before.repeat_of or before.request) or nil }
    exchanges[pinfo.number], latest[key] = exchange, exchange
    return
  end
  local request = latest[key]
  if not request then return end
  exchanges[pinfo.number] = { tag = request.tag, request_in = request.request, time = pinfo.rel_ts - request.time }
  request.response_in = request.response_in or pinfo.number
end

local function add_links(tree, exchange)
  if exchange.request_in then
    tree:add(f.request_in, exchange.request_in):set_generated()
    local seconds = math.floor(exchange.time)
    local time = NSTime.new(seconds, math.floor((exchange.time - seconds) * 1e9 + 0.5))
    tree:add(f.time, time):set_generated()
  end
  if exchange.response_in then tree:add(f.response_in, exchange.response_in):set_generated() end
  if exchange.repeat_of then tree:add(f.repeat_of, exchange.repeat_of):set_generated() end
end

-- ---- Messages ---------------------------------------------------------------------------------------------------

-- Adds the CIP message. Notes its service, tag and text in `message`.
local function add_cip(tree, range, message)
  local code = range(0, 1):uint()
  message.service = bit.band(code, 0x7F)
  message.is_reply = bit.band(code, REPLY_SERVICE) ~= 0
  tree:add(f.service, range(0, 1))
  tree:add(f.response, range(0, 1))
  local reader = Reader.new(range)
  reader:take(1)
  if message.is_reply then
    message.text, message.refused = add_reply(tree, reader, message.service)
  else
    message.text, message.tag = add_request(tree, reader, message.service)
  end
end

-- Adds header and CIP message. Returns what others need of them; nil if the header is cut short.
local function add_message(tree, range)
  local reader, message = Reader.new(range), {}
  reader:add(tree, f.destination, 1)
  reader:add(tree, f.source, 1)
  message.command = reader:add(tree, f.command, 1)
  local status = reader:add(tree, f.status, 1)
  message.tns = reader:add(tree, f.tns, 2)
  if not message.tns then return nil end
  message.is_reply = bit.band(message.command, REPLY_COMMAND) ~= 0
  if status ~= 0 then
    message.text, message.refused = string.format("Link error (status %02X)", status), true
    tree:add_proto_expert_info(link_error)
  end
  message.content = tostring(range:bytes())
  reader:take(2)
  if bit.band(message.command, 0x0F) == 0x0A then
    if not (reader:add(tree, f.connection, 2) and reader:add(tree, f.sequence, 1) and reader:take(1)) then
      return message
    end
  end
  message.cip = reader:rest()
  if message.cip then
    add_cip(tree, message.cip, message)
  elseif status == 0 then
    tree:add_proto_expert_info(truncated)
  end
  return message
end

local function info_text(message, exchange)
  local name = message.service and (SERVICES[message.service] or string.format("Service 0x%02X", message.service))
    or COMMANDS[message.command] or string.format("Command 0x%02X", message.command)
  local text = message.text
  local tag = message.is_reply and exchange and exchange.tag
  if tag then text = tag .. (text and (message.refused and ": " or " = ") .. text or "") end
  return string.format("%s%s%s, TNS %d%s", name, message.is_reply and message.service and " reply" or "",
    text and " " .. text or "", message.tns, exchange and exchange.repeat_of and ", repeated" or "")
end

-- Adds the CRC. True if it is right.
local function add_crc(tree, buffer, parts)
  if not parts.crc_at or parts.crc_at + 2 > buffer:len() then
    tree:add_proto_expert_info(truncated)
    return false
  end
  local sent = buffer(parts.crc_at, 2)
  local good = sent:le_uint() == crc16(parts.data)
  tree:add_le(f.crc, sent)
  tree:add(f.crc_good, sent, good)
  if not good then tree:add_proto_expert_info(bad_crc) end
  return good
end

-- A trace of the host tells who sent a packet; else a message does.
local function show_direction(pinfo, is_reply)
  local by_host = pinfo.p2p_dir == P2P_DIR_SENT
  if not by_host and pinfo.p2p_dir ~= P2P_DIR_RECV then
    if is_reply == nil then return end
    by_host = not is_reply
  end
  pinfo.cols.src = by_host and "host" or "controller"
  pinfo.cols.dst = by_host and "controller" or "host"
end

function df1.dissector(buffer, pinfo, root)
  pinfo.cols.protocol = "DF1"
  local parts = split(buffer)
  show_direction(pinfo, nil)
  local tree = root:add(df1, buffer())
  local link_text = table.concat(parts.link, " ")
  if #parts.link > 0 then
    tree:add(f.ack, buffer(0, math.max(parts.link_size, 2)), link_text)
    pinfo.cols.info = link_text
  end
  if parts.data:len() == 0 then return end
  local message = add_message(tree, parts.data:tvb("Message"):range())
  local good = add_crc(tree, buffer, parts)
  local exchange
  if message then
    show_direction(pinfo, message.is_reply)
    if good and not pinfo.visited then link(message, pinfo) end
    exchange = exchanges[pinfo.number]
    if exchange then add_links(tree, exchange) end
    if message.cip and cip then pcall(function() cip:call(message.cip:tvb(), pinfo, root) end) end
  end
  local text = message and info_text(message, exchange) or "Message is cut short"
  if not good then text = (parts.crc_at and "[CRC is wrong] " or "[cut short] ") .. text end
  -- Wireshark's dissector of CIP has left its own text there.
  pinfo.cols.info:clear_fence()
  pinfo.cols.protocol = "DF1"
  pinfo.cols.info = text
end

DissectorTable.get("wtap_encap"):add(wtap.USER0, df1)
