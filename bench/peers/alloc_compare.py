"""Runs the allocator benchmark and both peers in one session and prints
the table of bench/README.md: lumbra's time and its ratio to cvxopt and to
quadprog (lumbra / peer, below 1 means lumbra is faster).

Usage: OPENBLAS_NUM_THREADS=1 /usr/bin/python3 bench/peers/alloc_compare.py \
           build-bench/bench/bench_alloc
"""
import json
import os
import subprocess
import sys

here = os.path.dirname(os.path.abspath(__file__))
directory = os.environ.get("LUMBRA_ALLOC_BENCH_DIR", "/tmp/lumbra_alloc_bench")
env = dict(os.environ, OPENBLAS_NUM_THREADS="1", LUMBRA_ALLOC_BENCH_DIR=directory)
py = "/usr/bin/python3"

subprocess.run([py, os.path.join(here, "alloc_problems.py"), directory], check=True, env=env)
out = subprocess.run([sys.argv[1], "--benchmark_format=json", "--benchmark_min_time=0.3",
                      "--benchmark_repetitions=5"],
                     check=True, env=env, capture_output=True, text=True).stdout
lumbra = {}
names = {"BM_AllocMV": "MV", "BM_AllocIT": "IT", "BM_AllocSharpeRatio": "SR",
         "BM_AllocMVEngine": "MV engine"}
# The fastest of the repetitions: the machine is shared, and contention only
# ever adds time.
for b in json.loads(out)["benchmarks"]:
    if b.get("run_type") != "iteration":
        continue
    name, n = b["name"].split("/")[:2]
    if "error_occurred" in b:
        sys.exit("%s: %s" % (b["name"], b.get("error_message")))
    key = (names[name], int(n))
    lumbra[key] = min(lumbra.get(key, float("inf")), b["real_time"])  # microseconds

peers = {}
for cmd in ([py, os.path.join(here, "alloc_cvxopt.py"), directory],
            ["Rscript", os.path.join(here, "alloc_quadprog.R"), directory]):
    for line in subprocess.run(cmd, check=True, env=env, capture_output=True,
                               text=True).stdout.splitlines():
        peer, kind, n, us = line.split()
        peers[(peer, kind, int(n))] = float(us)

print("| problem | n | lumbra (us) | / cvxopt | / quadprog | engine alone (us) |")
print("|---|---|---|---|---|---|")
for kind, label in (("MV", "ORXallocMV"), ("IT", "ORXallocIT"), ("SR", "ORXallocSharpeRatio")):
    for n in (50, 200, 500):
        t = lumbra[(kind, n)]
        share = "%.0f" % lumbra[("MV engine", n)] if kind == "MV" else ""
        print("| %s | %d | %.0f | %.2f | %.2f | %s |" % (
            label, n, t, t / peers[("cvxopt", kind, n)], t / peers[("quadprog", kind, n)], share))
