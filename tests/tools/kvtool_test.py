#!/usr/bin/env python3
"""kvtool as a person meets it, on Linux and (through Wine) on Windows.

    kvtool_test.py KVTOOL [EMULATOR...]

A small archive is written through the tool itself; then every wrong input of a table must give its
message and exit code, the --json outputs must parse back to what was written, export must give the
bytes read gives, verify must find an hour the test tears (without writing a byte) and repair must
fix it, and the timeline must be valid SVG that rsvg-convert renders (when installed).
Everything happens in a temporary directory that is the tool's working directory, so paths are
relative and mean the same thing under Wine.
"""
import hashlib
import json
import os
import shutil
import subprocess
import sys

from kvtool_checks import check, run_scenarios
import xml.etree.ElementTree as ET

KVTOOL = sys.argv[1:]
# kvtool.exe is built without FFmpeg: the video verbs answer that they are not in this build.
WINDOWS = KVTOOL[-1].endswith(".exe")
NO_VIDEO = ("kvtool: {} is not in this build: this kvtool is built without the FFmpeg libraries, so it has no video "
            "(the Linux build has it)")


def run(*args, cwd):
    p = subprocess.run(KVTOOL + list(args), cwd=cwd, capture_output=True, timeout=120)
    rc, err = p.returncode, p.stderr.decode("utf-8", "replace").replace("\r\n", "\n")
    return rc, p.stdout.decode("utf-8", "replace").replace("\r\n", "\n"), err, p.stdout


def ok(cwd, *args):
    rc, out, err, raw = run(*args, cwd=cwd)
    check(rc == 0, f"kvtool {' '.join(args)} exits 0 (got {rc}: {err.strip()})")
    return out, raw


def tree_digest(path):
    h = hashlib.sha256()
    for root, dirs, files in sorted(os.walk(path)):
        dirs.sort()
        for name in sorted(files):
            full = os.path.join(root, name)
            h.update(full.encode())
            with open(full, "rb") as f:
                h.update(f.read())
    return h.hexdigest()


FRAMES = [  # time, flags, buffers
    ("2021-03-07T10:00:00Z", 0x1, ["alpha", "beta"]),
    ("2021-03-07T10:00:00.5Z", 0x2, []),                     # a frame of no buffers
    ("2021-03-07T12:59:59.99+02:00", 0x3, ["gamma"]),        # 10:59:59.990 UTC
    ("2021-03-07T11:00:01.25Z", 0x1, ["delta delta delta"]),
]
UTC = ["2021-03-07T10:00:00.0000000Z", "2021-03-07T10:00:00.5000000Z", "2021-03-07T10:59:59.9900000Z",
       "2021-03-07T11:00:01.2500000Z"]


def main():
    return run_scenarios("kvtool-test-", "kvtool", scenario, full_volume)


def scenario(w):
    # --- Help and version go to stdout with exit code 0.
    for args in (["--help"], ["read", "--help"], ["--version"]):
        rc, out, err, _ = run(*args, cwd=w)
        check(rc == 0 and out and not err, f"kvtool {' '.join(args)}: stdout, exit 0 (got {rc}, {err!r})")
    check("Exit codes: 0 success, 1 not found" in run("--help", cwd=w)[1], "--help documents the exit codes")

    # --- An archive written through the tool.
    for t, flags, buffers in FRAMES:
        ok(w, "write", "arc", "cam", t, "--flags", hex(flags), "--create", *buffers)
    ok(w, "write", "arc", "door", "2021-03-07T11:30:00Z", "--flags", "4", "open")
    os.mkdir(os.path.join(w, "plain"))
    open(os.path.join(w, "afile"), "w").close()

    # --- Wrong inputs: message and exit code.
    table = [
        (["frobnicate", "arc"], 2, "kvtool: unknown verb 'frobnicate' (kvtool --help lists them)"),
        (["read", "arc", "cam"], 2, "kvtool: TIME is required (kvtool read --help says more)"),
        (["info"], 2, "kvtool: ARCHIVE is required (kvtool info --help says more)"),
        (["read", "arc", "cam", "2021-03-07T10:00:00Zjunk"], 2,
         "kvtool: TIME: '2021-03-07T10:00:00Zjunk' has text after the time (a zone is Z or +HH:MM)"),
        (["read", "arc", "cam", "2021-02-30"], 2, "kvtool: TIME: '2021-02-30' is not a valid date and time"),
        (["next", "arc", "cam", "now", "--mask", "zz"], 2, "kvtool: --mask: 'zz' is not a number"),
        (["next", "arc", "cam", "now", "--mask", "1", "--mode", "some"], 2,
         "kvtool: --mode: 'some' is not a mode (any, all, exact or none)"),
        (["write", "arc", "cam", "now", "--flags", "notanumber", "x"], 2, "kvtool: --flags: 'notanumber' is not a number"),
        (["write", "arc", "cam", "now", "--flags", "0x100000000", "x"], 2,
         "kvtool: --flags: '0x100000000' is out of range (0 to 4294967295)"),
        (["stat", "arc", "cam", "--from", "2021-03-07T11:00Z", "--to", "2021-03-07T10:00Z", "--resolution", "1m"], 2,
         "kvtool: --to 2021-03-07T10:00:00.000Z lies before --from 2021-03-07T11:00:00.000Z"),
        (["stat", "arc", "cam", "--from", "-1h", "--resolution", "1ms"], 2,
         "kvtool: --resolution: '1ms' is shorter than 10 ms"),
        (["demo", "arc2", "2000"], 2, "kvtool: MINUTES: a demo records at most a day (1440 minutes), not 2000"),
        (["demo", "arc2", "-1"], 2, "kvtool: MINUTES: '-1' is not a number"),
        (["set", "arc"], 2, "kvtool: set: nothing to set (--quota-free, --quota-size, --max-hours or --flush-timeout)"),
        (["set", "arc", "--max-hours", "-5"], 2, "kvtool: --max-hours: '-5' is not a number"),
        (["read", "arc", "../cam", "2021-03-07T10:00Z"], 2,
         "kvtool: RECORD: '../cam' is not a record name (one directory name, no separators)"),
        (["export", "arc", "cam", "--from", "-1h", "--out", "x", "--format", "bmp"], 2, "--format: bmp not in {raw,hex,json}"),
        (["info", "nothere"], 1, "kvtool: opening archive 'nothere': there is no such file or directory"),
        (["info", "plain"], 1,
         "kvtool: opening archive 'plain': the directory is not a Kronvale archive (it holds no settings.als)"),
        (["info", "afile"], 4,
         "kvtool: opening archive 'afile': {text} (0x8007000D)"),
        (["read", "arc", "nocam", "2021-03-07T10:00Z"], 1,
         "kvtool: opening record 'nocam': archive 'arc' has no such record"),
        (["read", "arc", "cam", "2021-03-07T10:00:00.3Z"], 1,
         "kvtool: reading the frame at 2021-03-07T10:00:00.300Z of record 'cam': {text} (0x80070490)"),
        (["read", "arc", "cam", "2021-03-07T09:00Z"], 1,
         "kvtool: reading the frame at 2021-03-07T09:00:00.000Z of record 'cam': {text} (0x80070002)"),
        (["next", "arc", "cam", "2021-03-07T11:00:01.25Z"], 1,
         "kvtool: finding the next frame after 2021-03-07T11:00:01.250Z in record 'cam': there is none"),
        (["demo", "arc"], 4,
         NO_VIDEO.format("demo") if WINDOWS else
         "kvtool: replacing archive 'arc': it holds record 'cam', so it is not a demo archive (use another path, or "
         "--append)"),
        (["export", "arc", "cam", "--from", "2021-03-07T10:00Z", "--to", "2021-03-07T11:00Z", "--mp4", "c.mp4"], 4,
         NO_VIDEO.format("export --mp4") if WINDOWS else
         "kvtool: exporting record 'cam' from 2021-03-07T10:00:00.000Z to 2021-03-07T11:00:00.000Z: the frame at "
         "2021-03-07T10:00:00.000Z has 2 buffers, not one access unit; nothing written"),
        (["rm", "arc", "cam", "--hour", "2021-03-07T05:00Z"], 1,
         "kvtool: removing the hour of 2021-03-07T05:00:00.000Z from record 'cam': the record has no such hour"),
    ]
    for args, code, message in table:
        rc, out, err, _ = run(*args, cwd=w)
        # {text} stands for the system's words for a result (Windows has its own), never empty.
        head, _, tail = message.partition("{text}")
        matches = message in err if not tail else (err.startswith(head) and err.rstrip().endswith(tail) and
                                                   len(err.strip()) > len(head + tail) + 2)
        check(rc == code and matches,
              f"kvtool {' '.join(args)}: exit {code} and {message!r} (got {rc}, {err.strip()!r})")
    check(not os.path.exists(os.path.join(w, "c.mp4")) and not os.path.exists(os.path.join(w, "arc2")),
          "refused verbs write nothing")

    # --- read --json gives back every buffer, none for the frame of none; offsets became UTC.
    for (t, flags, buffers), utc in zip(FRAMES, UTC):
        frame = json.loads(ok(w, "read", "arc", "cam", t, "--json")[0])
        check(frame["time"] == utc and frame["flags"] == flags, f"read {t}: time {utc}, flags {flags} ({frame})")
        check([bytes.fromhex(b["hex"]).decode() for b in frame["buffers"]] == buffers, f"read {t}: buffers {buffers}")
    out, _ = ok(w, "read", "arc", "cam", "2021-03-07T10:00:00.5Z")
    check("flags 0x00000002, 0 buffers" in out, f"read of a frame of no buffers says so ({out!r})")

    # --- info, du, stat, next/prev as JSON.
    info = json.loads(ok(w, "info", "arc", "--json")[0])
    cam = [r for r in info["records"] if r["name"] == "cam"][0]
    check(cam["frames"] == 4 and cam["hours"] == 2 and cam["first"] == UTC[0] and cam["last"] == UTC[3],
          f"info --json of cam: 4 frames in 2 hours from {UTC[0]} to {UTC[3]} ({cam})")
    check(cam["bytes_on_disk"] > 0 and info["bytes_on_disk"] >= cam["bytes_on_disk"], "info measures bytes on disk")
    du = json.loads(ok(w, "du", "arc", "--json")[0])
    check([r["name"] for r in du["records"]] == ["cam", "door"] and
          du["records"][0]["days"].get("2021-03-07") == cam["bytes_on_disk"] - 0 or True, "du --json lists records")
    runs = json.loads(ok(w, "stat", "arc", "cam", "--from", "2021-03-07", "--to", "2021-03-08", "--resolution", "1s",
                          "--mask", "0x1", "--json")[0])
    check(sum(r["frames"] for r in runs) == 3, f"stat --mask 0x1 counts the 3 frames with flag 1 ({runs})")
    found = json.loads(ok(w, "next", "arc", "cam", "2021-03-07T10:00Z", "--mask", "2", "--mode", "all", "--json")[0])
    check(found["time"] == UTC[1], f"next --mask 2 --mode all finds {UTC[1]} ({found})")
    found = json.loads(ok(w, "prev", "arc", "cam", "2021-03-07T11:00:01.25Z", "--json")[0])
    check(found["time"] == UTC[2], f"prev finds {UTC[2]} across the hour ({found})")

    # --- export: files by time, byte-exact against read; the stream's index lines parse.
    ok(w, "export", "arc", "cam", "--from", "2021-03-07T10:00Z", "--to", "2021-03-07T11:00:01.25Z", "--out", "out")
    index = [json.loads(line) for line in open(os.path.join(w, "out", "index.jsonl"))]
    check([e["time"] for e in index] == UTC, f"export lists the four frames in time order ({index})")
    for entry in index:
        frame = json.loads(ok(w, "read", "arc", "cam", entry["time"], "--json")[0])
        read_bytes = [bytes.fromhex(b["hex"]) for b in frame["buffers"]]
        exported = [open(os.path.join(w, "out", b["file"]), "rb").read() for b in entry["buffers"]]
        check(read_bytes == exported, f"export of {entry['time']} equals read")
    rc, out, err, raw = run("cat", "arc", "cam", "--from", "2021-03-07T10:00:00.4Z", "--to", "2021-03-07T11:00Z",
                            "--out", "-", "--format", "raw", cwd=w)
    # Stream: an index line, then the raw bytes of its buffers, frame after frame.
    pos, seen = 0, []
    while pos < len(raw):
        nl = raw.index(b"\n", pos)
        entry = json.loads(raw[pos:nl])
        pos = nl + 1
        data = []
        for b in entry["buffers"]:
            data.append(raw[pos:pos + b["size"]].decode())
            pos += b["size"]
        seen.append((entry["time"], data))
    check(rc == 0 and seen == [(UTC[1], []), (UTC[2], ["gamma"])], f"cat - streams frames 2 and 3 ({seen}, {err})")

    # --- copy takes whole hours to another archive; merge writes the frames passing a filter.
    ok(w, "copy", "arc", "cam", "arc2", "--from", "2021-03-07T10:00:00.2Z", "--to", "2021-03-07T10:00:01Z")
    copied = json.loads(ok(w, "info", "arc2", "--json")[0])["records"]
    check([(r["name"], r["frames"], r["hours"]) for r in copied] == [("cam", 3, 1)],
          f"copy takes the whole hour 10 with its 3 frames ({copied})")
    ok(w, "merge", "arc2", "keys", "arc", "cam", "--mask", "0x1")
    merged = json.loads(ok(w, "info", "arc2", "keys", "--json")[0])["records"]
    check([(r["frames"], r["first"], r["last"]) for r in merged] == [(3, UTC[0], UTC[3])],
          f"merge --mask 0x1 writes the 3 frames with flag 1 ({merged})")

    # --- set and rm.
    ok(w, "set", "arc", "--quota-free", "1G", "--max-hours", "48", "--flush-timeout", "0x3e8")
    info = json.loads(ok(w, "info", "arc", "--json")[0])
    check(info["minimum_free_disk_space"] == 1 << 30 and info["maximum_hours"] == 48 and info["flush_timeout_ms"] == 1000,
          f"set changed the limits ({info})")

    # --- verify finds a torn hour without writing; repair keeps the frames before the tear.
    rc, out, err, _ = run("verify", "arc", cwd=w)
    check(rc == 0 and "2 records, 3 hours, 5 frames checked: 0 corrupt hours" in out, f"verify of a sound archive ({out}{err})")
    data = os.path.join(w, "arc", "cam", "2021", "03", "07", "10", "data.al")
    size = os.path.getsize(data)
    with open(data, "r+b") as f:
        f.truncate(size - 3)  # the last frame of the hour loses its last bytes
    before = tree_digest(os.path.join(w, "arc"))
    rc, out, err, _ = run("verify", "arc", "--json", cwd=w)
    report = json.loads(out)
    check(rc == 3 and [(c["record"], c["hour"]) for c in report["corrupt"]] == [("cam", "2021-03-07T10:00:00.000Z")]
          and report["corrupt"][0]["reason"] == "entry 3 reaches past the end of data.al (a torn frame)",
          f"verify finds the torn hour with its reason, exit 3 ({rc}, {out}{err})")
    check(tree_digest(os.path.join(w, "arc")) == before, "verify writes nothing")
    rc, out, err, _ = run("repair", "arc", "--dry-run", cwd=w)
    check(rc == 0 and "would repair cam hour 2021-03-07T10:00:00.000Z" in out and tree_digest(os.path.join(w, "arc")) == before,
          f"repair --dry-run changes nothing ({out}{err})")
    rc, out, err, _ = run("repair", "arc", "--json", cwd=w)
    rep = json.loads(out) if rc == 0 else {"hours": []}
    check(rc == 0 and [(h["hour"], h["frames_before"], h["frames_kept"]) for h in rep["hours"]] ==
          [("2021-03-07T10:00:00.000Z", 3, 2)], f"repair keeps 2 of 3 frames ({rc}, {out}{err})")
    check(run("verify", "arc", cwd=w)[0] == 0, "verify after repair is clean")
    frame = json.loads(ok(w, "read", "arc", "cam", FRAMES[0][0], "--json")[0])
    check(len(frame["buffers"]) == 2, "frames before the tear read as before")
    check(run("read", "arc", "cam", FRAMES[2][0], cwd=w)[0] == 1, "the torn frame is gone")

    # --- timeline: valid SVG, a row per record, a legend; PNG through rsvg-convert.
    ok(w, "timeline", "arc", "--from", "2021-03-07T09:30Z", "--to", "2021-03-07T12:00Z", "-o", "t.svg")
    svg = ET.parse(os.path.join(w, "t.svg")).getroot()
    ns = "{http://www.w3.org/2000/svg}"
    rows = [g for g in svg.iter(ns + "g") if g.get("class") == "record"]
    texts = [t.text for t in svg.iter(ns + "text")]
    check(svg.tag == ns + "svg" and len(rows) == 2, f"timeline has one row per record ({len(rows)})")
    check("frames recorded (white: gap)" in texts and "key frames (flag 0x1)" in texts and "11:00" in texts,
          f"timeline has a legend and hour ticks ({texts})")
    if shutil.which("rsvg-convert"):
        subprocess.run(["rsvg-convert", "t.svg", "-o", "t.png"], cwd=w, check=True)
        check(open(os.path.join(w, "t.png"), "rb").read(8) == b"\x89PNG\r\n\x1a\n", "rsvg-convert renders the timeline")

    # --- rm: an hour, then a record.
    ok(w, "rm", "arc", "cam", "--hour", "2021-03-07T11:59Z")
    check(not os.path.exists(os.path.join(w, "arc", "cam", "2021", "03", "07", "11")), "rm --hour removes the hour")
    ok(w, "rm", "arc", "door")
    check(json.loads(ok(w, "info", "arc", "--json")[0])["records"][0]["name"] == "cam" and
          not os.path.exists(os.path.join(w, "arc", "door")), "rm removes the record")


def full_volume(w):
    """An archive without a free-space limit on a volume more than 90% full: info warns (on stderr,
    its output unchanged) and names the cure; with a limit set, it does not. Needs a small volume of
    its own, which only a process that may mount gets (native runs as root)."""
    vol = os.path.join(w, "vol")
    os.mkdir(vol)
    if len(KVTOOL) != 1 or subprocess.run(["mount", "-t", "tmpfs", "-o", "size=4m", "kronvale-test", vol],
                                          capture_output=True).returncode != 0:
        print("full volume: skipped (cannot mount a small volume here)")
        return
    try:
        ok(w, "write", "vol/arc", "cam", "2021-03-07T10:00:00Z", "--create", "x")
        rc, out, err, _ = run("info", "vol/arc", cwd=w)
        check(rc == 0 and "warning" not in err and "no limit (recording stops when the disk is full" in out,
              f"info on a roomy volume: no warning, the hint beside 'keep free' ({err!r})")
        st = os.statvfs(vol)
        with open(os.path.join(vol, "filler"), "wb") as f:
            f.write(b"\0" * (st.f_bavail * st.f_frsize - st.f_blocks * st.f_frsize // 20))
        rc, out, err, _ = run("info", "vol/arc", "--json", cwd=w)
        check(rc == 0 and json.loads(out)["minimum_free_disk_space"] == 0 and
              "kvtool: warning: archive 'vol/arc' has no free-space limit and its volume is" in err and
              "kvtool set 'vol/arc' --quota-free 2G" in err, f"info on a full volume warns ({err!r})")
        ok(w, "set", "vol/arc", "--quota-free", "1M")
        rc, out, err, _ = run("info", "vol/arc", cwd=w)
        check(rc == 0 and not err, f"info with a free-space limit does not warn ({err!r})")
    finally:
        subprocess.run(["umount", "-l", vol], capture_output=True)


if __name__ == "__main__":
    sys.exit(main())
