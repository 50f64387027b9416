#!/usr/bin/env bash
# Renders a manifest on a Slurm cluster: one job array whose tasks each run
# `tessara-batch MANIFEST --shard auto` on their share of the lines.
#
#   scripts/slurm-batch.sh MANIFEST [--tasks N] [--gpus-per-task G] [--bin DIR] [sbatch options] [-- tessara-batch options]
#
# N defaults to the number of lines to render (at most 64). DIR holds the
# tessara-batch to run (default: build/bin of this checkout; the variable
# TESSARA_BATCH may name the program itself). Options this script
# does not know go to sbatch (e.g. --partition gpu, --time 2:00:00, --wait);
# options after "--" go to every tessara-batch task (e.g. --report FILE, --force).
# Prints the job id. The manifest, its inputs and the programs must be on a
# file system the nodes share. Submitting again renders only the lines that
# are not recorded as done (see README, "Batch rendering").
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
batch=${TESSARA_BATCH:-$root/build/bin/tessara-batch}

usage() { sed -n '5p' "$0" | sed 's/^# *//' >&2; exit 2; }
[ $# -ge 1 ] || usage
manifest=$(realpath -- "$1")
shift
[ -r "$manifest" ] || { echo "slurm-batch.sh: cannot read '$manifest'" >&2; exit 2; }

tasks=""
sbatch_options=()
batch_options=()
while [ $# -gt 0 ]; do
    case $1 in
        --tasks) tasks=${2:?--tasks needs a count}; shift 2 ;;
        --tasks=*) tasks=${1#*=}; shift ;;
        --gpus-per-task) sbatch_options+=("--gpus-per-task=${2:?--gpus-per-task needs a count}"); shift 2 ;;
        --bin) batch=$(realpath -- "${2:?--bin needs a folder}")/tessara-batch; shift 2 ;;
        --bin=*) batch=$(realpath -- "${1#*=}")/tessara-batch; shift ;;
        --) shift; batch_options=("$@"); break ;;
        *) sbatch_options+=("$1"); shift ;;
    esac
done
if [ -z "$tasks" ]; then
    tasks=$(grep -cv '^[[:space:]]*\(#.*\)\?$' "$manifest" || true)
    [ "$tasks" -le 64 ] || tasks=64
fi
[ -x "$batch" ] || { echo "slurm-batch.sh: '$batch' is missing; build first (scripts/build.sh)" >&2; exit 2; }
case $tasks in ''|*[!0-9]*|0) echo "slurm-batch.sh: no lines to render or a bad --tasks '$tasks'" >&2; exit 2 ;; esac

logs="$manifest.state/slurm"
mkdir -p "$logs"
# The task script gets the command as its arguments, so no name from the
# manifest or the command line is ever parsed by a shell.
# --parsable: sbatch prints the job id alone (with --wait, before it waits).
exec sbatch --parsable --job-name=tessara-batch --array="0-$((tasks - 1))" \
    --output="$logs/%A_%a.out" "${sbatch_options[@]}" \
    "$root/scripts/slurm-task.sh" "$batch" "$manifest" --shard auto "${batch_options[@]}"
