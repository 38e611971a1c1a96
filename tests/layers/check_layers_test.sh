#!/usr/bin/env bash
# The include-rule check on scratch trees: a clean tree passes, and each planted violation is
# named with its file, line and rule.
set -uo pipefail
check="$1"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failures=0

fail() { echo "FAIL: $*"; failures=$((failures + 1)); }

# A small tree: platform, frame on platform, os on frame; a public header, a tool.
make_tree() {
  rm -rf "$work/t"
  mkdir -p "$work/t"/{platform/posix,src/zrobj/frame,src/zrobj/os,src/zrobj/base,include/zrobj,tools/zrtool}
  printf 'platform: \nframe: platform\nos: platform frame\n' > "$work/t/layers.txt"
  printf '#include <cstdint>\n' > "$work/t/src/zrobj/base/bits.h"
  printf '#include "platform/clock.h"\n#include "zrobj/zrtypes.h"\n' > "$work/t/platform/clock.h"
  printf '#include <unistd.h>\n#include "platform/clock.h"\n#include "base/bits.h"\n' > "$work/t/platform/posix/clock.cpp"
  printf '#include "frame/frame_internal.h"\n#include "platform/clock.h"\n#include "zrobj/zrtypes.h"\n' > "$work/t/src/zrobj/frame/zrobj.cpp"
  printf '#include <vector>\n' > "$work/t/src/zrobj/frame/frame_internal.h"
  printf '#include "frame/frame_internal.h"\n#include "os/cosobject_internal.h"\n#include "base/bits.h"\n' > "$work/t/src/zrobj/os/cosobject.cpp"
  printf '#pragma once\n' > "$work/t/src/zrobj/os/cosobject_internal.h"
  printf '#include "zrobj/zrtypes.h"\n' > "$work/t/include/zrobj/cheap.h"
  printf '#include "zrobj/cheap.h"\n#include "tools/zrtool/command.h"\n#include <string>\n' > "$work/t/tools/zrtool/main.cpp"
  printf '#pragma once\n' > "$work/t/tools/zrtool/command.h"
}

# Plants one line into a file of the clean tree; expects exit 1 and an output line matching $3.
expect_violation() {
  local file="$1" line="$2" pattern="$3"
  make_tree
  printf '%s\n' "$line" >> "$work/t/$file"
  out=$(python3 "$check" "$work/t" "$work/t/layers.txt" 2>&1)
  status=$?
  [ "$status" -eq 1 ] || fail "$file + '$line': exit $status, expected 1"
  grep -qE "$pattern" <<<"$out" || fail "$file + '$line': no line matching '$pattern' in: $out"
  grep -q "layering: 1 violation(s)" <<<"$out" || fail "$file + '$line': not exactly one violation: $out"
}

make_tree
out=$(python3 "$check" "$work/t" "$work/t/layers.txt" 2>&1) || fail "clean tree refused: $out"
grep -q "layering: 0 violation(s)" <<<"$out" || fail "clean tree: $out"

expect_violation src/zrobj/frame/zrobj.cpp '#include "os/cosobject_internal.h"' \
  '^src/zrobj/frame/zrobj.cpp:4: #include "os/cosobject_internal.h": os is not a declared dependency of frame$'
expect_violation src/zrobj/frame/zrobj.cpp '#include "src/zrobj/os/cosobject_internal.h"' 'not a public, base/ or subsystem header'
expect_violation src/zrobj/frame/zrobj.cpp '#include "zrobj/frame_internal.h"' 'private header under zrobj/'
expect_violation src/zrobj/os/cosobject.cpp '#include <pthread.h>' '^src/zrobj/os/cosobject.cpp:4: #include <pthread.h>: system header outside platform/posix/$'
expect_violation src/zrobj/frame/zrobj.cpp '#include <sys/mman.h>' 'system header outside platform/posix/'
expect_violation platform/clock.h '#include "zrobj/cheap.h"' 'platform/ may include only'
expect_violation platform/posix/clock.cpp '#include "frame/frame_internal.h"' 'platform/ may include only'
expect_violation include/zrobj/cheap.h '#include "platform/clock.h"' 'public headers include only public headers'
expect_violation tools/zrtool/main.cpp '#include "platform/clock.h"' 'tools include only installed headers'
expect_violation tools/zrtool/main.cpp '#include <unistd.h>' 'system header outside platform/posix/'
expect_violation src/zrobj/base/bits.h '#include "platform/clock.h"' 'base/ includes only base/'

# Calls: frame's object calls a function that os defines, while os sits above frame.
make_tree
mkdir -p "$work/b/src/zrobj/CMakeFiles/zr_frame.dir" "$work/b/src/zrobj/CMakeFiles/zr_os.dir" "$work/b/platform/CMakeFiles/zr_platform.dir"
printf 'int below() { return 1; }\n' > "$work/platform.cpp"
printf 'int below(); int up(); int frame_fn() { return below() + up(); }\n' > "$work/frame.cpp"
printf 'int frame_fn(); int up() { return 2; } int os_fn() { return frame_fn(); }\n' > "$work/os.cpp"
c++ -c "$work/platform.cpp" -o "$work/b/platform/CMakeFiles/zr_platform.dir/platform.o"
c++ -c "$work/frame.cpp" -o "$work/b/src/zrobj/CMakeFiles/zr_frame.dir/frame.o"
c++ -c "$work/os.cpp" -o "$work/b/src/zrobj/CMakeFiles/zr_os.dir/os.o"
out=$(python3 "$check" "$work/t" "$work/t/layers.txt" "$work/b" 2>&1)
[ $? -eq 1 ] || fail "an upward call was not refused: $out"
grep -q "^frame calls _Z2upv, defined in os, which it does not depend on$" <<<"$out" || fail "upward call not named: $out"
grep -q "layering: 1 violation(s)" <<<"$out" || fail "the downward calls were refused too: $out"

if [ "$failures" -eq 0 ]; then echo "check_layers_test: all cases passed"; fi
exit $((failures != 0))
