-- Wireshark dissector for tide_watch_capture files: shows each modem trap by name (trace, message,
-- SIM, the EM fields) from the header the capture writes in front of every trap record, and hands
-- the air message of an OTA trap to Wireshark's own LTE RRC, EPS NAS, NR RRC or 5GS NAS dissector.
--
-- It registers on the user link type the capture uses (162, LINKTYPE_USER15), so it works with no
-- preference set. The header layout is described in docs/capture-format.md.

local tidewatch = Proto("tidewatch", "Tidewatch modem trap")

local TRAP_TYPES = {
  [1] = "DISCARD_INFO", [2] = "OTA", [3] = "EM", [4] = "VOLTE", [5] = "PSTIME", [6] = "IP",
  [7] = "ICD_RECORD", [8] = "ICD_EVENT",
}

local MAGIC = 0x52545754  -- "TWTR"
local FIXED_SIZE = 128
local RECORD_HEAD = 5     -- type (1) + length (4) before a record's payload

local FLAG = {
  sim = 0x1, msg_id = 0x2, msg_name = 0x4, trace_id = 0x8, trace_name = 0x10, pdu_length = 0x20,
  pdu = 0x40, pdu_truncated = 0x80, peer_count = 0x100, peers = 0x200,
}

local f = {
  version = ProtoField.uint8("tidewatch.version", "Header version"),
  type = ProtoField.uint8("tidewatch.type", "Trap type", base.DEC, TRAP_TYPES),
  seq = ProtoField.uint64("tidewatch.seq", "Sequence number", base.DEC),
  length = ProtoField.uint64("tidewatch.length", "Record length field", base.DEC),
  sim = ProtoField.uint64("tidewatch.sim", "SIM index", base.DEC),
  msg_id = ProtoField.uint64("tidewatch.msg_id", "Message id", base.DEC),
  msg_name = ProtoField.string("tidewatch.msg_name", "Message"),
  trace_id = ProtoField.uint64("tidewatch.trace_id", "Trace id", base.DEC),
  trace_name = ProtoField.string("tidewatch.trace_name", "Trace"),
  pdu_length = ProtoField.uint64("tidewatch.pdu_length", "PDU length", base.DEC),
  pdu_truncated = ProtoField.bool("tidewatch.pdu_truncated", "PDU truncated"),
  peer_count = ProtoField.uint64("tidewatch.peer_count", "Peer count", base.DEC),
  tool_drops = ProtoField.uint32("tidewatch.tool_drops", "Lost by the capture before this trap",
                                 base.DEC),
  em = ProtoField.string("tidewatch.em", "EM field"),
  em_name = ProtoField.string("tidewatch.em.name", "Name"),
  em_value = ProtoField.uint64("tidewatch.em.value", "Value", base.DEC),
  record = ProtoField.bytes("tidewatch.record", "Trap record"),
  pdu = ProtoField.bytes("tidewatch.pdu", "PDU"),
  peers = ProtoField.bytes("tidewatch.peers", "Peers"),
}
-- Discards per trap type, by the type's name: tidewatch.discards.OTA and so on.
local discard_fields = {}
for t = 1, 8 do
  discard_fields[t] = ProtoField.uint32("tidewatch.discards." .. TRAP_TYPES[t],
                                        "Discarded " .. TRAP_TYPES[t], base.DEC)
end
local field_list = {}
for _, v in pairs(f) do field_list[#field_list + 1] = v end
for _, v in ipairs(discard_fields) do field_list[#field_list + 1] = v end
tidewatch.fields = field_list

local bad_header = ProtoExpert.new("tidewatch.bad_header", "Malformed trap header",
                                   expert.group.MALFORMED, expert.severity.ERROR)
tidewatch.experts = { bad_header }

-- Which of Wireshark's dissectors reads the air message, from the message name (and the trace
-- name for messages this table does not know). Ordered: the first matching pattern wins.
local LTE_RRC_CHANNELS = {
  { "MASTER_INFORMATION_BLOCK", "lte_rrc.bcch_bch" },
  { "SYSTEM_INFORMATION", "lte_rrc.bcch_dl_sch" },  -- SIB1 and SI messages
  { "PAGING", "lte_rrc.pcch" },
  { "REESTABLISHMENT_REQUEST", "lte_rrc.ul_ccch" },
  { "CONNECTION_REQUEST", "lte_rrc.ul_ccch" },
  { "REESTABLISHMENT_REJECT", "lte_rrc.dl_ccch" },
  { "CONNECTION_REJECT", "lte_rrc.dl_ccch" },
  { "CONNECTION_SETUP_COMPLETE", "lte_rrc.ul_dcch" },
  { "CONNECTION_REESTABLISHMENT_COMPLETE", "lte_rrc.ul_dcch" },
  { "CONNECTION_SETUP", "lte_rrc.dl_ccch" },
  { "CONNECTION_REESTABLISHMENT", "lte_rrc.dl_ccch" },
  { "COMPLETE", "lte_rrc.ul_dcch" },
  { "MEASUREMENT_REPORT", "lte_rrc.ul_dcch" },
  { "UE_CAPABILITY_INFORMATION", "lte_rrc.ul_dcch" },
  { "UL_INFORMATION_TRANSFER", "lte_rrc.ul_dcch" },
  { "FAILURE", "lte_rrc.ul_dcch" },
  { "", "lte_rrc.dl_dcch" },  -- commands, enquiries, reconfiguration, release, DL transfer
}
local NR_RRC_CHANNELS = {
  { "MASTER_INFORMATION_BLOCK", "nr-rrc.bcch.bch" },
  { "MIB", "nr-rrc.bcch.bch" },
  { "SYSTEM_INFORMATION", "nr-rrc.bcch.dl.sch" },
  { "SIB", "nr-rrc.bcch.dl.sch" },
  { "PAGING", "nr-rrc.pcch" },
  { "REESTABLISHMENT_REQUEST", "nr-rrc.ul.ccch" },
  { "RESUME_REQUEST", "nr-rrc.ul.ccch" },
  { "SETUP_REQUEST", "nr-rrc.ul.ccch" },
  { "REJECT", "nr-rrc.dl.ccch" },
  { "COMPLETE", "nr-rrc.ul.dcch" },
  { "MEASUREMENT_REPORT", "nr-rrc.ul.dcch" },
  { "UE_CAPABILITY_INFORMATION", "nr-rrc.ul.dcch" },
  { "UL_INFORMATION_TRANSFER", "nr-rrc.ul.dcch" },
  { "FAILURE", "nr-rrc.ul.dcch" },
  { "NR_RRC_SETUP$", "nr-rrc.dl.ccch" },
  { "", "nr-rrc.dl.dcch" },
}

local function pick(channels, msg)
  for _, c in ipairs(channels) do
    if msg:find(c[1]) then return c[2] end
  end
end

local function pdu_dissector_name(trace, msg)
  msg = msg or ""
  trace = trace or ""
  if msg:find("^LTE_RRC_") then return pick(LTE_RRC_CHANNELS, msg) end
  if msg:find("^NR_RRC_") then return pick(NR_RRC_CHANNELS, msg) end
  if msg:find("^LTE_NAS_") or trace:find("LTE_NAS") then return "nas-eps" end
  if msg:find("^NR_NAS_") or msg:find("^NAS_5GS") or trace:find("NR_NAS") then return "nas-5gs" end
  return nil
end

local dissector_cache = {}
local function get_dissector(name)
  if dissector_cache[name] == nil then
    local ok, d = pcall(Dissector.get, name)
    dissector_cache[name] = ok and d or false
  end
  return dissector_cache[name] or nil
end

function tidewatch.dissector(tvb, pinfo, tree)
  local size = tvb:len()
  pinfo.cols.protocol = "TIDEWATCH"
  local root = tree:add(tidewatch, tvb())
  if size < FIXED_SIZE or tvb(0, 4):le_uint() ~= MAGIC then
    root:add_proto_expert_info(bad_header, "no trap header")
    return
  end
  local version = tvb(4, 1):uint()
  root:add(f.version, tvb(4, 1))
  if version ~= 1 then
    root:add_proto_expert_info(bad_header, "header version " .. version .. " is not known")
    return
  end
  local flags = tvb(6, 2):le_uint()
  local header_len = tvb(8, 4):le_uint()
  local record_len = tvb(12, 4):le_uint()
  if header_len < FIXED_SIZE or header_len > size or header_len + record_len ~= size then
    root:add_proto_expert_info(bad_header, "header length " .. header_len .. " does not fit")
    return
  end
  local function has(flag) return bit.band(flags, flag) ~= 0 end

  local trap_type = tvb(5, 1):uint()
  root:add(f.type, tvb(5, 1))
  root:add_le(f.seq, tvb(16, 8))
  root:add_le(f.length, tvb(24, 8))
  if has(FLAG.sim) then root:add_le(f.sim, tvb(32, 8)) end
  if has(FLAG.msg_id) then root:add_le(f.msg_id, tvb(40, 8)) end

  -- The variable part: names, then the EM fields.
  local at = FIXED_SIZE
  local function name_at()
    if at + 2 > header_len then return nil end
    local n = tvb(at, 2):le_uint()
    if at + 2 + n > header_len then return nil end
    local range = n > 0 and tvb(at + 2, n) or tvb(at + 2, 0)
    local text = n > 0 and range:string() or ""
    at = at + 2 + n
    return text, range
  end
  local trace_name, trace_range = name_at()
  local msg_name, msg_range = name_at()
  if trace_name == nil or msg_name == nil or at + 2 > header_len then
    root:add_proto_expert_info(bad_header, "names run past the header")
    return
  end
  if has(FLAG.msg_name) then root:add(f.msg_name, msg_range, msg_name) else msg_name = nil end
  if has(FLAG.trace_id) then root:add_le(f.trace_id, tvb(48, 8)) end
  if has(FLAG.trace_name) then
    root:add(f.trace_name, trace_range, trace_name)
  else
    trace_name = nil
  end
  if has(FLAG.pdu_length) then root:add_le(f.pdu_length, tvb(56, 8)) end
  if has(FLAG.pdu) then root:add(f.pdu_truncated, tvb(6, 2), has(FLAG.pdu_truncated)) end
  if has(FLAG.peer_count) then root:add_le(f.peer_count, tvb(64, 8)) end

  local field_count = tvb(at, 2):le_uint()
  at = at + 2
  local summary = {}
  for _ = 1, field_count do
    local start = at
    local name = name_at()
    if name == nil or at + 8 > header_len then
      root:add_proto_expert_info(bad_header, "EM fields run past the header")
      return
    end
    local value = tvb(at, 8):le_uint64()
    local item = root:add(f.em, tvb(start, at + 8 - start), name .. "=" .. tostring(value))
    item:set_text(name .. ": " .. tostring(value))
    item:add(f.em_name, tvb(start + 2, at - start - 2), name)
    item:add_le(f.em_value, tvb(at, 8))
    summary[#summary + 1] = name .. "=" .. tostring(value)
    at = at + 8
  end

  for t = 1, 8 do
    local count = tvb(88 + 4 * t, 4):le_uint()
    if count ~= 0 then root:add_le(discard_fields[t], tvb(88 + 4 * t, 4)) end
  end
  if tvb(124, 4):le_uint() ~= 0 then root:add_le(f.tool_drops, tvb(124, 4)) end

  if record_len > 0 then root:add(f.record, tvb(header_len, record_len)) end
  local function record_range(offset_at)
    local offset = tvb(offset_at, 4):le_uint()
    local bytes = tvb(offset_at + 4, 4):le_uint()
    if offset > record_len or bytes > record_len - offset or bytes == 0 then return nil end
    return tvb(header_len + offset, bytes)
  end
  local peers = has(FLAG.peers) and record_range(80)
  if peers then root:add(f.peers, peers) end

  local type_name = TRAP_TYPES[trap_type] or tostring(trap_type)
  local label = msg_name or trace_name or type_name
  root:append_text(", " .. type_name .. ", " .. label)
  local info = type_name .. " " .. label
  if has(FLAG.sim) then info = info .. " sim " .. tostring(tvb(32, 8):le_uint64()) end
  if #summary > 0 then info = info .. " " .. table.concat(summary, " ") end
  pinfo.cols.info = info

  local pdu = has(FLAG.pdu) and record_range(72)
  if pdu then
    root:add(f.pdu, pdu)
    local name = pdu_dissector_name(trace_name, msg_name)
    local d = name and get_dissector(name)
    if d then
      -- Keep our part of the Info column; the air message's dissector appends its own after it.
      pinfo.cols.info:fence()
      d:call(pdu:tvb(), pinfo, tree)
    end
  end
end

local encap = (wtap_encaps or wtap).USER15
DissectorTable.get("wtap_encap"):add(encap, tidewatch)
