# SPDX-License-Identifier: Apache-2.0
# Peer of bench_qp: quadprog::solve.QP on the mean-variance problems written
# by `bench_qp --dump=DIR`.  Usage: OPENBLAS_NUM_THREADS=1 Rscript
# bench/peers/qp_quadprog.R DIR.  Prints n, iterations and the fastest batch
# divided by its size, in milliseconds of process CPU time.
suppressMessages(library(quadprog))
args <- commandArgs(trailingOnly = TRUE)
folder <- if (length(args) > 0) args[1] else "/tmp/lumbra_qp_bench"
for (n in c(50, 200, 500, 1000)) {
  v <- scan(file.path(folder, sprintf("qp_%d.txt", n)), quiet = TRUE)
  cov <- matrix(v[2:(1 + n * n)], n, n)
  mu <- v[(2 + n * n):(1 + n * n + n)]
  target <- v[length(v) - 1]
  cap <- v[length(v)]
  # t(Amat) %*% w >= bvec: budget (equality), return, w >= 0, -w >= -cap
  Amat <- cbind(rep(1, n), mu, diag(n), -diag(n))
  bvec <- c(1, target, rep(0, n), rep(-cap, n))
  dvec <- rep(0, n)
  # Repeat each solve so that a batch lasts long enough for the clock,
  # and quote the fastest batch divided by its size.
  inner <- if (n <= 50) 200 else if (n <= 200) 20 else 1
  reps <- 3
  times <- numeric(reps)
  for (r in 1:reps) {
    t0 <- proc.time()
    for (k in 1:inner) sol <- solve.QP(cov, dvec, Amat, bvec, meq = 1)
    t1 <- proc.time()
    times[r] <- (t1[["user.self"]] + t1[["sys.self"]] - t0[["user.self"]] - t0[["sys.self"]]) / inner
  }
  cat(sprintf("quadprog n=%d iterations=%d time_ms=%.3f\n", n, sol$iterations[1],
              1000 * min(times)))
}
