#!/usr/bin/env bash
# make fuzz: builds the libFuzzer programs with clang, sanitizers on, in their own build folder,
# then fuzzes each target in turn from a working copy of its seed corpus kept in that folder, so
# the repository's corpus only ever gets the crash reproducers someone adds on purpose.
#   fuzz/run.sh BUILD_FOLDER [TARGET...]
# FUZZ_SECONDS (60) is each target's time; FUZZ_RUNS, when set, runs each target for that many
# executions instead. Crash inputs land in BUILD_FOLDER/crashes/TARGET/; the figures of every run
# in BUILD_FOLDER/summary.txt, or in FUZZ_SUMMARY when two runs share a build folder. Fails when
# any target crashed.
set -euo pipefail

source=$(cd "$(dirname "$0")/.." && pwd)
build=${1:?usage: fuzz/run.sh BUILD_FOLDER [TARGET...]}
shift
seconds=${FUZZ_SECONDS:-60}
runs=${FUZZ_RUNS:-}
jobs=${JOBS:-$(nproc)}

# libFuzzer ships apart from the compiler on Debian, so try to link a fuzzer, not just find clang.
probe=$(mktemp -d)
trap 'rm -rf "$probe"' EXIT
echo 'extern "C" int LLVMFuzzerTestOneInput(const char*, unsigned long) { return 0; }' \
    >"$probe/probe.cpp"
if ! command -v clang++ >/dev/null ||
    ! clang++ -fsanitize=fuzzer "$probe/probe.cpp" -o "$probe/probe" 2>"$probe/error"; then
    echo "make fuzz needs clang with its libFuzzer runtime; on Debian 12 install them with:" >&2
    echo "    sudo apt-get install clang libclang-rt-dev" >&2
    [[ -s "$probe/error" ]] && cat "$probe/error" >&2
    exit 1
fi

# -O1 and assertions on: fast enough to fuzz, and the libraries' own checks still fire.
CC=clang CXX=clang++ cmake -S "$source" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O1 -g" -DCORVANE_SANITIZE=ON -DCORVANE_FUZZ=ON \
    -DBUILD_TESTING=OFF >/dev/null

targets=("$@")
if ((${#targets[@]} == 0)); then
    mapfile -t targets < <(sed -n 's/^CORVANE_FUZZ_TARGET(\(.*\))$/\1/p' \
        "$build/fuzz/FuzzTargets.inc")
fi
cmake --build "$build" -j "$jobs" --target "${targets[@]/#/corvane-fuzz-}"

if [[ -n "$runs" ]]; then limit=(-runs="$runs"); else limit=(-max_total_time="$seconds"); fi
export ASAN_OPTIONS=abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
# The record writers sync every file they replace; on a memory file system that costs nothing,
# which makes the targets that write several times faster. A crashed target leaves its scratch
# folder behind, so they all go in one that is removed at the end.
memory=/dev/shm
[[ -n "${TMPDIR:-}" || ! -d "$memory" || ! -w "$memory" ]] && memory=${TMPDIR:-/tmp}
scratch=$(mktemp -d "$memory/corvane-fuzz-run.XXXXXX")
trap 'rm -rf "$probe" "$scratch"' EXIT
summary=${FUZZ_SUMMARY:-$build/summary.txt}
printf '%-18s %12s %8s %9s %7s %7s %6s\n' target executions seconds exec/s cov ft result \
    >"$summary"
crashed=()
for target in "${targets[@]}"; do
    corpus="$build/corpus/$target"
    crashes="$build/crashes/$target"
    log="$build/logs/$target.log"
    mkdir -p "$corpus" "$crashes" "$(dirname "$log")"
    for seed in "$source/fuzz/corpus/$target"/*; do
        [[ -e "$corpus/$(basename "$seed")" ]] || cp "$seed" "$corpus/"
    done
    dictionary=()
    [[ -f "$source/fuzz/$target.dict" ]] && dictionary=(-dict="$source/fuzz/$target.dict")
    echo "fuzz: $target (${limit[*]})"
    result=ok
    TMPDIR="$scratch" "$build/fuzz/corvane-fuzz-$target" "${limit[@]}" "${dictionary[@]}" -timeout=25 \
        -artifact_prefix="$crashes/" -print_final_stats=1 "$corpus" >"$log" 2>&1 || result=CRASH
    done=$(grep -a 'DONE ' "$log" | tail -n 1 || true)
    executions=$(grep -ao 'stat::number_of_executed_units: *[0-9]*' "$log" | grep -o '[0-9]*$' ||
        true)
    elapsed=$(grep -ao 'Done [0-9]* runs in [0-9]* second' "$log" | awk '{print $5}' || true)
    rate=$(grep -ao 'stat::average_exec_per_sec: *[0-9]*' "$log" | grep -o '[0-9]*$' || true)
    cov=$(grep -o 'cov: [0-9]*' <<<"$done" | awk '{print $2}' || true)
    ft=$(grep -o 'ft: [0-9]*' <<<"$done" | awk '{print $2}' || true)
    printf '%-18s %12s %8s %9s %7s %7s %6s\n' "$target" "${executions:--}" "${elapsed:--}" \
        "${rate:--}" "${cov:--}" "${ft:--}" "$result" | tee -a "$summary"
    if [[ "$result" != ok ]]; then
        crashed+=("$target")
        grep -a -A 30 -m 1 -E '^==[0-9]+==ERROR|does not hold|deadly signal' "$log" >&2 || true
        echo "fuzz: $target crashed; the input is in $crashes/, the whole log in $log" >&2
    fi
done
if ((${#crashed[@]} > 0)); then
    echo "fuzz: crashed: ${crashed[*]}" >&2
    exit 1
fi
