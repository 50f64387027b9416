#!/bin/sh
# One task of scripts/slurm-batch.sh: runs its arguments as they are.
exec "$@"
