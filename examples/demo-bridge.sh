#!/usr/bin/env bash
#
# A fleet of two cameras at a broker of MQTT: each has a daemon and a bridge of its own. Shows that a change on a device
# is seen at the broker, that a document of the centre is applied on both, and that the devices go on without the broker.
# Checks what it shows, and leaves nothing behind. Needs bash, coreutils, grep, mosquitto and its clients only.
#
#     examples/demo-bridge.sh TAVIX-SETTINGS-SERVER TAVIX-SETTINGS TAVIX-SETTINGS-BRIDGE-MQTT

set -euo pipefail

# Seconds that any one state may be waited for. A machine that is busy with a build may be slow.
readonly limit=120
# And how long the command waits for a daemon, which waits for the disk.
readonly patience=50
readonly devices=(camera-1 camera-2)

temp=''
port=''
broker_pid=''
listener_pid=''
declare -A daemon_pids=() bridge_pids=()
latest='' # what a bridge said last of how it is

say() {
  printf '\n'
  printf '%s\n' "$@"
}

fail() {
  printf '\ndemo-bridge.sh: %s\n' "$1" >&2
  if [[ $latest ]]; then printf 'demo-bridge.sh: the last status of a bridge:\n%s\n' "$latest" >&2; fi
  local log
  for log in "$temp"/*.log; do
    if [[ $temp && -s $log ]]; then
      printf 'demo-bridge.sh: the end of %s:\n' "${log##*/}" >&2
      tail -n 20 "$log" >&2
    fi
  done
  exit 1
}

# until_true WHAT COMMAND...: asks until the command succeeds.
until_true() {
  local what=$1 end=$((SECONDS + limit))
  shift
  until "$@"; do
    if ((SECONDS >= end)); then fail "waited $limit s for this: $what"; fi
    sleep 0.1
  done
}

# ---- processes

is_running() { [[ $'\n'$(jobs -pr)$'\n' == *$'\n'"$1"$'\n'* ]]; }
has_ended() { ! is_running "$1"; }

# stop WHAT ID: ends the process, which exits with status 0.
stop() {
  local status=0
  kill -TERM "$2" 2>/dev/null || true
  until_true "$1 ends" has_ended "$2"
  wait "$2" || status=$?
  ((status == 0)) || fail "the exit status of $1 is $status, expected 0"
}

clean_up() {
  trap '' INT TERM HUP
  local pid end=$((SECONDS + limit)) pids=("${bridge_pids[@]}" "${daemon_pids[@]}")
  if [[ $listener_pid ]]; then pids+=("$listener_pid"); fi
  if [[ $broker_pid ]]; then pids+=("$broker_pid"); fi
  for pid in "${pids[@]}"; do
    if is_running "$pid"; then kill -TERM "$pid" 2>/dev/null || true; fi
  done
  for pid in "${pids[@]}"; do
    while is_running "$pid" && ((SECONDS < end)); do sleep 0.1; done
    if is_running "$pid"; then kill -KILL "$pid" 2>/dev/null || true; fi
    wait "$pid" 2>/dev/null || true
  done
  if [[ $temp ]]; then rm -rf -- "$temp"; fi
}

# ---- the broker

# A port that the kernel picks: that of a daemon without settings, which ends at once.
pick_port() {
  local line output
  "$daemon" --listen 127.0.0.1:0 --defaults-dir none --restricted-dir none >"$temp/port" 2>>"$temp/port.log" &
  daemon_pids[port]=$!
  exec {output}<"$temp/port"
  read -r -t "$limit" -u "$output" line || fail 'the daemon did not say where it listens'
  exec {output}<&-
  [[ $line =~ 'listening on 127.0.0.1:'([0-9]+)$ ]] || fail "expected the daemon's address, it printed '$line'"
  port=${BASH_REMATCH[1]}
  stop 'the daemon' "${daemon_pids[port]}"
  unset 'daemon_pids[port]'
}

broker_runs_or_ended() { grep -q ' running$' "$temp/broker.log" || has_ended "$broker_pid"; }

# False when somebody else has taken the port meanwhile.
start_broker() {
  # With root's rights it would give them up, and with them those to the folder.
  printf '%s\n' "listener $port 127.0.0.1" 'allow_anonymous true' 'user root' 'log_dest stderr' \
    'max_queued_messages 0' 'persistence true' "persistence_location $temp/" >"$temp/broker.conf"
  : >"$temp/broker.log"
  mosquitto -c "$temp/broker.conf" 2>>"$temp/broker.log" &
  broker_pid=$!
  until_true 'the broker runs' broker_runs_or_ended
  if is_running "$broker_pid"; then return; fi
  broker_pid=''
  grep -q 'in use' "$temp/broker.log" || fail 'the broker has ended'
  return 1
}

start_first_broker() {
  local end=$((SECONDS + limit))
  pick_port
  until start_broker; do
    if ((SECONDS >= end)); then fail 'no port stays free'; fi
    pick_port
  done
  printf 'mosquitto: listening on 127.0.0.1:%s\n' "$port"
}

# expect_message TOPIC PART: follows the topic until a message holds that part.
expect_message() {
  local line output status end=$((SECONDS + limit))
  printf '$ mosquitto_sub -t %s\n' "$1"
  mosquitto_sub -h 127.0.0.1 -p "$port" -V mqttv5 -q 1 -t "$1" >"$temp/messages" 2>>"$temp/messages.log" &
  listener_pid=$!
  exec {output}<"$temp/messages"
  while true; do
    ((SECONDS < end)) || fail "waited $limit s for $2 under $1"
    status=0
    IFS= read -r -t "$limit" -u "$output" line || status=$?
    if ((status > 128)); then fail "waited $limit s for $2 under $1"; fi
    if ((status > 0)); then fail "mosquitto_sub has ended before $2 came under $1"; fi
    if [[ $line == *"$2"* ]]; then break; fi
  done
  printf '%s\n' "$line"
  kill -TERM "$listener_pid" 2>/dev/null || true
  exec {output}<&-
  wait "$listener_pid" 2>/dev/null || true
  listener_pid=''
}

# publish TOPIC DOCUMENT
publish() {
  printf "$ mosquitto_pub --retain -t %s -m '%s'\n" "$1" "$2"
  timeout "$limit" mosquitto_pub -h 127.0.0.1 -p "$port" -V mqttv5 -q 1 --retain -t "$1" -m "$2" ||
    fail 'the broker did not take the document'
}

# ---- the devices

start_daemon() { # DEVICE
  local line output folder=$temp/$1
  "$daemon" --listen "unix:$folder/socket" --defaults "$settings/defaults.d" --restricted "$settings/restricted.d" \
    --user-settings "$folder/user.ini" >"$folder/listen" 2>>"$temp/$1-daemon.log" &
  daemon_pids[$1]=$!
  exec {output}<"$folder/listen"
  read -r -t "$limit" -u "$output" line || fail "the daemon of $1 did not say where it listens"
  exec {output}<&-
  [[ $line == *"listening on unix:$folder/socket" ]] || fail "expected the address of $1, its daemon printed '$line'"
}

# The limits are shorter than those of a fleet, for which they would be rude.
write_config() { # DEVICE
  cat <<CONFIG
[bridge]
name=fleet
server=unix:$temp/$1/socket
state=$temp/$1/fleet.db
runtime=$temp/$1/run
[mqtt]
host=127.0.0.1
port=$port
root=fleet
device=$1
[map video]
pattern=Video/*
direction=up
[map network]
pattern=Network/*
direction=down
[limits]
spread=0
reconnect-min=1
reconnect-max=1
CONFIG
}

start_device() { # DEVICE
  mkdir "$temp/$1" "$temp/$1/run"
  mkfifo "$temp/$1/listen"
  start_daemon "$1"
  write_config "$1" >"$temp/$1/bridge.conf"
  "$bridge" --config "$temp/$1/bridge.conf" >"$temp/$1-bridge.log" 2>&1 &
  bridge_pids[$1]=$!
}

# on DEVICE WORD...: the command there.
on() {
  TAVIX_SETTINGS_SERVER=unix:$temp/$1/socket timeout "$limit" "$command" -t "$patience" "${@:2}" 2>&1 </dev/null
}

show_command() { # DEVICE WORD...
  local word line="$1\$ tavix-settings"
  for word in "${@:2}"; do
    if [[ $word == *[][*=]* ]]; then line+=" '$word'"; else line+=" $word"; fi
  done
  printf '%s\n' "$line"
}

# expect PRINTED DEVICE WORD...
expect() {
  local printed status=0
  show_command "${@:2}"
  printed=$(on "${@:2}") || status=$?
  if [[ $printed ]]; then printf '%s\n' "$printed"; fi
  if [[ $printed != "$1" ]]; then fail "expected '$1'"; fi
  if ((status != 0)); then fail "the command's exit status is $status, expected 0"; fi
}

prints() { # PRINTED DEVICE WORD...
  local printed
  printed=$(on "${@:2}") && [[ $printed == "$1" ]]
}

# Asks until the command prints that.
expect_soon() { # PRINTED DEVICE WORD...
  until_true "$2 prints '$1'" prints "$@"
  expect "$@"
}

# is_at STATUS PART DEVICE: whether the bridge's status has that exit status and that part, a regular expression.
is_at() {
  local status=0
  latest=$(on "$3" bridge status --runtime "$temp/$3/run") || status=$?
  ((status == $1)) && [[ $latest =~ $2 ]]
}

await_status() { # STATUS PART DEVICE
  until_true "the status of $3 is '$2', with exit status $1" is_at "$@"
}

expect_status() { # STATUS PART
  local device
  for device in "${devices[@]}"; do
    await_status "$1" "$2" "$device"
    printf '%s$ tavix-settings bridge status\n%s\n' "$device" "$latest"
  done
}

# ---- the session

change_a_device() {
  say 'A change on the first device is reported to the broker, where everybody may see it.'
  expect 'done: 1 setting' camera-1 set '[Video/Streams/Main]fps=30'
  expect_message fleet/camera-1/reported/Video/Streams/Main '"fps":"30"'
}

change_all_devices() {
  say 'The centre wants a time server for all devices. Its document is applied on both, which report that.'
  publish fleet/all/desired/time \
    '{"format":1,"epoch":"demo","version":1,"groups":{"Network/Ntp":{"server1":"ntp.example.org"}}}'
  local device
  for device in "${devices[@]}"; do expect_soon ntp.example.org "$device" get '[Network/Ntp]server1'; done
  for device in "${devices[@]}"; do expect_message "fleet/$device/result/time" '"state":"applied"'; done
  expect_status 0 'state +in sync'
}

cut_the_link() {
  say 'The broker ends. Both bridges notice it.'
  stop 'the broker' "$broker_pid"
  broker_pid=''
  expect_status 1 'link +(lost|connecting)'
  say 'The devices do not need it: settings are changed and read as before.'
  expect 'done: 1 setting' camera-1 set '[Video/Streams/Main]fps=15'
  expect 15 camera-1 get '[Video/Streams/Main]fps'
  expect 'done: 1 setting' camera-2 set '[Video/Streams/Sub]codec=mjpeg'
  expect mjpeg camera-2 get '[Video/Streams/Sub]codec'
}

bring_the_broker_back() {
  say 'The broker is back. What was changed meanwhile is reported, and all is in sync again.'
  until_true "port $port is free again" start_broker
  expect_message fleet/camera-1/reported/Video/Streams/Main '"fps":"15"'
  expect_message fleet/camera-2/reported/Video/Streams/Sub '"codec":"mjpeg"'
  expect_status 0 'state +in sync'
  local device
  for device in "${devices[@]}"; do expect ntp.example.org "$device" get '[Network/Ntp]server1'; done
}

stop_all() {
  local device
  for device in "${devices[@]}"; do
    stop "the bridge of $device" "${bridge_pids[$device]}"
    unset "bridge_pids[$device]"
    stop "the daemon of $device" "${daemon_pids[$device]}"
    unset "daemon_pids[$device]"
  done
  stop 'the broker' "$broker_pid"
  broker_pid=''
}

main() {
  if (($# != 3)); then
    printf 'Usage: %s TAVIX-SETTINGS-SERVER TAVIX-SETTINGS TAVIX-SETTINGS-BRIDGE-MQTT\n' "$0" >&2
    exit 2
  fi
  local program programs=()
  for program in "$@"; do
    [[ -f $program && -x $program ]] || fail "'$program' is not a program"
    # A bare name would be looked up in PATH instead.
    if [[ $program == */* ]]; then programs+=("$program"); else programs+=("./$program"); fi
  done
  daemon=${programs[0]} command=${programs[1]} bridge=${programs[2]}
  settings=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")/device" && pwd)
  PATH=$PATH:/usr/sbin # where Debian has the broker, and not everybody looks
  for program in mosquitto mosquitto_pub mosquitto_sub; do
    command -v "$program" >/dev/null || fail "there is no $program"
  done
  unset TAVIX_SETTINGS_SERVER TAVIX_SETTINGS_LOCALFILE

  trap clean_up EXIT
  trap 'exit 130' INT
  trap 'exit 143' TERM
  trap 'exit 129' HUP

  temp=$(mktemp -d -t tavix-bridge.XXXXXX)
  mkfifo "$temp/port" "$temp/messages"

  say 'A broker, and two cameras, each with a daemon and a bridge. Video/* is reported, Network/* is what the centre wants.'
  start_first_broker
  local device
  for device in "${devices[@]}"; do start_device "$device"; done
  for device in "${devices[@]}"; do await_status 0 'state +in sync' "$device"; done
  change_a_device
  change_all_devices
  cut_the_link
  bring_the_broker_back
  stop_all
  say 'That was all. Everything behaved as shown.'
}

main "$@"
