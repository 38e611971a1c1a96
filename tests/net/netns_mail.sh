#!/usr/bin/env bash
# Two hosts for real: two network namespaces joined by a veth pair, each running `zrtool mail join`;
# they greet and ping each other across the pair, then one leaves with GOODBYE. Needs root (ip
# netns); exits 77 (skipped) with the reason otherwise. The namespaces are always removed.
# Usage: netns_mail.sh ZRTOOL
set -u
tool=$1
skip() { echo "SKIP: $1"; exit 77; }
[ "$(id -u)" -eq 0 ] || skip "network namespaces need root"
command -v ip >/dev/null || skip "ip (iproute2) is not installed"

tag=$$
nsa=zrmail-a-$tag nsb=zrmail-b-$tag
veth_a=zrva$tag veth_b=zrvb$tag
net=10.$((200 + tag % 50)).$((tag % 250)).
work=$(mktemp -d)
pids=()
cleanup() {
  for p in "${pids[@]}"; do kill -TERM "$p" 2>/dev/null; done
  for p in "${pids[@]}"; do wait "$p" 2>/dev/null; done
  ip netns del "$nsa" 2>/dev/null
  ip netns del "$nsb" 2>/dev/null
  rm -rf "$work"
}
trap cleanup EXIT

ip netns add "$nsa" 2>/dev/null || skip "cannot create network namespaces here"
ip netns add "$nsb" || exit 1
ip link add "$veth_a" type veth peer name "$veth_b" || skip "cannot create a veth pair here"
ip link set "$veth_a" netns "$nsa" && ip link set "$veth_b" netns "$nsb" || exit 1
for side in a b; do
  ns=zrmail-$side-$tag; dev=zrv$side$tag; host=$([ $side = a ] && echo 1 || echo 2)
  ip -n "$ns" addr add "${net}${host}/24" dev "$dev" && ip -n "$ns" link set "$dev" up && ip -n "$ns" link set lo up || exit 1
done

failures=0
fail() { echo "FAIL: $1"; failures=$((failures + 1)); }
wait_for() {  # wait_for FILE PATTERN: up to 15 s
  for _ in $(seq 1 150); do grep -q "$2" "$1" && return 0; sleep 0.1; done
  return 1
}

export ZROBJ_WORKGROUP_DIR="$work/workgroups" ZROBJ_HOME="$work/home"
ip netns exec "$nsa" "$tool" mail join NETNS --name HOSTA --address "${net}1" > "$work/a.out" 2>&1 &
pids+=($!)
wait_for "$work/a.out" '^joined NETNS as HOSTA' || fail "HOSTA joined"
ip netns exec "$nsb" "$tool" mail join NETNS --name HOSTB --address "${net}2" > "$work/b.out" 2>&1 &
pids+=($!)
wait_for "$work/b.out" '^joined NETNS as HOSTB' || fail "HOSTB joined"

wait_for "$work/a.out" '(HOSTB) said HELLO$' || fail "HOSTA heard HOSTB's HELLO"
wait_for "$work/b.out" '(HOSTA) said HELLO ACKNOWLEDGED' || fail "HOSTB heard HOSTA's answer"
# Members ping each other once a second: PINGs and PONGs cross the pair both ways.
wait_for "$work/a.out" '(HOSTB) said PING' || fail "HOSTA was pinged"
wait_for "$work/b.out" '(HOSTA) answered PONG' || fail "HOSTB got a PONG"
ip netns exec "$nsb" "$tool" mail ping HOSTA --name PROBE --address "${net}2" --timeout 5000 > "$work/ping.out" 2>&1 \
  || fail "zrtool mail ping HOSTA from the other namespace"
kill -TERM "${pids[1]}"; wait "${pids[1]}" || fail "HOSTB ended with a failure on SIGTERM"
wait_for "$work/a.out" 'said GOODBYE' || fail "HOSTA heard HOSTB's GOODBYE"

if [ "$failures" -ne 0 ]; then
  echo "--- HOSTA"; cat "$work/a.out"; echo "--- HOSTB"; cat "$work/b.out"
  echo "$failures namespace check(s) failed"; exit 1
fi
echo "namespace checks passed"
