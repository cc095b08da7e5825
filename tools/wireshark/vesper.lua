-- Wireshark dissector for what passes between a parent application and vesper-player.
--
--   wireshark -X lua_script:vesper.lua FILE         or copy it to Wireshark's personal plugin folder
--
-- Datagrams to or from a port of the preference "Player ports" are dissected in any case. Others
-- are recognised by their shape when both ends are on the loopback network, because a parent gives
-- each player a port of its own; Analyze > Enabled Protocols > vesper_udp switches that off.
--
-- The layouts are those of net/stream_datagrams.h. Everything is little-endian.

local vesper = Proto("vesper", "Vesper stream")

local PACKET_HEADER_SIZE = 28
local VIDEO_PAYLOAD_OFFSET = 40
local MAX_FRAGMENT_PAYLOAD = 1400
local MAX_FRAGMENTS_PER_FRAME = 1000
local SCREEN_AUDIO_FLAG = 0x04

local KEYFRAME_REQUEST = "KFRQ"
local AUDIO_STATE = "AUDS"
local AUDIO_STATE_SIZE = 9

local FRAME_TYPES = { [0] = "keyframe", [1] = "interframe" }

-- RFC 6716, section 3.1: the meaning of the upper five bits of an Opus packet's first byte.
local OPUS_DURATIONS = {}
for config = 0, 31 do
    local mode, bands, milliseconds
    if config < 12 then
        mode, bands, milliseconds = "SILK", { "NB", "MB", "WB" }, { 10, 20, 40, 60 }
    elseif config < 16 then
        mode, bands, milliseconds = "Hybrid", { "SWB", "FB" }, { 10, 20 }
    else
        mode, bands, milliseconds = "CELT", { "NB", "WB", "SWB", "FB" }, { 2.5, 5, 10, 20 }
    end
    local first = config < 12 and 0 or config < 16 and 12 or 16
    local band = bands[math.floor((config - first) / #milliseconds) + 1]
    OPUS_DURATIONS[config] = string.format("%s %s, %g ms", mode, band,
                                           milliseconds[(config - first) % #milliseconds + 1])
end

local OPUS_FRAMES = {
    [0] = "one frame",
    [1] = "two frames of one size",
    [2] = "two frames of two sizes",
    [3] = "a number of frames",
}

local fields = {
    -- PacketHeader
    sender_bytes = ProtoField.bytes("vesper.sender_bytes", "Sender's own bytes"),
    sequence = ProtoField.uint32("vesper.sequence", "Sequence (sound only)"),
    payload_size = ProtoField.uint16("vesper.payload_size", "Payload size (sound only)"),
    flags = ProtoField.uint8("vesper.flags", "Flags", base.HEX),
    screen_audio = ProtoField.bool("vesper.flags.screen_audio", "Screen audio", 8, nil,
                                   SCREEN_AUDIO_FLAG),
    reserved = ProtoField.uint8("vesper.reserved", "Reserved", base.HEX),
    -- VideoFragmentHeader
    frame_id = ProtoField.uint32("vesper.fragment.frame_id", "Frame id"),
    fragment_index = ProtoField.uint16("vesper.fragment.index", "Fragment index"),
    fragment_count = ProtoField.uint16("vesper.fragment.count", "Fragment count"),
    fragment_size = ProtoField.uint16("vesper.fragment.payload_size", "Payload size"),
    fragment_reserved = ProtoField.uint16("vesper.fragment.reserved", "Reserved", base.HEX),
    fragment_payload = ProtoField.bytes("vesper.fragment.payload", "Payload"),
    -- the VP8 frame tag (RFC 6386, section 9.1), at the start of a frame's first fragment
    vp8_tag = ProtoField.uint24("vesper.vp8.tag", "VP8 frame tag", base.HEX),
    vp8_frame_type = ProtoField.uint24("vesper.vp8.frame_type", "Frame type", base.DEC,
                                       FRAME_TYPES, 0x000001),
    vp8_version = ProtoField.uint24("vesper.vp8.version", "Version", base.DEC, nil, 0x00000E),
    vp8_show = ProtoField.bool("vesper.vp8.show_frame", "Shown", 24, nil, 0x000010),
    vp8_first_size = ProtoField.uint24("vesper.vp8.first_partition_size", "First partition size",
                                       base.DEC, nil, 0xFFFFE0),
    vp8_start_code = ProtoField.bytes("vesper.vp8.start_code", "Start code"),
    vp8_width = ProtoField.uint16("vesper.vp8.width", "Width", base.DEC, nil, 0x3FFF),
    vp8_width_scale = ProtoField.uint16("vesper.vp8.width_scale", "Horizontal scale", base.DEC,
                                        nil, 0xC000),
    vp8_height = ProtoField.uint16("vesper.vp8.height", "Height", base.DEC, nil, 0x3FFF),
    vp8_height_scale = ProtoField.uint16("vesper.vp8.height_scale", "Vertical scale", base.DEC,
                                         nil, 0xC000),
    -- screen audio
    opus_packet = ProtoField.bytes("vesper.opus", "Opus packet"),
    opus_config = ProtoField.uint8("vesper.opus.config", "Configuration", base.DEC,
                                   OPUS_DURATIONS, 0xF8),
    opus_stereo = ProtoField.bool("vesper.opus.stereo", "Stereo", 8, nil, 0x04),
    opus_frames = ProtoField.uint8("vesper.opus.frames", "Frames", base.DEC, OPUS_FRAMES, 0x03),
    -- either
    trailer = ProtoField.bytes("vesper.trailer", "Ignored bytes"),
    -- the player's messages
    message = ProtoField.string("vesper.message", "Message"),
    muted = ProtoField.bool("vesper.muted", "Muted"),
    volume = ProtoField.float("vesper.volume", "Volume"),
}
vesper.fields = fields

local dropped = ProtoExpert.new("vesper.dropped", "The player drops this datagram",
                                expert.group.MALFORMED, expert.severity.WARN)
vesper.experts = { dropped }

vesper.prefs.ports = Pref.range("Player ports", "",
                                "UDP ports of players (their --port), for example 47000-47010",
                                65535)

local function drop(tree, why)
    tree:add_proto_expert_info(dropped, "The player drops this datagram: " .. why)
end

local function add_packet_header(buffer, tree)
    local header = tree:add(buffer(0, PACKET_HEADER_SIZE), "Packet header")
    header:add(fields.sender_bytes, buffer(0, 20))
    header:add_le(fields.sequence, buffer(20, 4))
    header:add_le(fields.payload_size, buffer(24, 2))
    header:add(fields.flags, buffer(26, 1)):add(fields.screen_audio, buffer(26, 1))
    header:add(fields.reserved, buffer(27, 1))
end

-- Bytes after the declared payload, which the player ignores.
local function add_trailer(buffer, tree, offset)
    if offset < buffer:len() then
        tree:add(fields.trailer, buffer(offset))
    end
end

-- Shows whether the frame is a keyframe, which only a frame's first fragment reveals.
local function add_vp8_tag(payload, tree)
    if payload:len() < 3 then
        return ""
    end
    local bits = payload(0, 3)
    local tag = tree:add_le(fields.vp8_tag, bits)
    tag:add_le(fields.vp8_frame_type, bits)
    tag:add_le(fields.vp8_version, bits)
    tag:add_le(fields.vp8_show, bits)
    tag:add_le(fields.vp8_first_size, bits)
    local is_keyframe = bits:le_uint() % 2 == 0
    if is_keyframe and payload:len() >= 10 then
        tree:add(fields.vp8_start_code, payload(3, 3))
        tree:add_le(fields.vp8_width, payload(6, 2))
        tree:add_le(fields.vp8_width_scale, payload(6, 2))
        tree:add_le(fields.vp8_height, payload(8, 2))
        tree:add_le(fields.vp8_height_scale, payload(8, 2))
    end
    return is_keyframe and ", keyframe" or ", interframe"
end

local function dissect_video(buffer, tree)
    if buffer:len() < VIDEO_PAYLOAD_OFFSET then
        drop(tree, "shorter than the headers of a video fragment")
        add_trailer(buffer, tree, PACKET_HEADER_SIZE)
        return "Video fragment, too short"
    end
    local header = tree:add(buffer(28, 12), "Video fragment header")
    header:add_le(fields.frame_id, buffer(28, 4))
    header:add_le(fields.fragment_index, buffer(32, 2))
    header:add_le(fields.fragment_count, buffer(34, 2))
    header:add_le(fields.fragment_size, buffer(36, 2))
    header:add_le(fields.fragment_reserved, buffer(38, 2))

    local index, count = buffer(32, 2):le_uint(), buffer(34, 2):le_uint()
    local size = buffer(36, 2):le_uint()
    local present = math.min(size, buffer:len() - VIDEO_PAYLOAD_OFFSET)
    local info = string.format("Video frame %u, fragment %u of %u, %u bytes",
                               buffer(28, 4):le_uint(), index, count, size)
    if count < 1 or count > MAX_FRAGMENTS_PER_FRAME then
        drop(header, "the fragment count is not 1 to " .. MAX_FRAGMENTS_PER_FRAME)
    elseif index >= count then
        drop(header, "the fragment index is not below the fragment count")
    end
    if size < 1 or size > MAX_FRAGMENT_PAYLOAD then
        drop(header, "the payload size is not 1 to " .. MAX_FRAGMENT_PAYLOAD)
    elseif present < size then
        drop(header, "the payload is truncated")
    end
    if present > 0 then
        local payload = buffer(VIDEO_PAYLOAD_OFFSET, present)
        local item = tree:add(fields.fragment_payload, payload)
        if index == 0 then
            info = info .. add_vp8_tag(payload, item)
        end
    end
    add_trailer(buffer, tree, VIDEO_PAYLOAD_OFFSET + present)
    return info
end

local function dissect_sound(buffer, tree)
    local size = buffer(24, 2):le_uint()
    local present = math.min(size, buffer:len() - PACKET_HEADER_SIZE)
    if size == 0 then
        drop(tree, "the payload size is 0")
    elseif present < size then
        drop(tree, "the payload is truncated")
    end
    if present > 0 then
        local packet = tree:add(fields.opus_packet, buffer(PACKET_HEADER_SIZE, present))
        local first = buffer(PACKET_HEADER_SIZE, 1)
        packet:add(fields.opus_config, first)
        packet:add(fields.opus_stereo, first)
        packet:add(fields.opus_frames, first)
    end
    add_trailer(buffer, tree, PACKET_HEADER_SIZE + present)
    return string.format("Screen audio %u, %u bytes", buffer(20, 4):le_uint(), size)
end

local function is_keyframe_request(buffer)
    return buffer:len() == #KEYFRAME_REQUEST and buffer():raw() == KEYFRAME_REQUEST
end

local function is_audio_state(buffer)
    return buffer:len() == AUDIO_STATE_SIZE and buffer(0, 4):raw() == AUDIO_STATE
end

local function dissect_audio_state(buffer, tree)
    tree:add(fields.message, buffer(0, 4))
    tree:add(fields.muted, buffer(4, 1))
    tree:add_le(fields.volume, buffer(5, 4))
    return string.format("Audio state: %svolume %.2f",
                         buffer(4, 1):uint() ~= 0 and "muted, " or "", buffer(5, 4):le_float())
end

-- The text for the Info column.
local function dissect_datagram(buffer, tree)
    if is_keyframe_request(buffer) then
        tree:add(fields.message, buffer())
        return "Keyframe request"
    end
    if is_audio_state(buffer) then
        return dissect_audio_state(buffer, tree)
    end
    if buffer:len() < PACKET_HEADER_SIZE then
        drop(tree, "shorter than a packet header")
        add_trailer(buffer, tree, 0)
        return "Too short"
    end
    add_packet_header(buffer, tree)
    if math.floor(buffer(26, 1):uint() / SCREEN_AUDIO_FLAG) % 2 == 1 then
        return dissect_sound(buffer, tree)
    end
    return dissect_video(buffer, tree)
end

function vesper.dissector(buffer, packet, root)
    local tree = root:add(vesper, buffer())
    local info = dissect_datagram(buffer, tree)
    packet.cols.protocol = "Vesper"
    packet.cols.info = info
    tree:append_text(", " .. info)
    return buffer:len()
end

-- Nothing in a stream datagram identifies it, so the heuristic requires every length to match.
local function looks_like_stream(buffer)
    if buffer:len() <= PACKET_HEADER_SIZE then
        return false
    end
    if math.floor(buffer(26, 1):uint() / SCREEN_AUDIO_FLAG) % 2 == 1 then
        return buffer(24, 2):le_uint() == buffer:len() - PACKET_HEADER_SIZE
    end
    if buffer:len() <= VIDEO_PAYLOAD_OFFSET then
        return false
    end
    local index, count = buffer(32, 2):le_uint(), buffer(34, 2):le_uint()
    return buffer(36, 2):le_uint() == buffer:len() - VIDEO_PAYLOAD_OFFSET
        and buffer:len() <= VIDEO_PAYLOAD_OFFSET + MAX_FRAGMENT_PAYLOAD
        and index < count and count <= MAX_FRAGMENTS_PER_FRAME
end

local function is_loopback(address)
    return tostring(address):match("^127%.") ~= nil
end

vesper:register_heuristic("udp", function(buffer, packet, root)
    if not is_loopback(packet.src) or not is_loopback(packet.dst) then
        return false
    end
    if not (is_keyframe_request(buffer) or is_audio_state(buffer) or looks_like_stream(buffer)) then
        return false
    end
    vesper.dissector(buffer, packet, root)
    return true
end)

local udp_ports = DissectorTable.get("udp.port")
local registered_ports = ""

function vesper.prefs_changed()
    if registered_ports ~= "" then
        udp_ports:remove(registered_ports, vesper)
    end
    registered_ports = vesper.prefs.ports
    if registered_ports ~= "" then
        udp_ports:add(registered_ports, vesper)
    end
end
