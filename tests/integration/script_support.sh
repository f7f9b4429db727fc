# Sourced by the integration scripts: a work directory removed on exit,
# processes killed by id on exit, checks that count failures, waits on
# conditions with deadlines, and a real ZooKeeper server on a free loopback
# port (start_zookeeper).
dir=$(mktemp -d) pids=() failures=0
cleanup() { for pid in "${pids[@]}"; do kill -9 -- "-$pid" "$pid" 2>/dev/null; done; rm -rf "$dir"; }
trap cleanup EXIT
check() { [ "$2" == "$3" ] || { echo "FAIL $1: expected [$3], got [$2]" >&2; failures=$((failures + 1)); }; }  # WHAT ACTUAL EXPECTED
# until_true COMMAND...: runs COMMAND every 0.1 s until it succeeds, for a
# minute at most, and never past the script's own four-minute deadline.
until_true() { for _ in $(seq 600); do "$@" && return; [ "$SECONDS" -lt 240 ] || return 1; sleep 0.1; done; return 1; }
# A port below the kernel's ephemeral range, where other tests' servers and
# every client connection take theirs, and free now.
free_port() { local p; while p=$((10000 + RANDOM % 20000)); (exec 3<>"/dev/tcp/127.0.0.1/$p") 2>/dev/null; do :; done; echo "$p"; }
# line FILE N: waits for line N of FILE and prints it.
has_lines() { [ "$(wc -l <"$1")" -ge "$2" ]; }
line() { until_true has_lines "$1" "$2" && sed -n "${2}p" "$1"; }
# exited PID: waits up to a minute for PID to end, then kills it; its
# status is the exit code (137 when killed).
exited() { timeout 60 tail --pid="$1" -f /dev/null || kill -9 "$1" 2>/dev/null; wait "$1"; }
# run COMMAND...: COMMAND in the foreground, killed after 30 s (status 124),
# so that a command that hangs fails its check and names itself.
run() { timeout -k 5 30 "$@"; }
# fails CODE STDERR ARGS...: runs ARGS, which must exit CODE with nothing on
# standard output and STDERR on standard error (for code 2, a part of it).
fails() {
  local code=$1 err=$2 out status
  shift 2
  out=$(run "$@" 2>"$dir/err"); status=$?
  check "exit code of $*" "$status" "$code"
  check "output of $*" "$out" ""
  if [ "$code" = 2 ]; then grep -qF -- "$err" "$dir/err" || check "error of $*" "$(cat "$dir/err")" "$err"
  else check "error of $*" "$(cat "$dir/err")" "$err"; fi
}
# four_letter WORD: the server's answer to a four-letter command, bounded:
# a port that accepts and never answers must not hold the script.
four_letter() { timeout 2 bash -c "exec 3<>/dev/tcp/127.0.0.1/$port && echo $1 >&3 && cat <&3" 2>/dev/null; }
serving() { four_letter srvr | grep -q Mode; }

# Starts the server (tick 2 s: sessions last 4 s at least) and sets $port
# and $zk; exits the script when it does not start.
start_zookeeper() {
  port=$(free_port)
  printf 'tickTime=2000\ndataDir=%s/data\nclientPort=%s\nclientPortAddress=127.0.0.1\nadmin.enableServer=false\n4lw.commands.whitelist=*\n' \
    "$dir" "$port" >"$dir/zoo.cfg"
  setsid java -Xmx256m -cp /usr/share/java/zookeeper.jar org.apache.zookeeper.server.quorum.QuorumPeerMain "$dir/zoo.cfg" \
    >"$dir/server.log" 2>&1 &
  pids+=($!)
  until_true serving || { echo "FAIL: the server did not start:" >&2; cat "$dir/server.log" >&2; exit 1; }
  zk=127.0.0.1:$port
}
