#!/usr/bin/env bash
# The tree verifier's throughput from the page cache, against single-core OpenSSL and sha256sum:
#   (a) 1 GiB in 1 MiB files      target: at least 85% of `openssl speed -evp sha256` at 1 MiB
#   (b) 50,000 files of 2 KB      target: at least 40,000 files per second
set -euo pipefail
bench=${1:?usage: verifier.sh PATH-TO-corvane-verifier-bench}
data=${CORVANE_BENCH_DIR:-/var/tmp/corvane-bench}/verifier
mkdir -p "$data"

[[ -d "$data/big" ]] || "$bench" generate "$data/big" 1024 1048576
[[ -d "$data/small" ]] || "$bench" generate "$data/small" 50000 2000
# Into the page cache, so that the disk is not what is measured.
find "$data" -type f -print0 | xargs -0 cat > /dev/null

seconds() { local start=$(date +%s.%N); "$@" > /dev/null; echo "$(date +%s.%N) - $start" | bc -l; }
best() { local best=999999 t; for _ in 1 2 3; do t=$(seconds "$@"); best=$(echo "if ($t < $best) $t else $best" | bc -l); done; echo "$best"; }
ratio() { printf '%.2f' "$(echo "$1 / $2" | bc -l)"; }

bytes=$((1024 * 1048576))
openssl_kb=$(openssl speed -seconds 3 -bytes 1048576 -evp sha256 2>/dev/null | awk '/^sha256/ {print $2}' | tr -d k)
openssl_rate=$(echo "$openssl_kb * 1000" | bc -l)

big_one=$("$bench" manifest "$data/big" 1 3 | cut -d' ' -f1)
big_all=$("$bench" manifest "$data/big" "$(nproc)" 3 | cut -d' ' -f1)
big_sum=$(best sh -c "find '$data/big' -type f -print0 | xargs -0 sha256sum")
small_one=$("$bench" manifest "$data/small" 1 3 | cut -d' ' -f1)
small_all=$("$bench" manifest "$data/small" "$(nproc)" 3 | cut -d' ' -f1)
small_sum=$(best sh -c "find '$data/small' -type f -print0 | xargs -0 sha256sum")

mb() { printf '%.0f MB/s' "$(echo "$1 / 1000000" | bc -l)"; }
echo "(a) 1 GiB in 1 MiB files, from the page cache"
echo "    openssl speed, one core:      $(mb "$openssl_rate")"
echo "    manifest, one thread:         $(mb "$(echo "$bytes / $big_one" | bc -l)")  = $(ratio "$bytes / $big_one" "$openssl_rate") x openssl"
echo "    manifest, $(nproc) threads:          $(mb "$(echo "$bytes / $big_all" | bc -l)")  = $(ratio "$bytes / $big_all" "$openssl_rate") x openssl  (target >= 0.85)"
echo "    sha256sum:                    $(mb "$(echo "$bytes / $big_sum" | bc -l)")  manifest is $(ratio "$big_sum" "$big_all") x as fast"
echo "(b) 50,000 files of 2 KB, from the page cache"
echo "    manifest, one thread:         $(printf '%.0f' "$(echo "50000 / $small_one" | bc -l)") files/s"
echo "    manifest, $(nproc) threads:          $(printf '%.0f' "$(echo "50000 / $small_all" | bc -l)") files/s  (target >= 40000)"
echo "    sha256sum:                    $(printf '%.0f' "$(echo "50000 / $small_sum" | bc -l)") files/s  manifest is $(ratio "$small_sum" "$small_all") x as fast"
