#!/usr/bin/env bash
# Generates small media fixtures for the download tests with the ffmpeg CLI.
#
# Usage: make_fixtures.sh OUTDIR
#
# Everything is synthetic (lavfi testsrc / sine / anoisesrc with fixed seeds),
# short, and encoded with fixed frame rates and fixed GOPs so that stream
# layouts and per-stream packet counts are identical from run to run.
# Only files inside OUTDIR are written. Nothing is printed on success.
set -euo pipefail

if [[ $# -ne 1 || -z "$1" ]]; then
    echo "usage: $0 OUTDIR" >&2
    exit 2
fi

mkdir -p "$1"
# Absolute, symlink-free path: the file: URL in file_segment/evil.m3u8 needs it.
OUT="$(cd "$1" && pwd -P)"

# Common flags: quiet, never read stdin, overwrite, no encoder/version strings
# in the output, and no metadata copied from the (lavfi) inputs.
FF=(ffmpeg -hide_banner -loglevel error -nostdin -y)
BITEXACT=(-fflags +bitexact -flags +bitexact -map_metadata -1)
# H.264 settings shared by all video fixtures: one keyframe every 25 frames
# exactly (no scene-cut keyframes), so 1 s HLS segments split on keyframes.
X264=(-c:v libx264 -preset ultrafast -pix_fmt yuv420p -g 25 -keyint_min 25
      -sc_threshold 0 -bf 0)

# ---------------------------------------------------------------------------
# 1. HLS master playlist with two variants (v0 = 1280x720, v1 = 640x360),
#    each H.264 + AAC (ADTS inside MPEG-TS), HLS_SECONDS long (default 10: longer
#    than the stream-info probe reads), 25 fps, HLS_SEGMENT_SECONDS segments
#    (default 1), VOD.
#    Explicit video bit rates give the two variants distinct BANDWIDTH values
#    in the master playlist (without them only the audio rate is counted).
# ---------------------------------------------------------------------------
mkdir -p "$OUT/hls"
hls_seconds=${HLS_SECONDS:-10}
hls_segment_seconds=${HLS_SEGMENT_SECONDS:-1}
"${FF[@]}" \
    -f lavfi -i "testsrc=size=1280x720:rate=25:duration=$hls_seconds" \
    -f lavfi -i "sine=frequency=440:sample_rate=48000:duration=$hls_seconds" \
    -filter_complex "[0:v]split=2[v0][vs];[vs]scale=640:360[v1];[1:a]asplit=2[a0][a1]" \
    -map "[v0]" -map "[a0]" -map "[v1]" -map "[a1]" \
    "${X264[@]}" -r 25 -b:v:0 1000k -b:v:1 300k \
    -c:a aac -b:a 64k -ac 1 \
    "${BITEXACT[@]}" \
    -f hls -hls_time "$hls_segment_seconds" -hls_playlist_type vod -hls_list_size 0 \
    -hls_segment_type mpegts \
    -hls_segment_filename "$OUT/hls/v%v_seg%03d.ts" \
    -var_stream_map "v:0,a:0 v:1,a:1" \
    -master_pl_name master.m3u8 \
    "$OUT/hls/v%v.m3u8"

# ---------------------------------------------------------------------------
# 2. MP4 with exactly two AAC audio streams (128 kbit/s and 64 kbit/s), no
#    video. Seeded noise keeps the encoder near its target rate, so the
#    bit_rate the mov demuxer reports is close to the requested one.
# ---------------------------------------------------------------------------
"${FF[@]}" \
    -f lavfi -i "anoisesrc=sample_rate=48000:amplitude=0.5:seed=1:duration=3" \
    -f lavfi -i "anoisesrc=sample_rate=48000:amplitude=0.5:seed=2:duration=3" \
    -map 0:a -map 1:a \
    -c:a aac -ac 2 -b:a:0 128k -b:a:1 64k \
    "${BITEXACT[@]}" -movflags +faststart \
    "$OUT/audio_pair.mp4"

# ---------------------------------------------------------------------------
# 3. MP3 with an embedded 64x64 PNG cover (attached_pic disposition).
# ---------------------------------------------------------------------------
"${FF[@]}" \
    -f lavfi -i "sine=frequency=440:sample_rate=44100:duration=2" \
    -f lavfi -i "testsrc=size=64x64:rate=1:duration=1" \
    -map 0:a -map 1:v \
    -c:a libmp3lame -b:a 64k -ac 1 \
    -c:v png -frames:v 1 -disposition:v attached_pic \
    -metadata:s:v title="Album cover" -metadata:s:v comment="Cover (front)" \
    "${BITEXACT[@]}" -id3v2_version 3 \
    "$OUT/cover_art.mp3"

# ---------------------------------------------------------------------------
# 4. Matroska with two video streams of equal width (320x240, 320x180),
#    no audio, 2 s.
# ---------------------------------------------------------------------------
"${FF[@]}" \
    -f lavfi -i "testsrc=size=320x240:rate=25:duration=2" \
    -f lavfi -i "testsrc=size=320x180:rate=25:duration=2" \
    -map 0:v -map 1:v \
    "${X264[@]}" \
    "${BITEXACT[@]}" \
    "$OUT/equal_width.mkv"

# ---------------------------------------------------------------------------
# 5. MP3 files for tag reading (1 s, mono, 32 kbit/s), ID3v2.3 only.
# ---------------------------------------------------------------------------
make_tagged_mp3() { # OUTFILE [ffmpeg -metadata args...]
    local out="$1"
    shift
    "${FF[@]}" \
        -f lavfi -i "sine=frequency=440:sample_rate=44100:duration=1" \
        -c:a libmp3lame -b:a 32k -ac 1 \
        "${BITEXACT[@]}" -id3v2_version 3 "$@" \
        "$out"
}
make_tagged_mp3 "$OUT/tags_title_artist.mp3" -metadata title=Song -metadata artist=Band
make_tagged_mp3 "$OUT/tags_title_only.mp3" -metadata title=Song
make_tagged_mp3 "$OUT/tags_artist_only.mp3" -metadata artist=Band

# The ffmpeg CLI treats "-metadata title=" as "delete title", so an empty
# title frame cannot be produced through it. Instead the ID3v2.3 tag is
# written by hand and prepended to a tag-less MP3 stream:
#   header: "ID3", version 3.0, flags 0, syncsafe size 11
#   frame:  "TIT2", size 1, flags 0, body = encoding byte 0 (ISO-8859-1)
#           followed by no text, i.e. a present but empty title.
# Note: libavformat's ID3v2 reader discards empty text frames, so through
# FFmpeg this file reads as having no title at all.
"${FF[@]}" \
    -f lavfi -i "sine=frequency=440:sample_rate=44100:duration=1" \
    -c:a libmp3lame -b:a 32k -ac 1 \
    "${BITEXACT[@]}" -id3v2_version 0 \
    -f mp3 "$OUT/tags_empty_title.mp3.body"
{
    printf 'ID3\003\000\000\000\000\000\013'
    printf 'TIT2\000\000\000\001\000\000\000'
    cat "$OUT/tags_empty_title.mp3.body"
} > "$OUT/tags_empty_title.mp3"
rm -f "$OUT/tags_empty_title.mp3.body"

# ---------------------------------------------------------------------------
# 6. Plain MPEG-TS (H.264 640x360 + AAC, 3 s) for direct opening.
# ---------------------------------------------------------------------------
"${FF[@]}" \
    -f lavfi -i "testsrc=size=640x360:rate=25:duration=3" \
    -f lavfi -i "sine=frequency=440:sample_rate=48000:duration=3" \
    -map 0:v -map 1:a \
    "${X264[@]}" \
    -c:a aac -b:a 64k -ac 1 \
    "${BITEXACT[@]}" \
    "$OUT/plain.ts"

# ---------------------------------------------------------------------------
# 7. Hand-written media playlist whose only segment is a file: URL pointing
#    at a local file (a copy of plain.ts). A reader that honours it would be
#    reading the local disk, which the downloader must refuse.
# ---------------------------------------------------------------------------
mkdir -p "$OUT/file_segment"
cp "$OUT/plain.ts" "$OUT/file_segment/secret.ts"
cat > "$OUT/file_segment/evil.m3u8" <<EOF
#EXTM3U
#EXT-X-VERSION:3
#EXT-X-TARGETDURATION:4
#EXTINF:3.0,
file://$OUT/file_segment/secret.ts
#EXT-X-ENDLIST
EOF
