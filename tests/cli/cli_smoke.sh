#!/bin/sh
# Runs the quorvane tool (path in $1) once per command on tiny inputs.
set -u
q=$1
t=$(mktemp -d)
trap 'rm -rf "$t"' EXIT
bad=0
fail() { echo "FAIL: $*" >&2; bad=1; }
# check NAME AWK-CONDITION: the output's NAME line satisfies the condition on $2.
check() {
    awk -v k="$1" '$1 == k { found = 1; ok = ('"$2"') } END { exit !(found && ok) }' "$t/out" ||
        fail "$cmd: $1 does not satisfy $2: $(cat "$t/out")"
}

cmd=search; "$q" search 1,0,0,0,0,0,0,0.6 > "$t/out" 2> /dev/null || fail "search exited $?"
grep -q '^{.*"top_k":\[{' "$t/out" || fail "search: no JSON document with top_k"
if "$q" search 1,x,0 > "$t/out" 2> "$t/err"; then fail "search accepted a bad query"; fi
grep -q '^quorvane' "$t/err" || fail "search: no message for a bad query: $(cat "$t/err")"

seq 0 99 > "$t/ramp"  # a straight ramp: alpha near 2
cmd=dfa; "$q" dfa "$t/ramp" > "$t/out" || fail "dfa exited $?"
check alpha '$2 > 1.8 && $2 < 2.2'

printf '0 0\n0 0\n0 0\n0 0\n1 0\n1 0\n1 0\n1 0\n' > "$t/clusters"  # two clusters of four
cmd=boxcount; "$q" boxcount "$t/clusters" --dim 2 > "$t/out" || fail "boxcount exited $?"
check dimension '$2 * $2 < 1e-20'
cmd=morph; "$q" morph "$t/clusters" --dim 2 > "$t/out" || fail "morph exited $?"
check lacunarity '$2 > 64.499 && $2 < 64.501'

printf '0 0 0\n1 0 0\n0 1 0\n1 1 0\n0 0 1\n1 0 1\n0 1 1\n1 1 1\n' > "$t/cube"
cmd=hull; "$q" hull "$t/cube" > "$t/out" || fail "hull exited $?"
check hull_area '$2 > 6 - 1e-12 && $2 < 6 + 1e-12'

echo '0.1 0.2' > "$t/r"; echo '0.04 0.01 0.01 0.09' > "$t/cov"
cmd=portfolio
"$q" portfolio --returns "$t/r" --cov "$t/cov" -k 2 > "$t/out" || fail "portfolio exited $?"
check weights '$2 >= 0 && $3 >= 0 && ($2 + $3 - 1) ^ 2 < 1e-24'
check sharpe '$2 > 0'
[ "$bad" = 0 ] && echo "cli smoke: all commands passed"
exit "$bad"
