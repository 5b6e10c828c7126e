#!/bin/bash
# Works through a session on a cluster with Slurm: each stage of the run is an array job that waits for the one
# before it.
#
#   examples/slurm/run.sh PARTS FOLDER --out OUT [other options of korimg run]
#
# PARTS is the number of tasks that lights, and the rows of each stack, are cut into. The frames and OUT have to
# lie where all nodes reach them by the same path. Where a task fails the stages after it never begin: see its
# log in OUT.tasks, mend what it tells of, and call this again. Tasks that are done end at once, so that only
# what failed is repeated. To begin anew, remove OUT and OUT.tasks.
#
#   SBATCH_PARTITION, SBATCH_TIMELIMIT, ...   are respected, as by any sbatch
#   KORIMG_SBATCH    options for all jobs, as in "--mem=8G --cpus-per-task=8"
#   KORIMG_HERE=1    does the same tasks on this machine, without Slurm
set -euo pipefail

# On a node: the task of this element of the array.
if [[ ${1-} == --task ]]; then
  exec korimg run --plan "$2" --task "${3-$SLURM_ARRAY_TASK_ID}" ${SLURM_CPUS_PER_TASK:+--threads "$SLURM_CPUS_PER_TASK"}
fi

if (($# < 4)); then
  sed -n '5s/^#   /usage: /p' "$0" >&2
  exit 2
fi
parts=$1
shift
for ((i = 1; i <= $#; ++i)); do
  case ${!i} in
    --out) next=$((i + 1)) && out=${!next} ;;
    --out=*) out=${!i#--out=} ;;
  esac
done
: "${out:?--out is missing}"

tasks=$(realpath -m -- "$out").tasks
plan=$tasks/plan.json
mkdir -p -- "$tasks"
# A plan that is there is gone on with; its stages stay as they were told.
if [[ ! -e $plan ]]; then
  korimg run "$@" --plan-only "$plan" --parts "$parts" > "$tasks/plan.txt"
fi

previous=
while read -r stage numbers; do
  if [[ ${KORIMG_HERE-} ]]; then
    first=${numbers%-*} last=${numbers#*-}
    for ((task = first; task <= last; ++task)); do
      "$0" --task "$plan" "$task" < /dev/null
    done
    continue
  fi
  # shellcheck disable=SC2086
  previous=$(sbatch --parsable --job-name="korimg-$stage" --array="$numbers" \
    --output="$tasks/$stage-%a.log" ${previous:+--dependency=afterok:$previous} --kill-on-invalid-dep=yes \
    ${KORIMG_SBATCH-} "$0" --task "$plan")
  previous=${previous%%;*}
  echo "$stage: tasks $numbers, job $previous"
done < <(sed -nE 's/^([a-z]+): tasks? ([0-9-]+)$/\1 \2/p' "$tasks/plan.txt")
