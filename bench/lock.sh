#!/usr/bin/env bash
# `corvane lock` against what a careful user would script by hand, and against the floor, on two sets:
#   big:  512 MiB in 1 MiB files plus 5,000 files of 2 KB     targets: lock <= 0.75 x (a), <= 1.15 x (b)
#   many: 20,000 files of 2 KB in 100 folders                 target:  lock <= 1.10 x (b)
# Every run starts from the page cache, and every run pays for durability as the lock does:
#   (a) manual: gocryptfs -init and mount, cp -a, sha256sum of both trees, compare, unmount, sync,
#       rm -rf the original
#   (b) floor: gocryptfs -init and mount, cp -a, one read of the copy back through FUSE, unmount, sync
set -euo pipefail
shopt -s inherit_errexit  # a failed step inside a timing ends the benchmark
# Corvane keeps its password in the desktop keyring: give the run one of its own.
if [[ -z ${CORVANE_PRIVATE_KEYRING_DIR:-} ]]; then
    exec "$(dirname "$(realpath "$0")")/../scripts/with-private-keyring" "$0" "$@"
fi
corvane=${1:?usage: lock.sh PATH-TO-corvane PATH-TO-corvane-verifier-bench}
generator=${2:?usage: lock.sh PATH-TO-corvane PATH-TO-corvane-verifier-bench}
work=${CORVANE_BENCH_DIR:-/var/tmp/corvane-bench}/lock
password="benchmark password"
export CORVANE_KEYCHAIN_SERVICE="corvane-bench"
printf '%s\n' "$password" | "$corvane" --password-stdin setup > /dev/null 2>&1 || true
rm -rf "$work" && mkdir -p "$work/big" "$work/many"
"$generator" generate "$work/big/large" 512 1048576
"$generator" generate "$work/big/small" 5000 2000
"$generator" generate "$work/many/files" 20000 2000 200

export CORVANE_SUPPORT_DIR="$work/support"
cleanup() {
    "$corvane" lock-now --all --force > /dev/null 2>&1 || true
    for m in "$work"/mnt-*; do [[ -d "$m" ]] && fusermount3 -u -z "$m" 2>/dev/null || true; done
}
trap cleanup EXIT

source_set=big
fresh() {
    rm -rf "$work/item" "$work"/item.corvlock "$work/support" "$work"/cipher-* "$work"/mnt-*
    cp -a "$work/$source_set" "$work/item"
    find "$work/item" -type f -print0 | xargs -0 cat > /dev/null
    sync
}
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
    sync  # the copy is on disk before the original goes
    rm -rf "$work/item"
}

floor() {
    mkdir "$work/cipher-b" "$work/mnt-b"
    printf '%s' "$password" | gocryptfs -init -q -- "$work/cipher-b" > /dev/null 2>&1
    printf '%s' "$password" | gocryptfs -q -- "$work/cipher-b" "$work/mnt-b" > /dev/null 2>&1
    cp -a "$work/item/." "$work/mnt-b"
    find "$work/mnt-b" -type f -print0 | xargs -0 cat > /dev/null
    fusermount3 -u "$work/mnt-b"
    sync
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
lock_item() {
    printf '%s\n' "$password" | "$corvane" --password-stdin lock "$work/item" > "$work/lock.log" 2>&1 ||
        { cat "$work/lock.log" >&2; return 1; }
}
smaller() { echo "if ($1 < $2) $1 else $2" | bc -l; }
ratio() { printf '%.2f' "$(echo "$1 / $2" | bc -l)"; }
# verdict TIME OTHER-TIME TARGET-RATIO
verdict() { if (( $(echo "($1 / $2) <= $3" | bc -l) )); then echo met; else echo MISSED; fi; }

# measure SET TITLE MANUAL-TARGET FLOOR-TARGET (a target of "-" is reported without one)
measure() {
    local t_lock=999999 t_manual=999999 t_floor=999999 t r
    source_set=$1
    for _ in 1 2 3; do
        t=$(timed lock_item); t_lock=$(smaller "$t" "$t_lock")
        t=$(timed manual); t_manual=$(smaller "$t" "$t_manual")
        t=$(timed floor); t_floor=$(smaller "$t" "$t_floor")
    done
    best_lock=$t_lock
    echo "$2"
    printf '    corvane lock:          %6.2f s\n' "$t_lock"
    r=$(ratio "$t_lock" "$t_manual")
    printf '    manual pipeline (a):   %6.2f s   lock = %s x' "$t_manual" "$r"
    if [[ $3 == - ]]; then echo; else echo " (target <= $3: $(verdict "$t_lock" "$t_manual" "$3"))"; fi
    r=$(ratio "$t_lock" "$t_floor")
    printf '    floor (b):             %6.2f s   lock = %s x' "$t_floor" "$r"
    if [[ $4 == - ]]; then echo; else echo " (target <= $4: $(verdict "$t_lock" "$t_floor" "$4"))"; fi
}

measure big "512 MiB in 1 MiB files plus 5,000 files of 2 KB" 0.75 1.15
measure many "20,000 files of 2 KB in 100 folders" - 1.10
# The look at the original after it has left its name, before it is deleted: a /proc scan for
# writers and a walk of every entry's status.
t=$("$generator" lastlook "$work/many" 5)
printf '    of which the last look: %5.3f s = %.1f%% of the lock (target <= 2%%)\n' "$t" \
    "$(echo "100 * $t / $best_lock" | bc -l)"
rm -rf "$work"
