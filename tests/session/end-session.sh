#!/usr/bin/env bash
# The end of a session as a user meets it: two items are open when the application gets SIGTERM
# (what logout sends every process of the session). Both must be locked, and the application must
# end by itself, before the session would kill it.
#   end-session.sh PATH-TO-corvane PATH-TO-corvane-app
set -uo pipefail
if [[ -z ${CORVANE_PRIVATE_KEYRING_DIR:-} ]]; then
    exec "$(dirname "$(realpath "$0")")/../../scripts/with-private-keyring" "$0" "$@"
fi
corvane=$(realpath "${1:?usage: end-session.sh PATH-TO-corvane PATH-TO-corvane-app}")
app=$(realpath "${2:?usage: end-session.sh PATH-TO-corvane PATH-TO-corvane-app}")
base=$(mktemp -d /tmp/corvane-session-XXXXXX)
export CORVANE_SUPPORT_DIR="$base/support" CORVANE_KEYCHAIN_SERVICE="corvane-session:$base"
export XDG_RUNTIME_DIR="$base/run" XDG_CONFIG_HOME="$base/config" QT_QPA_PLATFORM=offscreen
mkdir -m 700 "$XDG_RUNTIME_DIR"
trap 'for m in $(grep -o "$base/[^ ]*" /proc/mounts); do fusermount3 -u -z "$m"; done; rm -rf "$base"' EXIT
password="session password"
run() { printf '%s\n' "$password" | "$corvane" --password-stdin "$@"; }
fail() { echo "end-session: $*" >&2; exit 1; }

run setup > /dev/null || fail "setup failed"
for name in Taxes Letters; do
    mkdir -p "$base/home/$name" && echo "$name" > "$base/home/$name/notes.txt"
    run lock "$base/home/$name" > /dev/null 2>&1 || fail "could not lock $name"
    run unlock "$base/home/$name.corvlock" > /dev/null 2>&1 || fail "could not open $name"
done
open_items() { grep -c " $CORVANE_SUPPORT_DIR/Open/" /proc/self/mountinfo; }
[[ $(open_items) == 2 ]] || fail "expected 2 open items, found $(open_items)"

"$app" --background > "$base/app.log" 2>&1 &
pid=$!
for _ in $(seq 200); do [[ -S $XDG_RUNTIME_DIR/corvane/command.sock ]] && break; sleep 0.1; done
[[ -S $XDG_RUNTIME_DIR/corvane/command.sock ]] || { cat "$base/app.log" >&2; fail "the application did not start"; }
sleep 1  # done with its start-up work
kill -TERM "$pid"
for _ in $(seq 300); do kill -0 "$pid" 2> /dev/null || break; sleep 0.1; done
kill -0 "$pid" 2> /dev/null && { kill -KILL "$pid"; fail "the application did not end within 30 s"; }
wait "$pid"
status=$?
[[ $status == 0 ]] || { cat "$base/app.log" >&2; fail "the application ended with status $status"; }
[[ $(open_items) == 0 ]] || fail "$(open_items) items still open after SIGTERM"
run list | grep -c "locked" | grep -qx 2 || { run list >&2; fail "the list does not show both items locked"; }
echo "end-session: both items locked and the application ended on SIGTERM"
