-- Dissector for traces of the serial line: DF1 full-duplex frames that carry CIP.
--
-- A packet is one frame, or link bytes alone, as they were on the wire (link type USER0).
--   wireshark -X lua_script:df1_cip.lua trace.pcapng
--   tshark    -X lua_script:df1_cip.lua -r trace.pcapng -T fields -e df1.tns -e df1.tag
-- Written from the protocol alone and without code of the driver, so that it can check what the driver sends.

local df1 = Proto("df1", "DF1 full-duplex with CIP")

local DLE, STX, ETX, ENQ, ACK, NAK = 0x10, 0x02, 0x03, 0x05, 0x06, 0x15
local LINK = { [ENQ] = "ENQ", [ACK] = "ACK", [NAK] = "NAK" }
local COMMANDS = {
  [0x0A] = "connected request", [0x0B] = "unconnected request",
  [0x4A] = "connected reply", [0x4B] = "unconnected reply",
}
local SERVICES = {
  [0x01] = "Get_Attributes_All", [0x4E] = "Forward_Close", [0x52] = "Read Tag Fragmented",
  [0x53] = "Write Tag Fragmented", [0x54] = "Forward_Open",
}
local STATUSES = {
  [0x00] = "Success", [0x01] = "Connection failure", [0x04] = "Path segment error",
  [0x05] = "Path destination unknown", [0x06] = "Partial transfer", [0x08] = "Service not supported",
  [0x0E] = "Attribute not settable", [0x13] = "Not enough data", [0x15] = "Too much data",
  [0xFF] = "Vendor specific",
}

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
  general = ProtoField.uint8("df1.cip_status", "General status", base.HEX, STATUSES),
  extended = ProtoField.uint16("df1.cip_extended", "Extended status", base.HEX),
  tag = ProtoField.string("df1.tag", "Tag"),
  element = ProtoField.uint32("df1.element", "Element"),
  type = ProtoField.uint16("df1.type", "Type code", base.HEX),
  count = ProtoField.uint16("df1.count", "Element count"),
  offset = ProtoField.uint32("df1.offset", "Byte offset"),
  value = ProtoField.bytes("df1.value", "Value"),
  crc = ProtoField.uint16("df1.crc", "CRC", base.HEX),
  crc_good = ProtoField.bool("df1.crc_good", "CRC is right"),
}
for _, field in pairs(f) do df1.fields[#df1.fields + 1] = field end

local bad_crc = ProtoExpert.new("df1.bad_crc", "CRC is wrong", expert.group.CHECKSUM, expert.severity.ERROR)
local cip_error = ProtoExpert.new("df1.cip_error", "CIP error", expert.group.RESPONSE_CODE, expert.severity.WARN)
local truncated = ProtoExpert.new("df1.truncated", "Message is cut short", expert.group.MALFORMED, expert.severity.WARN)
df1.experts = { bad_crc, cip_error, truncated }

local cip = Dissector.get("cip")

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

-- Adds the tag and the element of the request path. Returns the offset after the path and a text for the list.
local function add_path(tree, tvb, at, words)
  local stop, text = math.min(at + 2 * words, tvb:len()), nil
  while at + 1 < stop do
    local kind = tvb(at, 1):uint()
    if kind == 0x91 then
      local size = math.min(tvb(at + 1, 1):uint(), stop - at - 2)
      if size > 0 then
        text = tvb(at + 2, size):string(ENC_ISO_8859_1)
        tree:add(f.tag, tvb(at + 2, size), text)
      end
      at = at + 2 + size + size % 2
    elseif kind == 0x28 then
      tree:add(f.element, tvb(at + 1, 1), tvb(at + 1, 1):uint())
      text = (text or "") .. "[" .. tvb(at + 1, 1):uint() .. "]"
      at = at + 2
    elseif kind == 0x29 and at + 3 < tvb:len() then
      tree:add(f.element, tvb(at + 2, 2), tvb(at + 2, 2):le_uint())
      text = (text or "") .. "[" .. tvb(at + 2, 2):le_uint() .. "]"
      at = at + 4
    else
      break
    end
  end
  return stop, text
end

local function add_request(tree, tvb, service)
  if tvb:len() < 2 then return tree:add_proto_expert_info(truncated) end
  local at, text = add_path(tree, tvb, 2, tvb(1, 1):uint())
  if service == 0x53 and at + 2 <= tvb:len() then
    tree:add_le(f.type, tvb(at, 2))
    at = at + 2
  end
  if (service == 0x52 or service == 0x53) and at + 6 <= tvb:len() then
    tree:add_le(f.count, tvb(at, 2))
    tree:add_le(f.offset, tvb(at + 2, 4))
    if at + 6 < tvb:len() then tree:add(f.value, tvb(at + 6)) end
  end
  return text
end

local function add_reply(tree, tvb, service)
  if tvb:len() < 4 then return tree:add_proto_expert_info(truncated) end
  local status, words = tvb(2, 1):uint(), tvb(3, 1):uint()
  tree:add(f.general, tvb(2, 1))
  local at = 4
  for _ = 1, words do
    if at + 2 <= tvb:len() then tree:add_le(f.extended, tvb(at, 2)) end
    at = at + 2
  end
  if status ~= 0 and status ~= 0x06 then
    tree:add_proto_expert_info(cip_error)
  elseif service == 0x52 and at + 2 <= tvb:len() then
    tree:add_le(f.type, tvb(at, 2))
    if at + 2 < tvb:len() then tree:add(f.value, tvb(at + 2)) end
  end
  return STATUSES[status] or string.format("status 0x%02X", status)
end

local function add_cip(tree, tvb, pinfo, root)
  if tvb:len() == 0 then return tree:add_proto_expert_info(truncated) end
  local code = tvb(0, 1):uint()
  local service, response = bit.band(code, 0x7F), bit.band(code, 0x80) ~= 0
  tree:add(f.service, tvb(0, 1))
  tree:add(f.response, tvb(0, 1))
  local text = (response and add_reply or add_request)(tree, tvb, service)
  if cip then pcall(function() cip:call(tvb:tvb(), pinfo, root) end) end
  local name = SERVICES[service] or string.format("service 0x%02X", service)
  pinfo.cols.info:clear_fence()
  pinfo.cols.protocol = "DF1"
  pinfo.cols.info = string.format("%s%s%s", name, response and " reply" or "", text and (" " .. tostring(text)) or "")
end

local function add_message(tree, tvb, pinfo, root)
  if tvb:len() < 8 then return tree:add_proto_expert_info(truncated) end
  local command = tvb(2, 1):uint()
  tree:add(f.destination, tvb(0, 1))
  tree:add(f.source, tvb(1, 1))
  tree:add(f.command, tvb(2, 1))
  tree:add(f.status, tvb(3, 1))
  tree:add_le(f.tns, tvb(4, 2))
  local at = 8
  if bit.band(command, 0x0F) == 0x0A then
    if tvb:len() < 12 then return tree:add_proto_expert_info(truncated) end
    tree:add_le(f.connection, tvb(8, 2))
    tree:add(f.sequence, tvb(10, 1))
    at = 12
  end
  if at < tvb:len() then add_cip(tree, tvb(at), pinfo, root) end
end

function df1.dissector(buffer, pinfo, root)
  pinfo.cols.protocol = "DF1"
  local parts = split(buffer)
  local tree = root:add(df1, buffer())
  if #parts.link > 0 then
    tree:add(f.ack, buffer(0, math.max(parts.link_size, 2)), table.concat(parts.link, " "))
    pinfo.cols.info = table.concat(parts.link, " ")
  end
  if parts.data:len() == 0 then return end
  add_message(tree, parts.data:tvb("Message"):range(), pinfo, root)
  if not parts.crc_at or parts.crc_at + 2 > buffer:len() then
    return tree:add_proto_expert_info(truncated)
  end
  local sent = buffer(parts.crc_at, 2)
  local good = sent:le_uint() == crc16(parts.data)
  tree:add_le(f.crc, sent)
  tree:add(f.crc_good, sent, good)
  if not good then tree:add_proto_expert_info(bad_crc) end
end

DissectorTable.get("wtap_encap"):add(wtap.USER0, df1)
