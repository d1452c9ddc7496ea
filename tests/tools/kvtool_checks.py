"""What the kvtool test scripts share: failed checks are counted and printed as they happen, and the
scenarios run in a temporary directory that goes away afterwards."""
import shutil
import tempfile

failures = []


def check(cond, what):
    if not cond:
        failures.append(what)
        print("FAIL:", what, flush=True)


def run_scenarios(prefix, label, *scenarios):
    """Runs each scenario(work) in one new temporary directory; 0 when every check passed, else 1."""
    work = tempfile.mkdtemp(prefix=prefix)
    try:
        for scenario in scenarios:
            scenario(work)
    finally:
        shutil.rmtree(work, ignore_errors=True)
    if failures:
        print(f"{len(failures)} checks failed")
        return 1
    print(f"all {label} checks passed")
    return 0
