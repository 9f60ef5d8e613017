"""The quick service benchmarks (B3, B5) still run against this harness and build: each measures
both sides and ends with its ratio line (the figures mean nothing here)."""
import math
import os
import re
import subprocess
import sys

import pytest

from simtv import paths

BENCH = paths.REPO / 'bench'
RATIO = re.compile(r'^(B\d+) (\S+) ratio=(\S+)$', re.M)


def run_bench(script, *options):
    env = dict(os.environ, HADRIX_BUILD_DIR=str(paths.build_dir()))
    result = subprocess.run([sys.executable, str(BENCH / script), *options], env=env,
                            capture_output=True, text=True, timeout=30)
    assert result.returncode == 0, result.stdout + result.stderr
    return {(bench, case): float(value) for bench, case, value in RATIO.findall(result.stdout)}


@pytest.mark.parametrize('script, options, cases', [
    ('b5_start.py', ['--repeats', '1'], [('B5', 'start-to-name')]),
    ('b3_device_list.py', ['--repeats', '1', '--seconds', '0.3'], [('B3', 'calls-per-second')]),
])
def test_service_benchmark_measures_both_sides(script, options, cases):
    ratios = run_bench(script, *options)
    assert sorted(ratios) == sorted(cases)
    for value in ratios.values():
        assert math.isfinite(value) and value > 0
