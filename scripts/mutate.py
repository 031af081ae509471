#!/usr/bin/env python3
"""A small mutation tester for QZmath's suites.

A mutant is one small change to one source file: a flipped comparison, a
shifted bound, a dropped statement, two swapped arguments, a changed
constant, an exchanged arithmetic or logical operator. The tool applies one
mutant at a time to a separate copy of the sources (never the working tree
others build), rebuilds the suite's targets, runs the suite's test program
with a time limit and records whether the mutant was killed (the program
failed), survived, timed out or did not compile.

  mutate.py generate [--per-file 12] [--seed 19] [--suites A,B] -o LIST.json
      Picks mutants from the fixed files of each suite (below), reproducibly:
      the same seed and sources give the same list.
  mutate.py run LIST.json --src COPY --build DIR --results OUT.jsonl
                [--label old] [--exe-dir DIR] [--lib-cache DIR] [--suites A,B]
      Runs the list. COPY is a git worktree or copy at the list's commit and
      DIR a build tree configured from it. --exe-dir takes the test programs
      from another folder (a saved build of another version of the suites);
      --lib-cache keeps each mutant's rebuilt shared library, so that a later
      run of the same list against other test programs skips the rebuilds.
      A run that stops can be started again: mutants already in OUT are kept.
      --per-test runs whole suites (no stop at the first failure) and records
      the failed tests of each mutant.
  mutate.py summary OUT.jsonl [OUT2.jsonl ...] [--survivors LIST.json]
      Counts per suite and label; --survivors prints the surviving mutants.
  mutate.py tests OUT.jsonl --label L
      For a --per-test run: per test, the mutants it kills and how many of
      them no other test kills (a test that kills nothing alone only repeats
      what others check, as far as this sample of mutants can tell).
"""
import argparse
import hashlib
import json
import os
import random
import re
import shutil
import signal
import subprocess
import sys
import time

# The files mutated for each suite, the targets a mutant of them needs and the
# test program that judges it. "lib" names the shared library whose rebuilt
# copy can stand in for a rebuild (none where the suite links the code
# statically and must relink its program).
def library_suite(files, exe):
    """A suite of files of the main library, judged by one test program."""
    return dict(files=files, targets=["QZmath"], exe=exe, lib="QZmath/libQZmath.so.0")


SUITES = {
    "Foundation": library_suite(
        ["QZmath/Foundation/Matrix.cpp", "QZmath/Foundation/NumericRoutines.cpp",
         "QZmath/Foundation/VectorGeometry.cpp", "QZmath/Foundation/RotationMatrix.cpp",
         "QZmath/Foundation/LinearTransform.cpp", "QZmath/Foundation/OrthoNormBasis.cpp",
         "QZmath/Foundation/Quaternion.cpp", "QZmath/Foundation/Vector.cpp"],
        "tests/Foundation/test_foundation"),
    "LinSys": library_suite(
        ["QZmath/LinSys/CSRSquareMatrix.cpp", "QZmath/LinSys/LinSysSolverDecomposed.cpp",
         "QZmath/LinSys/SparseVector.cpp", "QZmath/LinSys/LinSysVariableManager.cpp",
         "QZmath/LinSys/CSRSstorage.cpp", "QZmath/LinSys/LinSysSolverCore.cpp",
         "QZmath/LinSys/LinSysSolverSparseDss.cpp", "QZmath/LinSys/LinSysSolverCompose.cpp",
         "QZmath/LinSys/VPLSstorage.cpp", "QZmath/LinSys/VertexLinearCombination.cpp",
         "QZmath/LinSys/bicgstab.cpp"],
        "tests/LinSys/test_linsys"),
    "Persistence": library_suite(
        ["QZmath/Persistence/ExternVector.cpp", "QZmath/Persistence/ComponentFilters.cpp",
         "QZmath/Persistence/Heap.cpp", "QZmath/Persistence/BinaryStream.cpp",
         "QZmath/Persistence/Colours.cpp", "QZmath/Persistence/GraphObject.cpp",
         "QZmath/Persistence/ModelSizer.cpp"],
        "tests/Persistence/test_persistence"),
    "QZsys": dict(
        files=["QZsys/Progress.cpp", "QZsys/Threading.cpp", "QZsys/DebugLog.cpp",
               "QZsys/ConsoleProgressBar.cpp", "QZsys/TempFile.cpp"],
        targets=["QZsys"], exe="tests/QZsys/test_qzsys", lib="QZsys/libQZsys.so.0"),
    "BlockProcessor": library_suite(
        ["QZmath/BlockProcessor/BlockProc.cpp", "QZmath/BlockProcessor/BlockWorker.cpp",
         "QZmath/BlockProcessor/ThreadTrace.cpp", "QZmath/BlockProcessor/TransThreadPrgCntAdapter.cpp",
         "QZmath/BlockProcessor/detail/MutexLockers.cpp"],
        "tests/BlockProcessor/test_blockprocessor"),
    "Fitting": library_suite(
        ["QZmath/Fitting/FitCircle.cpp", "QZmath/Fitting/PlaneEq.cpp",
         "QZmath/Fitting/PolylineFitCurve.cpp", "QZmath/Fitting/QLPoptimize.cpp",
         "QZmath/Fitting/Arc2D.cpp", "QZmath/Fitting/ContourCorners.cpp", "QZmath/Fitting/FitLine.cpp",
         "QZmath/Fitting/MinMaxOptimizer.cpp", "QZmath/Fitting/PolylineSmoothing.cpp",
         "QZmath/Fitting/RobustRegression.cpp"],
        "tests/Fitting/test_fitting"),
    "SurfaceAnalysis": library_suite(
        ["QZmath/SurfaceAnalysis/GetNormal.cpp", "QZmath/SurfaceAnalysis/Distances.cpp",
         "QZmath/SurfaceAnalysis/NormalEstimation.cpp", "QZmath/SurfaceAnalysis/QuadraticForm.cpp",
         "QZmath/SurfaceAnalysis/Contour2D.cpp", "QZmath/SurfaceAnalysis/NetProjection.cpp",
         "QZmath/SurfaceAnalysis/ProjectorTriangle.cpp", "QZmath/SurfaceAnalysis/Projectors.cpp"],
        "tests/SurfaceAnalysis/test_surfaceanalysis"),
    # The polygoniser's driver belongs here: the fast and the specified
    # extraction are compared, normals included, in this suite.
    "VolTriang": library_suite(
        ["QZmath/VolTriang/Octree.cpp", "QZmath/VolTriang/SingleVarPolynom.cpp",
         "QZmath/VolTriang/Polynom.cpp", "QZmath/VolTriang/PiecewisePolynom.cpp",
         "QZmath/VolTriang/ProductPolynom.cpp", "QZmath/VolTriang/CSFProductHelper.cpp",
         "QZmath/VolTriang/OctreeFuncBasis.cpp", "QZmath/VolTriang/OctreeFuncBlockEval.cpp",
         "QZmath/VolTriang/MultilevelPoisson.cpp", "QZmath/VolTriang/Kernels.cpp",
         "QZmath/VolTriang/jbProcess.cpp", "QZmath/VolTriang/VolTriangIsoSurface.cpp",
         "QZmath/VolTriang/OctreeFuncLatticeEval.cpp", "QZmath/VolTriang/OctreeIterators.cpp"],
        "tests/VolTriang/test_voltriang"),
    # The end-to-end suite: whole reconstructions, judged by their meshes.
    "Reconstruction": library_suite(
        ["QZmath/VolTriang/VolTriangAssembly.cpp", "QZmath/VolTriang/VolTriangIsoValue.cpp",
         "QZmath/VolTriang/VolumetricTriangulator.cpp"],
        "tests/Reconstruction/test_reconstruction"),
    "Tools": dict(
        files=["tools/qzrecon/CloudIO.cpp", "tools/qzrecon/ShapeCloud.cpp", "tools/qzrecon/CloudNormals.cpp"],
        targets=["test_tools", "qzrecon", "qznormals", "qzsample"], exe="tests/Tools/test_tools",
        lib=None),
}

# ---- finding mutants ---------------------------------------------------------


def mask_source(text):
    """The text with comments, string and character literals and preprocessor
    lines blanked (same length, newlines kept), so that patterns see code only."""
    out = list(text)
    i, n = 0, len(text)
    line_start = True
    while i < n:
        c = text[i]
        if line_start and c == "#":
            j = i
            while j < n and text[j] != "\n":
                if text[j] == "\\" and j + 1 < n and text[j + 1] == "\n":
                    j += 1
                j += 1
            for k in range(i, j):
                if out[k] != "\n":
                    out[k] = " "
            i = j
            continue
        if c == "\n":
            line_start = True
            i += 1
            continue
        if not c.isspace():
            line_start = False
        if text.startswith("//", i):
            j = text.find("\n", i)
            j = n if j < 0 else j
            for k in range(i, j):
                out[k] = " "
            i = j
        elif text.startswith("/*", i):
            j = text.find("*/", i + 2)
            j = n if j < 0 else j + 2
            for k in range(i, j):
                if out[k] != "\n":
                    out[k] = " "
            i = j
        elif c in "\"'":
            if c == "'" and i > 0 and text[i - 1].isalnum():  # digit separator
                i += 1
                continue
            j = i + 1
            while j < n and text[j] != c and text[j] != "\n":
                j += 2 if text[j] == "\\" else 1
            for k in range(i + 1, min(j, n)):
                out[k] = " "
            i = j + 1
        else:
            i += 1
    return "".join(out)


CMP_FLIP = {"==": "!=", "!=": "==", "<": ">=", ">": "<=", "<=": ">", ">=": "<"}
BOUNDARY = {"<": "<=", "<=": "<", ">": ">=", ">=": ">"}
ARITH = {"+": "-", "-": "+", "*": "/", "/": "*"}
LOGIC = {"&&": "||", "||": "&&"}

RE_CMP = re.compile(r"(?<= )(==|!=|<=|>=|<|>)(?= )")
RE_ARITH = re.compile(r"(?<=[\w\)\]] )([-+*/])(?= [\w\(])")
RE_LOGIC = re.compile(r"(?<= )(&&|\|\|)(?= )")
RE_BOOL = re.compile(r"\b(true|false)\b")
RE_INT = re.compile(r"(?<![\w.])(\d+)(?![\w.'])")
RE_FLOAT = re.compile(r"(?<![\w.])((?:\d+\.\d*|\.\d+)(?:[eE][-+]?\d+)?|\d+[eE][-+]?\d+)[fF]?(?![\w.])")
RE_CALL2 = re.compile(r"\b[A-Za-z_]\w*\(\s*([^(),;{}\[\]]+?)\s*,\s*([^(),;{}\[\]]+?)\s*[,)]")
RE_SIMPLE_ARG = re.compile(r"^-?[\w.\[\]]+(?:->\w+)*$")
# a word before " * " or " & " that names a type: a declaration, not a product
RE_TYPE_WORD = re.compile(r"^(?:const|void|int|double|float|char|bool|auto|unsigned|long|short|T|U|"
                          r"[A-Z]\w*|tf_\w*|\w+_t)$")
RE_STMT = re.compile(
    r"^([ \t]*)((?:\*?[A-Za-z_][\w:]*(?:\s*(?:\.|->)\s*\w+|\s*\[[^\]\n]*\])*"
    r"\s*(?:[-+*/|&^]?=(?!=)|\+\+|--|\()[^\n]*|break|continue|\+\+[^\n]*|--[^\n]*);)[ \t]*$",
    re.M)
KEYWORDS = {"return", "if", "for", "while", "else", "case", "default", "do", "switch", "throw",
            "delete", "goto", "using", "typedef", "static_assert"}


def balanced(s):
    depth = 0
    for ch in s:
        depth += ch == "("
        depth -= ch == ")"
        if depth < 0:
            return False
    return depth == 0


def candidates(text):
    """Every mutant of one file: (operator, offset, original, replacement)."""
    m = mask_source(text)
    out = []
    for r in RE_CMP.finditer(m):
        op = r.group(1)
        out.append(("flip-comparison", r.start(), op, CMP_FLIP[op]))
        if op in BOUNDARY:
            out.append(("shift-bound", r.start(), op, BOUNDARY[op]))
    for r in RE_ARITH.finditer(m):
        if r.group(1) == "*":
            before = re.search(r"([\w>]+)\s*$", m[:r.start()])
            if before and (before.group(1).endswith(">") or RE_TYPE_WORD.match(before.group(1))):
                continue
        out.append(("swap-arithmetic", r.start(), r.group(1), ARITH[r.group(1)]))
    for r in RE_LOGIC.finditer(m):
        out.append(("swap-logic", r.start(), r.group(1), LOGIC[r.group(1)]))
    for r in RE_BOOL.finditer(m):
        out.append(("change-constant", r.start(), r.group(1),
                    "false" if r.group(1) == "true" else "true"))
    for r in RE_INT.finditer(m):
        v = int(r.group(1))
        out.append(("shift-bound" if v <= 2 else "change-constant", r.start(), r.group(1),
                    str(v + 1 if v == 0 else v - 1)))
    for r in RE_FLOAT.finditer(m):
        s = r.group(1)
        v = float(s)
        repl = "1.0" if v == 0 else repr(v * 2)
        out.append(("change-constant", r.start(1), s, repl))
    for r in RE_CALL2.finditer(m):
        a, b = r.group(1), r.group(2)
        name = r.group(0).split("(")[0]
        if a == b or name in KEYWORDS or not RE_SIMPLE_ARG.match(a) or not RE_SIMPLE_ARG.match(b):
            continue
        start = r.start(1)
        orig = text[start:r.end(2)]
        sep = orig[len(a):len(orig) - len(b)]
        out.append(("swap-arguments", start, orig, b + sep + a))
    for r in RE_STMT.finditer(m):
        stmt = r.group(2)
        first = re.match(r"\*?([A-Za-z_]\w*)", stmt)
        if first and first.group(1) in KEYWORDS:
            continue
        if not balanced(stmt) or "{" in stmt or "}" in stmt:
            continue
        # a statement starts after one ends, a block opens or a condition closes
        prev = m[:r.start()].rstrip()
        if prev and prev[-1] not in ";{}):" and not prev.endswith("else"):
            continue
        out.append(("drop-statement", r.start(2), text[r.start(2):r.end(2)], ";"))
    out.sort(key=lambda c: (c[1], c[0], c[3]))
    return out


def line_of(text, offset):
    return text.count("\n", 0, offset) + 1


def pick(cands, k, rng):
    """k mutants spread over the operators: round robin over shuffled groups."""
    groups = {}
    for c in cands:
        groups.setdefault(c[0], []).append(c)
    for g in groups.values():
        rng.shuffle(g)
    order = sorted(groups)
    rng.shuffle(order)
    chosen = []
    while len(chosen) < k and any(groups.values()):
        for op in order:
            if groups[op] and len(chosen) < k:
                chosen.append(groups[op].pop())
    return sorted(chosen, key=lambda c: c[1])


def cmd_generate(args):
    src = os.path.abspath(args.src)
    commit = subprocess.run(["git", "-C", src, "rev-parse", "HEAD"], capture_output=True,
                            text=True).stdout.strip()
    suites = args.suites.split(",") if args.suites else list(SUITES)
    # The list names its commit, so it must be made from that commit's files:
    # a copy where a run has a mutant in place would yield mutants that undo
    # it (and offsets of a changed text).
    files = [path for suite in suites for path in SUITES[suite]["files"]]
    changed = subprocess.run(["git", "-C", src, "status", "--porcelain", "--"] + files,
                             capture_output=True, text=True).stdout.strip()
    if changed:
        sys.exit("the copy has changes in files to mutate (a run in progress?):\n" + changed)
    mutants = []
    for suite in suites:
        for path in SUITES[suite]["files"]:
            with open(os.path.join(src, path), encoding="utf-8") as f:
                text = f.read()
            rng = random.Random("%d:%s" % (args.seed, path))
            for n, (op, off, orig, repl) in enumerate(pick(candidates(text), args.per_file, rng)):
                ln = line_of(text, off)
                mutants.append(dict(id="%s:%d" % (path, n), suite=suite, file=path, offset=off,
                                    line=ln, op=op, orig=orig, repl=repl,
                                    context=text.splitlines()[ln - 1].strip()))
    with open(args.output, "w", encoding="utf-8") as f:
        json.dump(dict(commit=commit, seed=args.seed, per_file=args.per_file, mutants=mutants), f,
                  indent=1)
    print("%d mutants from %d suites written to %s" % (len(mutants), len(suites), args.output))


# ---- running them ------------------------------------------------------------


def build(build_dir, targets, log):
    r = subprocess.run(["cmake", "--build", build_dir, "-j", "2", "--target"] + targets,
                       stdout=log, stderr=subprocess.STDOUT)
    return r.returncode == 0


def run_exe(exe, timeout, env, report=None):
    """Runs a suite: "survived", "killed" or "timeout", the seconds, and with
    `report` (a path for the JSON report) the names of the failed tests, or
    None when the program died before writing them."""
    t0 = time.monotonic()
    args = [exe, "--gtest_brief=1"]
    args += ["--gtest_output=json:" + report] if report else ["--gtest_fail_fast"]
    failed = None
    try:
        if report and os.path.exists(report):
            os.remove(report)
        # Its own process group, so that a timeout also ends the children a
        # suite forks (death tests), not only the suite.
        proc = subprocess.Popen(args, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, env=env,
                                start_new_session=True)
        try:
            returncode = proc.wait(timeout=timeout)
        except subprocess.TimeoutExpired:
            os.killpg(proc.pid, signal.SIGKILL)
            proc.wait()
            raise
        finally:
            try:
                os.killpg(proc.pid, signal.SIGKILL)  # what is left of the group
            except ProcessLookupError:
                pass
        status = "survived" if returncode == 0 else "killed"
        if report and os.path.exists(report):
            with open(report, encoding="utf-8") as f:
                doc = json.load(f)
            failed = sorted("%s.%s" % (suite["name"], t["name"]) for suite in doc.get("testsuites", [])
                            for t in suite.get("testsuite", []) if t.get("failures"))
    except (subprocess.TimeoutExpired, ValueError) as e:
        status = "timeout" if isinstance(e, subprocess.TimeoutExpired) else "killed"
    return status, time.monotonic() - t0, failed


def touch_newer(path):
    """Gives the file a modification time the build cannot mistake for an old one."""
    now = time.time()
    st = os.stat(path)
    t = max(now, st.st_mtime + 1)
    os.utime(path, (t, t))


def cache_key(m):
    """A folder name that stands for the change itself, whatever list it is in."""
    digest = hashlib.sha1((m["orig"] + "\0" + m["repl"]).encode()).hexdigest()[:10]
    return "%s@%d@%s" % (m["file"].replace("/", "_"), m["offset"], digest)


def stop_on_signal(signum, frame):
    raise KeyboardInterrupt("signal %d" % signum)


def cmd_run(args):
    # a stopped run must still put the mutated file back
    signal.signal(signal.SIGTERM, stop_on_signal)
    with open(args.list, encoding="utf-8") as f:
        listing = json.load(f)
    src, bld = os.path.abspath(args.src), os.path.abspath(args.build)
    head = subprocess.run(["git", "-C", src, "rev-parse", "HEAD"], capture_output=True,
                          text=True).stdout.strip()
    if head != listing["commit"]:
        sys.exit("the copy is at %s, the list was made at %s" % (head, listing["commit"]))
    suites = set(args.suites.split(",")) if args.suites else set(SUITES)
    todo = [m for m in listing["mutants"] if m["suite"] in suites]
    done = set()
    if os.path.exists(args.results):
        with open(args.results, encoding="utf-8") as f:
            for line in f:
                r = json.loads(line)
                if r["label"] == args.label:
                    done.add(r["id"])
    log = open(args.results + ".build.log", "a")
    env = dict(os.environ)

    def exe_of(suite):
        cfg = SUITES[suite]
        if args.exe_dir and cfg["lib"]:
            return os.path.join(os.path.abspath(args.exe_dir), os.path.basename(cfg["exe"]))
        return os.path.join(bld, cfg["exe"])

    # the unmutated suites must pass, and give the time limit
    limits = {}
    for suite in sorted({m["suite"] for m in todo}):
        if not build(bld, SUITES[suite]["targets"] + ([] if args.exe_dir else
                                                      [os.path.basename(SUITES[suite]["exe"])]), log):
            sys.exit("the unmutated build of %s fails" % suite)
        status, secs, _ = run_exe(exe_of(suite), 600, env)
        if status != "survived":
            sys.exit("the unmutated %s suite does not pass (%s)" % (suite, exe_of(suite)))
        limits[suite] = max(20.0, (8 if args.per_test else 4) * secs + 10)
        print("%s: unmutated suite passes in %.1f s, limit %.0f s" % (suite, secs, limits[suite]),
              flush=True)

    out = open(args.results, "a", encoding="utf-8")
    pristine = {}
    current = None

    def restore(path):
        if path is None:
            return
        full = os.path.join(src, path)
        with open(full, "w", encoding="utf-8") as f:
            f.write(pristine[path])
        touch_newer(full)

    try:
        for i, m in enumerate(todo):
            if m["id"] in done:
                continue
            cfg = SUITES[m["suite"]]
            cache = os.path.join(args.lib_cache, cache_key(m)) if args.lib_cache else None
            t0 = time.monotonic()
            run_env = env
            if cache and cfg["lib"] and (os.path.exists(os.path.join(cache, "NOT_COMPILING")) or
                                         os.path.exists(os.path.join(cache, os.path.basename(cfg["lib"])))):
                compiled = not os.path.exists(os.path.join(cache, "NOT_COMPILING"))
                run_env = dict(env, LD_LIBRARY_PATH=cache + ":" + env.get("LD_LIBRARY_PATH", ""))
            else:
                if current != m["file"]:
                    if current is not None:
                        restore(current)
                    current = m["file"]
                    with open(os.path.join(src, current), encoding="utf-8") as f:
                        pristine[current] = f.read()
                text = pristine[current]
                off, orig = m["offset"], m["orig"]
                if text[off:off + len(orig)] != orig:
                    sys.exit("mutant %s does not match the source" % m["id"])
                full = os.path.join(src, m["file"])
                with open(full, "w", encoding="utf-8") as f:
                    f.write(text[:off] + m["repl"] + text[off + len(orig):])
                touch_newer(full)
                log.write("\n==== %s\n" % m["id"])
                log.flush()
                compiled = build(bld, cfg["targets"], log)
                if cache and cfg["lib"]:
                    os.makedirs(cache, exist_ok=True)
                    if compiled:
                        lib = os.path.join(bld, cfg["lib"])
                        target = os.path.join(cache, os.path.basename(lib))
                        shutil.copy2(os.path.realpath(lib), target + ".part")
                        os.replace(target + ".part", target)
                    else:
                        open(os.path.join(cache, "NOT_COMPILING"), "w").close()
            failed = None
            if compiled:
                report = args.results + ".report.json" if args.per_test else None
                status, _, failed = run_exe(exe_of(m["suite"]), limits[m["suite"]], run_env, report)
            else:
                status = "not-compiling"
            rec = dict(id=m["id"], suite=m["suite"], label=args.label, status=status,
                       secs=round(time.monotonic() - t0, 1))
            if args.per_test:
                rec["failed"] = failed
            out.write(json.dumps(rec) + "\n")
            out.flush()
            print("[%d/%d] %-8s %-14s %s:%d %s '%s' -> '%s'" % (
                i + 1, len(todo), args.label, status, m["file"], m["line"], m["op"], m["orig"],
                m["repl"]), flush=True)
    finally:
        if current is not None:
            restore(current)
            suite = next(m["suite"] for m in todo if m["file"] == current)
            build(bld, SUITES[suite]["targets"], log)
    print("done")


def cmd_summary(args):
    recs = {}
    for path in args.results:
        with open(path, encoding="utf-8") as f:
            for line in f:
                r = json.loads(line)
                recs[(r["label"], r["id"])] = r
    labels = sorted({k[0] for k in recs})
    suites = sorted({r["suite"] for r in recs.values()})
    kinds = ["killed", "survived", "timeout", "not-compiling"]
    print("%-16s %-8s %7s %9s %8s %14s %6s" % ("suite", "label", *kinds, "score"))
    for s in suites + ["all"]:
        for lab in labels:
            rs = [r for (l, _), r in recs.items() if l == lab and (s == "all" or r["suite"] == s)]
            if not rs:
                continue
            c = {k: sum(r["status"] == k for r in rs) for k in kinds}
            valid = c["killed"] + c["survived"] + c["timeout"]
            score = 100.0 * (c["killed"] + c["timeout"]) / valid if valid else 0
            print("%-16s %-8s %7d %9d %8d %14d %5.1f%%" % (s, lab, *(c[k] for k in kinds), score))
    if len(labels) == 2:
        a, b = labels
        diff = [i for (l, i), r in recs.items() if l == a and r["status"] in ("killed", "timeout")
                and recs.get((b, i), {}).get("status") == "survived"]
        diff2 = [i for (l, i), r in recs.items() if l == b and r["status"] in ("killed", "timeout")
                 and recs.get((a, i), {}).get("status") == "survived"]
        print("killed by %s only: %s" % (a, " ".join(sorted(diff)) or "none"))
        print("killed by %s only: %s" % (b, " ".join(sorted(diff2)) or "none"))
    if args.survivors:
        with open(args.survivors, encoding="utf-8") as f:
            byid = {m["id"]: m for m in json.load(f)["mutants"]}
        for (lab, i), r in sorted(recs.items()):
            if r["status"] == "survived":
                m = byid[i]
                print("%s survived %s:%d %s '%s' -> '%s'   | %s" % (
                    lab, m["file"], m["line"], m["op"], m["orig"], m["repl"], m["context"]))


def cmd_tests(args):
    """Per test of one label: the mutants it kills, and those no other test kills."""
    recs = []
    with open(args.results, encoding="utf-8") as f:
        for line in f:
            r = json.loads(line)
            if r["label"] == args.label and r.get("failed"):
                recs.append(r)
    kills, unique = {}, {}
    for r in recs:
        for t in r["failed"]:
            kills.setdefault(t, []).append(r["id"])
        if len(r["failed"]) == 1:
            unique.setdefault(r["failed"][0], []).append(r["id"])
    for t in sorted(kills, key=lambda t: (len(unique.get(t, [])), len(kills[t]))):
        print("%4d %4d  %s" % (len(kills[t]), len(unique.get(t, [])), t))


def main():
    p = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    sub = p.add_subparsers(dest="cmd", required=True)
    g = sub.add_parser("generate")
    g.add_argument("--src", default=os.path.join(os.path.dirname(os.path.abspath(__file__)), ".."))
    g.add_argument("--per-file", type=int, default=10)
    g.add_argument("--seed", type=int, default=19)
    g.add_argument("--suites")
    g.add_argument("-o", "--output", required=True)
    r = sub.add_parser("run")
    r.add_argument("list")
    r.add_argument("--src", required=True)
    r.add_argument("--build", required=True)
    r.add_argument("--results", required=True)
    r.add_argument("--label", default="run")
    r.add_argument("--exe-dir")
    r.add_argument("--lib-cache")
    r.add_argument("--suites")
    r.add_argument("--per-test", action="store_true",
                   help="run whole suites and record which tests fail for each mutant")
    s = sub.add_parser("summary")
    s.add_argument("results", nargs="+")
    s.add_argument("--survivors")
    t = sub.add_parser("tests")
    t.add_argument("results")
    t.add_argument("--label", required=True)
    args = p.parse_args()
    {"generate": cmd_generate, "run": cmd_run, "summary": cmd_summary, "tests": cmd_tests}[args.cmd](args)


if __name__ == "__main__":
    main()
