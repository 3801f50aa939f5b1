#!/usr/bin/env bash
#
# The page of a device in a browser: a daemon with the settings of a network camera, a history, and tavix-settings-web in
# front of it. Prints the address. Ctrl-C ends both and leaves nothing behind. Needs bash and coreutils only.
#
#     examples/web.sh TAVIX-SETTINGS-SERVER TAVIX-SETTINGS-WEB [ARGUMENT of tavix-settings-web...]

set -euo pipefail

# Seconds that the daemon may take to start, on a machine that is busy with a build.
readonly limit=60

fail() {
  printf 'web.sh: %s\n' "$1" >&2
  exit 1
}

clean_up() {
  trap '' INT TERM HUP
  if [[ $web_pid ]]; then kill -TERM "$web_pid" 2>/dev/null || true; fi
  if [[ $server_pid ]]; then kill -TERM "$server_pid" 2>/dev/null || true; fi
  wait
  rm -rf -- "$temp"
}

if (($# < 2)); then
  printf 'Usage: %s TAVIX-SETTINGS-SERVER TAVIX-SETTINGS-WEB [ARGUMENT...]\n' "$0" >&2
  exit 2
fi
server=$1
web=$2
shift 2
device=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")/device" && pwd)
server_pid=''
web_pid=''
temp=$(mktemp -d -t tavix-web.XXXXXX)
trap clean_up EXIT
trap 'exit 130' INT
trap 'exit 143' TERM
trap 'exit 129' HUP
unset TAVIX_SETTINGS_SERVER TAVIX_SETTINGS_LOCALFILE

mkfifo "$temp/server.out"
"$server" --listen 127.0.0.1:0 --defaults "$device/defaults.d" --restricted "$device/restricted.d" \
  --user-settings "$temp/user.ini" --history 1048576 >"$temp/server.out" &
server_pid=$!
exec {output}<"$temp/server.out"
read -r -t "$limit" -u "$output" line || fail 'the daemon did not say where it listens'
[[ $line =~ 'listening on '(.+)$ ]] || fail "expected the daemon's address, it printed '$line'"
printf '%s\n' "$line"

# In the background: a shell ends itself on a signal only when it waits for a child there.
"$web" --server "${BASH_REMATCH[1]}" "$@" &
web_pid=$!
wait "$web_pid"
