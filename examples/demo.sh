#!/usr/bin/env bash
#
# A short session with the settings daemon, over the plain protocol. Shows every line and checks it.
# Needs bash and coreutils only. Leaves nothing behind.
#
#     examples/demo.sh PATH-OF-TAVIX-SETTINGS-SERVER

set -euo pipefail

# Seconds that any one line, or the daemon's exit, may take.
readonly limit=10

daemon=''
device=''
temp=''
port=''
server_pid=''
server_out=''
client=''
subscriber=''

say() {
  printf '\n'
  printf '%s\n' "$@"
}

fail() {
  printf '\ndemo.sh: %s\n' "$1" >&2
  if [[ -n $temp && -s $temp/server.log ]]; then
    printf 'demo.sh: the daemon said:\n' >&2
    tail -n 20 "$temp/server.log" >&2
  fi
  exit 1
}

# ---- the daemon

# The daemon's standard output is a fifo that only the daemon can write to: its end is the daemon's end.
start_server() {
  "$daemon" --listen 127.0.0.1:0 \
    --defaults "$device/defaults.d" --restricted "$device/restricted.d" --user-settings "$temp/user.ini" \
    >"$temp/server.out" 2>>"$temp/server.log" &
  server_pid=$!
  exec {server_out}<"$temp/server.out"

  local line
  read -r -t "$limit" -u "$server_out" line || fail 'the daemon did not say where it listens'
  [[ $line =~ ^'tavix-settings-server: listening on 127.0.0.1:'([0-9]+)$ ]] ||
    fail "expected the daemon's address, it printed '$line'"
  port=${BASH_REMATCH[1]}
  printf '%s\n' "$line"
}

# Whether the daemon has ended within the limit.
server_ended() {
  local line status
  while true; do
    status=0
    read -r -t "$limit" -u "$server_out" line || status=$?
    if ((status > 128)); then return 1; fi
    if ((status > 0)); then return 0; fi
  done
}

stop_server() {
  kill -TERM "$server_pid"
  server_ended || fail "the daemon still runs $limit s after SIGTERM"
  local status=0
  wait "$server_pid" || status=$?
  server_pid=''
  exec {server_out}<&-
  server_out=''
  ((status == 0)) || fail "the daemon's exit status is $status, expected 0"
}

clean_up() {
  trap '' INT TERM HUP
  if [[ -n $server_pid ]]; then
    kill -TERM "$server_pid" 2>/dev/null || true
    if [[ -z $server_out ]] || ! server_ended; then kill -KILL "$server_pid" 2>/dev/null || true; fi
    wait "$server_pid" 2>/dev/null || true
  fi
  if [[ -n $temp ]]; then rm -rf -- "$temp"; fi
}

# ---- the protocol

# send CONNECTION LINE...: one request, in one write.
send() {
  local connection=$1
  shift
  printf '> %s\n' "$@"
  printf '%s\n' "$@" >&"$connection" || fail 'the connection broke while a request was sent'
}

# expect CONNECTION LINE...: reads as many lines and fails at the first one that differs.
expect() {
  local connection=$1 wanted line status
  shift
  for wanted in "$@"; do
    status=0
    IFS= read -r -t "$limit" -u "$connection" line || status=$?
    if ((status > 128)); then fail "expected '$wanted', nothing came within $limit s"; fi
    if ((status > 0)); then fail "expected '$wanted', the daemon closed the connection"; fi
    printf '< %s\n' "$line"
    if [[ $line != "$wanted" ]]; then fail "expected '$wanted', received '$line'"; fi
  done
}

open_client() { exec {client}<>"/dev/tcp/127.0.0.1/$port" || fail "can't connect to 127.0.0.1:$port"; }
open_subscriber() { exec {subscriber}<>"/dev/tcp/127.0.0.1/$port" || fail "can't connect to 127.0.0.1:$port"; }

# ---- the session

read_a_group() {
  say 'A client asks for a group. A list of names, and every answer, ends with a line that holds only a dot.'
  send "$client" 'get delimited' 'Video/Streams/Main' '.'
  expect "$client" 'data' '[Video/Streams/Main]' 'bitrate_kbps=4096' 'codec=h264' 'fps=25' 'resolution=1920x1080' '.'
}

subscribe_to_streams() {
  say 'A second connection wants to hear about every stream. Subscribing has no answer; requests are handled in' \
    'order, though, so the answer to an empty get tells that the subscription is in force.'
  send "$subscriber" 'subscribe' 'Video/Streams/*' '.'
  send "$subscriber" 'get delimited' '.'
  expect "$subscriber" 'data' '.'
}

merge_one_value() {
  say 'The first connection changes one value. A merge leaves everything else alone, and has no answer either.'
  send "$client" 'merge' '[Video/Streams/Main]' 'fps=30' '.'
  say 'The second connection is told: which groups changed, and what they hold now.'
  expect "$subscriber" 'async change' 'Video/Streams/Main' '.' \
    '[Video/Streams/Main]' 'bitrate_kbps=4096' 'codec=h264' 'fps=30' 'resolution=1920x1080' '.'
}

test_and_merge_twice() {
  say 'Test-and-merge: set 15 frames per second, but only if it is still 30. It is.'
  send "$client" 'test-and-merge' '[Video/Streams/Main]' 'fps=30' '.' '[Video/Streams/Main]' 'fps=15' '.'
  expect "$client" 'result' 'ok'
  say 'The subscriber sees it, too.'
  expect "$subscriber" 'async change' 'Video/Streams/Main' '.' \
    '[Video/Streams/Main]' 'bitrate_kbps=4096' 'codec=h264' 'fps=15' 'resolution=1920x1080' '.'

  say 'Once more, with a condition that no longer holds. Nothing is written.'
  send "$client" 'test-and-merge' '[Video/Streams/Main]' 'fps=30' '.' '[Video/Streams/Main]' 'fps=60' '.'
  expect "$client" 'result' 'failure'
  say 'And nobody was told: the next thing that the subscriber reads is the answer to its own question.'
  send "$subscriber" 'get delimited' '.'
  expect "$subscriber" 'data' '.'
}

overwrite_a_group() {
  say 'An overwrite replaces a whole group: keys that are not given are gone afterwards.'
  send "$client" 'overwrite' 'Video/Streams/Sub' '.' '[Video/Streams/Sub]' 'codec=mjpeg' 'fps=5' '.'
  send "$client" 'get delimited' 'Video/Streams/Sub' '.'
  expect "$client" 'data' '[Video/Streams/Sub]' 'codec=mjpeg' 'fps=5' '.'
  say 'The notice:'
  expect "$subscriber" 'async change' 'Video/Streams/Sub' '.' '[Video/Streams/Sub]' 'codec=mjpeg' 'fps=5' '.'
}

restore_the_group() {
  say 'A restore brings the defaults back.'
  send "$client" 'restore' 'Video/Streams/Sub' '.'
  send "$client" 'get delimited' 'Video/Streams/Sub' '.'
  expect "$client" 'data' '[Video/Streams/Sub]' 'bitrate_kbps=512' 'codec=h264' 'fps=10' 'resolution=640x360' '.'
  say 'The notice:'
  expect "$subscriber" 'async change' 'Video/Streams/Sub' '.' \
    '[Video/Streams/Sub]' 'bitrate_kbps=512' 'codec=h264' 'fps=10' 'resolution=640x360' '.'
}

stop_and_show_the_file() {
  say 'SIGTERM: the daemon saves, ends its connections and exits with status 0.'
  stop_server
  exec {client}>&- {subscriber}>&-

  say 'What it kept: one ini file with what clients changed, between two lines that tell whether it is whole. Of the' \
    'first stream that is one value, the rest comes from the defaults. A group that was restored is kept as a copy of' \
    'its defaults, and DeletedGroups notes what was overwritten.'
  [[ -r $temp/user.ini ]] || fail 'the daemon left no user file'
  local line group='' saved=''
  while IFS= read -r line; do
    printf '  %s\n' "$line"
    if [[ $line == '['* ]]; then group=$line; fi
    if [[ $group == '[Video/Streams/Main]' && $line == *=* ]]; then saved+="$line "; fi
  done <"$temp/user.ini"
  [[ $saved == 'fps=15 ' ]] || fail "expected the user file to hold fps=15 for Video/Streams/Main, it holds '$saved'"
}

restart_and_read_again() {
  say 'A new daemon on the same files.'
  start_server
  open_client
  say 'The change is still there, on top of the defaults.'
  send "$client" 'get delimited' 'Video/Streams/Main' '.'
  expect "$client" 'data' '[Video/Streams/Main]' 'bitrate_kbps=4096' 'codec=h264' 'fps=15' 'resolution=1920x1080' '.'
  send "$client" 'quit'
  exec {client}>&-
  stop_server
}

main() {
  if (($# != 1)); then
    printf 'Usage: %s PATH-OF-TAVIX-SETTINGS-SERVER\n' "$0" >&2
    exit 2
  fi
  daemon=$1
  device=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")/device" && pwd)
  [[ -f $daemon && -x $daemon ]] || fail "'$daemon' is not a program"
  # A bare name would be looked up in PATH instead.
  if [[ $daemon != */* ]]; then daemon=./$daemon; fi

  trap clean_up EXIT
  trap 'exit 130' INT
  trap 'exit 143' TERM
  trap 'exit 129' HUP
  # A write to a closed connection shall fail and be reported, not end the script without a word.
  trap ':' PIPE

  temp=$(mktemp -d -t tavix-demo.XXXXXX)
  mkfifo "$temp/server.out"

  say 'A daemon on the settings of a network camera. The kernel picks the port.'
  start_server
  open_client
  read_a_group
  open_subscriber
  subscribe_to_streams
  merge_one_value
  test_and_merge_twice
  overwrite_a_group
  restore_the_group
  stop_and_show_the_file
  restart_and_read_again
  say 'That was all. Everything behaved as shown.'
}

main "$@"
