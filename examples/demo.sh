#!/usr/bin/env bash
#
# A short session with the settings daemon, by the command. Shows everything and checks it. Needs bash and coreutils only.
# Leaves nothing behind.
#
#     examples/demo.sh TAVIX-SETTINGS-SERVER TAVIX-SETTINGS

set -euo pipefail

# Seconds that any one command or line, or the daemon's exit, may take. A machine that is busy with a build may be slow.
readonly limit=60
# And how long the command waits for the daemon, which waits for the disk.
readonly patience=50

daemon=''
command=''
device=''
temp=''
server_pid=''
server_out=''
watch_pid=''
watch_out=''

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
  export TAVIX_SETTINGS_SERVER=127.0.0.1:${BASH_REMATCH[1]}
  printf '%s\n' "$line"
}

# Whether the daemon has ended within the limit.
server_ended() {
  local line status=0
  while true; do
    status=0
    read -r -t "$limit" -u "$server_out" line || status=$?
    if ((status > 128)); then return 1; fi
    if ((status > 0)); then return 0; fi
  done
}

# stop_server SIGNAL STATUS: ends the daemon, which exits with that status.
stop_server() {
  kill "-$1" "$server_pid"
  server_ended || fail "the daemon still runs $limit s after SIG$1"
  local status=0
  wait "$server_pid" 2>/dev/null || status=$?
  server_pid=''
  exec {server_out}<&-
  server_out=''
  ((status == $2)) || fail "the daemon's exit status is $status, expected $2"
}

clean_up() {
  trap '' INT TERM HUP
  if [[ -n $server_pid ]]; then
    kill -TERM "$server_pid" 2>/dev/null || true
    if [[ -z $server_out ]] || ! server_ended; then kill -KILL "$server_pid" 2>/dev/null || true; fi
    wait "$server_pid" 2>/dev/null || true
  fi
  if [[ -n $watch_pid ]]; then
    kill -KILL "$watch_pid" 2>/dev/null || true
    wait "$watch_pid" 2>/dev/null || true
  fi
  if [[ -n $temp ]]; then rm -rf -- "$temp"; fi
}

# ---- the command

# What was typed, as a shell wants it.
show_command() {
  local word line='$ tavix-settings'
  for word in "$@"; do
    if [[ $word == *[][*=]* ]]; then line+=" '$word'"; else line+=" $word"; fi
  done
  printf '%s\n' "$line"
}

# expect STATUS LINES WORD...: runs the command, which has to print these lines and to exit with that status.
expect() {
  local wanted_status=$1 wanted=$2 status=0 printed
  shift 2
  show_command "$@"
  printed=$(timeout "$limit" "$command" -t "$patience" "$@" 2>&1 </dev/null) || status=$?
  if [[ $printed ]]; then printf '%s\n' "$printed"; fi
  if ((status == 124)); then fail "the command took more than $limit s"; fi
  if [[ $printed != "$wanted" ]]; then fail "expected '$wanted'"; fi
  if ((status != wanted_status)); then fail "the command's exit status is $status, expected $wanted_status"; fi
}

# start_watch WORD...: in the background, its output on a fifo.
start_watch() {
  show_command "$@" '&'
  "$command" -t "$patience" "$@" >"$temp/watch.out" 2>>"$temp/watch.log" </dev/null &
  watch_pid=$!
  exec {watch_out}<"$temp/watch.out"
}

# expect_from_watch LINE...
expect_from_watch() {
  local wanted line status
  for wanted in "$@"; do
    status=0
    IFS= read -r -t "$limit" -u "$watch_out" line || status=$?
    if ((status > 128)); then fail "expected '$wanted' from the watch, nothing came within $limit s"; fi
    if ((status > 0)); then fail "expected '$wanted' from the watch, it has ended: $(<"$temp/watch.log")"; fi
    printf '    %s\n' "$line"
    if [[ $line != "$wanted" ]]; then fail "expected '$wanted' from the watch"; fi
  done
}

expect_end_of_watch() {
  local line status=0
  IFS= read -r -t "$limit" -u "$watch_out" line || status=$?
  if ((status == 0)); then fail "the watch printed '$line', which nobody expected"; fi
  if ((status > 128)); then fail "the watch still runs after $limit s"; fi
  status=0
  wait "$watch_pid" || status=$?
  watch_pid=''
  exec {watch_out}<&-
  ((status == 0)) || fail "the watch's exit status is $status, expected 0: $(<"$temp/watch.log")"
}

# ---- the session

read_a_group() {
  say 'Settings are groups of keys with values. The daemon serves the defaults of the camera.'
  expect 0 $'[Video/Streams/Main]\nbitrate_kbps=4096\ncodec=h264\nfps=25\nresolution=1920x1080' get Video/Streams/Main
  expect 0 25 get '[Video/Streams/Main]fps'
}

watch_streams() {
  say 'Somebody else follows all streams: first what they are now, then four changes. What it prints is indented.'
  start_watch watch 'Video/Streams/*' --initial --count 4
  local name line
  for name in Main:4096:25:1920x1080 Sub:512:10:640x360; do
    IFS=: read -r -a line <<<"$name"
    expect_from_watch "[Video/Streams/${line[0]}]bitrate_kbps=${line[1]}" "[Video/Streams/${line[0]}]codec=h264" \
      "[Video/Streams/${line[0]}]fps=${line[2]}" "[Video/Streams/${line[0]}]resolution=${line[3]}"
  done
}

change_one_value() {
  say 'A change. Everybody who asked for it is told, once it is on the disk.'
  expect 0 'done: 1 setting' set '[Video/Streams/Main]fps=30'
  expect_from_watch '[Video/Streams/Main]fps: 25 -> 30'
}

change_it_if() {
  say 'Test-and-merge: 15 frames per second, but only if it is still 30. It is.'
  expect 0 'done: 1 setting' set '[Video/Streams/Main]fps=15' --if '[Video/Streams/Main]fps=30'
  expect_from_watch '[Video/Streams/Main]fps: 30 -> 15'
  say 'Once more, with a condition that no longer holds: nothing is changed, nobody is told.'
  expect 4 "tavix-settings: condition failed: [Video/Streams/Main]fps is '15', not '30'" \
    set '[Video/Streams/Main]fps=60' --if '[Video/Streams/Main]fps=30'
}

be_refused() {
  say 'Restricted groups are for reading only.'
  expect 5 "tavix-settings: refused: 'Secure/Wlan0' is a restricted group
hint: groups with 'Secure' or 'Trusted' in their names are set by the server's restricted files only" \
    set '[Secure/Wlan0]passphrase=mine'
}

restore_a_group() {
  say 'Another stream is changed, and put back to its defaults. After that the watch has seen its four changes.'
  expect 0 'done: 1 setting' set '[Video/Streams/Sub]codec=mjpeg'
  expect_from_watch '[Video/Streams/Sub]codec: h264 -> mjpeg'
  expect 0 $'-[Video/Streams/Sub]codec=mjpeg\n+[Video/Streams/Sub]codec=h264\ndone: 1 group at its defaults' \
    reset Video/Streams/Sub
  expect_from_watch '[Video/Streams/Sub]codec: mjpeg -> h264'
  expect_end_of_watch
}

stop_and_show_the_file() {
  say 'SIGTERM: the daemon ends its connections, leaves one file with what users changed, and exits with status 0. A' \
    'group that was put back is kept as a copy of its defaults.'
  stop_server TERM 0
  [[ -r $temp/user.ini ]] || fail 'the daemon left no user file'
  [[ ! -e $temp/user.ini.journal ]] || fail 'the daemon left a journal'
  sed 's/^/    /' "$temp/user.ini"
  local kept
  kept=$(grep -v '^#' "$temp/user.ini") || fail 'the user file holds no settings'
  [[ $kept == $'[Video/Streams/Main]\nfps=15\n[Video/Streams/Sub]\nbitrate_kbps=512\ncodec=h264\nfps=10\nresolution=640x360' ]] ||
    fail 'the user file does not hold what was changed'
}

restart_and_read_again() {
  say 'A new daemon on the same files: the change is there, over the defaults.'
  start_server
  expect 0 "$(printf '%s\t%s\n' default '[Video/Streams/Main]bitrate_kbps=4096' default '[Video/Streams/Main]codec=h264' \
    user '[Video/Streams/Main]fps=15' default '[Video/Streams/Main]resolution=1920x1080')" \
    show Video/Streams/Main --origin
}

crash_and_read_again() {
  say 'Nor does it need time to say goodbye: a change, SIGKILL at once, and a new daemon.'
  expect 0 'done: 1 setting' set '[Network/Eth0]mtu=1400'
  stop_server KILL 137
  start_server
  expect 0 1400 get '[Network/Eth0]mtu'
  stop_server TERM 0
}

main() {
  if (($# != 2)); then
    printf 'Usage: %s TAVIX-SETTINGS-SERVER TAVIX-SETTINGS\n' "$0" >&2
    exit 2
  fi
  daemon=$1
  command=$2
  device=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")/device" && pwd)
  [[ -f $daemon && -x $daemon ]] || fail "'$daemon' is not a program"
  [[ -f $command && -x $command ]] || fail "'$command' is not a program"
  # A bare name would be looked up in PATH instead.
  if [[ $daemon != */* ]]; then daemon=./$daemon; fi
  if [[ $command != */* ]]; then command=./$command; fi
  unset TAVIX_SETTINGS_LOCALFILE

  trap clean_up EXIT
  trap 'exit 130' INT
  trap 'exit 143' TERM
  trap 'exit 129' HUP

  temp=$(mktemp -d -t tavix-demo.XXXXXX)
  mkfifo "$temp/server.out" "$temp/watch.out"

  say 'A daemon on the settings of a network camera. The kernel picks the port.'
  start_server
  read_a_group
  watch_streams
  change_one_value
  change_it_if
  be_refused
  restore_a_group
  stop_and_show_the_file
  restart_and_read_again
  crash_and_read_again
  say 'That was all. Everything behaved as shown.'
}

main "$@"
