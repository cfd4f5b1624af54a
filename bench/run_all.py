#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Runs every benchmark and each of its peers on the reference BLAS/LAPACK
and on the system's default BLAS (OpenBLAS), one thread, and prints the
tables of bench/README.md.

Usage: /usr/bin/python3 bench/run_all.py BUILD_DIR   (see bench/run_all.sh)

For each BLAS in turn the library's benchmark and its peers run back to
back in one session, with the same environment: LD_LIBRARY_PATH selects the
reference library for the library and for numpy, scipy, cvxopt and R alike,
and OPENBLAS_NUM_THREADS=1 keeps OpenBLAS on one thread.  Every time is the
best of several repetitions in process CPU time (contention on a shared
machine only ever adds time, and CPU time is less disturbed by other
processes than the wall clock); every ratio is lumbra / peer from the same
run on the same BLAS, below 1 meaning that lumbra is faster.
"""
import json
import os
import platform
import re
import subprocess
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
PEERS = os.path.join(HERE, "peers")
PY = "/usr/bin/python3"
REFERENCE = "/usr/lib/x86_64-linux-gnu/blas:/usr/lib/x86_64-linux-gnu/lapack"
BLASES = (("reference", REFERENCE), ("OpenBLAS", None))


def environment(library_path):
    env = dict(os.environ, OPENBLAS_NUM_THREADS="1", OMP_NUM_THREADS="1")
    env.pop("LD_LIBRARY_PATH", None)
    if library_path:
        env["LD_LIBRARY_PATH"] = library_path
    return env


def run(cmd, env):
    return subprocess.run(cmd, check=True, env=env, capture_output=True, text=True).stdout


def blas_in_use(binary, env):
    """The libblas and liblapack the dynamic linker picks for binary."""
    found = []
    for line in run(["ldd", binary], env).splitlines():
        m = re.match(r"\s*(lib(?:blas|lapack|openblas)\S*) => (\S+)", line)
        if m:
            found.append(os.path.realpath(m.group(2)))
    return ", ".join(found)


def google_benchmark(binary, env, pattern, repetitions):
    """Per benchmark name, the repetition of least CPU time: its JSON record
    (cpu_time in the benchmark's time_unit, and its counters)."""
    out = run([binary, "--benchmark_format=json", "--benchmark_filter=" + pattern,
               "--benchmark_repetitions=%d" % repetitions, "--benchmark_min_time=0.2"], env)
    best = {}
    for b in json.loads(out)["benchmarks"]:
        if b.get("run_type") != "iteration":
            continue
        if "error_occurred" in b:
            sys.exit("%s: %s" % (b["name"], b.get("error_message")))
        name = b["name"].replace("/real_time", "")
        if name not in best or b["cpu_time"] < best[name]["cpu_time"]:
            best[name] = b
    return best


def cpu(records, name):
    return records[name]["cpu_time"]


def covariance(build, env):
    lumbra = google_benchmark(os.path.join(build, "bench", "bench_covariance"), env, ".", 7)
    numpy = {}
    for line in run([PY, os.path.join(PEERS, "covariance_numpy.py")], env).splitlines():
        m = re.match(r"numpy.cov T=2500 n=(\d+): best ([\d.]+) ms", line)
        numpy[int(m.group(1))] = float(m.group(2))
    return {n: (cpu(lumbra, "BM_ModelingCov/%d" % n), numpy[n]) for n in (500, 1000)}


def allocators(build, env, directory):
    run([PY, os.path.join(PEERS, "alloc_problems.py"), directory], env)
    env = dict(env, LUMBRA_ALLOC_BENCH_DIR=directory)
    lumbra = google_benchmark(os.path.join(build, "bench", "bench_alloc"), env, ".", 5)
    peers = {}
    for cmd in ([PY, os.path.join(PEERS, "alloc_cvxopt.py"), directory],
                ["Rscript", os.path.join(PEERS, "alloc_quadprog.R"), directory]):
        for line in run(cmd, env).splitlines():
            peer, kind, n, us = line.split()
            peers[(peer, kind, int(n))] = float(us)
    return lumbra, peers


def qp(build, env, directory):
    binary = os.path.join(build, "bench", "bench_qp")
    os.makedirs(directory, exist_ok=True)
    run([binary, "--dump=" + directory], env)
    lumbra = google_benchmark(binary, env, ".", 3)
    iterations = {int(name.split("/")[1]): int(b["solver_iterations"])
                  for name, b in lumbra.items()}
    peers = {}
    for cmd in ([PY, os.path.join(PEERS, "qp_cvxopt.py"), directory],
                ["Rscript", os.path.join(PEERS, "qp_quadprog.R"), directory]):
        for line in run(cmd, env).splitlines():
            m = re.match(r"(\w+) n=(\d+) .*iterations=(\d+) time_ms=([\d.]+)", line)
            peers[(m.group(1), int(m.group(2)))] = (int(m.group(3)), float(m.group(4)))
    return lumbra, iterations, peers


def statistics(build, env):
    lumbra = google_benchmark(os.path.join(build, "bench", "bench_stats"), env, ".", 3)
    out = run([PY, os.path.join(PEERS, "stats_kde_scipy.py")], env)
    scipy = float(re.search(r"evaluate: ([\d.]+) ms", out).group(1))
    return lumbra, scipy


NEARNESS_SIZES = (100, 200)


def nearness(build, env, directory):
    """The nearest correlation matrix: the statsmodels peer (which also times
    ORXmodelingSDLScorr through ctypes in its own process, the time that the
    table shows, and writes the targets) and bench_nearness on the same
    targets (evaluations of the dual, its time against one DSYEVR), both on
    this BLAS.  statsmodels'
    default budget is estimated from the cost of its iterations
    (--default-upto 0), which keeps the session short."""
    os.makedirs(directory, exist_ok=True)
    sizes = ",".join(str(n) for n in NEARNESS_SIZES)
    library = os.path.join(build, "liborx-lumbra-c-4.1.so")
    out = run([PY, os.path.join(PEERS, "nearness_statsmodels.py"), "--dump", directory,
               "--sizes", sizes, "--default-upto", "0"], dict(env, LUMBRA_LIBRARY=library))
    peer = {}
    for line in out.splitlines():
        m = re.match(r"(hard|mild) (\d+) \| (\d+), [^|]*\|(.*)", line)
        if not m:
            continue
        equal = re.match(r" (\d+), (\d+), ", m.group(4))
        default = re.search(r"~(\d+) \(estimated\)", m.group(4))
        peer[(m.group(1), int(m.group(2)))] = (
            float(m.group(3)), int(equal.group(1)) if equal else None,
            float(equal.group(2)) if equal else None,
            float(default.group(1)) if default else None)
    lumbra = google_benchmark(os.path.join(build, "bench", "bench_nearness"),
                              dict(env, LUMBRA_NEARNESS_TARGETS=directory,
                                   LUMBRA_NEARNESS_SIZES=sizes), ".", 1)
    return lumbra, peer


def simulation(build, env):
    return google_benchmark(os.path.join(build, "bench", "bench_simul"), env, ".", 3)


def load():
    return "%.2f %.2f %.2f" % os.getloadavg()


def main():
    build = os.path.abspath(sys.argv[1] if len(sys.argv) > 1 else "build-bench")
    work = tempfile.mkdtemp(prefix="lumbra_bench_")
    results = {}
    print("Machine: %s, %d cores; %s" % (platform.processor() or platform.machine(),
                                         os.cpu_count(), time.strftime("%Y-%m-%d %H:%M UTC",
                                                                       time.gmtime())))
    for name, path in BLASES:
        env = environment(path)
        started = time.time()
        r = {"blas": blas_in_use(os.path.join(build, "bench", "bench_covariance"), env),
             "load before": load()}
        r["cov"] = covariance(build, env)
        r["alloc"] = allocators(build, env, os.path.join(work, "alloc"))
        r["qp"] = qp(build, env, os.path.join(work, "qp"))
        r["stats"] = statistics(build, env)
        r["simul"] = simulation(build, env)
        r["nearness"] = nearness(build, env, os.path.join(work, "nearness", name))
        r["load after"] = load()
        r["minutes"] = (time.time() - started) / 60
        results[name] = r
        print("%s: %s; load average (1, 5, 15 min) %s before, %s after; %.1f min" % (
            name, r["blas"], r["load before"], r["load after"], r["minutes"]))
    print_tables(results)


def print_tables(results):
    names = [name for name, _ in BLASES]
    header = " | ".join("%s: %s" % (b, c) for b in names for c in ("lumbra", "peer", "ratio"))

    print("\n### Covariance, T = 2500 (ms; peer numpy.cov)\n")
    print("| n | " + header + " |")
    print("|---|" + "---|" * 3 * len(names))
    for n in (500, 1000):
        cells = []
        for b in names:
            mine, peer = results[b]["cov"][n]
            cells += ["%.1f" % mine, "%.1f" % peer, "%.2f" % (mine / peer)]
        print("| %d | %s |" % (n, " | ".join(cells)))

    print("\n### Allocators (us; ratios lumbra / peer)\n")
    cols = " | ".join("%s: %s" % (b, c) for b in names
                      for c in ("lumbra", "/ cvxopt", "/ quadprog", "engine alone"))
    print("| problem | n | " + cols + " |")
    print("|---|---|" + "---|" * 4 * len(names))
    bench = {"MV": "BM_AllocMV", "IT": "BM_AllocIT", "SR": "BM_AllocSharpeRatio"}
    for kind, label in (("MV", "ORXallocMV"), ("IT", "ORXallocIT"), ("SR", "ORXallocSharpeRatio")):
        for n in (50, 200, 500):
            cells = []
            for b in names:
                lumbra, peers = results[b]["alloc"]
                t = cpu(lumbra, "%s/%d" % (bench[kind], n))
                engine = "%.0f" % cpu(lumbra, "BM_AllocMVEngine/%d" % n) if kind == "MV" else ""
                cells += ["%.0f" % t, "%.2f" % (t / peers[("cvxopt", kind, n)]),
                          "%.2f" % (t / peers[("quadprog", kind, n)]), engine]
            print("| %s | %d | %s |" % (label, n, " | ".join(cells)))

    print("\n### QP solver (ms; iterations in brackets; ratios lumbra / peer, "
          "per iteration against quadprog)\n")
    cols = " | ".join("%s: %s" % (b, c) for b in names
                      for c in ("lumbra", "cvxopt", "quadprog", "/ cvxopt", "/ quadprog",
                                "/ quadprog per iter."))
    print("| n | " + cols + " |")
    print("|---|" + "---|" * 6 * len(names))
    for n in (50, 200, 500, 1000):
        cells = []
        for b in names:
            lumbra, iterations, peers = results[b]["qp"]
            t = cpu(lumbra, "BM_QpDriverMeanVariance/%d" % n)
            it = iterations.get(n, 0)
            ci, ct = peers[("cvxopt", n)]
            qi, qt = peers[("quadprog", n)]
            per = "%.2f" % ((t / it) / (qt / qi)) if it else ""
            cells += ["%.3g (%d)" % (t, it), "%.3g (%d)" % (ct, ci), "%.3g (%d)" % (qt, qi),
                      "%.2f" % (t / ct), "%.2f" % (t / qt), per]
        print("| %d | %s |" % (n, " | ".join(cells)))

    print("\n### Risk statistics (ms)\n")
    print("| case | " + " | ".join("%s: %s" % (b, c) for b in names
                                   for c in ("lumbra", "peer", "ratio")) + " |")
    print("|---|" + "---|" * 3 * len(names))
    cells = []
    for b in names:
        lumbra, scipy = results[b]["stats"]
        t = cpu(lumbra, "BM_GaussianKernel")
        cells += ["%.1f" % t, "%.1f" % scipy, "%.2f" % (t / scipy)]
    print("| Gaussian kernel density, 10^4 observations at 10^3 points (peer scipy "
          "gaussian_kde) | %s |" % " | ".join(cells))
    for n in (10, 20, 40):
        cells = []
        for b in names:
            lumbra, _ = results[b]["stats"]
            cells += ["%.3g" % cpu(lumbra, "BM_ModifiedVaR/%d" % n), "", ""]
        print("| Cornish-Fisher VaR, T = 250, n = %d (no peer) | %s |" % (n, " | ".join(cells)))

    print("\n### Simulation (CPU time; no peer)\n")
    print("| benchmark | " + " | ".join(names) + " |")
    print("|---|" + "---|" * len(names))
    for key in results[names[0]]["simul"]:
        print("| %s | %s |" % (key, " | ".join(
            "%.4g %s" % (results[b]["simul"][key]["cpu_time"], results[b]["simul"][key]["time_unit"])
            for b in names)))


    print("\n### Nearest correlation matrix, ORXmodelingSDLScorr (ms; peer statsmodels "
          "corr_nearest at equal accuracy)\n")
    cols = " | ".join("%s: %s" % (b, c) for b in names
                      for c in ("evals", "lumbra", "statsmodels (iterations)", "ratio",
                                "statsmodels default (est.)",
                                "lumbra / ((evals + 1) DSYEVR)", "projection / DSYEVR"))
    print("| kind | n | " + cols + " |")
    print("|---|---|" + "---|" * 7 * len(names))
    for n in NEARNESS_SIZES:
        for kind in ("hard", "mild"):
            cells = []
            for b in names:
                lumbra, peer = results[b]["nearness"]
                rec = next(v for k, v in lumbra.items()
                           if k.startswith("BM_NearestCorrelation/%s/%d/" % (kind, n)))
                ours_ms, budget, sm_ms, default_ms = peer[(kind, n)]
                cells += ["%d" % rec["evals"], "%.0f" % ours_ms,
                          "%.0f (%d)" % (sm_ms, budget) if sm_ms is not None else "not reached",
                          "%.2f" % (ours_ms / sm_ms) if sm_ms else "",
                          "~%.0f" % default_ms if default_ms else "",
                          "%.2f" % (1.0 / rec["dsyevr_share"]),
                          "%.2f" % (rec["projection_ms"] / rec["dsyevr_ms"])]
            print("| %s | %d | %s |" % (kind, n, " | ".join(cells)))
    cells = []
    for b in names:
        lumbra, _ = results[b]["nearness"]
        rec = next(v for k, v in lumbra.items() if k.startswith("BM_SdlsUnitDiagonal/"))
        cells.append("%.0f ms (status %d)" % (rec["cpu_time"], rec["status"]))
    print("\nORXmodelingSDLS, the same hard target at n = 200 with the unit diagonal as "
          "200 constraint matrices: " + "; ".join("%s %s" % (b, c) for b, c in zip(names, cells)))


if __name__ == "__main__":
    main()
