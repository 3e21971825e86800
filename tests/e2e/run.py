#!/usr/bin/python3
"""Runs the end-to-end tests, several at a time, each on a server process of its own.

    run.py --server build/release/Q5OPCServer [--count FILE] [--jobs N] [NAME...]

NAME: a part of the names of the tests to run. FILE receives "TESTS FAILURES".
"""

import argparse
import concurrent.futures
import importlib
import os
import pkgutil
import sys
import time
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path[:0] = [HERE, os.path.join(HERE, '..', '..', 'demo', 'client')]
import harness  # noqa: E402


def collect(names):
    loader = unittest.TestLoader()
    cases = []
    for module in pkgutil.iter_modules([HERE]):
        if module.name.startswith('test_'):
            for suite in loader.loadTestsFromModule(importlib.import_module(module.name)):
                cases += list(suite)
    return [case for case in cases if not names or any(name in case.id() for name in names)]


def run_one(case):
    began = time.monotonic()
    result = unittest.TestResult()
    case.run(result)
    problems = [f'{part}\n{text}' for part, text in result.errors + result.failures]
    skipped = [reason for _, reason in result.skipped]
    return case, problems, skipped, time.monotonic() - began


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument('--server', required=True)
    parser.add_argument('--count')
    parser.add_argument('--jobs', type=int, default=8)
    parser.add_argument('names', nargs='*')
    options = parser.parse_args()
    harness.SERVER = os.path.abspath(options.server)
    os.environ.pop('DISPLAY', None)  # windows are for the displays that tests make themselves
    cases = collect(options.names)
    if not cases:
        parser.error(f"no test has {' or '.join(map(repr, options.names))} in its name")
    cases.sort(key=lambda case: 'test_databases' not in case.id())  # they wait longest
    failures = 0
    # The tests mostly wait for the server's 20-second intervals, so many fit side by side.
    with concurrent.futures.ThreadPoolExecutor(options.jobs) as pool:
        for future in concurrent.futures.as_completed([pool.submit(run_one, case) for case in cases]):
            case, problems, skipped, seconds = future.result()
            verdict = 'FAILED' if problems else 'skipped' if skipped else 'ok'
            print(f"{verdict:7} {case.id()} ({seconds:.1f} s)", *skipped, flush=True)
            for problem in problems:
                print(problem)
            failures += bool(problems)
    if options.count:
        with open(options.count, 'w') as file:
            file.write(f'{len(cases)} {failures}\n')
    return 1 if failures else 0


if __name__ == '__main__':
    sys.exit(main())
