#!/usr/bin/env bash
# End-to-end checks of zrtool: exit statuses, round trips and hostile input. Usage: zrtool_cli.sh ZRTOOL
set -u
tool=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failures=0
check() {  # check DESCRIPTION EXPECTED_STATUS COMMAND...
  local what=$1 want=$2; shift 2
  "$@" >"$work/out" 2>"$work/err"
  local got=$?
  if [ "$got" -ne "$want" ]; then
    echo "FAIL: $what: exit $got, wanted $want"; cat "$work/err"; failures=$((failures + 1))
  fi
}

check "help" 0 "$tool" --help
check "no command" 2 "$tool"
check "unknown command" 2 "$tool" no-such-command
check "command help" 0 "$tool" rle --help
check "bad rle usage" 2 "$tool" rle shrink a b
# The guided demo runs every section in order; a section that fails makes it exit 1.
check "demo, all sections" 0 "$tool" demo
check "threads demonstration" 0 "$tool" threads 3
check "bad threads count" 2 "$tool" threads 65

# Run-length round trips with strides 1 and 3 reproduce the input byte for byte.
head -c 300000 /dev/urandom > "$work/noise"
{ for i in $(seq 1 2000); do printf 'aaaaaaaaaaaaaaaabbbbbbbbcd'; done; } > "$work/runs"
cat "$work/noise" "$work/runs" > "$work/mixed"
for stride in 1 3; do
  check "rle compress stride $stride" 0 "$tool" rle compress --stride "$stride" "$work/mixed" "$work/mixed.zrle"
  check "rle decompress stride $stride" 0 "$tool" rle decompress "$work/mixed.zrle" "$work/mixed.out"
  cmp -s "$work/mixed" "$work/mixed.out" || { echo "FAIL: rle round trip stride $stride differs"; failures=$((failures + 1)); }
done

# A damaged container is refused with status 1 and leaves nothing at OUT; so is a missing file.
cp "$work/mixed.zrle" "$work/damaged.zrle"
printf '\xff\xff\xff\xff' | dd of="$work/damaged.zrle" bs=1 seek=40 conv=notrunc status=none
rm -f "$work/damaged.out"
check "damaged rle container" 1 "$tool" rle decompress "$work/damaged.zrle" "$work/damaged.out"
[ ! -e "$work/damaged.out" ] || { echo "FAIL: damaged container left output"; failures=$((failures + 1)); }
head -c 100 "$work/mixed.zrle" > "$work/cut.zrle"
check "truncated rle container" 1 "$tool" rle decompress "$work/cut.zrle" "$work/cut.out"
check "random bytes as container" 1 "$tool" rle decompress "$work/noise" "$work/noise.out"
check "missing input" 1 "$tool" crc1615 "$work/does-not-exist"

# The checksum of a file and of the same bytes on standard input agree.
"$tool" crc1615 "$work/runs" | awk '{print $1}' > "$work/crc.file"
"$tool" crc1615 - < "$work/runs" | awk '{print $1}' > "$work/crc.stdin"
cmp -s "$work/crc.file" "$work/crc.stdin" || { echo "FAIL: crc1615 of file and stdin differ"; failures=$((failures + 1)); }

# Settings written through the tool are read back through it.
export ZROBJ_HOME="$work/home"
check "settings set" 0 "$tool" settings set --vst Tool Title "night edit"
"$tool" settings get --vst Tool Title > "$work/title" 2>/dev/null
grep -q "night edit" "$work/title" || { echo "FAIL: settings value not read back"; failures=$((failures + 1)); }

# The settings file refuses empty values, and so does the tool (status 1, nothing written).
check "settings set of an empty value" 1 "$tool" settings set --vst Tool Empty ""
grep -q "an empty value cannot be stored" "$work/err" || { echo "FAIL: empty value not refused by name"; failures=$((failures + 1)); }
check "empty value not stored" 1 "$tool" settings get --vst Tool Empty

# crash-test takes "MiniDump" of ZRO.INI as its default; --minidump 0 overrides it.
mkdir -p "$ZROBJ_HOME" "$work/crash1" "$work/crash2"
printf '[UnhandledException]\nMiniDump=1\n' > "$ZROBJ_HOME/ZRO.INI"
check "crash-test with the setting's minidump" 5 "$tool" crash-test --dir "$work/crash1"
[ -s "$work/crash1/CrashRecord.txt" ] && [ -s "$work/crash1/crashdump.dmp" ] || { echo "FAIL: crash-test ignored MiniDump=1 of ZRO.INI"; failures=$((failures + 1)); }
check "crash-test with --minidump 0" 5 "$tool" crash-test --dir "$work/crash2" --minidump 0
[ -s "$work/crash2/CrashRecord.txt" ] && [ ! -e "$work/crash2/crashdump.dmp" ] || { echo "FAIL: --minidump 0 did not override the setting"; failures=$((failures + 1)); }
rm -f "$ZROBJ_HOME/ZRO.INI"

# Project ids: a new PRJ.IDS counts from 1024; single ids and blocks never overlap.
mkdir -p "$work/project"
check "ids create" 0 "$tool" ids create "$work/project"
check "ids next" 0 "$tool" ids next "$work/project"
grep -qx "1024" "$work/out" || { echo "FAIL: first id is not 1024"; failures=$((failures + 1)); }
check "ids reserve" 0 "$tool" ids reserve 10 "$work/project"
grep -qx "1025-1034" "$work/out" || { echo "FAIL: reserved block"; failures=$((failures + 1)); }
check "ids show" 0 "$tool" ids show "$work/project"
grep -q "next id 1035, 0 other process" "$work/out" || { echo "FAIL: ids show"; failures=$((failures + 1)); }
check "ids of a directory without PRJ.IDS" 1 "$tool" ids next "$work"
check "ids reserve 0" 2 "$tool" ids reserve 0 "$work/project"

# Project archives: pack, list and unpack reproduce the tree; a damaged archive leaves nothing.
mkdir -p "$work/proj/Film/scenes"
check "ids create for packing" 0 "$tool" ids create "$work/proj/Film"
head -c 50000 /dev/urandom > "$work/proj/Film/noise.bin"
for i in $(seq 1 500); do echo "take $i of the scene"; done > "$work/proj/Film/scenes/script.txt"
: > "$work/proj/Film/empty.txt"
check "pack" 0 "$tool" pack "$work/proj/Film" "$work/film.zpk"
check "pack list" 0 "$tool" pack list "$work/film.zpk"
grep -q "^project Film: 5 entries" "$work/out" || { echo "FAIL: pack list"; cat "$work/out"; failures=$((failures + 1)); }
mkdir -p "$work/restored"
check "unpack" 0 "$tool" unpack "$work/film.zpk" "$work/restored"
diff -r "$work/proj/Film" "$work/restored/Film" > /dev/null || { echo "FAIL: unpacked tree differs"; failures=$((failures + 1)); }
check "pack into the project itself" 1 "$tool" pack "$work/proj/Film" "$work/proj/Film/scenes/x.zpk"
[ ! -e "$work/proj/Film/scenes/x.zpk" ] || { echo "FAIL: refused pack left a file"; failures=$((failures + 1)); }
head -c 700 "$work/film.zpk" > "$work/cut.zpk"
check "unpack of a cut archive" 1 "$tool" unpack "$work/cut.zpk" "$work/cutout"
[ ! -e "$work/cutout/Film" ] || { echo "FAIL: a failed unpack left a tree"; failures=$((failures + 1)); }
check "pack list of noise" 1 "$tool" pack list "$work/noise"

# Chunk archives: the sample dumps with names resolved and status 0; damage and noise give status 1
# and a marked line, never a crash.
check "chunks help" 0 "$tool" chunks --help
check "bad chunks usage" 2 "$tool" chunks list "$work/demo.chunks"
check "chunks dump without file" 2 "$tool" chunks dump
check "chunks demo" 0 "$tool" chunks demo "$work/demo.chunks"
check "chunks dump of the demo" 0 "$tool" chunks dump "$work/demo.chunks" --names scene,object,name,vertices
grep -q "^       0  55E702A1         111  scene$" "$work/out" || { echo "FAIL: chunks dump does not name the scene"; failures=$((failures + 1)); }
grep -q "^      54  729301BC          24      vertices$" "$work/out" || { echo "FAIL: chunks dump lost the nesting"; failures=$((failures + 1)); }
grep -q "(unnamed)" "$work/out" || { echo "FAIL: chunks dump misses the unnamed chunk"; failures=$((failures + 1)); }
grep -q "^9 chunk(s), 3 level(s) deep, 156 bytes$" "$work/out" || { echo "FAIL: chunks dump summary"; failures=$((failures + 1)); }
head -c 100 "$work/demo.chunks" > "$work/cut.chunks"
check "truncated chunk file" 1 "$tool" chunks dump "$work/cut.chunks"
grep -q "! not a chunk: chunk 55E702A1 claims 111 bytes, only 92 remain" "$work/out" || { echo "FAIL: truncation not reported"; failures=$((failures + 1)); }
cp "$work/demo.chunks" "$work/inner.chunks"
printf '\xff\x00\x00\x00' | dd of="$work/inner.chunks" bs=1 seek=46 conv=notrunc status=none
check "damaged inner chunk" 1 "$tool" chunks dump "$work/inner.chunks" --names name
grep -q "claims 255 bytes, only 36 remain" "$work/out" || { echo "FAIL: inner damage not reported"; failures=$((failures + 1)); }
check "random bytes as chunks" 1 "$tool" chunks dump "$work/noise"
: > "$work/empty.chunks"
check "empty chunk file" 0 "$tool" chunks dump "$work/empty.chunks"
check "missing chunk file" 1 "$tool" chunks dump "$work/does-not-exist"

# GUIDs: both forms convert into each other, fresh ones round-trip, bad text is refused with 1.
check "guid help" 0 "$tool" guid --help
check "guid without argument" 2 "$tool" guid
check "guid with two arguments" 2 "$tool" guid --new extra
check "guid with unknown option" 2 "$tool" guid --old
check "guid braced to library" 0 "$tool" guid "{35D48101-67BE-11CF-90C2-0000E8CE8246}"
[ "$(cat "$work/out")" = "35d48101-67be-11cf-90-c2-00-00-e8-ce-82-46" ] || { echo "FAIL: guid braced form not converted"; failures=$((failures + 1)); }
check "guid library to braced" 0 "$tool" guid 35d48101-67be-11cf-90-c2-00-00-e8-ce-82-46
[ "$(cat "$work/out")" = "{35D48101-67BE-11CF-90C2-0000E8CE8246}" ] || { echo "FAIL: guid library form not converted"; failures=$((failures + 1)); }
check "guid unpadded library form" 0 "$tool" guid 1-2-3-4-5-6-7-8-9-a-b
[ "$(cat "$work/out")" = "{00000001-0002-0003-0405-060708090A0B}" ] || { echo "FAIL: guid unpadded fields"; failures=$((failures + 1)); }
for bad in "35d48101-67be-11cf-90-c2-00-00-e8-ce-82" "35D48101-67BE-11CF-90C2-0000E8CE8246" \
           "{35D48101-67BE-11CF-90C2-0000E8CE824}" "{35D48101-67BE-11CF-90C2-0000E8CE824G}" "night" ""; do
  check "guid refuses '$bad'" 1 "$tool" guid "$bad"
  grep -q "^zrtool: not a GUID" "$work/err" || { echo "FAIL: guid '$bad' gives no clear error"; failures=$((failures + 1)); }
done
check "guid new" 0 "$tool" guid --new
read -r made_lib made_braced < "$work/out"
echo "$made_braced" | grep -q '^{[0-9A-F]\{8\}-[0-9A-F]\{4\}-4[0-9A-F]\{3\}-[89AB][0-9A-F]\{3\}-[0-9A-F]\{12\}}$' \
  || { echo "FAIL: guid --new is not a version 4 GUID: $made_braced"; failures=$((failures + 1)); }
[ "$("$tool" guid "$made_braced")" = "$made_lib" ] || { echo "FAIL: guid --new forms disagree"; failures=$((failures + 1)); }
[ "$("$tool" guid "$made_lib")" = "$made_braced" ] || { echo "FAIL: guid --new does not round-trip"; failures=$((failures + 1)); }
"$tool" guid --new > "$work/second"
read -r second_lib _ < "$work/second"
[ "$second_lib" != "$made_lib" ] || { echo "FAIL: guid --new repeats itself"; failures=$((failures + 1)); }

# uenc/udec: escaping round trips; text the narrow encoder must not see is refused before it gets
# there (the encoder would never return, so the refusal runs under a time limit).
check "uenc help" 0 "$tool" uenc --help
check "udec help" 0 "$tool" udec --help
check "uenc without text" 2 "$tool" uenc
check "udec with two texts" 2 "$tool" udec a b
check "uenc unknown option" 2 "$tool" uenc --narrow a
check "uenc narrow" 0 "$tool" uenc 'a^b ~'
[ "$(cat "$work/out")" = 'a^^b ~' ] || { echo "FAIL: uenc narrow gave '$(cat "$work/out")'"; failures=$((failures + 1)); }
check "uenc wide" 0 "$tool" uenc --wide $'a^b\n'
[ "$(cat "$work/out")" = 'a^^b^000A' ] || { echo "FAIL: uenc --wide gave '$(cat "$work/out")'"; failures=$((failures + 1)); }
for text in 'plain' 'a^b^^c^' $'tab\there\nline' 'café ÿ € 😀 日本' '^0041 ^zz' '-- --wide'; do
  encoded=$("$tool" uenc --wide -- "$text")
  printf '%s' "$encoded" | LC_ALL=C grep -q '[^ -~]' && { echo "FAIL: uenc --wide '$text' is not printable ASCII"; failures=$((failures + 1)); }
  decoded=$("$tool" udec -- "$encoded")
  [ "$decoded" = "$text" ] || { echo "FAIL: udec(uenc --wide '$text') gave '$decoded'"; failures=$((failures + 1)); }
done
printable=$(printf '%s' ' !"#$%&'"'"'()*+,-./0123456789:;<=>?@ABCDEFGHIJKLMNOPQRSTUVWXYZ[\]^_`abcdefghijklmnopqrstuvwxyz{|}~')
[ "$("$tool" udec -- "$("$tool" uenc -- "$printable")")" = "$printable" ] || { echo "FAIL: narrow round trip of printable ASCII"; failures=$((failures + 1)); }
check "udec units" 0 "$tool" udec --units '^D83D^DE00^zzzz^^'
[ "$(cat "$work/out")" = 'D83D DE00 005F 005E' ] || { echo "FAIL: udec --units gave '$(cat "$work/out")'"; failures=$((failures + 1)); }
check "uenc refuses UTF-8 text" 1 timeout 20 "$tool" uenc $'caf\xc3\xa9'
grep -q "byte 0xC3 at offset 3 is outside 32..127" "$work/err" || { echo "FAIL: uenc refusal does not name the byte"; failures=$((failures + 1)); }
[ ! -s "$work/out" ] || { echo "FAIL: refused uenc printed output"; failures=$((failures + 1)); }
check "uenc refuses control bytes" 1 timeout 20 "$tool" uenc $'a\tb'
check "uenc refuses bytes above 127" 1 timeout 20 "$tool" uenc $'\x80'

# Ordinary commands write nothing to standard error; -v brings the library's own lines back, down to
# the thread register's farewell at unload.
for args in "hash night" "uenc night" "crc1615 $work/runs" "chunks dump $work/demo.chunks" "guid 1-2-3-4-5-6-7-8-9-a-b"; do
  # shellcheck disable=SC2086
  check "quiet $args" 0 "$tool" $args
  [ ! -s "$work/err" ] || { echo "FAIL: zrtool $args wrote to standard error:"; cat "$work/err"; failures=$((failures + 1)); }
done
check "verbose hash" 0 "$tool" -v hash night
grep -q '^zrobj\[0:0\] COSThreadRegister::AppExit: [0-9A-F]\{8\} <<Main>>$' "$work/err" \
  || { echo "FAIL: -v does not show the AppExit line"; failures=$((failures + 1)); }
check "verbose long form" 0 "$tool" --verbose hash night
grep -q 'COSThreadRegister::AppExit' "$work/err" || { echo "FAIL: --verbose does not show diagnostics"; failures=$((failures + 1)); }

# wav info: a 16-bit stereo file of 4 frames at 8000 Hz, the same with a chunk before "data", a cut one.
printf 'RIFF\x34\x00\x00\x00WAVEfmt \x12\x00\x00\x00\x01\x00\x02\x00\x40\x1f\x00\x00\x00\x7d\x00\x00\x04\x00\x10\x00\x00\x00data\x10\x00\x00\x00ABCDEFGHIJKLMNOP' > "$work/ok.wav"
check "wav info" 0 "$tool" wav info "$work/ok.wav"
grep -q '^samples: *4 per channel$' "$work/out" || { echo "FAIL: wav info sample count"; failures=$((failures + 1)); }
grep -q '^format: *PCM, 2 channels, 8000 Hz, 16 bits$' "$work/out" || { echo "FAIL: wav info format"; failures=$((failures + 1)); }
grep -q '^duration: *0.000500 s$' "$work/out" || { echo "FAIL: wav info duration"; failures=$((failures + 1)); }
printf 'RIFF\x34\x00\x00\x00WAVEfmt \x12\x00\x00\x00\x01\x00\x02\x00\x40\x1f\x00\x00\x00\x7d\x00\x00\x04\x00\x10\x00\x00\x00LIST\x00\x00\x00\x00data\x10\x00\x00\x00ABCDEFGHIJKLMNOP' > "$work/list.wav"
check "wav info with LIST before data" 1 "$tool" wav info "$work/list.wav"
head -c 50 "$work/ok.wav" > "$work/cut.wav"
check "wav info of a cut file" 1 "$tool" wav info "$work/cut.wav"
check "wav info of a missing file" 1 "$tool" wav info "$work/none.wav"
check "wav without mode" 2 "$tool" wav
check "wav spectrum without OUT" 2 "$tool" wav spectrum "$work/ok.wav"
check "wav spectrum with a bad window" 2 "$tool" wav spectrum "$work/ok.wav" "$work/s.bmp" --window 1000
check "wav spectrum of a file with LIST" 1 "$tool" wav spectrum "$work/list.wav" "$work/s.bmp"
# A rising sweep made by sox: a bitmap netpbm reads at the asked size, whose loudest row
# (frequency, counted from the bottom) climbs from left to right; a steady tone stays on its row.
if command -v sox >/dev/null && command -v bmptopnm >/dev/null; then
  sox -n -r 8000 -c 2 -b 16 "$work/sweep.wav" synth 2 sine 300-3500 2>/dev/null
  check "wav spectrum of a sweep" 0 "$tool" wav spectrum "$work/sweep.wav" "$work/sweep.bmp" --window 256 --width 64
  [ "$(bmptopnm "$work/sweep.bmp" 2>/dev/null | head -n 2 | tail -n 1)" = "64 128" ] || { echo "FAIL: wav spectrum size"; failures=$((failures + 1)); }
  sox -n -r 8000 -c 1 -b 8 "$work/tone.wav" synth 1 sine 1000 2>/dev/null
  check "wav spectrum of a tone" 0 "$tool" wav spectrum "$work/tone.wav" "$work/tone.bmp" --window 256 --width 16
  python3 - "$work/sweep.bmp" "$work/tone.bmp" <<'PY' || { echo "FAIL: wav spectrum content"; failures=$((failures + 1)); }
import struct, sys
def loudest_rows(path):
    data = open(path, "rb").read()
    offset, w, h = struct.unpack_from("<I", data, 10)[0], *struct.unpack_from("<ii", data, 18)
    stride = (w * 3 + 3) // 4 * 4
    grey = lambda x, y: data[offset + y * stride + 3 * x]
    return [max(range(h), key=lambda y: grey(x, y)) for x in range(w)]
sweep, tone = loudest_rows(sys.argv[1]), loudest_rows(sys.argv[2])
assert all(b >= a for a, b in zip(sweep[2:-2], sweep[3:-2])), sweep
assert sweep[2] < 20 and sweep[-3] > 100, sweep
assert all(r == 32 for r in tone), tone  # 1000 Hz in 31.25 Hz rows
PY
fi

# The class registry: a driver from the folder beside the library, refused drivers, the shutdown.
check "classes with the demo driver" 0 "$tool" classes --load zrdrv_demo.so --dump --shutdown
grep -q '^3 .*CZRDemoCircle .* CZRDemoShape .*zrdrv_demo.so$' "$work/out" || { echo "FAIL: classes list"; failures=$((failures + 1)); }
grep -q 'DLL   : .*/driver/zrdrv_demo.so$' "$work/out" || { echo "FAIL: classes dump"; failures=$((failures + 1)); }
grep -q 'Shutdown \[3\] CZRDemoCircle' "$work/out" && tail -n 1 "$work/out" | grep -q '^2 registered$' \
  || { echo "FAIL: classes shutdown"; failures=$((failures + 1)); }
check "classes with a driver without classes" 1 "$tool" classes --load zrdrv_empty.so
check "classes with a missing driver twice" 1 "$tool" classes --load zrdrv_missing.so --load zrdrv_missing.so
[ "$(grep -c 'Failure to load' "$work/out")" -eq 1 ] || { echo "FAIL: second load of a missing driver not silent"; failures=$((failures + 1)); }
check "classes with a bad option" 2 "$tool" classes --bogus

# Projects: registration kept in the settings directory, object files listed with their headers.
export ZROBJ_HOME="$work/home"
check "project add" 0 "$tool" project add "$work/store/Film" Film
pid=$(cat "$work/out")
check "project list" 0 "$tool" project list
grep -q "^$pid	Film	$work/store/Film/$" "$work/out" || { echo "FAIL: project list"; failures=$((failures + 1)); }
check "project objects (none)" 0 "$tool" project objects "$pid"
grep -q "^no objects$" "$work/out" || { echo "FAIL: project objects empty"; failures=$((failures + 1)); }
mkdir -p "$work/store/Film/obj/00000004" && printf 'junk' > "$work/store/Film/obj/00000004/00000400.zro"
check "project objects (damaged file)" 0 "$tool" project objects "$pid"
grep -q "not an object file" "$work/out" || { echo "FAIL: project objects damaged"; failures=$((failures + 1)); }
check "project remove" 0 "$tool" project remove "$pid"
check "project remove again" 1 "$tool" project remove "$pid"
check "project objects of no project" 1 "$tool" project objects "$pid"
check "project bad verb" 2 "$tool" project frob
unset ZROBJ_HOME
# Shortcuts: create, resolve and legacy round trip; refusals with status 1, bad usage with 2.
printf 'driver' > "$work/plug in.so"
check "shortcut help" 0 "$tool" shortcut --help
check "shortcut create" 0 "$tool" shortcut create --legacy EDIT "$work/drv.zrs" "$work/plug in.so"
check "shortcut resolve" 0 "$tool" shortcut resolve "$work/drv.zrs"
grep -qx "$work/plug in.so" "$work/out" || { echo "FAIL: shortcut target not read back"; failures=$((failures + 1)); }
check "shortcut legacy" 0 "$tool" shortcut legacy "$work/drv.zrs"
grep -qx "EDIT" "$work/out" || { echo "FAIL: shortcut legacy tag not read back"; failures=$((failures + 1)); }
check "shortcut create, default tag" 0 "$tool" shortcut create "$work/DEF.ZRS" "$work/plug in.so"
check "shortcut legacy, default tag" 0 "$tool" shortcut legacy "$work/DEF.ZRS"
grep -qx "ZROBJ" "$work/out" || { echo "FAIL: shortcut default tag"; failures=$((failures + 1)); }
check "shortcut to a missing target" 1 "$tool" shortcut create "$work/none.zrs" "$work/missing.so"
grep -q "does not exist" "$work/err" || { echo "FAIL: shortcut missing target message"; failures=$((failures + 1)); }
[ ! -e "$work/none.zrs" ] || { echo "FAIL: shortcut written for a missing target"; failures=$((failures + 1)); }
check "shortcut without extension" 1 "$tool" shortcut create "$work/noext" "$work/plug in.so"
printf '[Driver]\nLegacy=X\n' > "$work/empty.zrs"
check "shortcut without a path" 1 "$tool" shortcut resolve "$work/empty.zrs"
grep -q "names no target" "$work/err" || { echo "FAIL: empty shortcut message"; failures=$((failures + 1)); }
check "shortcut of another extension" 1 "$tool" shortcut resolve "$work/plug in.so"
check "shortcut without action" 2 "$tool" shortcut
check "shortcut unknown action" 2 "$tool" shortcut delete "$work/drv.zrs"
check "shortcut resolve, extra operand" 2 "$tool" shortcut resolve "$work/drv.zrs" more
check "shortcut --legacy without tag" 2 "$tool" shortcut create "$work/drv.zrs" "$work/plug in.so" --legacy
# mail: a member joins a workgroup, is listed, answers a ping and an SMS, and leaves on SIGINT with
# GOODBYE (its registration disappears). Unknown computers and bad usage are refused.
export ZROBJ_WORKGROUP_DIR="$work/workgroups"
"$tool" mail join CLITEST --name ALPHA --user alice > "$work/join.out" 2>&1 &
join_pid=$!
for _ in $(seq 1 100); do grep -q '^joined CLITEST as ALPHA' "$work/join.out" && break; sleep 0.1; done
check "mail who" 0 "$tool" mail who CLITEST
grep -q '^ALPHA  *zrobj  *alice  *127\.0\.0\.1:' "$work/out" || { echo "FAIL: mail who lists ALPHA"; failures=$((failures + 1)); }
check "mail ping" 0 "$tool" mail ping ALPHA --timeout 5000
grep -q '^PONG from ALPHA in ' "$work/out" || { echo "FAIL: mail ping prints the round trip"; failures=$((failures + 1)); }
check "mail sms" 0 "$tool" mail sms ALPHA hello from the checks --name BRAVO
for _ in $(seq 1 100); do grep -q 'SMS: Computer .* (BRAVO): hello from the checks' "$work/join.out" && break; sleep 0.1; done
grep -q 'SMS: Computer .* (BRAVO): hello from the checks' "$work/join.out" || { echo "FAIL: mail join shows the SMS"; failures=$((failures + 1)); }
check "mail ping of an unknown computer" 1 "$tool" mail ping NOBODY --timeout 200
kill -INT "$join_pid"
wait "$join_pid"; join_status=$?
[ "$join_status" -eq 0 ] || { echo "FAIL: mail join ends with $join_status on SIGINT"; failures=$((failures + 1)); }
grep -q '^left CLITEST' "$work/join.out" || { echo "FAIL: mail join leaves"; failures=$((failures + 1)); }
check "mail who after leaving" 0 "$tool" mail who CLITEST
grep -q '^workgroup CLITEST: 0 members' "$work/out" || { echo "FAIL: registration removed"; failures=$((failures + 1)); }
check "mail without subcommand" 2 "$tool" mail
check "mail bad subcommand" 2 "$tool" mail shout ALPHA
check "mail bad timeout" 2 "$tool" mail ping ALPHA --timeout zero
check "mail bad name" 1 "$tool" mail ping ALPHA --name 'A/B'
check "mail help" 0 "$tool" mail --help
unset ZROBJ_WORKGROUP_DIR

# Access lists: the first grant makes the list and the marker, a user without the list right is
# refused, revoke takes rights away and --all removes the list; bad usage gives 2.
export ZROBJ_HOME="$work/home"
mkdir -p "$work/acl/Film/obj/00000004" && printf 'x' > "$work/acl/Film/obj/00000004/00000400.zro"
obj="$work/acl/Film/obj/00000004/00000400.zro"
check "acl help" 0 "$tool" acl --help
check "acl of an unregistered project" 1 "$tool" acl show "$obj"
grep -q "not a registered project" "$work/err" || { echo "FAIL: acl unregistered message"; failures=$((failures + 1)); }
check "acl project add" 0 "$tool" project add "$work/acl/Film"
aclpid=$(cat "$work/out")
check "acl show, no list" 0 "$tool" acl show "$obj"
grep -q "no access list, marker not set" "$work/out" || { echo "FAIL: acl show without list"; failures=$((failures + 1)); }
check "acl grant" 0 env ZROBJ_USERNAME=alice "$tool" acl grant "$obj" bob read write
[ -f "$work/acl/Film/obj/00000004/00000400.acl" ] || { echo "FAIL: acl file not created"; failures=$((failures + 1)); }
check "acl show" 0 "$tool" acl show "$obj" --project "$aclpid"
grep -q "access list, marker set" "$work/out" || { echo "FAIL: acl show marker"; failures=$((failures + 1)); }
grep -qx "alice	0xE0000000	read,write,admin" "$work/out" || { echo "FAIL: acl creator rights"; failures=$((failures + 1)); }
grep -qx "bob	0xC0000000	read,write" "$work/out" || { echo "FAIL: acl granted rights"; failures=$((failures + 1)); }
check "acl grant without the list right" 1 env ZROBJ_USERNAME=bob "$tool" acl grant "$obj" carol
grep -q "was not changed" "$work/err" || { echo "FAIL: acl refusal message"; failures=$((failures + 1)); }
check "acl revoke" 0 env ZROBJ_USERNAME=alice "$tool" acl revoke "$obj" bob
"$tool" acl show "$obj" > "$work/out" 2>&1
grep -qx "bob	0x00000000	none" "$work/out" || { echo "FAIL: acl revoke"; failures=$((failures + 1)); }
check "acl revoke --all by a stranger" 1 env ZROBJ_USERNAME=carol "$tool" acl revoke "$obj" --all
check "acl revoke --all" 0 env ZROBJ_USERNAME=alice "$tool" acl revoke "$obj" --all
[ ! -e "$work/acl/Film/obj/00000004/00000400.acl" ] || { echo "FAIL: acl file not removed"; failures=$((failures + 1)); }
check "acl show after removal" 0 "$tool" acl show "$obj"
grep -q "no access list, marker not set" "$work/out" || { echo "FAIL: acl marker after removal"; failures=$((failures + 1)); }
printf 'x' > "$work/acl/Film/obj/00000004/notes.txt"
check "acl of a file that is no object file" 1 "$tool" acl show "$work/acl/Film/obj/00000004/notes.txt"
check "acl of a missing file" 1 "$tool" acl show "$work/acl/Film/obj/00000004/00000401.zro"
check "acl with another project" 1 "$tool" acl show "$obj" --project 999
check "acl without verb" 2 "$tool" acl
check "acl unknown verb" 2 "$tool" acl drop "$obj"
check "acl unknown right" 2 "$tool" acl grant "$obj" bob everything
check "acl bad project id" 2 "$tool" acl show "$obj" --project x
check "acl --all with grant" 2 "$tool" acl grant "$obj" --all
check "acl revoke without user" 2 "$tool" acl revoke "$obj"
"$tool" project remove "$aclpid" >/dev/null 2>&1
unset ZROBJ_HOME

# image: a 3x2 24-bit bitmap (rows padded to 12 bytes; its file-size field is the library's, the used
# size 174 + 24, as saved files keep it); info, both scalers, bitmap -> .bsi -> bitmap
# byte for byte, and refusals.
{ printf 'BM\xc6\x00\x00\x00\x00\x00\x00\x00\x36\x00\x00\x00\x28\x00\x00\x00\x03\x00\x00\x00\x02\x00\x00\x00\x01\x00\x18\x00'
  printf '\x00\x00\x00\x00\x18\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00'
  printf '\x01\x02\x03\x04\x05\x06\x07\x08\x09\x00\x00\x00\x0a\x0b\x0c\x0d\x0e\x0f\x10\x11\x12\x00\x00\x00'; } > "$work/small.bmp"
check "image info" 0 "$tool" image info "$work/small.bmp"
grep -q '^size: *3 x 2$' "$work/out" || { echo "FAIL: image info size"; failures=$((failures + 1)); }
grep -q '^magic: *"VORN"$' "$work/out" || { echo "FAIL: image info magic"; failures=$((failures + 1)); }
check "image scale fast" 0 "$tool" image scale "$work/small.bmp" "$work/big.bmp" --fast 7x5
check "image scale bilinear" 0 "$tool" image scale "$work/small.bmp" "$work/big.bsi" --bilinear 7x5
check "image info of the scaled .bsi" 0 "$tool" image info "$work/big.bsi"
grep -q '^size: *7 x 5$' "$work/out" || { echo "FAIL: image scale size"; failures=$((failures + 1)); }
# The fast scaler's corners are the source's corners: bottom-left pixel first, top-right pixel last.
[ "$(od -An -tx1 -j54 -N3 "$work/big.bmp" | tr -d ' ')" = "010203" ] || { echo "FAIL: image scale first pixel"; failures=$((failures + 1)); }
[ "$(od -An -tx1 -j$((54 + 4 * 24 + 6 * 3)) -N3 "$work/big.bmp" | tr -d ' ')" = "101112" ] || { echo "FAIL: image scale last pixel"; failures=$((failures + 1)); }
check "image convert to .bsi" 0 "$tool" image convert "$work/small.bmp" "$work/small.BSI"
[ "$(stat -c %s "$work/small.BSI")" = 184 ] || { echo "FAIL: image .bsi size"; failures=$((failures + 1)); }
check "image convert back" 0 "$tool" image convert "$work/small.BSI" "$work/again.bmp"
cmp -s "$work/small.bmp" "$work/again.bmp" || { echo "FAIL: image bitmap -> .bsi -> bitmap differs"; failures=$((failures + 1)); }
head -c 60 "$work/small.bmp" > "$work/cut.bmp"
check "image info of a cut bitmap" 1 "$tool" image info "$work/cut.bmp"
check "image info of a missing file" 1 "$tool" image info "$work/none.bmp"
check "image scale with a bad size" 2 "$tool" image scale "$work/small.bmp" "$work/x.bmp" --fast 7by5
check "image scale without a scaler" 2 "$tool" image scale "$work/small.bmp" "$work/x.bmp" 7x5 7x5
# quantize: an ImageMagick gradient with noise (thousands of colours) keeps its size and ends with
# at most the asked colours; bad counts are usage errors.
if command -v convert >/dev/null; then
  convert -size 64x48 gradient:red-blue -attenuate 0.3 +noise Gaussian -type TrueColor BMP3:"$work/noisy.bmp"
  check "image quantize to 16" 0 "$tool" image quantize "$work/noisy.bmp" "$work/q16.bmp" 16
  grep -q '^colours: *16 of 16 asked (1-byte indices)$' "$work/out" || { echo "FAIL: image quantize colours"; failures=$((failures + 1)); }
  read -r qw qh qk <<<"$(python3 - "$work/q16.bmp" <<'PY'
import struct, sys
data = open(sys.argv[1], "rb").read()
offset, (w, h), bits = struct.unpack_from("<I", data, 10)[0], struct.unpack_from("<ii", data, 18), data[28]
stride, step = (w * bits // 8 + 3) // 4 * 4, bits // 8
colours = {data[offset + y * stride + step * x: offset + y * stride + step * x + 3] for y in range(h) for x in range(w)}
print(w, h, len(colours))
PY
)"
  [ "$qw $qh" = "64 48" ] && [ "$qk" -le 16 ] && [ "$qk" -ge 2 ] || { echo "FAIL: image quantize result $qw $qh $qk"; failures=$((failures + 1)); }
  check "image quantize to 300 with alpha" 0 "$tool" image quantize "$work/noisy.bmp" "$work/q300.bsi" 300 --alpha
  grep -q '(2-byte indices)$' "$work/out" || { echo "FAIL: image quantize 16-bit indices"; failures=$((failures + 1)); }
fi
check "image quantize of the small bitmap" 0 "$tool" image quantize "$work/small.bmp" "$work/q.bmp" 8
cmp -s "$work/small.bmp" "$work/q.bmp" || { echo "FAIL: image quantize of 6 colours to 8 changed a colour"; failures=$((failures + 1)); }
check "image quantize to 1 colour" 2 "$tool" image quantize "$work/small.bmp" "$work/q.bmp" 1
check "image quantize to 65536 colours" 2 "$tool" image quantize "$work/small.bmp" "$work/q.bmp" 65536
check "image quantize of a cut bitmap" 1 "$tool" image quantize "$work/cut.bmp" "$work/q.bmp" 8
check "image without mode" 2 "$tool" image
check "image unknown mode" 2 "$tool" image rotate "$work/small.bmp"

if [ "$failures" -ne 0 ]; then echo "$failures zrtool check(s) failed"; exit 1; fi
echo "zrtool checks passed"
