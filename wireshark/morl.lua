-- MORL, the maker's UDP discovery protocol (port 4792), for Wireshark and
-- tshark 4.0 and later: the 34-byte header and each block of the payload,
-- every CRC checked, and the payload scanned the way Varnock's own parser scans
-- it, so that what is shown as a block is what Varnock takes, and what it
-- skips is shown as skipped.
--   tshark -X lua_script:wireshark/morl.lua -r capture.pcap
-- When two copies are loaded (the installed plugin, then one given with -X
-- lua_script:), the one loaded last decodes MORL and says so on stderr.
local here = debug.getinfo(1, "S").source:gsub("^@", "")
local earlier = rawget(_G, "morl_dissector_from")
local morl
if earlier then
  morl = earlier.proto
  io.stderr:write("morl.lua: MORL decoded by " .. here .. ", not by " .. earlier.path .. "\n")
else
  local ok, made = pcall(Proto, "morl", "MORL discovery")
  if not ok then
    io.stderr:write("morl.lua: " .. here .. " not loaded: an older MORL dissector is loaded already\n")
    return
  end
  morl = made
end

-- Every packet leaves dozens of short-lived tree items and ranges for Lua's
-- collector (the state Wireshark's Lua plugins share): collected by
-- generation where Lua has it (5.4), in larger steps before, it costs a
-- third less of the time a packet takes.
if _VERSION >= "Lua 5.4" then collectgarbage("generational") else collectgarbage("setstepmul", 400) end

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
-- Wireshark's checksum status values.
local GOOD, BAD = 1, 0
local status_names = { [0] = "Bad", [1] = "Good", [2] = "Unverified" }

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
  checksum = ProtoField.uint32("morl.checksum", "CRC", base.HEX),
  status = ProtoField.uint8("morl.checksum.status", "CRC status", base.DEC, status_names),
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

-- The frame of the request that a response answers, or nil. What each frame
-- decided is kept in pages of 4096 frames: only the latest page changes, so
-- a collector by generation does not walk the others again.
local PAGE = 4096
local function relate(number, from, kind, flags, seq, src, dst)
  local page = math.floor(number / PAGE)
  local decided = asked_in[page]
  if not decided then
    decided = {}
    asked_in[page] = decided
  end
  local slot = number % PAGE
  if decided[slot] == nil then
    if not first_frame[src] then first_frame[src], first_from[src] = number, from end
    local key = kind .. ":" .. seq .. ":"
    local asked = false
    if flags % 2 == 1 then
      requests[key .. src] = number
    elseif flags % 4 >= 2 then
      asked = requests[key .. dst] or false
    end
    decided[slot] = asked
  end
  return decided[slot] or nil
end

-- CRC-32 without the final inversion (JAMCRC), reflected, polynomial 0xEDB88320.
local crc_table = {}
for i = 0, 255 do
  local c = i
  for _ = 1, 8 do
    local half = math.floor(c / 2)
    c = c % 2 == 1 and bit.bxor(half, 0xEDB88320) % 0x100000000 or half
  end
  crc_table[i] = c
end

-- The CRC code, compiled with the step that the Lua version runs fastest:
-- Lua's own operators where it has them (5.3 and later, Wireshark 4.4 and
-- later), else one call of Wireshark's bit library and a table of byte XORs,
-- x[a * 256 + b + 1] = a XOR b (Lua 5.2; the bit library's values may be
-- negative, hence the remainders).
local crc_code = [[
local t, x, bxor = ...
-- Whether c is the CRC stored, low byte first, at b[at].
local function holds(c, b, at)
  return c % 0x100000000 == b[at] + b[at + 1] * 0x100 + b[at + 2] * 0x10000 + b[at + 3] * 0x1000000
end
-- Whether the block of n bytes at b[first] ends with the CRC of the bytes before it.
local function sealed(b, first, n)
  local c = 0xFFFFFFFF
  for i = first, first + n - 5 do c = STEP end
  return holds(c, b, first + n - 4)
end
-- The shortest length from 5 to most of the bytes at b[first] that is sealed,
-- or nil; the CRC of each length goes on from the one before.
local function shortest_sealed(b, first, most)
  local i, c = first, 0xFFFFFFFF
  c = STEP
  for n = 5, most do
    i = first + n - 4
    if c % 0x100 == b[i] and holds(c, b, i) then return n end
    c = STEP
  end
end
return sealed, shortest_sealed
]]
local step, xor = "t[(c ~ b[i]) & 0xFF] ~ (c >> 8)", {}
if _VERSION < "Lua 5.3" then
  step = "bxor(t[x[c % 0x100 * 0x100 + b[i] + 1]], (c % 0x100000000 - c % 0x100) / 0x100)"
  for i = 0, 0xFFFF do xor[i + 1] = bit.bxor(math.floor(i / 0x100), i % 0x100) end
end
local sealed, shortest_sealed = load(crc_code:gsub("STEP", function() return step end), "=morl.lua CRC")(crc_table, xor,
  bit.bxor)

local function text(s)
  local zero = s:find("\0", 1, true)
  return zero and s:sub(1, zero - 1) or s
end

local function add_crc(tree, tvb, at, n, ok)
  local c = tree:add_le(f.checksum, tvb(at + n - 4, 4))
  c:add(f.status, ok and GOOD or BAD):set_generated()
  if not ok then c:add_proto_expert_info(e.crc) end
end

-- One valid block of a known type at offset `at`; keeps what it says for the Info column.
local function add_block(tree, tvb, b, at, code, said)
  local n = block_sizes[code]
  local t = tree:add(f.block, tvb(at, n), code, block_names[code] .. " block (" .. n .. " bytes)")
  if code == 1 then
    t:add(f.uuid, tvb(at + 1, 12))
    local name, version = tvb(at + 13, 30), tvb(at + 43, 20)
    said.name, said.version = text(name:raw()), text(version:raw())
    t:add(f.name, name, said.name)
    t:add(f.version, version, said.version)
  elseif code == 3 then
    local service = b[at + 2]
    said.device_type = device_types[service] or "uknown"
    local range = tvb(at + 1, 1)
    t:add(f.service, range)
    t:add_le(f.value, tvb(at + 2, 2))
    t:add(f.device_type, range, said.device_type):set_generated()
  else
    local range = tvb(at + 1, 12)
    said.owner = range:bytes():tohex()
    t:add(f.owner, range)
  end
  add_crc(t, tvb, at, n, true)
end

-- The payload scan (offsets from 0, b[] from 1): valid known blocks are taken
-- (at most 16), a block of unknown type is skipped by the shortest length from
-- 5 to 67 whose last four bytes are the CRC of the rest, and without such a
-- length 67 bytes are skipped; a tail too short for any of that is dropped.
-- The CRC of each trial length goes on from the one before. Bytes skipped one
-- after the other are shown as one run.
local function scan(tree, tvb, b, at, said)
  local stop = #b
  local taken = 0
  local from -- where the run of skipped bytes that ends at `at` starts
  local function shown(note)
    if from then
      local t = tree:add(f.skipped, tvb(from, at - from))
      if note then t:append_text(note) end
      tree:add_proto_expert_info(e.skipped)
      said.skipped = true
      from = nil
    end
  end
  while at < stop do
    local left = stop - at
    local code = b[at + 1]
    local n = block_sizes[code]
    local whole = n and left >= n
    if whole and sealed(b, at + 1, n) then
      if taken == MAX_BLOCKS then
        from, at = from or at, stop
        shown(" (beyond " .. MAX_BLOCKS .. " blocks)")
        break
      end
      shown()
      add_block(tree, tvb, b, at, code, said)
      taken = taken + 1
      at = at + n
    else
      if whole then
        -- A known block whose CRC is wrong.
        shown()
        local t = tree:add(f.block, tvb(at, n), code,
          block_names[code] .. " block (" .. n .. " bytes), bad CRC")
        add_crc(t, tvb, at, n, false)
        said.bad = true
      end
      local trial = left >= MIN_BLOCK and shortest_sealed(b, at + 1, math.min(left, LARGEST_BLOCK))
      if trial then
        shown()
        local t = tree:add(f.unknown, tvb(at, trial))
        t:set_text(string.format("Block of unknown type %d (%d bytes), skipped", code, trial))
        add_crc(t, tvb, at, trial, true)
        t:add_proto_expert_info(e.unknown)
        said.unknown = true
        at = at + trial
      else
        from = from or at
        at = left >= LARGEST_BLOCK and at + LARGEST_BLOCK or stop
      end
    end
  end
  shown()
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
  local s = tvb:raw()
  local b = { s:byte(1, len) }
  local header_ok = sealed(b, 1, HEADER)
  local kind, flags = b[1], b[2]
  local h = tree:add(tvb(0, HEADER), "Header")
  h:add(f.type, tvb(0, 1))
  local range = tvb(1, 1)
  local fl = h:add(f.flags, range)
  fl:add(f.request, range)
  fl:add(f.response, range)
  fl:add(f.unicast, range)
  h:add_le(f.seq, tvb(2, 2))
  h:add(f.src, tvb(4, 12))
  h:add(f.dst, tvb(16, 12))
  local payload = b[29] + b[30] * 256
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
  scan(tree, tvb, b, HEADER, said)
  if said.bad then problems[#problems + 1] = "bad block CRC" end
  if said.skipped then problems[#problems + 1] = "bytes skipped" end
  -- A requester takes only responses to its own last request, addressed to its
  -- UUID, from another UUID; and a UUID belongs to one address.
  local seq = b[3] + b[4] * 256
  local src, dst = s:sub(5, 16), s:sub(17, 28)
  local request, response = flags % 2 == 1, flags % 4 >= 2
  local from = tostring(pinfo.src)
  local ignored = {}
  if header_ok then
    local asked = relate(pinfo.number, from, kind, flags, seq, src, dst)
    if first_from[src] ~= from then
      tree:add_proto_expert_info(e.borrowed)
      ignored[#ignored + 1] = string.format("source UUID of %s (frame %d)", first_from[src],
        first_frame[src])
    end
    if response and not request then
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
    (response and " response" or request and " request" or "")
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

-- The UDP port is a preference (Edit > Preferences > Protocols > MORL, or
-- tshark -o morl.udp_port:N), kept by the copy that registered it first.
local udp = DissectorTable.get("udp.port")
if not earlier then
  morl.prefs.udp_port = Pref.uint("UDP port", PORT, "The UDP port MORL is decoded on")
  udp:add(PORT, morl)
end
local port = morl.prefs.udp_port
function morl.prefs_changed()
  if morl.prefs.udp_port ~= port then
    udp:remove(port, morl)
    port = morl.prefs.udp_port
    udp:add(port, morl)
  end
end
_G.morl_dissector_from = { proto = morl, path = here }
