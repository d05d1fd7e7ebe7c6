#!/usr/bin/env bash
# Measures what the C++ tests catch: injects each fault of faults.txt in turn into a scratch copy
# of the tree, rebuilds (only the library and what compiles the changed file), runs the plain
# ctest suite and records whether any test failed. The tree itself is never modified.
#
#   tests/faults/run_faults.sh [id-regex]     faults of the working tree's tests
#   FAULTS_REV=<commit> tests/faults/run_faults.sh   the tests of <commit> (the list stays)
#   FAULTS_TARGETS="a_test b_test" FAULTS_TESTS=<ctest regex> tests/faults/run_faults.sh <id-regex>
#     builds only those targets and runs only those tests: a quick check that faults are still
#     caught by the tests that were changed ("missed" then means missed by those tests only)
#
# Each line of faults.txt is: id <TAB> file <TAB> search <TAB> replace, where \n in search and
# replace stands for a line break and search must occur exactly once. Results go to
# build-faults/results.txt (each fault's verdict, seconds and the tests that failed), a log per
# fault beside it.
set -euo pipefail
root=$(git -C "$(dirname "$0")" rev-parse --show-toplevel)
list=${FAULTS_LIST:-$root/tests/faults/faults.txt}
work=${FAULTS_WORK:-$root/build-faults}
only=${1:-.}
copy=$work/tree
build=$work/build
logs=$work/logs
# The Python tests, the fuzzers' timed runs, the hours-long soak and the install check stay out.
exclude=${FAULTS_EXCLUDE:-'^(fuzz\.|package\.|StreamingSoakTest\.Hours)'}
tests=${FAULTS_TESTS:-.}
read -r -a targets <<<"${FAULTS_TARGETS:-all}"

rm -rf "$copy" "$logs"
mkdir -p "$copy" "$logs"
if [[ -n ${FAULTS_REV:-} ]]; then
  git -C "$root" archive "$FAULTS_REV" | tar -x -m -C "$copy"  # -m: stamped now, so all rebuild
else
  (cd "$root" && git ls-files -co --exclude-standard -z | xargs -0 cp --parents -t "$copy")
fi

# Tests link the library dynamically and need not relink when only the library changed. Ninja
# and ccache speed the rebuilds up where they are installed; neither is needed.
options=(-DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_LINK_DEPENDS_NO_SHARED=ON)
if command -v ninja >/dev/null; then options+=(-G Ninja); fi
if command -v ccache >/dev/null; then
  options+=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_C_COMPILER_LAUNCHER=ccache)
fi
cmake -S "$copy" -B "$build" "${options[@]}" >"$logs/configure" 2>&1 ||
  { echo "configuring the copy failed: see $logs/configure"; exit 1; }
run_tests() {
  ctest --test-dir "$build" -j2 --timeout 60 -R "$tests" -E "$exclude" >"$1" 2>&1
}
cmake --build "$build" -j2 --target "${targets[@]}" >"$logs/build" 2>&1 ||
  { echo "building the unchanged copy failed: see $logs/build"; exit 1; }
start=$SECONDS
run_tests "$logs/unchanged" || { echo "the unchanged tree fails its tests: see $logs/unchanged"; exit 1; }
echo "unchanged suite: $((SECONDS - start)) s"

# Applies one fault: the single occurrence of FAULT_SEARCH becomes FAULT_REPLACE.
inject() {
  perl -0777 -i -pe '
    BEGIN { ($s, $r) = map { s/\\n/\n/g; $_ } @ENV{qw(FAULT_SEARCH FAULT_REPLACE)} }
    $n = () = /\Q$s\E/g;
    die "found $n times\n" unless $n == 1;
    s/\Q$s\E/$r/;' "$1"
}

results=$work/results.txt
: >"$results"
while IFS=$'\t' read -r id file search replace; do
  [[ -z $id || $id == \#* || ! $id =~ $only ]] && continue
  cp "$copy/$file" "$work/pristine"
  start=$SECONDS
  if ! FAULT_SEARCH=$search FAULT_REPLACE=$replace inject "$copy/$file" 2>"$logs/$id.inject"; then
    verdict=bad-pattern  # the anchor no longer applies: not applicable
  elif ! cmake --build "$build" -j2 --target "${targets[@]}" >"$logs/$id.build" 2>&1; then
    verdict=does-not-build
  elif run_tests "$logs/$id.tests"; then
    verdict=missed
  else
    verdict=caught
  fi
  cp "$work/pristine" "$copy/$file"  # a fresh time stamp: the next build restores the object
  failed=$(sed -n '/tests FAILED:/,$s/^.* - \([^ ]*\) .*$/\1/p' "$logs/$id.tests" 2>/dev/null | paste -sd, || true)
  printf '%s\t%s\t%ss\t%s\n' "$id" "$verdict" "$((SECONDS - start))" "$failed" | tee -a "$results"
done <"$list"
cmake --build "$build" -j2 --target "${targets[@]}" >"$logs/restore" 2>&1

caught=$(grep -c $'\tcaught\t' "$results" || true)
total=$(grep -cE $'\t(caught|missed)\t' "$results" || true)
echo "caught $caught of $total"
grep -v $'\tcaught\t' "$results" || true
