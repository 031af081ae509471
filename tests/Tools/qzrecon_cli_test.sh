#!/usr/bin/env bash
# End-to-end checks of the qzrecon and qznormals tools on files: success, bad
# usage, broken inputs, clouds without normals and a failing reconstruction,
# with their exit codes and messages.
#   qzrecon_cli_test.sh QZRECON QZSAMPLE WORKDIR QZNORMALS
set -u
qzrecon=$1 qzsample=$2 work=$3 qznormals=$4
rm -rf "$work" && mkdir -p "$work" && cd "$work" || exit 1
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }

# expect CODE PATTERN -- command...: exit code and a pattern in stdout+stderr
expect() {
  local code=$1 pattern=$2
  shift 3
  local out rc
  out=$("$@" 2>&1)
  rc=$?
  [ "$rc" -eq "$code" ] || fail "$* exited $rc, expected $code: $out"
  if [ -n "$pattern" ] && ! grep -q -- "$pattern" <<<"$out"; then
    fail "$*: output lacks '$pattern': $out"
  fi
}

"$qzsample" --shape sphere --points 4000 sphere.xyzn >/dev/null || fail "qzsample"

# Success: a mesh, a summary, JSON on standard output.
expect 0 '"output_triangles"' -- "$qzrecon" --depth 5 --quiet --json - sphere.xyzn sphere.ply
[ -s sphere.ply ] || fail "no output mesh"
head -c 40 sphere.ply | grep -q 'format binary_little_endian 1.0' || fail "output is not binary little-endian PLY"
expect 0 'vertices' -- "$qzrecon" --depth 4 --normals --solver iterative --log recon.log sphere.xyzn normals.ply
grep -q 'property float nx' normals.ply || fail "--normals wrote no normals"
grep -q '^Volumetric triangulation core completed$' recon.log || fail "the log file lacks the last line"
expect 0 '' -- "$qzrecon" --depth 4 --quiet --json summary.json --corner --no-density --subdivision 2 sphere.xyzn s2.ply
grep -q '"iso_value"' summary.json || fail "summary.json lacks the iso-value"
grep -q '"phases"' summary.json || fail "summary.json lacks the phases"

# Help, version, bad usage.
expect 0 'Usage' -- "$qzrecon" --help
expect 0 'qzrecon' -- "$qzrecon" --version
expect 2 '' -- "$qzrecon"
expect 2 '' -- "$qzrecon" --bogus sphere.xyzn out.ply
expect 2 '' -- "$qzrecon" --solver magic sphere.xyzn out.ply
expect 2 '' -- "$qzrecon" --depth zero sphere.xyzn out.ply

# Broken inputs: exit 2, with the reader's text (file and place named).
expect 2 'missing.ply: open' -- "$qzrecon" missing.ply out.ply
printf '0 0 0\n1 1 1\n' >nonormals.xyz
expect 2 'nonormals.xyz: Normal estimation: 2 points, fewer than k + 1 = 21' -- "$qzrecon" nonormals.xyz out.ply
printf 'ply\nformat binary_little_endian 1.0\nelement vertex 5\nproperty float x\nproperty float y\nproperty float z\nproperty float nx\nproperty float ny\nproperty float nz\nend_header\n' >truncated.ply
head -c 30 sphere.ply >>truncated.ply
expect 2 'truncated.ply: byte' -- "$qzrecon" truncated.ply out.ply

# A cloud without usable normals reconstructs nothing: exit 1 with the library's text;
# with --estimate-normals it gets normals of its own.
awk '{print $1, $2, $3, 0, 0, 0}' sphere.xyzn >zero.xyzn
expect 1 'Failed to reconstruct iso-value surface' -- "$qzrecon" --depth 4 --quiet zero.xyzn out.ply
expect 0 '"estimated": true' -- "$qzrecon" --depth 4 --quiet --estimate-normals --json - zero.xyzn out.ply

# Three columns: normals estimated and oriented, said in the summary.
awk '{print $1, $2, $3}' sphere.xyzn >plain.xyz
expect 0 '"degenerate_neighbourhoods": 0' -- "$qzrecon" --depth 5 --quiet --json - plain.xyz plain.ply
expect 0 '"neighbours": 12' -- "$qzrecon" --depth 5 --quiet --neighbours 12 --viewpoint 0,0,5 --json - plain.xyz plain.ply
expect 0 'normals estimated from 20 neighbours' -- "$qzrecon" --depth 4 plain.xyz plain.ply
expect 0 '"estimated": false' -- "$qzrecon" --depth 4 --quiet --json - sphere.xyzn out.ply
expect 2 '' -- "$qzrecon" --viewpoint 0,0 plain.xyz out.ply
expect 2 '' -- "$qzrecon" --neighbours 0 plain.xyz out.ply
# The estimation's texts are its suite's to check; here, that the tool names the file.
for i in $(seq 30); do echo "$i $((2 * i)) 0"; done >line.xyz

# An output that cannot be written is refused before any work.
expect 2 '/nonexistent-dir/out.ply: cannot write the file' -- "$qzrecon" --depth 4 --quiet sphere.xyzn /nonexistent-dir/out.ply
expect 2 '/nonexistent-dir/s.json: cannot write the file' -- "$qzrecon" --quiet --json /nonexistent-dir/s.json sphere.xyzn out.ply
[ -e /nonexistent-dir ] && fail "the check made a folder"
rm -f fresh.ply
expect 2 'missing.xyz' -- "$qzrecon" missing.xyz fresh.ply
[ -e fresh.ply ] && fail "the writability check left fresh.ply behind"

# qznormals: the oriented cloud as binary PLY with normals.
expect 0 'qznormals: 4000 points, k = 20: 0 degenerate' -- "$qznormals" plain.xyz oriented.ply
head -c 300 oriented.ply | grep -q 'property float nx' || fail "qznormals wrote no normals"
head -c 300 oriented.ply | grep -q 'element face' && fail "qznormals wrote faces"
expect 0 '"components": 1' -- "$qznormals" --quiet --json - --viewpoint 3,0,0 plain.xyz oriented.ply
expect 0 'Usage' -- "$qznormals" --help
expect 2 '' -- "$qznormals" plain.xyz
expect 2 'missing.xyz: open' -- "$qznormals" missing.xyz out.ply
expect 2 'line.xyz: Normal estimation: all 30 points lie on one line' -- "$qznormals" line.xyz out.ply
expect 2 '/nonexistent-dir/o.ply: cannot write the file' -- "$qznormals" plain.xyz /nonexistent-dir/o.ply

[ "$failures" -eq 0 ] && echo "all qzrecon checks passed"
exit "$failures"
