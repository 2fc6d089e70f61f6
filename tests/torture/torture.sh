#!/usr/bin/env bash
# Kill-anywhere torture: lock, or remove the lock from, a fresh data set, kill the command with
# SIGKILL at some moment, let `corvane recover` settle it, and check that nothing was lost or
# left behind; a program's save that lands as the locked item appears must never be lost. Prints a
# table of operation x kind of moment; exits 1 on any loss or leftover.
#   torture.sh PATH-TO-corvane [TRIALS]
set -uo pipefail
# Corvane keeps its password in the desktop keyring: give the run one of its own.
if [[ -z ${CORVANE_PRIVATE_KEYRING_DIR:-} ]]; then
    exec "$(dirname "$(realpath "$0")")/../../scripts/with-private-keyring" "$0" "$@"
fi
corvane=$(realpath "${1:?usage: torture.sh PATH-TO-corvane [TRIALS]}")
trials=${2:-200}
base=$(mktemp -d /tmp/corvane-torture-XXXXXX)
export CORVANE_SUPPORT_DIR="$base/support"
password="torture password"
export CORVANE_KEYCHAIN_SERVICE="corvane-torture:$base"
printf '%s\n' "$password" | "$corvane" --password-stdin setup > /dev/null || exit 1
trap 'for m in $(grep -o "$base/[^ ]*" /proc/mounts); do fusermount3 -u -z "$m"; done; rm -rf "$base"' EXIT

# Nested folders, files of 100 KB to 2 MB, 200 small files, an empty file and folder, a link and
# names that are not ASCII.
make_data() {
    local dir=$1
    mkdir -p "$dir/Année 2024/深い/deeper" "$dir/small" "$dir/empty folder"
    for i in 1 2 3 4; do head -c $((100000 + RANDOM * 58)) /dev/urandom > "$dir/Année 2024/scan $i.bin"; done
    head -c 300000 /dev/urandom > "$dir/Année 2024/深い/deeper/ファイル.dat"
    for i in $(seq 1 200); do echo "small file $i $RANDOM" > "$dir/small/note $i.txt"; done
    : > "$dir/empty.txt"
    ln -s "Année 2024/scan 1.bin" "$dir/latest"
}

# The volume's own two files are not part of the item.
same() { diff -r --no-dereference -x .corvane-item.json -x .metadata_never_index "$1" "$2" > /dev/null 2>&1; }
run() { printf '%s\n' "$password" | "$corvane" --password-stdin "$@" > /dev/null 2>&1; }

# Kills the command at a moment: after a delay, after its Nth progress line, or as soon as a name
# appears beside the item. A save (lock only) is what a program does the instant the locked item
# appears: it adds a line to a file of the item, and the command is then killed or left to finish;
# `saved` says whether the file could still be written.
saved=0
torture_once() {
    local op=$1 moment=$2 work=$3
    local target=$work/Data
    [[ $op == remove-lock ]] && target=$work/Data.corvlock
    # Made here, so that counting its lines cannot run ahead of the command's redirection.
    local errors=$work/progress
    : > "$errors"
    printf '%s\n' "$password" | "$corvane" --password-stdin "$op" $([[ $op == remove-lock ]] && echo --yes) "$target" > /dev/null 2> "$errors" &
    local pid=$!
    case $moment in
        delay:*) sleep "${moment#delay:}" ;;
        line:*) while kill -0 $pid 2> /dev/null && (($(wc -l < "$errors") < ${moment#line:})); do sleep 0.002; done ;;
        appears)
            local name=Data.corvlock
            [[ $op == remove-lock ]] && name=Data
            while kill -0 $pid 2> /dev/null && [[ ! -e $work/$name ]]; do :; done ;;
        save:*)
            while kill -0 $pid 2> /dev/null && [[ ! -e $work/Data.corvlock ]]; do :; done
            echo "saved as the lock appeared" >> "$work/Data/small/note 1.txt" 2> /dev/null && saved=1
            [[ $moment == save:finish ]] && wait $pid 2> /dev/null ;;
    esac
    kill -9 $pid 2> /dev/null
    wait $pid 2> /dev/null
}

declare -A total intact lost leftover
duration_lock=0 duration_restore=0
calibrate() {
    local work=$base/calibrate
    rm -rf "$work" && mkdir -p "$work" && make_data "$work/Data"
    local start=$(date +%s.%N)
    run lock "$work/Data"
    duration_lock=$(echo "$(date +%s.%N) - $start" | bc)
    start=$(date +%s.%N)
    run remove-lock --yes "$work/Data.corvlock"
    duration_restore=$(echo "$(date +%s.%N) - $start" | bc)
    rm -rf "$work" "$CORVANE_SUPPORT_DIR"
}
calibrate

failures=0
for ((trial = 0; trial < trials; trial++)); do
    work=$base/t$trial
    rm -rf "$work" && mkdir -p "$work" && make_data "$work/Data" && cp -a "$work/Data" "$work/.pristine"
    op=lock duration=$duration_lock
    if ((trial % 2)); then
        op=remove-lock duration=$duration_restore
        run lock "$work/Data"
    fi
    case $((trial / 2 % 4)) in
        0) moment="delay:$(echo "scale=3; $duration * ($RANDOM % 1000) / 1000" | bc)" kind=timed ;;
        1) moment="line:$((RANDOM % 5 + 1))" kind=progress ;;
        2) moment=appears kind=name ;;
        3) if [[ $op == lock ]]; then
               moment=save:$( ((RANDOM % 2)) && echo kill || echo finish) kind=save
           else
               moment=appears kind=name
           fi ;;
    esac
    saved=0
    torture_once "$op" "$moment" "$work"
    run recover
    # A save that was made is never lost: the original that holds it stays, and a locked copy
    # beside it, if any, holds the data as it was before the save.
    before=$work/.pristine
    saves_made=$((${saves_made:-0} + saved))
    if ((saved)); then
        cp -a "$work/.pristine" "$work/.before"
        before=$work/.before
        echo "saved as the lock appeared" >> "$work/.pristine/small/note 1.txt"
    fi

    key="$op $kind"
    total[$key]=$((${total[$key]:-0} + 1))
    # The data is whole in exactly one place: the original path, or inside the one locked item.
    whole=0 problems=""
    if [[ -e $work/Data && -e $work/Data.corvlock ]] && ((!saved)); then
        problems+=" both"
    elif [[ -e $work/Data ]]; then
        same "$work/.pristine" "$work/Data" && whole=1
    elif [[ -e $work/Data.corvlock ]]; then
        mount=$(printf '%s\n' "$password" | "$corvane" --password-stdin unlock "$work/Data.corvlock" 2> /dev/null)
        [[ -n $mount ]] && same "$work/.pristine" "$mount" && whole=1
        run lock-now --all
    fi
    [[ $kind == save && ! -e $work/Data ]] && ((saved)) && problems+=" save-lost"
    leftovers=$(find "$work" -maxdepth 1 -name '.corvane-*' | wc -l)
    grep -q "$work" /proc/mounts && leftovers=$((leftovers + 1))
    grep -q "$CORVANE_SUPPORT_DIR/Open/" /proc/mounts && leftovers=$((leftovers + 1))
    pgrep -f "gocryptfs.*$work/" > /dev/null && leftovers=$((leftovers + 1))
    journal=$CORVANE_SUPPORT_DIR/operations.json
    [[ -s $journal && $(tr -d ' \n' < "$journal") != "[]" ]] && leftovers=$((leftovers + 1))
    # The index agrees with the disk, and the next operation works.
    listed=$("$corvane" list --json 2> /dev/null | grep -c '"path"')
    if [[ -e $work/Data.corvlock ]]; then
        ((listed == 1)) || problems+=" index"
        restored=$work/Data
        [[ -e $work/Data ]] && restored="$work/Data (restored)"
        run remove-lock --yes "$work/Data.corvlock" && same "$before" "$restored" || problems+=" follow-up"
    else
        ((listed == 0)) || problems+=" index"
        run lock "$work/Data" || problems+=" follow-up"
        run remove-lock --yes "$work/Data.corvlock"
    fi
    ((whole)) && intact[$key]=$((${intact[$key]:-0} + 1)) || lost[$key]=$((${lost[$key]:-0} + 1))
    ((leftovers)) && leftover[$key]=$((${leftover[$key]:-0} + 1))
    if ((!whole || leftovers)) || [[ -n $problems ]]; then
        failures=$((failures + 1))
        echo "trial $trial: $op killed at $moment: whole=$whole leftovers=$leftovers$problems" >&2
    fi
    rm -rf "$work" "$CORVANE_SUPPORT_DIR"
done

printf '%-24s %7s %7s %5s %10s\n' "operation, moment" trials intact lost leftovers
for key in "lock timed" "lock progress" "lock name" "lock save" "remove-lock timed" "remove-lock progress" "remove-lock name"; do
    printf '%-24s %7d %7d %5d %10d\n' "$key" "${total[$key]:-0}" "${intact[$key]:-0}" "${lost[$key]:-0}" "${leftover[$key]:-0}"
done
echo "lock takes ${duration_lock}s and remove-lock ${duration_restore}s here; ${saves_made:-0} saves landed in the original as its lock appeared; $failures of $trials trials failed"
((failures == 0))
