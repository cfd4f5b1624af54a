# SPDX-License-Identifier: Apache-2.0
# quadprog peer of the allocator benchmark: the same three problems as
# bench_alloc, solved by quadprog::solve.QP (Goldfarb-Idnani dual active
# set).  quadprog needs a positive definite Hessian, so the homogeneous
# Sharpe problem gets 1e-12 times the mean variance on the diagonal entry of
# tau (which has none); that shifts the optimum far below the comparison's
# tolerance.  Prints: quadprog <problem> <n> <microseconds> (fastest of five batches).
# Usage: Rscript alloc_quadprog.R [directory]
suppressMessages(library(quadprog))
args <- commandArgs(trailingOnly = TRUE)
dir <- if (length(args) > 0) args[1] else "/tmp/lumbra_alloc_bench"

readProblem <- function(path) {
  a <- readBin(path, "double", n = file.info(path)$size / 8, endian = "little")
  n <- a[1]; ne <- a[2]; ni <- a[3]; m <- ne + ni
  pos <- 4
  take <- function(k) { v <- a[pos:(pos + k - 1)]; pos <<- pos + k; v }
  p <- list(n = n, nEq = ne, nIneq = ni)
  p$cov <- matrix(take(n * n), n, n, byrow = TRUE)
  p$mu <- take(n)
  p$cons <- matrix(take(n * m), n, m, byrow = TRUE)
  p$rhs <- take(m)
  p$lower <- take(n); p$upper <- take(n)
  p$target <- take(1); p$q <- take(n)
  p$benchReturn <- take(1); p$excess <- take(1); p$riskFree <- take(1)
  p
}

# solve.QP minimises 1/2 x'Dx - d'x subject to A'x >= b, the first meq
# columns as equalities.
qpData <- function(p, kind) {
  n <- p$n; ne <- p$nEq; ni <- p$nIneq
  C <- p$cons; d <- p$rhs
  Ce <- C[, seq_len(ne), drop = FALSE]; Ci <- C[, ne + seq_len(ni), drop = FALSE]
  if (kind != "SR") {
    limit <- if (kind == "MV") p$target else p$excess + p$benchReturn
    Amat <- cbind(Ce, -Ci, p$mu, diag(n), -diag(n))
    bvec <- c(d[seq_len(ne)], -d[ne + seq_len(ni)], limit, p$lower, -p$upper)
    dvec <- if (kind == "MV") rep(0, n) else p$q
    return(list(D = p$cov, d = dvec, A = Amat, b = bvec, meq = ne))
  }
  N <- n + 1; rf <- p$riskFree
  D <- matrix(0, N, N); D[1:n, 1:n] <- p$cov
  D[N, N] <- 1e-12 * mean(diag(p$cov))
  hi <- d[ne + seq_len(ni)]
  Amat <- cbind(c(rep(1, n), -1), c(p$mu, -rf),
                rbind(-Ci, hi), rbind(diag(n), -p$lower), rbind(-diag(n), p$upper),
                diag(N))
  bvec <- c(0, 1, rep(0, ni + 2 * n + N))
  list(D = D, d = rep(0, N), A = Amat, b = bvec, meq = 2)
}


# Process CPU time (user + system), as the other benchmarks take it.
cpu <- function() {
  t <- proc.time()
  t[["user.self"]] + t[["sys.self"]]
}

# proc.time has a millisecond clock: small problems are timed in batches.
batchTime <- function(f) {
  reps <- 1
  repeat {
    t0 <- cpu()
    for (i in seq_len(reps)) f()
    el <- cpu() - t0
    if (el > 0.2 || reps >= 100000) return(el / reps)
    reps <- reps * 4
  }
}

for (n in c(50, 200, 500)) {
  p <- readProblem(file.path(dir, sprintf("alloc_n%d.bin", n)))
  for (kind in c("MV", "IT", "SR")) {
    q <- qpData(p, kind)
    f <- function() solve.QP(q$D, q$d, q$A, q$b, meq = q$meq)
    t <- min(replicate(5, batchTime(f)))
    cat(sprintf("quadprog %s %d %.1f\n", kind, n, t * 1e6))
  }
}
