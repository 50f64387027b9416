#!/usr/bin/env bash
# tessara-batch on a real Slurm cluster: starts a private single-node cluster
# (munged, slurmctld, slurmd with their own configuration, key, ports and state
# in a temporary folder), submits a three-task job array through
# scripts/slurm-batch.sh over nine small captures of which one has a broken
# source image, and checks that
#   - --status agrees with the completion records at every look, also after
#     the first submission was killed half way,
#   - the submission after it renders what is left and no line twice,
#   - every good line's outputs equal those of a single tessara-render run,
#   - the broken line is reported as failed with its error text,
#   - a further submission renders nothing (all lines skipped) and is quick.
# Needs root (the daemons run as root) and Debian's slurm-wlm and munge;
# without them it says why and exits 77, which CTest reports as skipped.
#
#   tests/slurm/slurm_batch_test.sh BIN_DIR
set -uo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
bin=$(realpath "${1:-$root/build/bin}")

skip() { echo "SKIPPED: $*"; exit 77; }
fail() { echo "FAILED: $*"; exit 1; }
[ "$(id -u)" -eq 0 ] || skip "the private Slurm cluster needs root (its daemons run as root)"
for program in munged slurmctld slurmd sbatch sinfo; do
    command -v "$program" >/dev/null || skip "$program is not installed (scripts/install-deps.sh installs slurm-wlm and munge)"
done

tmp=$(mktemp -d /tmp/tessara-slurm.XXXXXX)
pids=()
cleanup() {
    # Only the daemons this test started, by their process ids; slurmd first.
    local pid
    for ((i = ${#pids[@]} - 1; i >= 0; i--)); do
        pid=${pids[i]}
        kill "$pid" 2>/dev/null
        for _ in $(seq 50); do kill -0 "$pid" 2>/dev/null || break; sleep 0.1; done
        kill -9 "$pid" 2>/dev/null
        wait "$pid" 2>/dev/null
    done
    rm -rf "$tmp"
}
trap cleanup EXIT
trap 'exit 1' INT TERM

# Two free TCP ports for slurmctld and slurmd.
free_port() {
    local port
    for port in $(shuf -i 20000-60000 -n 50); do
        (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null || { echo "$port"; return; }
    done
    fail "no free port"
}
ctld_port=$(free_port)
slurmd_port=$(free_port)
[ "$ctld_port" != "$slurmd_port" ] || slurmd_port=$((ctld_port + 1))

# munge: own key, socket and files.
mkdir -p "$tmp/munge" "$tmp/state" "$tmp/spool"
chmod 700 "$tmp/munge"
dd if=/dev/urandom of="$tmp/munge/key" bs=1024 count=1 status=none
chmod 400 "$tmp/munge/key"
munged --foreground --force --key-file="$tmp/munge/key" --socket="$tmp/munge/socket" \
    --pid-file="$tmp/munge/pid" --log-file="$tmp/munge/log" --seed-file="$tmp/munge/seed" \
    >"$tmp/munge/out" 2>&1 &
pids+=($!)

cat > "$tmp/slurm.conf" <<CONF
ClusterName=tessaratest
SlurmctldHost=localhost
SlurmctldPort=$ctld_port
SlurmdPort=$slurmd_port
SlurmUser=root
SlurmdUser=root
AuthType=auth/munge
AuthInfo=socket=$tmp/munge/socket
CredType=cred/munge
StateSaveLocation=$tmp/state
SlurmdSpoolDir=$tmp/spool
SlurmctldPidFile=$tmp/slurmctld.pid
SlurmdPidFile=$tmp/slurmd.pid
SlurmctldLogFile=$tmp/slurmctld.log
SlurmdLogFile=$tmp/slurmd.log
ProctrackType=proctrack/linuxproc
TaskPlugin=task/none
JobAcctGatherType=jobacct_gather/none
AccountingStorageType=accounting_storage/none
MpiDefault=none
SchedulerType=sched/builtin
SelectType=select/cons_tres
SelectTypeParameters=CR_Core
ReturnToService=2
NodeName=localhost CPUs=$(nproc) State=UNKNOWN
PartitionName=test Nodes=localhost Default=YES MaxTime=INFINITE State=UP OverSubscribe=FORCE
CONF
export SLURM_CONF="$tmp/slurm.conf"
for _ in $(seq 50); do [ -S "$tmp/munge/socket" ] && break; sleep 0.1; done
slurmctld -D -f "$SLURM_CONF" >"$tmp/slurmctld.out" 2>&1 &
pids+=($!)
slurmd -D -N localhost -f "$SLURM_CONF" >"$tmp/slurmd.out" 2>&1 &
pids+=($!)
for _ in $(seq 100); do
    [ "$(sinfo -h -N -o %t 2>/dev/null)" = "idle" ] && break
    sleep 0.2
done
[ "$(sinfo -h -N -o %t 2>/dev/null)" = "idle" ] ||
    fail "the private cluster did not come up: $(tail -5 "$tmp/slurmctld.log" "$tmp/slurmd.log" 2>&1)"
echo "cluster up (slurmctld port $ctld_port, slurmd port $slurmd_port)"

# Nine lines over an LDR capture, a broken copy of it (one source image is not
# a JPEG) and a small HDR equirect: JPEG, EXR and Radiance outputs, cube faces,
# a tile pyramid, a thumbnail and a logo. With three tasks the line after the
# broken one in the same task renders after its failure.
work="$tmp/work"
mkdir -p "$work/out"
"$bin/tessara-make-capture" "$root/tests/data/panoramas/courtyard.exr" "$work/ldr" --scale 0.05 --supersample 1 \
    --tsp >/dev/null 2>&1 || fail "tessara-make-capture failed"
cp -r "$work/ldr" "$work/broken"
echo "not a jpeg" >"$work/broken/capture-02.jpg"
LC_ALL=C awk 'BEGIN { w = 480; h = 240; printf "#?RADIANCE\nFORMAT=32-bit_rle_rgbe\n\n-Y %d +X %d\n", h, w
    for (y = 0; y < h; y++) for (x = 0; x < w; x++)
        printf "%c%c%c%c", 16 + int(x * 200 / w), 16 + int(y * 200 / h), 128 + (x + y) % 64, 129 + int(y * 6 / h) }' \
    >"$work/pano.hdr"
cat >"$work/manifest.txt" <<'MANIFEST'
# batch test
ldr/capture.pts --er-width 1200 --er-jpg --cf-jpg --output-prefix out/a
ldr/capture.pts --er-width 2400 --er-jpg --output-prefix out/b
ldr/capture.pts --er-width 1200 --cf-jpg --cf-width 512 --output-prefix out/tiles/
broken/capture.pts --er-width 1200 --er-jpg --output-prefix out/broken
pano.hdr --er-jpg --cf-jpg --cf-width 64 --output-prefix out/e

pano.hdr --er-exr --cf-exr --output-prefix out/f
pano.hdr --er-hdr --er-jpg --no-auto-level --output-prefix out/g
ldr/capture.pts --er-width 1200 --er-jpg --logo ldr/capture-01.jpg --output-prefix out/h
ldr/capture.pts --er-width 600 --er-jpg --output-prefix out/i
MANIFEST
broken_line=5
cp -r "$work" "$tmp/single"

cd "$tmp" || fail "cannot enter $tmp"
submit() { # report file, sbatch options; prints the job id, returns sbatch's status
    local report=$1
    shift
    "$root/scripts/slurm-batch.sh" "$work/manifest.txt" --bin "$bin" --tasks 3 "$@" -- --report "$report"
}
records() { find "$work/manifest.txt.state" -name '*.done' 2>/dev/null | wc -l; }
# Looks at --status and checks it against the records on disk; sets done and running.
look() {
    local before json after
    before=$(records)
    json=$("$bin/tessara-batch" "$work/manifest.txt" --status --json) || fail "--status failed"
    after=$(records)
    field() { grep -o "\"$1\":[0-9]*" <<<"$json" | cut -d: -f2; }
    done=$(field done)
    running=$(field running)
    [ $((done + running + $(field failed) + $(field not_started))) -eq 9 ] || fail "--status does not add up: $json"
    [ "$before" -le "$done" ] && [ "$done" -le "$after" ] || fail "--status says $done done, $before..$after records: $json"
}

# A first submission killed once a line is done and another is running, as
# when a job is cancelled or its node lost: --status agrees with the state
# folder at every look, and no lock outlives the killed tasks.
job=$(submit "$tmp/report0.jsonl")
killed=no
for _ in $(seq 600); do
    look
    if [ "$done" -ge 1 ] && [ "$running" -ge 1 ]; then
        scancel --signal=KILL "$job" && killed=yes
        break
    fi
    sleep 0.1
done
for _ in $(seq 100); do [ -z "$(squeue -h -j "$job" 2>/dev/null)" ] && break; sleep 0.2; done
look
[ "$running" -eq 0 ] || fail "$running lines still running after the job was killed"
echo "first job $job killed: $killed, with $done lines done"

started=$(date +%s.%N)
job=$(submit "$tmp/report1.jsonl" --wait)
status=$?
echo "job $job: sbatch --wait status $status after $(awk -v a="$started" -v b="$(date +%s.%N)" 'BEGIN { printf "%.1f", b - a }') s"
[ "$status" -eq 1 ] || fail "the array with a broken line should end with status 1, got $status"
[ "$(wc -l <"$tmp/report1.jsonl")" -eq 9 ] || fail "report has $(wc -l <"$tmp/report1.jsonl") lines, not 9"
# 8 ok lines over both reports: a line is rendered once, and a killed line is
# never reported ok before its record is written.
cat "$tmp/report0.jsonl" "$tmp/report1.jsonl" >"$tmp/reports.jsonl"

# The same lines one tessara-render process each, in a copy of the folder.
cd "$tmp/single" || fail "cannot enter $tmp/single"
while read -r line; do
    case $line in ''|'#'*) continue ;; esac
    read -ra args <<<"$line"
    "$bin/tessara-render" "${args[@]}" >/dev/null 2>&1
done <manifest.txt

# Every output the report names for an ok line equals the single run's.
compared=0
while read -r record; do
    case $record in *'"status":"ok"'*) ;; *) continue ;; esac
    while read -r path; do
        cmp -s "$work/$path" "$tmp/single/$path" || fail "'$path' differs from the single run"
        compared=$((compared + 1))
    done < <(grep -o '"path":"[^"]*"' <<<"$record" | cut -d'"' -f4)
done <"$tmp/reports.jsonl"
[ "$(grep -c '"status":"ok"' "$tmp/reports.jsonl")" -eq 8 ] || fail "not 8 ok lines: $(cat "$tmp/reports.jsonl")"
[ "$compared" -ge 20 ] || fail "only $compared outputs compared"
failed=$(grep '"status":"failed"' "$tmp/report1.jsonl")
look
[ "$done" -eq 8 ] || fail "--status: $done lines done, not 8"
case $failed in
    *"\"line\":$broken_line,"*"Error ("*"broken/capture-02.jpg"*) ;;
    *) fail "the broken line is not reported with its error: $failed" ;;
esac
leftovers=$(find "$work" -name '*.tmp-*')
[ -z "$leftovers" ] || fail "temporary files left: $leftovers"
echo "8 lines ok, $compared outputs equal to single runs; line $broken_line failed as expected"

# A second submission finds everything done except the broken line.
started=$(date +%s.%N)
job=$(submit "$tmp/report2.jsonl" --wait)
status=$?
seconds=$(awk -v a="$started" -v b="$(date +%s.%N)" 'BEGIN { printf "%.1f", b - a }')
echo "resubmission: job $job, status $status, $seconds s"
[ "$(grep -c '"status":"skipped"' "$tmp/report2.jsonl")" -eq 8 ] || fail "resubmission rendered again: $(cat "$tmp/report2.jsonl")"
awk -v s="$seconds" 'BEGIN { exit !(s < 20) }' || fail "resubmission took $seconds s"
echo "PASSED"
