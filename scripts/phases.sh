# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

# For scripts that do one thing after the other, go on when one fails, and tell at the end how long each took.
phases=() failed_phases=()
phase_times=$(mktemp)
trap 'rm -f "$phase_times"' EXIT

clock() { printf '%d:%02d' $(($1 / 60)) $(($1 % 60)); }

# phase NAME COMMAND...
phase() {
  local name=$1 status=0 wall user system TIMEFORMAT='%0R %0U %0S'
  shift
  printf '== %s\n' "$name"
  { time "$@" >&3 2>&4; } 3>&1 4>&2 2>"$phase_times" || status=$?
  read -r wall user system <"$phase_times"
  phases+=("$(printf '%-26s %8s %10s' "$name" "$(clock "$wall")" "$(clock $((user + system)))")")
  [ "$status" -eq 0 ] || failed_phases+=("$name")
  return "$status"
}

# The time that each took, that of the processors, and what has failed.
show_phases() {
  printf '\n%-26s %8s %10s\n' 'minutes of' time processor
  printf '%s\n' "${phases[@]}"
  printf '%-26s %8s\n' all "$(clock $SECONDS)"
  [ ${#failed_phases[@]} -eq 0 ] || printf 'failed: %s\n' "${failed_phases[@]}"
}
