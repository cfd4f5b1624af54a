#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The demo's efficient frontier from Python: loads the sample universe
(eight fictitious assets, 505 daily prices), prints the maximum-Sharpe
portfolio and writes the frontier picture as a PNG.

    PYTHONPATH=python python3 examples/python/frontier.py [out.png]

The package finds the library through LUMBRA_LIBRARY, its installed
location or the build tree (build/ after `cmake --build build`).
"""
import pathlib
import re
import sys

import matplotlib
import numpy as np
import pandas as pd

HERE = pathlib.Path(__file__).resolve().parent
ROOT = HERE.parents[1]
try:
    import lumbra
except ImportError:  # run from a source checkout without PYTHONPATH
    sys.path.insert(0, str(ROOT / "python"))
    import lumbra

# Daily risk-free rate, about 2% a year, as in the C demo.
RISK_FREE = 0.00008


def load_sample_prices() -> pd.DataFrame:
    """The demo's sample prices (examples/demo/sample_data.c), one column
    per asset, indexed by business day."""
    text = (ROOT / "examples" / "demo" / "sample_data.c").read_text()
    names = re.findall(r'"([A-Z]+)"', text.split("kSampleNames", 1)[1].split(";", 1)[0])
    body = text.split("kSamplePrices", 1)[1].split("{", 1)[1].split("}", 1)[0]
    values = np.array([float(v) for v in re.findall(r"[-+0-9.eE]+", body)])
    dates = pd.bdate_range("2024-01-01", periods=values.size // len(names))
    return pd.DataFrame(values.reshape(-1, len(names)), index=dates, columns=names)


def main() -> int:
    out = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else ROOT / "build" / "lumbra_frontier.png")
    matplotlib.use("Agg")
    prices = load_sample_prices()
    rets = lumbra.returns(prices)
    cov, mu = lumbra.covariance(rets), lumbra.expost_return(rets)
    weights = lumbra.alloc_max_sharpe(cov, mu, RISK_FREE)
    print(f"library {lumbra.version().release} at {lumbra.library_path()}")
    print("maximum-Sharpe portfolio (long-only, fully invested):")
    # The solver's round-off around zero (1e-17 and the like) shown as 0.
    shown = weights.where(weights.abs() >= 5e-7, 0.0)
    print((100 * shown).round(2).to_string())
    frontier = lumbra.efficient_frontier(cov, mu, 30, risk_free=RISK_FREE)
    print(frontier[["return", "volatility", "sharpe"]].iloc[::6].to_string())
    ax = lumbra.plot_frontier(cov, mu, frontier=frontier, risk_free=RISK_FREE, scale=100.0,
                              title="Efficient frontier of the sample universe "
                                    "(long-only, fully invested)")
    ax.set_xlabel("volatility (% a day)")
    ax.set_ylabel("expected return (% a day)")
    out.parent.mkdir(parents=True, exist_ok=True)
    ax.figure.savefig(out, dpi=110, bbox_inches="tight")
    print(f"frontier picture written to {out}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
