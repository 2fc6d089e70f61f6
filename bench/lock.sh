#!/usr/bin/env bash
# `corvane lock` against what a careful user would script by hand, and against the floor.
#   data: 512 MiB in 1 MiB files plus 5,000 files of 2 KB, from the page cache
#   (a) manual: gocryptfs -init and mount, cp -a, sha256sum of both trees, compare, unmount,
#       rm -rf the original                                           target: lock <= 0.7 x (a)
#   (b) floor: gocryptfs -init and mount, cp -a, one read of the copy back through FUSE, unmount
#                                                                     target: lock <= 1.15 x (b)
set -euo pipefail
corvane=${1:?usage: lock.sh PATH-TO-corvane PATH-TO-corvane-verifier-bench}
generator=${2:?usage: lock.sh PATH-TO-corvane PATH-TO-corvane-verifier-bench}
work=${CORVANE_BENCH_DIR:-/var/tmp/corvane-bench}/lock
password="benchmark password"
rm -rf "$work" && mkdir -p "$work/source"
"$generator" generate "$work/source/big" 512 1048576
"$generator" generate "$work/source/small" 5000 2000

export CORVANE_SUPPORT_DIR="$work/support"
cleanup() {
    "$corvane" lock-now --all --force > /dev/null 2>&1 || true
    for m in "$work"/mnt-*; do [[ -d "$m" ]] && fusermount3 -u -z "$m" 2>/dev/null || true; done
}
trap cleanup EXIT

fresh() { rm -rf "$work/item" "$work"/item.corvlock "$work/support" "$work"/cipher-* "$work"/mnt-*; cp -a "$work/source" "$work/item"; find "$work/item" -type f -print0 | xargs -0 cat > /dev/null; sync; }
now() { date +%s.%N; }
elapsed() { echo "$(now) - $1" | bc -l; }

manual() {
    mkdir "$work/cipher-a" "$work/mnt-a"
    printf '%s' "$password" | gocryptfs -init -q -- "$work/cipher-a" > /dev/null 2>&1
    printf '%s' "$password" | gocryptfs -q -- "$work/cipher-a" "$work/mnt-a" > /dev/null 2>&1
    cp -a "$work/item/." "$work/mnt-a"
    (cd "$work/item" && find . -type f -print0 | sort -z | xargs -0 sha256sum) > "$work/sums-original"
    (cd "$work/mnt-a" && find . -type f -print0 | sort -z | xargs -0 sha256sum) > "$work/sums-copy"
    cmp -s "$work/sums-original" "$work/sums-copy"
    fusermount3 -u "$work/mnt-a"
    rm -rf "$work/item"
}

floor() {
    mkdir "$work/cipher-b" "$work/mnt-b"
    printf '%s' "$password" | gocryptfs -init -q -- "$work/cipher-b" > /dev/null 2>&1
    printf '%s' "$password" | gocryptfs -q -- "$work/cipher-b" "$work/mnt-b" > /dev/null 2>&1
    cp -a "$work/item/." "$work/mnt-b"
    find "$work/mnt-b" -type f -print0 | xargs -0 cat > /dev/null
    fusermount3 -u "$work/mnt-b"
}

# One run of each per round, rounds interleaved: this machine's disk speed drifts, and the best
# of three rounds compares the three at their best.
timed() {
    local start
    fresh
    start=$(now)
    "$@"
    elapsed "$start"
    cleanup
}
lock_item() { printf '%s\n' "$password" | "$corvane" --password-stdin lock "$work/item" > /dev/null 2>&1; }
smaller() { echo "if ($1 < $2) $1 else $2" | bc -l; }

t_lock=999999 t_manual=999999 t_floor=999999
for _ in 1 2 3; do
    t_lock=$(smaller "$(timed lock_item)" "$t_lock")
    t_manual=$(smaller "$(timed manual)" "$t_manual")
    t_floor=$(smaller "$(timed floor)" "$t_floor")
done
ratio() { printf '%.2f' "$(echo "$1 / $2" | bc -l)"; }
printf 'corvane lock:          %.2f s\n' "$t_lock"
printf 'manual pipeline (a):   %.2f s   lock = %s x (target <= 0.70)\n' "$t_manual" "$(ratio "$t_lock" "$t_manual")"
printf 'floor (b):             %.2f s   lock = %s x (target <= 1.15)\n' "$t_floor" "$(ratio "$t_lock" "$t_floor")"
rm -rf "$work"
