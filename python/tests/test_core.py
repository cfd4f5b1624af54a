# SPDX-License-Identifier: Apache-2.0
"""Every wrapper against the export it wraps (bit for bit: the same data
reach the same code) and against independent references from numpy, scipy
and cvxopt where they overlap."""
import numpy as np
import pytest
from scipy import stats

import lumbra
from conftest import raw


def test_version():
    v = lumbra.version()
    code, _, _ = raw("ORXallocMV", 1, np.zeros(1), np.zeros(1), 0, 0, np.zeros(1), np.zeros(1),
                     np.zeros(1), np.zeros(1), 0.0, np.zeros(1))
    assert code == 301  # the loaded library answers as the lumbra ABI
    assert (v.a, v.b, v.c, v.d, v.f) == (10, 4, 1, 16, 2) and v.release == "4.1"


@pytest.mark.parametrize("fn,export,reference", [
    (lumbra.returns, "ORXmodelingReturns", lambda p, k: p[k:] / p[:-k] - 1.0),
    (lumbra.log_returns, "ORXmodelingLogReturns", lambda p, k: np.log(p[k:] / p[:-k])),
])
@pytest.mark.parametrize("lag", [1, 3])
def test_returns(universe, fn, export, reference, lag):
    p = universe["prices"]
    t, k = p.shape
    got = fn(p, lag)
    code, status, args = raw(export, t, k, p, lag, np.zeros(k * (t - lag)))
    assert (code, status) == (0, 0)
    assert np.array_equal(got, args[4].reshape(t - lag, k))
    # One rounding per quotient (and per logarithm) away from numpy.
    np.testing.assert_allclose(got, reference(p, lag), rtol=1e-12, atol=1e-15)
    assert np.array_equal(fn(p[:, 2], lag), got[:, 2])  # a 1-D input is one series


@pytest.mark.parametrize("fn,export,reference", [
    (lumbra.covariance, "ORXmodelingCov", lambda r: np.cov(r.T)),
    (lumbra.correlation, "ORXmodelingCorr", lambda r: np.corrcoef(r.T)),
])
def test_moments(universe, fn, export, reference):
    r = universe["returns"]
    t, k = r.shape
    got = fn(r)
    code, status, args = raw(export, t, k, r, np.zeros(k * k))
    assert (code, status) == (0, 0)
    assert np.array_equal(got, args[3].reshape(k, k))
    # The divisor 1/(T-1) is a single-precision factor: about 6e-8 relative.
    np.testing.assert_allclose(got, reference(r), rtol=2e-7, atol=1e-20)


def test_correlation_of_a_constant_asset_warns(universe):
    r = universe["returns"].copy()
    r[:, 1] = 0.001
    with pytest.warns(lumbra.LumbraWarning) as rec:
        c = lumbra.correlation(r)
    assert rec[0].message.status == 5 and rec[0].message.code == 6
    assert "zero variance" in str(rec[0].message)
    assert c[1, 1] == 1.0 and not c[1, [0, 2, 3]].any()


def test_exante_figures(universe):
    c, mu = universe["cov"], universe["mu"]
    w = np.array([0.1, 0.2, 0.3, 0.4])
    r = lumbra.exante_return(w, mu)
    assert r == raw("ORXanalysisExanteReturn", 4, mu, w, 0.0)[2][3][0]
    vol = lumbra.exante_volatility(w, c)
    assert vol == raw("ORXanalysisExanteVolatility", 4, c, w, 0.0)[2][3][0]
    np.testing.assert_allclose([r, vol], [w @ mu, np.sqrt(w @ c @ w)], rtol=1e-13)
    for level in (0.95, 0.99):
        var = lumbra.normal_var(w, c, mu, level)
        assert var == raw("ORXanalysisExanteNormalVaR", 4, c, mu, w, level, 0.0)[2][5][0]
        # The library's own normal quantile against scipy's.
        np.testing.assert_allclose(var, w @ mu - np.sqrt(w @ c @ w) * stats.norm.ppf(level),
                                   rtol=1e-12)


def _cornish_fisher(w, r, v, level):
    """Modified VaR from raw portfolio moments, in double precision."""
    t = r.shape[0]
    p = r @ w
    d = p - p.mean()
    s = (d ** 3).mean() / np.sqrt(w @ v @ w) ** 3
    m1, m2, m3, m4 = ((p ** q).mean() for q in (1, 2, 3, 4))
    c4 = (6 * m1 * m2 - 4 * m3) * m1 + m4 - 3 * m1 ** 4
    a = t * (t * t - 2 * t + 3) / ((t - 1) * (t - 2) * (t - 3))
    b = 3 * (t - 1) * (2 * t - 3) / (t * (t - 2) * (t - 3))
    k = a * c4 / (w @ v @ w) ** 2 - 3 - b
    z = stats.norm.ppf(level)
    sigma = np.sqrt(w @ np.cov(r.T) @ w)
    return p.mean() + sigma * (-z + (z * z - 1) * s / 6 - (z ** 3 - 3 * z) * k / 24
                               + (2 * z ** 3 - 5 * z) * s * s / 36)


def test_modified_var(universe):
    r, c = universe["returns"], universe["cov"]
    w = np.array([0.25, 0.25, 0.3, 0.2])
    got = lumbra.modified_var(w, r, c, 0.99)
    code, status, out = raw("ORXanalysisExanteModifiedVaR", r.shape[0], 4, w, r, c, 0.99, 0.0)
    assert (code, status) == (0, 0) and got == out[6][0]
    # Single-precision small-sample factors and covariance scale: 1e-6.
    np.testing.assert_allclose(got, _cornish_fisher(w, r, c, 0.99), rtol=1e-6)
    # Without a covariance the history's own sample covariance is used.
    assert lumbra.modified_var(w, r, level=0.99) == \
        lumbra.modified_var(w, r, lumbra.covariance(r), 0.99)


def test_expost(universe):
    r = universe["returns"]
    x = r[:, 0]
    assert lumbra.expost_return(x) == raw("ORXanalysisExpostReturn", x.size, x, 0.0)[2][2][0]
    assert lumbra.expost_volatility(x) == \
        raw("ORXanalysisExpostVolatility", x.size, x, 0.0)[2][2][0]
    np.testing.assert_allclose(lumbra.expost_return(r), r.mean(axis=0), rtol=1e-12)
    np.testing.assert_allclose(lumbra.expost_volatility(r), r.std(axis=0, ddof=1), rtol=1e-9)


def test_kernel_density(universe):
    x = universe["returns"][:, 1]
    g = np.linspace(-0.04, 0.04, 9)
    f = lumbra.kernel_density(x, g)
    code, status, out = raw("ORXanalysisGaussianKernel", x.size, g.size, x, g, np.zeros(g.size))
    assert (code, status) == (0, 0) and np.array_equal(f, out[4])
    h = 1.059 * x.std(ddof=1) * x.size ** -0.2
    ref = stats.norm.pdf((g[:, None] - x[None, :]) / h).sum(axis=1) / (x.size * h)
    # Bandwidth factors in single precision and a kernel constant
    # 0.3989422748506426 (not 1/sqrt(2 pi)): 1e-6 relative.
    np.testing.assert_allclose(f, ref, rtol=1e-6)


def test_simulate_gbm(universe):
    c = universe["cov"]
    start, drift = np.array([10.0, 20.0, 30.0, 40.0]), universe["mu"]
    paths = lumbra.simulate_gbm(start, drift, c, 252, 253)
    assert paths.shape == (253, 4) and np.array_equal(paths[0], start)
    assert np.isfinite(paths).all() and (paths > 0).all()
    # No horizon: every row is the start (the shocks are scaled by 0).
    flat = lumbra.simulate_gbm(start, drift, c, 0, 5)
    assert np.array_equal(flat, np.tile(start, (5, 1)))


def test_simulate_gbm_steps_are_correlated_shocks(universe):
    """Log-increments of a long path have about the covariance given."""
    c = np.array([[4e-4, 2e-4], [2e-4, 3e-4]])
    paths = lumbra.simulate_gbm([1.0, 1.0], [0.0, 0.0], c, 4000, 4001)
    steps = paths[1:] / paths[:-1] - 1.0
    # 4000 draws: a sample covariance within about 10% (a few standard errors).
    np.testing.assert_allclose(np.cov(steps.T), c, rtol=0.15, atol=3e-5)


def _cvxopt_mv(cov, mu, target, lower, upper):
    """Minimum variance at mu'w >= target, budget 1, bounds: cvxopt's QP."""
    import cvxopt
    from cvxopt import solvers
    n = len(mu)
    g = np.vstack([-mu, -np.eye(n), np.eye(n)])
    h = np.concatenate([[-target], -lower, upper])
    solvers.options.update(show_progress=False, abstol=1e-12, reltol=1e-12, feastol=1e-12)
    sol = solvers.qp(cvxopt.matrix(2 * cov), cvxopt.matrix(np.zeros(n)), cvxopt.matrix(g),
                     cvxopt.matrix(h), cvxopt.matrix(np.ones((1, n))), cvxopt.matrix(1.0))
    return np.array(sol["x"]).ravel()


def test_alloc_mv(universe):
    c, mu = universe["cov"], universe["mu"]
    target = 0.0007
    w = lumbra.alloc_mv(c, mu, target, bounds=(0.0, 0.6))
    code, status, out = raw("ORXallocMV", 4, c, mu, 1, 0, np.ones(4), np.ones(1),
                            np.zeros(4), np.full(4, 0.6), target, np.zeros(4))
    assert (code, status) == (0, 0) and np.array_equal(w, out[10])
    ref = _cvxopt_mv(c, mu, target, np.zeros(4), np.full(4, 0.6))
    # Interior point against active set: agree to the QP's conditioning.
    np.testing.assert_allclose(w, ref, atol=1e-5)
    assert abs(w.sum() - 1) < 1e-12 and w @ mu >= target - 1e-12


def test_alloc_mv_constraint_layout(universe):
    """Rows of A_eq/A_ub become the library's columns, equalities first."""
    c, mu = universe["cov"], universe["mu"]
    a_eq, b_eq = np.array([[1.0, 1.0, 0.0, 0.0]]), [0.5]
    a_ub, b_ub = np.array([[0.0, 0.0, 1.0, 0.0], [0.0, 0.0, 0.0, 1.0]]), [0.3, 0.3]
    w = lumbra.alloc_mv(c, mu, 0.0, A_eq=a_eq, b_eq=b_eq, A_ub=a_ub, b_ub=b_ub,
                        bounds=(np.zeros(4), np.ones(4)))
    cons = np.vstack([np.ones(4), a_eq, a_ub]).T  # n by (budget + 1 + 2)
    code, status, out = raw("ORXallocMV", 4, c, mu, 2, 2, cons, np.array([1.0, 0.5, 0.3, 0.3]),
                            np.zeros(4), np.ones(4), 0.0, np.zeros(4))
    assert (code, status) == (0, 0) and np.array_equal(w, out[10])
    assert abs(w[:2].sum() - 0.5) < 1e-12 and w[2] <= 0.3 + 1e-12 and w[3] <= 0.3 + 1e-12
    # Without a budget the constraints alone shape the portfolio.
    w2 = lumbra.alloc_mv(c, mu, 0.0, A_eq=np.ones(4), b_eq=1.0, budget=None)
    assert np.array_equal(w2, lumbra.alloc_mv(c, mu, 0.0))


def test_alloc_max_sharpe(universe):
    c, mu = universe["cov"], universe["mu"]
    rf = 0.0001
    w = lumbra.alloc_max_sharpe(c, mu, rf)
    code, status, out = raw("ORXallocSharpeRatio", 4, c, mu, 0, 0, np.zeros(1), np.zeros(1),
                            np.zeros(4), np.ones(4), rf, np.zeros(4))
    assert (code, status) == (0, 0) and np.array_equal(w, out[10])
    # Optimal: no frontier portfolio (cvxopt) has a larger ratio.
    best = (w @ mu - rf) / np.sqrt(w @ c @ w)
    for t in np.linspace(mu.min(), mu.max(), 15):
        v = _cvxopt_mv(c, mu, t, np.zeros(4), np.ones(4))
        assert (v @ mu - rf) / np.sqrt(v @ c @ v) <= best + 1e-7


def test_alloc_tracking(universe):
    c, mu = universe["cov"], universe["mu"]
    bench = np.array([0.4, 0.3, 0.2, 0.1])
    w = lumbra.alloc_tracking(c, mu, bench, 0.0001)
    code, status, out = raw("ORXallocIT", 4, c, mu, c @ bench, float(mu @ bench), 1, 0,
                            np.ones(4), np.ones(1), np.zeros(4), np.ones(4), 0.0001, np.zeros(4))
    assert (code, status) == (0, 0) and np.array_equal(w, out[12])
    assert w @ mu >= bench @ mu + 0.0001 - 1e-8
    # The same through the benchmark's covariances and return.
    w2 = lumbra.alloc_tracking(c, mu, excess=0.0001, benchmark_cov=c @ bench,
                               benchmark_return=mu @ bench)
    assert np.array_equal(w, w2)
    # Zero excess return: the benchmark itself, tracking error 0.
    np.testing.assert_allclose(lumbra.alloc_tracking(c, mu, bench, 0.0), bench, atol=1e-8)


def _nearest_correlation(a, floor=0.0, iterations=5000):
    """Alternating projections with Dykstra's correction between the unit
    diagonal and the matrices with eigenvalues >= floor."""
    y, ds = a.copy(), np.zeros_like(a)
    for _ in range(iterations):
        r = y - ds
        vals, vecs = np.linalg.eigh(r)
        x = (vecs * np.maximum(vals, floor)) @ vecs.T
        ds = x - r
        y_new = x.copy()
        np.fill_diagonal(y_new, 1.0)
        if np.abs(y_new - y).max() < 1e-14:
            return y_new
        y = y_new
    return y


def _nearest_psd(a, floor, eq, beq, ineq, lo, hi, iterations=20000):
    """Dykstra's alternating projections onto the eigenvalue floor, the
    affine set of the equalities and the slab of one inequality."""
    k = len(eq)
    gram = np.array([[np.sum(ai * aj) for aj in eq] for ai in eq])

    def affine(x):
        y = np.linalg.solve(gram, np.array([np.sum(ai * x) for ai in eq]) - beq)
        return x - sum(yi * ai for yi, ai in zip(y, eq))

    def slab(x):
        t = np.sum(ineq * x)
        return x + ((min(max(t, lo), hi) - t) / np.sum(ineq * ineq)) * ineq

    def cone(x):
        vals, vecs = np.linalg.eigh((x + x.T) / 2)
        return (vecs * np.maximum(vals, floor)) @ vecs.T

    projections = [cone, affine, slab] if k else [cone, slab]
    x, corr = a.copy(), [np.zeros_like(a) for _ in projections]
    for _ in range(iterations):
        prev = x
        for i, proj in enumerate(projections):
            y = proj(x + corr[i])
            corr[i] = x + corr[i] - y
            x = y
        if np.abs(x - prev).max() < 1e-13:
            break
    return x


@pytest.fixture
def noisy():
    """A symmetric target with unit diagonal and a negative eigenvalue."""
    return np.array([[1.0, 0.9, 0.7, -0.3], [0.9, 1.0, 0.95, 0.1],
                     [0.7, 0.95, 1.0, 0.6], [-0.3, 0.1, 0.6, 1.0]])


@pytest.mark.parametrize("floor", [0.0, 0.05])
def test_nearest_correlation(noisy, floor):
    x = lumbra.nearest_correlation(noisy, eigen_floor=floor, tolerance=1e-10)
    out = raw("ORXmodelingSDLScorr", 4, noisy, 1e-10, floor, np.zeros(16))[2]
    assert np.array_equal(x, out[4].reshape(4, 4))
    ref = _nearest_correlation(noisy, floor)
    # Two iterative methods stopped by different tests: 1e-6.
    np.testing.assert_allclose(x, ref, atol=1e-6)
    assert np.linalg.eigvalsh(x).min() >= floor - 1e-8


def test_nearest_psd(noisy):
    eq = np.array([np.diag([1.0, 0.0, 0.0, 0.0]), np.diag([0.0, 0.0, 0.0, 1.0])])
    ineq = np.zeros((1, 4, 4))
    ineq[0, 1, 2] = ineq[0, 2, 1] = 0.5  # <B, X> = X[1, 2]
    args = dict(A_eq=eq, b_eq=[1.0, 1.0], A_ineq=ineq, ineq_lower=[-0.5], ineq_upper=[0.8],
                eigen_floor=0.01, tolerance=1e-10)
    with pytest.warns(lumbra.LumbraWarning):  # 1106: the residual asked is below reach
        x = lumbra.nearest_psd(noisy, **args)
    big = np.hstack(list(eq))
    out = raw("ORXmodelingSDLS", 4, noisy, 2, big, np.array([1.0, 1.0]), 1, ineq[0],
              np.array([-0.5]), np.array([0.8]), 1e-10, 0.01, np.zeros(16))[2]
    assert np.array_equal(x, out[-1].reshape(4, 4))
    ref = _nearest_psd(noisy, 0.01, list(eq), np.array([1.0, 1.0]), ineq[0], -0.5, 0.8)
    np.testing.assert_allclose(x, ref, atol=1e-6)
    assert abs(x[0, 0] - 1) < 1e-5 and abs(x[3, 3] - 1) < 1e-5 and x[1, 2] <= 0.8 + 1e-5


def test_nearest_psd_without_constraints_is_the_eigenvalue_floor(noisy):
    x = lumbra.nearest_psd(noisy, eigen_floor=0.02)
    vals, vecs = np.linalg.eigh(noisy)
    np.testing.assert_allclose(x, (vecs * np.maximum(vals, 0.02)) @ vecs.T, atol=1e-12)
