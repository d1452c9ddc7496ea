"""What the kvtool test scripts share: failed checks are counted and printed as they happen, and the
scenarios run in a temporary directory that goes away afterwards."""
import os
import shutil
import tempfile

failures = []

# The scripts check each run's exit status exactly. LeakSanitizer stops every thread at exit with a
# tracer of its own before it looks for leaks; that tracer now and then crashes (a known, intermittent
# fault of the sanitizer), and the process then exits with the sanitizer's status instead of its own.
# So the programs these scripts start look for no leaks; kvtool's leaks are looked for where its
# status does not matter (the kvtool_demo test, judged by its output).
os.environ["ASAN_OPTIONS"] = ":".join(filter(None, [os.environ.get("ASAN_OPTIONS", ""), "detect_leaks=0"]))


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
