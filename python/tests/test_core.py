# SPDX-License-Identifier: Apache-2.0
"""Every wrapper against the export it wraps, bit for bit, and against numpy."""
import numpy as np
import pytest

import lumbra
from conftest import raw

W, BENCH = np.array([0.1, 0.2, 0.3, 0.4]), np.array([0.4, 0.3, 0.2, 0.1])
NOISY = np.full((4, 4), -0.5) + 1.5 * np.eye(4)  # unit diagonal, an eigenvalue -0.5
CONS = np.array([[1.0, 1.0, 0.0, 0.0], [0.0, 0.0, 1.0, 0.0], [0.0, 0.0, 0.0, 1.0]])
Z, Z4, I4 = np.zeros, np.zeros(4), np.ones(4)

# (wrapper call, export, its arguments; the result is the last of them)
L, R, C, M, G = np.linspace(-0.04, 0.04, 9), "returns", "cov", "mu", "prices"
CASES = [
    (lambda u: lumbra.returns(u[G], 3), "ORXmodelingReturns", lambda u: (251, 4, u[G], 3, Z(992))),
    (lambda u: lumbra.log_returns(u[G]), "ORXmodelingLogReturns",
     lambda u: (251, 4, u[G], 1, Z(1000))),
    (lambda u: lumbra.covariance(u[R]), "ORXmodelingCov", lambda u: (250, 4, u[R], Z(16))),
    (lambda u: lumbra.correlation(u[R]), "ORXmodelingCorr", lambda u: (250, 4, u[R], Z(16))),
    (lambda u: lumbra.exante_return(W, u[M]), "ORXanalysisExanteReturn",
     lambda u: (4, u[M], W, 0.0)),
    (lambda u: lumbra.exante_volatility(W, u[C]), "ORXanalysisExanteVolatility",
     lambda u: (4, u[C], W, 0.0)),
    (lambda u: lumbra.normal_var(W, u[C], u[M], 0.99), "ORXanalysisExanteNormalVaR",
     lambda u: (4, u[C], u[M], W, 0.99, 0.0)),
    (lambda u: lumbra.modified_var(W, u[R], u[C], 0.99), "ORXanalysisExanteModifiedVaR",
     lambda u: (250, 4, W, u[R], u[C], 0.99, 0.0)),
    (lambda u: lumbra.expost_return(u[R][:, 0]), "ORXanalysisExpostReturn",
     lambda u: (250, u[R][:, 0], 0.0)),
    (lambda u: lumbra.expost_volatility(u[R][:, 0]), "ORXanalysisExpostVolatility",
     lambda u: (250, u[R][:, 0], 0.0)),
    (lambda u: lumbra.kernel_density(u[R][:, 1], L), "ORXanalysisGaussianKernel",
     lambda u: (250, 9, u[R][:, 1], L, Z(9))),
    # Rows of A_eq / A_ub become the library's columns after the budget.
    (lambda u: lumbra.alloc_mv(u[C], u[M], 0.0, A_eq=CONS[:1], b_eq=[0.5], A_ub=CONS[1:],
                               b_ub=[0.3, 0.3]), "ORXallocMV",
     lambda u: (4, u[C], u[M], 2, 2, np.vstack([I4, CONS]).T, [1, 0.5, 0.3, 0.3], Z4, I4, 0.0, Z4)),
    (lambda u: lumbra.alloc_max_sharpe(u[C], u[M], 1e-4), "ORXallocSharpeRatio",
     lambda u: (4, u[C], u[M], 0, 0, 0.0, 0.0, Z4, I4, 1e-4, Z4)),
    (lambda u: lumbra.alloc_tracking(u[C], u[M], BENCH, 1e-4), "ORXallocIT",
     lambda u: (4, u[C], u[M], u[C] @ BENCH, u[M] @ BENCH, 1, 0, I4, 1.0, Z4, I4, 1e-4, Z4)),
    (lambda u: lumbra.nearest_correlation(NOISY, eigen_floor=0.05, tolerance=1e-10),
     "ORXmodelingSDLScorr", lambda u: (4, NOISY, 1e-10, 0.05, Z(16))),
    (lambda u: lumbra.nearest_psd(NOISY, eigen_floor=0.02), "ORXmodelingSDLS",
     lambda u: (4, NOISY, 0, 0.0, 0.0, 0, 0.0, 0.0, 0.0, 1e-8, 0.02, Z(16))),
]


@pytest.mark.parametrize("wrapper,export,args", CASES, ids=[c[1] for c in CASES])
def test_wrapper_reproduces_its_export(u, wrapper, export, args):
    code, status, out = raw(export, *args(u))
    assert (code, status) == (0, 0) and np.array_equal(np.ravel(wrapper(u)), out[-1])


def test_returns_paths_and_version(u):
    p, start = u["prices"], np.array([10.0, 20.0, 30.0, 40.0])
    # One rounding per quotient (and logarithm) away from numpy.
    np.testing.assert_allclose(lumbra.returns(p, 3), p[3:] / p[:-3] - 1.0, 1e-12, 1e-15)
    np.testing.assert_allclose(lumbra.log_returns(p), np.log(p[1:] / p[:-1]), 1e-12, 1e-15)
    # Paths start at the start; without a horizon every row is the start.
    assert np.array_equal(lumbra.simulate_gbm(start, u["mu"], u["cov"], 252, 253)[0], start)
    assert np.array_equal(lumbra.simulate_gbm(start, u["mu"], u["cov"], 0, 5), [start] * 5)
    v = lumbra.version()
    assert (v.a, v.b, v.c, v.d, v.f) == (10, 4, 1, 16, 2) and v.release == "4.1"
