#!/usr/bin/env bash
# One raw data file on a plain Slurm cluster: every task of the array reconstructs its share of the
# slices, and the last step joins them. Without a scheduler of ours, and without memory for more than
# a share in any task.
#
#   parts=$(sbatch --parsable --array=0-7 slurm_array.sh raw.h5 image.nii.gz 40)   # 40 slices
#   sbatch --dependency=afterok:$parts --wrap "ctessel merge image.part-*.nii.gz -o image.nii.gz"
#
# AXIS (slice, echo or repetition) may be set to cut along another axis, e.g. AXIS=repetition, and
# OPTIONS to further arguments of `ctessel recon`. Calibration is that of the whole scan in each part.
#SBATCH --cpus-per-task=2
#SBATCH --mem=4G
#SBATCH --time=00:30:00
set -euo pipefail

if [ $# -ne 3 ] || [[ ! $3 =~ ^[1-9][0-9]*$ ]]; then
  echo "usage: slurm_array.sh RAW.h5 IMAGE.nii.gz COUNT    # COUNT: positions along ${AXIS:-slice} in all" >&2
  exit 2
fi
raw=$1 image=$2 count=$3
tasks=${SLURM_ARRAY_TASK_COUNT:-1} task=$((${SLURM_ARRAY_TASK_ID:-0} - ${SLURM_ARRAY_TASK_MIN:-0}))
first=$((count * task / tasks)) last=$((count * (task + 1) / tasks - 1))
if [ "$first" -gt "$last" ]; then
  echo "task $task of $tasks: nothing to do for $count positions along ${AXIS:-slice}"
  exit 0
fi
image=${image%.gz}
part=$(printf '%s.part-%04d.nii.gz' "${image%.nii}" "$task")
read -ra options <<<"${OPTIONS:-}"
export OMP_NUM_THREADS=${SLURM_CPUS_PER_TASK:-1}
exec ctessel recon "$raw" -o "$part" --range "${AXIS:-slice}" "$first" "$last" \
  --threads "$OMP_NUM_THREADS" "${options[@]}"
