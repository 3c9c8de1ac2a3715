-- SPDX-FileCopyrightText: 2026 the Varnix authors
-- SPDX-License-Identifier: BSD-3-Clause

-- Shows in Wireshark and tshark what the members of Varnix say to each other. What the bytes mean: docs/protocol.md.
--
-- Announcements are UDP datagrams to port 1975. The TCP ports are any: each is learnt from an announcement, or from
-- record 2, which names the port of the side that receives. A capture that has neither needs "Decode As".
--
-- A stream is a row of records without a mark, so its reader must know where it begins. Whatever makes that unknown
-- (the capture starts later, lacks bytes, cuts packets) is said, and the bytes are shown as they are.

local varnix = Proto("varnix", "Varnix")

local DISCOVERY_PORT = 1975
local TCP, UDP = 2, 3  -- In pinfo.port_type.
local MOST_RECORDS_SHOWN = 10000  -- Of one packet: Wireshark gives up at a million lines.
local MOST_ROWS_NAMED = 3         -- In the info column.
local MOST_BYTES_NAMED = 40       -- Of a name or a value in the info column.
local MOST_BYTES_REPEATED = 255   -- Of the sender's names in each of its rows; a hostile one has a million.

local fields = {
  direction = ProtoField.string("varnix.direction", "Direction"),
  record = ProtoField.uint32("varnix.record", "Record"),
  length_a = ProtoField.uint32("varnix.length_a", "Length of A", base.DEC, nil, 0xFFF00000),
  length_b = ProtoField.uint32("varnix.length_b", "Length of B", base.DEC, nil, 0x000FFFFF),
  length_name = ProtoField.uint8("varnix.length_name", "Length of the name"),
  port = ProtoField.uint16("varnix.port", "TCP port"),
  group = ProtoField.string("varnix.group", "Group"),
  database = ProtoField.string("varnix.database", "Database"),
  identity = ProtoField.string("varnix.identity", "Identity"),
  device = ProtoField.string("varnix.device", "Device"),
  process = ProtoField.string("varnix.process", "Process"),
  table = ProtoField.string("varnix.table", "Table"),
  key = ProtoField.string("varnix.key", "Key"),
  value = ProtoField.string("varnix.value", "Value"),
  data = ProtoField.bytes("varnix.data", "Data"),
}
varnix.fields = fields

local malformed, protocol, undecoded = expert.group.MALFORMED, expert.group.PROTOCOL, expert.group.UNDECODED
local note, warn, severe = expert.severity.NOTE, expert.severity.WARN, expert.severity.ERROR
local experts = {
  announcement = ProtoExpert.new("varnix.malformed.announcement",
    "Not 2 to 256 bytes: every member drops this announcement", malformed, severe),
  answer = ProtoExpert.new("varnix.malformed.answer",
    "The port is not 2 bytes long: the sender closes the connection", malformed, severe),
  extra = ProtoExpert.new("varnix.malformed.extra",
    "The receiver says nothing after record 2: the sender takes this for the end of the connection", malformed, severe),
  early = ProtoExpert.new("varnix.malformed.early",
    "Sent ahead of its turn, or the capture lacks the other side's record", malformed, warn),
  key = ProtoExpert.new("varnix.malformed.key",
    "The table's name is longer than the combined key: the row goes into the table \"\", under the key \"\"",
    malformed, warn),
  no_key = ProtoExpert.new("varnix.malformed.no_key",
    "The combined key is empty: the row goes into the table \"\", under the key \"\". From the library it is the " ..
    "header of a key of 4,096 bytes that was cut, alone; then all that follows is misread", malformed, warn),
  identity = ProtoExpert.new("varnix.malformed.identity",
    "No device and process, but members only compare it", malformed, note),
  port_0 = ProtoExpert.new("varnix.port_0", "Nobody can connect to port 0", protocol, note),
  no_name = ProtoExpert.new("varnix.no_name", "Members of the library without this name meet nobody", protocol, note),
  cut = ProtoExpert.new("varnix.cut",
    "The stream ends in the middle of a record, as far as the capture has it", protocol, note),
  assumed = ProtoExpert.new("varnix.assumed",
    "Where the records of this stream begin is assumed", expert.group.ASSUMPTION, note),
  many = ProtoExpert.new("varnix.unknown.many", "More records than are shown of one packet", undecoded, note),
  unknown = ProtoExpert.new("varnix.unknown", "It cannot be known what these bytes are", undecoded, warn),
}
varnix.experts = experts

varnix.prefs.assume = Pref.bool("Assume where records begin", false,
  "Where the start of a stream is missing, take a segment that holds nothing but whole rows for the next rows. " ..
  "A row that is sent alone is such a segment; the inside of a long value may look like one.")

-- Why bytes are not decoded. The info column names what stands before the colon.
local REASONS = {
  start = "the capture starts in the middle of this stream: where its records begin is not known until the members " ..
    "connect anew. It may be assumed, see Varnix's preferences (tshark -o varnix.assume:TRUE)",
  late = "this stream began before the capture told its port: \"Decode As\" Varnix for TCP port %d shows all of it",
  gap = "bytes before these are missing or out of order: where the next record begins is not known. What may help: " ..
    "TCP's preference to reassemble out-of-order segments, and Varnix's to assume",
  old = "bytes of this part of the stream have come before",
  part = "the capture holds this packet in part only",
  snapped = "the capture holds packets in part only: where the next record begins is not known",
  reassembly = "a record goes on in the next segment, and TCP's reassembly is off: without it the next is not found",
  side = "it is not known which side sends: the capture has no handshake that tells it, and the ports do not either",
  pass = "tshark -2 without a filter: it makes no tree at first, which shows streams to nobody; add -Y varnix",
}

-- What the first pass over a capture learns. Later passes come in any order, and only look it up.
local listeners  -- By endpoint: a member accepts connections there.
local streams    -- By Wireshark's number of the TCP stream.
local verdicts   -- By packet and piece, see PieceOf(): how many records came before it, or the reason not to decode it.
local cuts       -- By packet: it ends a stream in the middle of a record.
local blind      -- There was no tree on the first pass, and so nothing was learnt; see Segment().

function varnix.init()
  listeners, streams, verdicts, cuts, blind = {}, {}, {}, {}, false
end

-- Text ----------------------------------------------------------------------------------------------------------------

local function Hex(byte)
  return string.format("\\x%02x", byte:byte())
end

-- Of the UTF-8 character at this place; 0 if there is none, or a control character.
local function CharacterSize(bytes, at)
  local first, second = bytes:byte(at, at + 1)
  local size = first < 0xC2 and 0 or first < 0xE0 and 2 or first < 0xF0 and 3 or first < 0xF5 and 4 or 0
  local low = (first == 0xC2 or first == 0xE0) and 0xA0 or first == 0xF0 and 0x90 or 0x80
  local high = first == 0xED and 0x9F or first == 0xF4 and 0x8F or 0xBF
  if size == 0 or not second or second < low or second > high then return 0 end
  return bytes:find("^" .. ("[\x80-\xBF]"):rep(size - 2), at + 2) and size or 0
end

local function TextOfHighBytes(bytes)
  local pieces, at = {}, 1
  while at <= #bytes do
    local size = CharacterSize(bytes, at)
    pieces[#pieces + 1] = size > 0 and bytes:sub(at, at + size - 1) or Hex(bytes:sub(at, at))
    at = at + math.max(size, 1)
  end
  return table.concat(pieces)
end

-- Text stays what it is, a backslash is doubled, and any other byte becomes \xNN. So no two byte strings look the same.
local function Text(bytes)
  if not bytes:find("[\0-\31\\\127-\255]") then return bytes end
  return (bytes:gsub("\\", "\\\\"):gsub("[\0-\31\127]", Hex):gsub("[\128-\255]+", TextOfHighBytes))
end

local function Shortened(bytes)
  if bytes == "" then return '""' end
  if #bytes <= MOST_BYTES_NAMED then return Text(bytes) end
  return Text((bytes:sub(1, MOST_BYTES_NAMED):gsub("[\xC2-\xF4][\x80-\xBF]*$", ""))) .. "..."
end

local function Plural(count, word)
  return string.format(count == 1 and "%d %s" or "%d %ss", count, word)
end

-- The first word of a length and a name, and what follows; nil if the length claims more bytes than there are.
local function Split(bytes)
  local size = bytes:byte()
  if not size or size > #bytes - 1 then return nil end
  return bytes:sub(2, 1 + size), bytes:sub(2 + size)
end

-- The tree ------------------------------------------------------------------------------------------------------------

local function Bytes(tvb, at, size)
  return size > 0 and tvb:raw(at, size) or ""
end

local function AddText(tree, field, tvb, at, size)
  return tree:add(field, tvb(at, size), Text(Bytes(tvb, at, size)))
end

local function AddDirection(tree, is_sender)
  tree:add(fields.direction, is_sender and "sender to receiver" or "receiver to sender"):set_generated()
end

local function Say(pinfo, words)
  pinfo.cols.protocol = "Varnix"
  if pinfo.private["varnix.said"] then
    pinfo.cols.info:append("; " .. words)
  else
    pinfo.cols.info = words
    pinfo.private["varnix.said"] = "yes"
  end
end

-- The bytes from `at` on, as they are. `is_sender` is nil where that is not known.
local function ShowUndecoded(tvb, at, pinfo, root, is_sender, reason)
  local size = tvb:captured_len() - at
  local tree = root:add(varnix, tvb(at, size), "Varnix, not decoded: " .. Plural(size, "byte"))
  if is_sender ~= nil then AddDirection(tree, is_sender) end
  if size > 0 then tree:add(fields.data, tvb(at, size)) end
  tree:add_proto_expert_info(experts.unknown, reason)
  Say(pinfo, "Not decoded: " .. reason:match("^[^:]*"))
end

-- Announcements -------------------------------------------------------------------------------------------------------

local ip_source, ip_destination = Field.new("ip.src"), Field.new("ip.dst")

-- The innermost one, where packets travel in packets.
local function Last(field)
  local found = { field() }
  return found[#found]
end

local function Value(field)
  local info = Last(field)
  return info and info.value
end

-- A member is at this port of the device that sent this packet.
local function Learn(port)
  local address = Last(ip_source)
  if address and port > 0 then listeners[address.range:uint() * 65536 + port] = true end
end

local function ShowAnnouncement(tvb, pinfo, tree)
  local port, group = tvb(0, 2):uint(), Bytes(tvb, 2, tvb:reported_len() - 2)
  local port_item = tree:add(fields.port, tvb(0, 2))
  local group_item = AddText(tree, fields.group, tvb, 2, #group)
  if port == 0 then port_item:add_proto_expert_info(experts.port_0) end
  if group == "" then group_item:add_proto_expert_info(experts.no_name) end
  if tvb:reported_len() <= 256 and not pinfo.in_error_pkt then Learn(port) end
  Say(pinfo, string.format("Announcement: group %s, TCP port %d", Shortened(group), port))
end

local function DissectAnnouncement(tvb, pinfo, root)
  local size, captured = tvb:reported_len(), tvb:captured_len()
  local tree = root:add(varnix, tvb(), "Varnix, announcement")
  if size < 2 or size > 256 then
    tree:add_proto_expert_info(experts.announcement)
    Say(pinfo, "Malformed announcement of " .. Plural(size, "byte"))
  end
  if captured < size or size == 1 then
    tree:add(fields.data, tvb())
    if captured < size then tree:add_proto_expert_info(experts.unknown, REASONS.part) end
    Say(pinfo, "Announcement")
  elseif size > 1 then
    ShowAnnouncement(tvb, pinfo, tree)
  end
end

-- Records -------------------------------------------------------------------------------------------------------------
--
-- A reader goes through a piece of one direction of a stream: tvb, pinfo, root, stream, is_sender, index (how many
-- records of this direction came before), shown (how many of this packet), said (what they say).

-- The header at `at`: where the fields are, and where the record ends.
local function ReadHeader(tvb, at)
  local a, b = tvb(at, 4):bitfield(0, 12), tvb(at, 4):bitfield(12, 20)
  return { at = at, a = a, b = b, a_at = at + 4, b_at = at + 4 + a, stop = at + 4 + a + b }
end

local function ShowHello(tvb, tree, record, stream)
  local identity = Bytes(tvb, record.b_at, record.b)
  local database = Bytes(tvb, record.a_at, record.a)
  local database_item = AddText(tree, fields.database, tvb, record.a_at, record.a)
  if database == "" then database_item:add_proto_expert_info(experts.no_name) end
  local device, process = Split(identity)
  if device then
    tree:add(fields.length_name, tvb(record.b_at, 1))
    AddText(tree, fields.device, tvb, record.b_at + 1, #device)
    AddText(tree, fields.process, tvb, record.b_at + 1 + #device, #process)
    stream.device, stream.process = Text(device), Text(process:sub(1, MOST_BYTES_REPEATED))
    stream.member = Shortened(device) .. "::" .. Shortened(process)
  else
    AddText(tree, fields.identity, tvb, record.b_at, record.b):add_proto_expert_info(experts.identity)
    stream.member = Shortened(identity)
  end
  return stream.member .. " shares database " .. Shortened(database)
end

local function ShowAnswer(tvb, tree, record)
  local group = Bytes(tvb, record.a_at, record.a)
  AddText(tree, fields.group, tvb, record.a_at, record.a)
  if record.b ~= 2 then
    local item = record.b > 0 and tree:add(fields.data, tvb(record.b_at, record.b)) or tree
    item:add_proto_expert_info(experts.answer)
    return "Answer: group " .. Shortened(group) .. ", malformed port"
  end
  local port = tvb(record.b_at, 2):uint()
  local item = tree:add(fields.port, tvb(record.b_at, 2))
  if port == 0 and group ~= "" then item:add_proto_expert_info(experts.port_0) end
  Learn(port)
  return string.format("Answer: group %s, own TCP port %d", Shortened(group), port)
end

local function ShowRow(tvb, tree, record, stream)
  local table, key = Split(Bytes(tvb, record.a_at, record.a))
  if table then
    tree:add(fields.length_name, tvb(record.a_at, 1))
    AddText(tree, fields.table, tvb, record.a_at + 1, #table)
    AddText(tree, fields.key, tvb, record.a_at + 1 + #table, #key)
  else
    if record.a > 0 then tree:add(fields.data, tvb(record.a_at, record.a)) end
    table, key = "", ""  -- As the receivers take it.
    tree:add(fields.table, tvb(record.a_at, record.a), table):set_generated()
    tree:add(fields.key, tvb(record.a_at, record.a), key):set_generated()
      :add_proto_expert_info(record.a > 0 and experts.key or experts.no_key)
  end
  AddText(tree, fields.value, tvb, record.b_at, record.b)
  if stream.device then
    tree:add(fields.device, stream.device):set_generated()
    tree:add(fields.process, stream.process):set_generated()
  end
  return string.format("%s  %s = %s", Shortened(table), Shortened(key), Shortened(Bytes(tvb, record.b_at, record.b)))
end

local function ShowPartOfRecord(tvb, tree, record)
  local size = tvb:captured_len() - record.a_at
  if size > 0 then tree:add(fields.data, tvb(record.a_at, size)) end
  tree:add_proto_expert_info(experts.unknown, REASONS.part)
  return "a record that is captured in part"
end

local function IsAssumed(reader)
  return reader.stream.assumed ~= nil and reader.pinfo.number >= reader.stream.assumed
end

-- Whether a record comes before it is asked for: record 2 before record 1, or a row before record 2. Of the rows, the
-- first one is told. Only the handshake shows that the capture has both directions from their start.
local function IsEarly(reader)
  local stream = reader.stream
  if not (stream.first and stream.first[stream.sender] and stream.first[stream.receiver]) then return false end
  if reader.index ~= (reader.is_sender and 1 or 0) or IsAssumed(reader) then return false end
  local asked = stream.answer
  if not reader.is_sender then asked = stream.hello end
  return not asked or asked >= reader.pinfo.number
end

-- Shows a record, if more than its header is here in part only; what it says.
local function ShowRecord(reader, record)
  local tvb, pinfo, stream, is_sender, index = reader.tvb, reader.pinfo, reader.stream, reader.is_sender, reader.index
  local captured = math.min(record.stop, tvb:captured_len()) - record.at
  local tree = reader.root:add(varnix, tvb(record.at, captured))
  AddDirection(tree, is_sender)
  if IsAssumed(reader) then
    tree:add_proto_expert_info(experts.assumed,
      string.format("Where the records of this stream begin is assumed, in packet %d", stream.assumed))
  else
    local number = is_sender and (index == 0 and 1 or index + 2) or 2
    tree:add(fields.record, number):set_generated()
  end
  tree:add(fields.length_a, tvb(record.at, 4))
  tree:add(fields.length_b, tvb(record.at, 4))
  if IsEarly(reader) then tree:add_proto_expert_info(experts.early) end
  local words
  if record.at + captured < record.stop then
    words = ShowPartOfRecord(tvb, tree, record)
  elseif not is_sender then
    words = ShowAnswer(tvb, tree, record)
  elseif index == 0 then
    words = ShowHello(tvb, tree, record, stream)
  else
    words = ShowRow(tvb, tree, record, stream)
  end
  tree:set_text("Varnix, " .. words)
  return words
end

local function ShowExtra(reader, at)
  local tvb = reader.tvb
  local tree = reader.root:add(varnix, tvb(at), "Varnix, bytes after record 2")
  AddDirection(tree, false)
  tree:add(fields.data, tvb(at))
  tree:add_proto_expert_info(experts.extra)
  reader.said[#reader.said + 1] = "bytes after record 2"
end

local function ShowNumberOfOthers(reader, count)
  local words = "Varnix, " .. Plural(count, "more record")
  reader.root:add(varnix, reader.tvb(), words):add_proto_expert_info(experts.many)
end

-- Goes through the records. Returns where it stopped, and, if a record begins there of which a part is missing, where
-- that ends, or 0 if the packet does not tell.
local function ReadRecords(reader)
  local tvb, stream, at, hidden = reader.tvb, reader.stream, 0, 0
  local stop
  while at < tvb:reported_len() do
    if not reader.is_sender and reader.index > 0 then
      ShowExtra(reader, at)
      at = tvb:reported_len()
      break
    end
    local record = tvb:captured_len() - at >= 4 and ReadHeader(tvb, at)
    if not record or record.stop > tvb:reported_len() then
      stop = record and record.stop or 0
      break
    end
    if reader.shown < MOST_RECORDS_SHOWN then
      reader.said[#reader.said + 1] = ShowRecord(reader, record)
    else
      hidden = hidden + 1
    end
    if reader.index == 0 then
      local place = reader.is_sender and "hello" or "answer"
      stream[place] = stream[place] or reader.pinfo.number
    end
    reader.index, reader.shown, at = reader.index + 1, reader.shown + 1, record.stop
  end
  if hidden > 0 then ShowNumberOfOthers(reader, hidden) end
  return at, stop
end

local function Summary(reader, before)
  local said, words = reader.said, ""
  local is_first_of_packet = not reader.pinfo.private["varnix.said"]
  if reader.is_sender and before > 0 and reader.stream.member and is_first_of_packet then
    words = reader.stream.member .. "  "
  end
  words = words .. table.concat(said, "; ", 1, math.min(#said, MOST_ROWS_NAMED))
  local more = reader.index - before - MOST_ROWS_NAMED
  return more > 0 and words .. "; " .. Plural(more, "more row") or words
end

-- Streams -------------------------------------------------------------------------------------------------------------

local tcp_stream, tcp_sequence, tcp_length = Field.new("tcp.stream"), Field.new("tcp.seq_raw"), Field.new("tcp.len")
local tcp_syn, tcp_ack = Field.new("tcp.flags.syn"), Field.new("tcp.flags.ack")
local tcp_fin, tcp_reset = Field.new("tcp.flags.fin"), Field.new("tcp.flags.reset")
local udp_length, frame_number = Field.new("udp.length"), Field.new("frame.number")

-- Which bytes of which stream this packet holds. Nil if that is not IPv4, or too short a piece of a packet; and on a
-- first pass without a tree, as `tshark -2` without a filter makes it: nothing else tells a script sequence numbers.
local function Segment(pinfo)
  local stream, sequence, length = Value(tcp_stream), Value(tcp_sequence), Value(tcp_length)
  local source, destination = Last(ip_source), Last(ip_destination)
  if not Last(frame_number) then blind = true end
  if not (stream and sequence and length and source and destination) then return nil end
  return {
    stream = stream,
    sequence = sequence,
    length = length,
    source = source.range:uint() * 65536 + pinfo.src_port,
    destination = destination.range:uint() * 65536 + pinfo.dst_port,
  }
end

-- Sequence numbers begin anew after 2^32.
local function Distance(from, to)
  local distance = (to - from) % 2^32
  return distance < 2^31 and distance or distance - 2^32
end

-- Found or made. Known of a stream are `first`, by endpoint: the number of its first byte, if its SYN was seen;
-- `sender` and `receiver`: endpoints; `halves`, by endpoint: see Judge(); and what record 1 says.
local function StreamOf(segment)
  local stream = streams[segment.stream]
  if not stream then
    stream = { halves = {} }
    streams[segment.stream] = stream
  end
  return stream
end

local function HalfOf(stream, endpoint)
  local half = stream.halves[endpoint]
  if not half then
    half = { records = 0 }
    stream.halves[endpoint] = half
  end
  return half
end

-- Who has accepted the connection sends. Where the capture lacks the handshake, a port at which a member listens tells
-- who that is, or the port of "Decode As".
local function FindSides(stream, segment, pinfo)
  if stream.sender or stream.crossed then return end
  local source_listens, destination_listens = listeners[segment.source], listeners[segment.destination]
  if not source_listens and not destination_listens then
    source_listens, destination_listens = pinfo.match_uint == pinfo.src_port, pinfo.match_uint == pinfo.dst_port
  end
  if source_listens == destination_listens then return end
  stream.sender = source_listens and segment.source or segment.destination
  stream.receiver = source_listens and segment.destination or segment.source
end

-- The number of the first byte of `tvb`. That is the end of a segment, or what TCP has put together of several, which
-- begins with the record that it was asked for.
local function FirstByte(tvb, segment, half)
  local size = tvb:reported_len()
  local is_record = half.awaited and size == Distance(half.next, half.awaited)
    and Distance(segment.sequence, half.awaited) > 0
  if half.next and (is_record or size > segment.length) then return half.next end
  return (segment.sequence + segment.length - size) % 2^32
end

-- Whether these bytes can be rows from the first to the last.
local function AreWholeRows(tvb)
  local at, size = 0, tvb:reported_len()
  if tvb:captured_len() < size then return false end
  while size - at >= 4 do
    local record = ReadHeader(tvb, at)
    if record.a == 0 or record.stop > size or tvb(record.a_at, 1):uint() >= record.a then return false end
    at = record.stop
  end
  return at == size
end

-- On the first pass: how many records came before these bytes, or the reason not to decode them. Known of a half are
-- `next`, where the next record begins, `is_within`, whether a part of it has come, and `awaited`, where it then ends.
local function Judge(tvb, pinfo, segment, stream)
  if not stream.sender then return "side" end
  local half = HalfOf(stream, segment.source)
  if half.trouble then return half.trouble end
  local from, reason = FirstByte(tvb, segment, half), nil
  if not half.next then
    local first = stream.first and stream.first[segment.source]
    if not first then
      reason = "start"
    elseif first ~= from then
      reason = stream.is_late and "late" or "gap"
    end
  elseif from == half.awaited then
    half.records = half.records + 1  -- Bytes of it are missing, but its end is known.
  elseif from ~= half.next then
    reason = Distance(half.next, from) > 0 and "gap" or "old"
  end
  if reason and reason ~= "old" and varnix.prefs.assume and segment.source == stream.sender and AreWholeRows(tvb) then
    half.records = math.max(half.records, 1)
    stream.assumed = stream.assumed or pinfo.number
    reason = nil
  end
  if reason then
    half.is_within = half.is_within and reason ~= "gap"
    return reason
  end
  half.next = from
  return half.records
end

-- What is known of a piece goes by the packet and by how many records end in the packet before the piece. On every pass
-- that is the same; the number of the piece is not.
local function PieceOf(pinfo)
  local shown = tonumber(pinfo.private["varnix.shown"] or 0)
  return pinfo.number * 2^20 + shown, shown
end

-- The rest of a piece is a part of a record: asks TCP for what is missing. The reason why that cannot be. Where a part
-- of the header is missing, it asks for a whole segment. If it asked for the four bytes, and the record ended in the
-- segment of the fourth, TCP would hand over the record on the first pass only.
local function AskForMore(reader, at, stop)
  local tvb, pinfo = reader.tvb, reader.pinfo
  if tvb:captured_len() < tvb:reported_len() then return "snapped" end
  if pinfo.can_desegment == 0 then return "reassembly" end
  pinfo.desegment_offset = at
  pinfo.desegment_len = stop > 0 and stop - tvb:reported_len() or DESEGMENT_ONE_MORE_SEGMENT
  return nil
end

local function ShowPiece(tvb, pinfo, root, stream, segment, before, shown)
  local reader = {
    tvb = tvb, pinfo = pinfo, root = root, stream = stream, is_sender = segment.source == stream.sender,
    index = before, shown = shown, said = {},
  }
  local at, stop = ReadRecords(reader)
  pinfo.private["varnix.shown"] = tostring(reader.shown)
  if #reader.said > 0 then Say(pinfo, Summary(reader, before)) end
  local trouble = stop and AskForMore(reader, at, stop)
  if trouble then ShowUndecoded(tvb, at, pinfo, root, reader.is_sender, REASONS[trouble]) end
  if not pinfo.visited then
    local half = HalfOf(stream, segment.source)
    half.trouble, half.records, half.is_within = trouble, reader.index, stop and not trouble
    half.awaited = stop and stop > 0 and (half.next + stop) % 2^32 or nil
    half.next = (half.next + at) % 2^32
  end
end

-- Whether the bytes are ours.
local function DissectStream(tvb, pinfo, root)
  local segment = not pinfo.in_error_pkt and Segment(pinfo)
  if not segment then return false end
  local stream = StreamOf(segment)
  local piece, shown = PieceOf(pinfo)
  if not pinfo.visited then
    FindSides(stream, segment, pinfo)
    verdicts[piece] = Judge(tvb, pinfo, segment, stream)
  end
  local verdict = verdicts[piece] or blind and "pass"
  if not verdict then return false end
  if type(verdict) == "number" then
    ShowPiece(tvb, pinfo, root, stream, segment, verdict, shown)
  else
    local is_sender = nil
    if stream.sender then is_sender = segment.source == stream.sender end
    ShowUndecoded(tvb, 0, pinfo, root, is_sender, REASONS[verdict]:format(stream.sender and stream.sender % 65536 or 0))
  end
  return true
end

function varnix.dissector(tvb, pinfo, root)
  if pinfo.port_type ~= TCP then
    if pinfo.dst_port ~= DISCOVERY_PORT then return 0 end
    DissectAnnouncement(tvb, pinfo, root)
    return tvb:reported_len()
  end
  return DissectStream(tvb, pinfo, root) and tvb:reported_len() or 0
end

DissectorTable.get("udp.port"):add(DISCOVERY_PORT, varnix)
DissectorTable.get("tcp.port"):add_for_decode_as(varnix)

-- Connections ---------------------------------------------------------------------------------------------------------
--
-- A dissector is given what carries bytes. This one sees every packet after the others: handshakes, ends, empty
-- datagrams. It claims a member's connections when they begin, as their ports may be in the lists of other protocols.

local connections = Proto("varnix_connections", "Varnix connections")

local function NoteHandshake(stream, segment, is_answer)
  local sender, receiver = segment.destination, segment.source
  if is_answer then sender, receiver = receiver, sender end
  -- Both have connected, or one to itself: TCP allows it, and no side has accepted.
  stream.crossed = stream.crossed or sender == receiver or stream.sender ~= nil and stream.sender ~= sender
  if stream.crossed then sender, receiver = nil, nil end
  stream.sender, stream.receiver = sender, receiver
  stream.first = stream.first or {}
  stream.first[segment.source] = (segment.sequence + 1) % 2^32
end

local function IsOfMember(segment)
  return listeners[segment.source] or listeners[segment.destination]
end

local function NoteSegment(segment, pinfo)
  if Value(tcp_syn) then NoteHandshake(StreamOf(segment), segment, Value(tcp_ack)) end
  if IsOfMember(segment) and not StreamOf(segment).claimed then
    StreamOf(segment).claimed, StreamOf(segment).is_late = true, not Value(tcp_syn)
    pinfo.conversation = varnix
  end
end

local function NoteEnd(segment, pinfo)
  local stream = streams[segment.stream]
  for endpoint, half in pairs(stream and stream.halves or {}) do
    local ends = Value(tcp_reset) or Value(tcp_fin) and endpoint == segment.source
    if half.is_within and ends then cuts[pinfo.number] = true end
  end
end

function connections.dissector(tvb, pinfo, root)
  if pinfo.port_type == UDP and pinfo.dst_port == DISCOVERY_PORT and Value(udp_length) == 8 then
    DissectAnnouncement(tvb(0, 0):tvb(), pinfo, root)
  end
  local segment = pinfo.port_type == TCP and Segment(pinfo)
  if not segment then return end
  if not pinfo.visited then
    NoteSegment(segment, pinfo)
    NoteEnd(segment, pinfo)
  elseif blind and segment.length > 0 and IsOfMember(segment) then
    root:add(varnix, tvb(0, 0), "Varnix, not decoded"):add_proto_expert_info(experts.unknown, REASONS.pass)
    pinfo.cols.info:append(" [Varnix: not decoded, " .. REASONS.pass:match("^[^:]*") .. "]")
  end
  if cuts[pinfo.number] then
    root:add(varnix, tvb(0, 0), "Varnix, end of the stream"):add_proto_expert_info(experts.cut)
    pinfo.cols.info:append(" [Varnix: the stream ends in the middle of a record]")
  end
end

register_postdissector(connections)
