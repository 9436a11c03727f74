#!/usr/bin/env bash
# From nothing to a talking face: builds, makes the demo subject, renders a clip.
#
#   scripts/demo.sh [--live|--web] [--engine fca|motion|a2x] [speech file]
#
# The speech file may be anything that FFmpeg reads; without one a sentence is synthesised.
# The engine turns speech into movement: fca (the default) hears the whole clip, motion and a2x hear
# it in pieces, as a live stream would.
# --live speaks in real time instead, as a voice agent would (engine motion, or a2x), and shows what
# a viewer saw and how soon.
# --web shows the face on a page, http://127.0.0.1:8080/, that speaks what is typed there.
# Leaves out/demo.mp4 and (not with --live) out/demo.png in the checkout; --web leaves nothing.
set -euo pipefail

say() { printf '[demo] %s\n' "$*" >&2; }
die() { say "$*"; exit 1; }

usage="usage: scripts/demo.sh [--live|--web] [--engine fca|motion|a2x] [speech file]"
live=no
web=no
engine=
while [ $# -gt 0 ]; do
    case $1 in
        --live) live=yes; shift ;;
        --web) web=yes; shift ;;
        --engine) [ $# -ge 2 ] || die "$usage"; engine=$2; shift 2 ;;
        *) break ;;
    esac
done
if [ $# -gt 1 ]; then die "$usage"; fi
if [ $web = yes ] && { [ $live = yes ] || [ $# -gt 0 ]; }; then die "$usage"; fi
if [ -z "$engine" ]; then if [ $live$web = nono ]; then engine=fca; else engine=motion; fi; fi
speech=
if [ $# -eq 1 ]; then
    [ -f "$1" ] || die "no such file: $1"
    speech=$(realpath -- "$1")
fi

cd -- "$(dirname -- "${BASH_SOURCE[0]}")/.."
python=/usr/bin/python3
[ -x "$python" ] || python=python3
subject=build/demo
case $engine in
    fca) models=(--encoder "$subject/speech_encoder.onnx") ;;
    motion) models=(--motion-dir "$subject/motion") ;;
    a2x) models=(--encoder "$subject/speech_encoder.onnx" --motion-dir "$subject/expression") ;;
    *) die "no engine '$engine': use fca, motion or a2x" ;;
esac
if [ $live$web != nono ] && [ "$engine" = fca ]; then
    die "fca needs the whole clip: use --live and --web with motion or a2x"
fi
SENTENCE="Hello! I am a drawing that learned to talk. Every word you hear moves my lips, \
and a plain processor renders me faster than you can listen. What shall I say next?"

onnxruntime=$(scripts/setup.sh)
export ONNXRUNTIME_ROOT="$onnxruntime"
mkdir -p build out
log=build/demo-build.log
say "building (details in $log)"
{ cmake --preset release && cmake --build --preset release --target zorv; } >"$log" 2>&1 ||
    { tail -n 20 "$log" >&2; die "the build failed, see $log"; }

say "demo subject"
"$python" demo/make_demo.py "$subject" >&2

if [ $web = yes ]; then
    export ZORV_LIBRARY=$PWD/build/release/lib/libzorv_core.so.0 PYTHONPATH=$PWD/bindings/python
    exec "$python" -m zorv.web "$subject/bundle" "${models[@]/#--motion-dir/--motion}"
fi

if [ -z "$speech" ]; then
    speech=build/demo-speech.wav
    espeak-ng -v en-us+f3 -s 150 -p 55 -w "$speech" -- "$SENTENCE"
fi

if [ $live = yes ]; then
    say "speaking in real time"
    build/release/bin/zorv live "$subject/bundle" --audio "$speech" "${models[@]}" -o out/demo.mp4
    echo "$PWD/out/demo.mp4  what a viewer saw"
    exit
fi

say "rendering"
report=$(build/release/bin/zorv render "$subject/bundle" --audio "$speech" \
    --engine "$engine" "${models[@]}" -o out/demo.mp4 --sheet out/demo.png --json)

"$python" - "$PWD" "$report" <<'PY'
import json, sys
root, report = sys.argv[1], json.loads(sys.argv[2])
print(f"{root}/out/demo.mp4  {report['frames']} frames, "
      f"{report['times_real_time']:.2f} times as fast as real time ({report['fps']:.0f} frames/s)")
print(f"{root}/out/demo.png  contact sheet")
PY
