-- MORL, the maker's UDP discovery protocol (port 4792), for Wireshark and
-- tshark: the 34-byte header and each block of the payload, every CRC
-- checked, and the payload scanned the way Varnock's own parser scans it, so
-- that what is shown as a block is what Varnock takes, and what it skips is
-- shown as skipped.
--   tshark -X lua_script:wireshark/morl.lua -r capture.pcap
local morl = Proto("morl", "MORL discovery")

local HEADER = 34
local MIN_BLOCK = 5
local LARGEST_BLOCK = 67
local MAX_BLOCKS = 16
local PORT = 4792
local RECEIVE_BUFFER = 1024

local type_names = { [0] = "Discovery", [1] = "Directed discovery", [2] = "Tame", [3] = "Whistle" }
local block_names = { [1] = "Device info", [3] = "Supported service", [4] = "Tame status" }
local block_sizes = { [1] = 67, [3] = 8, [4] = 17 }
-- Device-type names by service type, as Varnock prints them; any other is "uknown".
local device_types = { [0] = "extender_dorn", [1] = "extender_brask", [2] = "pallor_module",
  [3] = "extender_quin", [4] = "extender_fell" }

local f = {
  type = ProtoField.uint8("morl.type", "Type", base.DEC, type_names),
  flags = ProtoField.uint8("morl.flags", "Flags", base.HEX),
  request = ProtoField.bool("morl.flags.request", "Request", 8, nil, 0x01),
  response = ProtoField.bool("morl.flags.response", "Response", 8, nil, 0x02),
  unicast = ProtoField.bool("morl.flags.unicast", "Unicast replies welcome", 8, nil, 0x04),
  seq = ProtoField.uint16("morl.seq", "Sequence number", base.HEX),
  src = ProtoField.bytes("morl.src_uuid", "Source UUID"),
  dst = ProtoField.bytes("morl.dst_uuid", "Destination UUID"),
  length = ProtoField.uint16("morl.length", "Payload length"),
  crc = ProtoField.uint32("morl.crc", "CRC", base.HEX),
  crc_good = ProtoField.bool("morl.crc_good", "CRC good"),
  crc_bad = ProtoField.bool("morl.crc_bad", "CRC bad"),
  block = ProtoField.uint8("morl.block", "Block", base.DEC, block_names),
  uuid = ProtoField.bytes("morl.uuid", "Device UUID"),
  name = ProtoField.string("morl.name", "Device name"),
  version = ProtoField.string("morl.version", "Software version"),
  service = ProtoField.uint8("morl.service", "Service type"),
  value = ProtoField.uint16("morl.service_value", "Service value"),
  device_type = ProtoField.string("morl.device_type", "Device type"),
  owner = ProtoField.bytes("morl.owner", "Owner UUID"),
  unknown = ProtoField.bytes("morl.unknown_block", "Block of unknown type"),
  skipped = ProtoField.bytes("morl.skipped", "Skipped while resynchronising"),
  blocks = ProtoField.uint8("morl.blocks", "Blocks taken"),
  request_in = ProtoField.framenum("morl.request_in", "Request in frame", base.NONE,
    frametype.REQUEST),
  ignored = ProtoField.bool("morl.ignored", "Ignored by the node it is meant for"),
}
morl.fields = f

local e = {
  crc = ProtoExpert.new("morl.expert.crc", "Bad CRC", expert.group.CHECKSUM, expert.severity.ERROR),
  short = ProtoExpert.new("morl.expert.short", "Shorter than a MORL header",
    expert.group.MALFORMED, expert.severity.ERROR),
  length = ProtoExpert.new("morl.expert.length", "Payload length differs from the bytes that follow",
    expert.group.MALFORMED, expert.severity.ERROR),
  type = ProtoExpert.new("morl.expert.type", "Invalid packet type", expert.group.MALFORMED,
    expert.severity.ERROR),
  skipped = ProtoExpert.new("morl.expert.skipped", "Bytes skipped while resynchronising",
    expert.group.MALFORMED, expert.severity.WARN),
  unknown = ProtoExpert.new("morl.expert.unknown", "Block of unknown type skipped",
    expert.group.UNDECODED, expert.severity.NOTE),
  oversized = ProtoExpert.new("morl.expert.oversized", "Longer than a receiver's 1024-byte buffer",
    expert.group.MALFORMED, expert.severity.ERROR),
  unmatched = ProtoExpert.new("morl.expert.unmatched", "Response that its requester does not take",
    expert.group.SEQUENCE, expert.severity.WARN),
  borrowed = ProtoExpert.new("morl.expert.borrowed", "Source UUID of another address",
    expert.group.SECURITY, expert.severity.WARN),
}
morl.experts = { e.crc, e.short, e.length, e.type, e.skipped, e.unknown, e.oversized, e.unmatched,
  e.borrowed }

-- What earlier frames of the capture said: the latest request by type, sequence
-- number and source UUID, and the first frame and address of each source UUID.
-- A response's request is decided on the first pass, in frame order, and kept
-- for later passes (Wireshark dissects a frame again whenever it is shown);
-- numbers and strings only, which the garbage collector does not walk.
local requests, first_frame, first_from, asked_in
local function forget()
  requests, first_frame, first_from, asked_in = {}, {}, {}, {}
end
forget()
morl.init = forget

-- The frame of the request that a response answers, or nil.
local function relate(number, from, kind, flags, seq, src, dst)
  if asked_in[number] == nil then
    if not first_frame[src] then first_frame[src], first_from[src] = number, from end
    local key = kind .. ":" .. seq .. ":"
    local asked = false
    if bit32.band(flags, 1) ~= 0 then
      requests[key .. src] = number
    elseif bit32.band(flags, 2) ~= 0 then
      asked = requests[key .. dst] or false
    end
    asked_in[number] = asked
  end
  return asked_in[number] or nil
end

-- CRC-32 without the final inversion (JAMCRC), reflected, polynomial 0xEDB88320.
local crc_table = {}
for i = 0, 255 do
  local c = i
  for _ = 1, 8 do
    if c % 2 == 1 then c = bit32.bxor(bit32.rshift(c, 1), 0xEDB88320) else c = bit32.rshift(c, 1) end
  end
  crc_table[i] = c
end

local function crc_update(c, byte)
  return bit32.bxor(crc_table[bit32.band(bit32.bxor(c, byte), 0xFF)], bit32.rshift(c, 8))
end

-- The CRC of bytes [at, at + n - 4) of `bytes` against the little-endian value after them.
local function block_crc_ok(bytes, at, n)
  local c = 0xFFFFFFFF
  for i = at, at + n - 5 do c = crc_update(c, bytes:get_index(i)) end
  local stored = bytes:get_index(at + n - 4) + bytes:get_index(at + n - 3) * 0x100 +
    bytes:get_index(at + n - 2) * 0x10000 + bytes:get_index(at + n - 1) * 0x1000000
  return c == stored
end

local function text(range)
  local s = range:raw()
  local zero = s:find("\0", 1, true)
  return zero and s:sub(1, zero - 1) or s
end

local function add_crc(tree, tvb, at, n, ok)
  tree:add_le(f.crc, tvb(at + n - 4, 4))
  if ok then
    tree:add(f.crc_good, true):set_generated()
  else
    tree:add(f.crc_bad, true):set_generated()
    tree:add_proto_expert_info(e.crc)
  end
end

-- One valid block of a known type; returns what it says for the Info column.
local function add_block(tree, tvb, at, code, said)
  local n = block_sizes[code]
  local t = tree:add(f.block, tvb(at, n), code)
  t:set_text(block_names[code] .. " block (" .. n .. " bytes)")
  if code == 1 then
    t:add(f.uuid, tvb(at + 1, 12))
    said.name = text(tvb(at + 13, 30))
    said.version = text(tvb(at + 43, 20))
    t:add(f.name, tvb(at + 13, 30), said.name)
    t:add(f.version, tvb(at + 43, 20), said.version)
  elseif code == 3 then
    local service = tvb(at + 1, 1):uint()
    said.device_type = device_types[service] or "uknown"
    t:add(f.service, tvb(at + 1, 1))
    t:add_le(f.value, tvb(at + 2, 2))
    t:add(f.device_type, tvb(at + 1, 1), said.device_type):set_generated()
  else
    said.owner = tvb(at + 1, 12):bytes():tohex()
    t:add(f.owner, tvb(at + 1, 12))
  end
  add_crc(t, tvb, at, n, true)
end

-- The payload scan: valid known blocks are taken (at most 16), a block of
-- unknown type is skipped by the shortest length from 5 to 67 whose last four
-- bytes are the CRC of the rest, and without such a length 67 bytes are
-- skipped; a tail too short for any of that is dropped.
local function scan(tree, tvb, at, said)
  local bytes = tvb:bytes()
  local stop = tvb:len()
  local taken = 0
  while at < stop do
    local left = stop - at
    local code = bytes:get_index(at)
    local n = block_sizes[code]
    if n and left >= n and block_crc_ok(bytes, at, n) then
      if taken == MAX_BLOCKS then
        tree:add(f.skipped, tvb(at, left)):append_text(" (beyond " .. MAX_BLOCKS .. " blocks)")
        tree:add_proto_expert_info(e.skipped)
        said.skipped = true
        break
      end
      add_block(tree, tvb, at, code, said)
      taken = taken + 1
      at = at + n
    else
      if n and left >= n then
        -- A known block whose CRC is wrong.
        local t = tree:add(f.block, tvb(at, n), code)
        t:set_text(block_names[code] .. " block (" .. n .. " bytes), bad CRC")
        add_crc(t, tvb, at, n, false)
        said.bad = true
      end
      if left < MIN_BLOCK then
        tree:add(f.skipped, tvb(at, left))
        tree:add_proto_expert_info(e.skipped)
        said.skipped = true
        break
      end
      local trial = MIN_BLOCK
      while not block_crc_ok(bytes, at, trial) and trial < LARGEST_BLOCK and left > trial do
        trial = trial + 1
      end
      if block_crc_ok(bytes, at, trial) then
        local t = tree:add(f.unknown, tvb(at, trial))
        t:set_text(string.format("Block of unknown type %d (%d bytes), skipped", code, trial))
        add_crc(t, tvb, at, trial, true)
        t:add_proto_expert_info(e.unknown)
        said.unknown = true
        at = at + trial
      elseif trial == LARGEST_BLOCK then
        tree:add(f.skipped, tvb(at, trial))
        tree:add_proto_expert_info(e.skipped)
        said.skipped = true
        at = at + trial
      else
        tree:add(f.skipped, tvb(at, left))
        tree:add_proto_expert_info(e.skipped)
        said.skipped = true
        break
      end
    end
  end
  tree:add(f.blocks, taken):set_generated()
end

function morl.dissector(tvb, pinfo, root)
  pinfo.cols.protocol = "MORL"
  local len = tvb:len()
  local tree = root:add(morl, tvb())
  if len < HEADER then
    tree:add_proto_expert_info(e.short)
    pinfo.cols.info = string.format("Malformed: %d bytes, shorter than a header", len)
    return len
  end
  local bytes = tvb:bytes()
  local header_ok = block_crc_ok(bytes, 0, HEADER)
  local kind = tvb(0, 1):uint()
  local flags = tvb(1, 1):uint()
  local h = tree:add(morl, tvb(0, HEADER), "Header")
  h:set_text("Header")
  h:add(f.type, tvb(0, 1))
  local fl = h:add(f.flags, tvb(1, 1))
  fl:add(f.request, tvb(1, 1))
  fl:add(f.response, tvb(1, 1))
  fl:add(f.unicast, tvb(1, 1))
  h:add_le(f.seq, tvb(2, 2))
  h:add(f.src, tvb(4, 12))
  h:add(f.dst, tvb(16, 12))
  local payload = tvb(28, 2):le_uint()
  local length_item = h:add_le(f.length, tvb(28, 2))
  add_crc(h, tvb, 0, HEADER, header_ok)
  local problems = {}
  if not header_ok then problems[#problems + 1] = "bad header CRC" end
  if kind > 3 then
    h:add_proto_expert_info(e.type)
    problems[#problems + 1] = "invalid type " .. kind
  end
  if payload ~= len - HEADER then
    length_item:add_proto_expert_info(e.length)
    problems[#problems + 1] = string.format("payload length %d, %d bytes follow", payload, len - HEADER)
  end
  if len > RECEIVE_BUFFER then
    tree:add_proto_expert_info(e.oversized)
    problems[#problems + 1] = string.format("%d bytes, cut to %d by the receiver", len, RECEIVE_BUFFER)
  end
  local said = {}
  scan(tree, tvb, HEADER, said)
  if said.bad then problems[#problems + 1] = "bad block CRC" end
  if said.skipped then problems[#problems + 1] = "bytes skipped" end
  -- A requester takes only responses to its own last request, addressed to its
  -- UUID, from another UUID; and a UUID belongs to one address.
  local seq = tvb(2, 2):le_uint()
  local src, dst = tvb:raw(4, 12), tvb:raw(16, 12)
  local from = tostring(pinfo.src)
  local ignored = {}
  if header_ok then
    local asked = relate(pinfo.number, from, kind, flags, seq, src, dst)
    if first_from[src] ~= from then
      tree:add_proto_expert_info(e.borrowed)
      ignored[#ignored + 1] = string.format("source UUID of %s (frame %d)", first_from[src],
        first_frame[src])
    end
    if bit32.band(flags, 1) == 0 and bit32.band(flags, 2) ~= 0 then
      local before = #ignored
      if asked then
        tree:add(f.request_in, asked):set_generated()
      else
        ignored[#ignored + 1] = "answers no request in the capture"
      end
      if src == dst then ignored[#ignored + 1] = "from its requester's own UUID" end
      if #ignored > before then tree:add_proto_expert_info(e.unmatched) end
    end
  end
  if #ignored > 0 then tree:add(f.ignored, true):set_generated() end
  local what = (type_names[kind] or ("Type " .. kind)) ..
    (bit32.band(flags, 2) ~= 0 and " response" or bit32.band(flags, 1) ~= 0 and " request" or "")
  local info
  if said.name then
    info = what .. ": " .. table.concat({ said.name, said.version, said.device_type }, " ")
  elseif said.owner then
    info = what .. ": owner " .. said.owner
  else
    info = string.format("%s, seq 0x%04x", what, seq)
  end
  if said.unknown then info = info .. " (a block of unknown type skipped)" end
  if #ignored > 0 then info = "Ignored: " .. table.concat(ignored, ", ") .. "; " .. info end
  if #problems > 0 then info = "Malformed: " .. table.concat(problems, ", ") .. "; " .. info end
  pinfo.cols.info = info
  return len
end

DissectorTable.get("udp.port"):add(PORT, morl)
