"""What the kvtool test scripts share: failed checks are counted and printed as they happen, and the
scenarios run in a temporary directory that goes away afterwards."""
import re
import shutil
import tempfile

failures = []

# LeakSanitizer stops every thread at exit with a tracer of its own before it looks for leaks; that
# tracer now and then crashes (a known, intermittent fault of the sanitizer, not a leak report), and
# the process then exits 1 after its work is done.
LSAN_TRACER_CRASH = ("Tracer caught signal", "LeakSanitizer has encountered a fatal error")


def without_sanitizer_fault(rc, err):
    """(rc, err) of a run, with a crash of LeakSanitizer's tracer at exit taken out: its lines are
    removed and the exit status is 0 again, so that what the run did is still checked by what
    follows. Any other failure is left as it is."""
    if rc == 0 or not all(text in err for text in LSAN_TRACER_CRASH):
        return rc, err
    lines = [line for line in err.splitlines()
             if not line.startswith("Tracer caught signal") and not re.match(r"==\d+==(LeakSanitizer|HINT:)", line)]
    print("note: LeakSanitizer's tracer crashed at exit; the run is judged by its output", flush=True)
    return 0, "\n".join(lines)


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
