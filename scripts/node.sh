#!/usr/bin/env bash
# Makes the Node package: build/dist/zorv-*.tgz, with the library, the model runtime and whatever else
# they need inside. Installing it needs no build tools.
#
#   scripts/node.sh           makes the package
#   scripts/node.sh --test    and runs its tests and examples where it is installed, with LiveKit's
#                             packages and the TypeScript compiler beside it
set -euo pipefail
cd "$(dirname "$0")/.."

AGENTS=1.9.0 RTC=0.13.35 TYPESCRIPT=7.0.2 NODE_TYPES=26.6.6

say() { printf '\n== %s\n' "$*"; }

scripts/setup.sh --wheel >/dev/null
command -v npm >/dev/null || { echo 'npm is missing: install Node.js 18 or newer' >&2; exit 1; }
stage=build/node/package
rm -rf "$stage"
mkdir -p "$stage" build/dist
cp -r bindings/node/{package.json,README.md,lib} bindings/node/*.js bindings/node/*.d.ts "$stage"
scripts/portable_library.sh "$stage/native" "$stage/licences"
rm -f build/dist/zorv-*.tgz
(cd "$stage" && npm pack --silent --pack-destination ../../dist)
ls -l build/dist/zorv-*.tgz
[ "${1:-}" = --test ] || exit 0

say 'installing it'
place=build/node/installed
rm -rf "$place"
mkdir -p "$place"
cp -r bindings/node/{tests,examples} "$place"
cp bindings/node/tests/tsconfig.json "$place"
echo '{ "private": true, "type": "module" }' >"$place/package.json"
package=$(ls "$PWD"/build/dist/zorv-*.tgz)
export ZORV_HEADER="$PWD/include/zorv_core.h" ZORV_DEMO_DIR="$PWD/build/demo"
cd "$place"
# No script runs: nothing is built on the machine that it is installed on.
npm install --silent --ignore-scripts --no-audit --no-fund --no-package-lock "$package" \
    "@livekit/agents@$AGENTS" "@livekit/rtc-node@$RTC" "typescript@$TYPESCRIPT" "@types/node@$NODE_TYPES"
say 'types'
npx --no-install tsc --strict -p .
say 'examples'
espeak-ng -w speech.wav -- 'Hello! I am a face that talks.'
node examples/clip.js "$ZORV_DEMO_DIR/bundle" "$ZORV_DEMO_DIR/motion" speech.wav
node examples/agent.js "$ZORV_DEMO_DIR/bundle" "$ZORV_DEMO_DIR/motion"
say 'tests'
node --test --test-reporter=spec tests/*.test.mjs
