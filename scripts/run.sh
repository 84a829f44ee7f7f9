#!/usr/bin/env bash
# Builds Tavra (optimized, hardened) and runs it: the root helper in the
# background (as root, taking orders from root and from the user who ran
# this) and the daemon tavrad in the foreground as that user. Ctrl-C stops
# both; each restores what it held (the daemon thaws every agent it froze and
# releases its holds, the helper gives back lid sleep and updates), and
# `tavrad --recover` runs last so that nothing stays frozen or held even if
# the daemon died some other way.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh build
cmake --preset release
cmake --build --preset release -j "$(nproc)"

user=${SUDO_USER:-$(id -un)}
user_id=$(id -u "$user")
helper=build/release/src/helper/tavra-helper
daemon=build/release/src/daemon/tavrad
as_root() { if [[ $(id -u) -eq 0 ]]; then "$@"; else sudo "$@"; fi; }
as_user() { if [[ $(id -u) -eq "$user_id" ]]; then "$@"; else sudo -u "$user" -H "$@"; fi; }

# Ask for the password now: a prompt from a background job would stall.
[[ $(id -u) -eq 0 ]] || sudo -v
as_root "$helper" --allow-uid "$user_id" &
helper_pid=$!
stop() {
  trap - INT TERM EXIT
  [[ -n ${daemon_pid:-} ]] && kill -TERM "$daemon_pid" 2>/dev/null && wait "$daemon_pid" 2>/dev/null || true
  as_user "$daemon" --recover || true
  as_root kill -TERM "$helper_pid" 2>/dev/null || true
  wait "$helper_pid" 2>/dev/null || true
}
trap stop INT TERM EXIT

as_user "$daemon" &
daemon_pid=$!
wait "$daemon_pid" || true
