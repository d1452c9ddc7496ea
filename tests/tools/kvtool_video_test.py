#!/usr/bin/env python3
"""Real video through kvtool, natively: a camera records, an operator seeks and cuts clips.

    kvtool_video_test.py KVTOOL KVTOOL_VIDEO_CHECK

The demo records one minute of H.264 up to 11:00:30 UTC, so the recording crosses an hour. The
encoder's own output is made again by kvtool_video_check (the demo camera gives the same bytes for the
same time) and decoded: it must equal what the archive holds, and every clip kvtool exports must
decode to the same pictures as the same frames of that output, starting at a key frame, 40 ms apart.
Everything happens in a temporary directory.
"""
import glob
import hashlib
import json
import os
import subprocess
import sys

from kvtool_checks import check, run_scenarios
from datetime import datetime, timezone

KVTOOL, CHECK = sys.argv[1], sys.argv[2]
EPOCH = datetime(1601, 1, 1, tzinfo=timezone.utc)
TICKS_PER_SECOND = 10_000_000
FRAME = 400_000  # 40 ms


def ticks(text):
    """FILETIME ticks of a time written as 2021-03-07T11:00:30Z or with a fraction."""
    when = datetime.fromisoformat(text.replace("Z", "+00:00"))
    delta = when - EPOCH
    return (delta.days * 86400 + delta.seconds) * TICKS_PER_SECOND + delta.microseconds * 10


def run(*args, cwd):
    p = subprocess.run([KVTOOL] + list(args), cwd=cwd, capture_output=True, timeout=300)
    rc, err = p.returncode, p.stderr.decode()
    return rc, p.stdout.decode(), err


def ok(cwd, *args):
    rc, out, err = run(*args, cwd=cwd)
    check(rc == 0, f"kvtool {' '.join(args)} exits 0 (got {rc}: {err.strip()})")
    return out


def fnv(data):
    h = 0xcbf29ce484222325
    for b in data:
        h = ((h ^ b) * 0x100000001b3) & 0xFFFFFFFFFFFFFFFF
    return f"{h:016x}"


def decode(*args):
    """kvtool_video_check's lines as (ticks, key, extra, access unit hash, picture hash)."""
    p = subprocess.run([CHECK] + list(args), capture_output=True, timeout=300)
    rc, err = p.returncode, p.stderr.decode()
    check(rc == 0, f"kvtool_video_check {' '.join(args)} decodes ({err.strip()})")
    frames = []
    for line in p.stdout.decode().splitlines():
        if line.startswith("codec "):
            continue
        t, mark, unit, picture = line.split()
        frames.append((int(t), mark[0] == "K", mark[1:], unit, picture))
    return frames


def reference(source, first, last):
    """The encoder's pictures from the key frame at or before `first` to the last frame at or before `last`."""
    start = max(i for i, f in enumerate(source) if f[0] <= first and f[1])
    return [f for f in source[start:] if f[0] <= last]


def same_clip(mp4, expected, what):
    """The clip decodes to the expected pictures, from a key frame, at the frames' own spacing."""
    clip = decode("mp4", mp4)
    check(len(clip) == len(expected), f"{what}: {len(expected)} pictures (got {len(clip)})")
    check([f[4] for f in clip] == [f[4] for f in expected], f"{what}: every picture equals the encoder's")
    check(clip[:1] and clip[0][1] and clip[0][0] == 0, f"{what}: the first frame is a key frame at time 0")
    check([f[0] for f in clip] == [f[0] - expected[0][0] for f in expected], f"{what}: timestamps are the frame times")
    return clip


def main():
    return run_scenarios("kvtool-video-", "kvtool video", scenario)


def scenario(w):
    # --- The camera records a minute that crosses 11:00 UTC.
    out = ok(w, "demo", "arc", "1", "--until", "2021-03-07T11:00:30Z")
    check("content verified" in out and "as H.264 (libx264)" in out, f"demo records H.264 and reads it back ({out})")
    source = decode("demo", "2021-03-07T11:00:30Z", "1")
    t0 = ticks("2021-03-07T10:59:30Z")
    check([f[0] for f in source] == [t0 + i * FRAME for i in range(1500)], "the camera gives 1500 frames, 40 ms apart")
    keys = [f[0] for f in source if f[1]]
    check(keys == [t0 + i * 2 * TICKS_PER_SECOND for i in range(30)], "a key frame every 2 s and nowhere else")

    # The archive holds the encoder's access units byte for byte, flagged as the camera saw them:
    # key frames 0x1, motion 0x2 (the ball goes round in the second half of each minute only).
    for f in (source[0], source[749], source[750], source[1001], source[1499]):
        utc = datetime.fromtimestamp((f[0] - ticks("1970-01-01T00:00:00Z")) / TICKS_PER_SECOND, timezone.utc)
        frame = json.loads(ok(w, "read", "arc", "camera1", utc.isoformat(), "--json"))
        flags = (1 if f[1] else 0) | (2 if f[2] == "M" else 0)
        check(len(frame["buffers"]) == 1 and fnv(bytes.fromhex(frame["buffers"][0]["hex"])) == f[3] and
              frame["flags"] == flags, f"the frame at {utc} is the encoder's access unit with flags {flags}")
    motion = [f[0] for f in source if f[2] == "M"]
    check(motion and min(motion) > t0 and max(motion) < ticks("2021-03-07T11:00:00.04Z"),
          "motion is flagged only while the ball moves")

    # --- Seeking by key frame: the key frames around a time in the middle of a group of pictures.
    check(ok(w, "next", "arc", "camera1", "2021-03-07T10:59:57.1Z", "--key").strip() == "2021-03-07T10:59:58.000Z",
          "next --key finds the key frame after")
    check(ok(w, "prev", "arc", "camera1", "2021-03-07T11:00:00.5Z", "--key").strip() == "2021-03-07T11:00:00.000Z",
          "prev --key finds the key frame that opens the hour")
    check(ok(w, "prev", "arc", "camera1", "2021-03-07T11:00:00Z", "--key").strip() == "2021-03-07T10:59:58.000Z",
          "prev --key crosses back into the previous hour")
    rc, _, err = run("next", "arc", "camera1", "now", "--key", "--mask", "2", cwd=w)
    check(rc == 2 and "kvtool: --key is --mask 0x1: give one or the other" in err, f"--key with --mask is refused ({err})")

    # The timeline's key-frame band is the stream's: one mark per key frame (a cell of a second each).
    ok(w, "timeline", "arc", "-o", "t.svg")
    svg = open(os.path.join(w, "t.svg")).read()
    marks = svg.count('fill="#d9480f"') - 1  # less the legend's
    check(marks == 30, f"the timeline marks the 30 key frames ({marks})")

    # --- A clip from the middle of a group of pictures across the hour: it starts at the key frame
    # before --from, ends at the last frame before --to, and decodes to the encoder's pictures.
    first, last = ticks("2021-03-07T10:59:57.1Z"), ticks("2021-03-07T11:00:03.3Z")
    out = ok(w, "export", "arc", "camera1", "--from", "2021-03-07T10:59:57.1Z", "--to", "2021-03-07T11:00:03.3Z",
             "--mp4", "clip.mp4")
    check("183 frames of camera1 from 2021-03-07T10:59:56.000Z to 2021-03-07T11:00:03.280Z (H.264) written to clip.mp4"
          in out, f"export says what it wrote ({out})")
    expected = reference(source, first, last)
    check(len(expected) == 183 and expected[0][0] == ticks("2021-03-07T10:59:56Z"), "the reference range is 183 frames")
    clip = same_clip(os.path.join(w, "clip.mp4"), expected, "the clip across 11:00")
    check(all(b[0] - a[0] == FRAME for a, b in zip(clip, clip[1:])), "the clip's timestamps advance by 40 ms")

    # A range that opens on a key frame starts there; one that begins before the recording starts at
    # its first frame.
    ok(w, "export", "arc", "camera1", "--from", "2021-03-07T11:00:02Z", "--to", "2021-03-07T11:00:02.5Z", "--mp4", "k.mp4")
    same_clip(os.path.join(w, "k.mp4"), source[800:813], "a clip from a key frame")
    ok(w, "export", "arc", "camera1", "--from", "2021-03-07T10:00Z", "--to", "2021-03-07T10:59:31Z", "--mp4", "early.mp4")
    same_clip(os.path.join(w, "early.mp4"), source[:26], "a clip from before the recording")

    # --- Wrong requests write nothing, and an existing clip is kept unless --force.
    digest = hashlib.sha256(open(os.path.join(w, "clip.mp4"), "rb").read()).hexdigest()
    period = ["--from", "2021-03-07T10:59:40Z", "--to", "2021-03-07T10:59:41Z"]
    table = [
        (["export", "arc", "camera1", *period, "--mp4", "clip.mp4"], 2,
         "kvtool: --mp4 'clip.mp4': the file exists (--force replaces it)"),
        (["export", "arc", "camera1", "--from", "2021-03-07T11:00Z", "--to", "2021-03-07T10:00Z", "--mp4", "x.mp4"], 2,
         "kvtool: --to 2021-03-07T10:00:00.000Z lies before --from 2021-03-07T11:00:00.000Z"),
        (["export", "arc", "camera1", "--from", "2021-03-07T25:00Z", "--mp4", "x.mp4"], 2,
         "kvtool: --from: '2021-03-07T25:00Z' is not a valid date and time"),
        (["export", "arc", "camera1", *period, "--mp4", "x.mp4", "--mask", "1"], 2,
         "kvtool: --mp4 takes every frame (a clip needs them all to decode): no --mask or --mode"),
        (["export", "arc", "camera1", *period, "--mp4", "x.mp4", "--format", "hex"], 2, "kvtool: --mp4 writes MP4: no --format"),
        (["export", "arc", "camera1", *period, "--mp4", "x.mp4", "--out", "dir"], 2, "--out excludes --mp4"),
        (["export", "arc", "camera1", *period], 2, "kvtool: export needs --out or --mp4"),
        (["export", "arc", "camera1", *period, "--mp4", "nodir/x.mp4"], 1, "kvtool: --mp4 'nodir/x.mp4': there is no directory"),
        (["export", "arc", "camera1", *period, "--mp4", "arc"], 2, "kvtool: --mp4 'arc': it is a directory"),
        (["export", "arc", "camera1", "--from", "2021-03-07T12:00Z", "--to", "2021-03-07T13:00Z", "--mp4", "x.mp4"], 1,
         "kvtool: exporting record 'camera1' from 2021-03-07T12:00:00.000Z to 2021-03-07T13:00:00.000Z: there are no "
         "frames in that period; nothing written"),
    ]
    for args, code, message in table:
        rc, out, err = run(*args, cwd=w)
        check(rc == code and message in err, f"kvtool {' '.join(args)}: exit {code} and {message!r} (got {rc}, {err.strip()!r})")
    check(hashlib.sha256(open(os.path.join(w, "clip.mp4"), "rb").read()).hexdigest() == digest, "the existing clip is untouched")
    check(not os.path.exists(os.path.join(w, "x.mp4")), "no refused clip was written")
    ok(w, "export", "arc", "camera1", *period, "--mp4", "clip.mp4", "--force")
    same_clip(os.path.join(w, "clip.mp4"), reference(source, ticks("2021-03-07T10:59:40Z"), ticks("2021-03-07T10:59:41Z")),
              "the clip --force replaced")

    # --- The camera comes back two minutes later: a clip over the pause keeps it, one from inside
    # the pause starts where recording resumes.
    ok(w, "demo", "arc", "1", "--until", "2021-03-07T11:03:30Z", "--append")
    later = decode("demo", "2021-03-07T11:03:30Z", "1")
    out = ok(w, "export", "arc", "camera1", "--from", "2021-03-07T11:00:29Z", "--to", "2021-03-07T11:02:31Z", "--mp4", "gap.mp4")
    check("the recording pauses for 120.0 s after 2021-03-07T11:00:29.960Z" in out, f"export tells of the pause ({out})")
    same_clip(os.path.join(w, "gap.mp4"), source[1450:] + later[:26], "a clip over a pause")
    ok(w, "export", "arc", "camera1", "--from", "2021-03-07T11:01Z", "--to", "2021-03-07T11:02:31Z", "--mp4", "resume.mp4")
    same_clip(os.path.join(w, "resume.mp4"), later[:26], "a clip from inside the pause")

    # --- A failure half-way leaves nothing under the asked name, and an existing clip as it was:
    # a frame of two buffers is not an access unit.
    ok(w, "write", "arc", "camera1", "2021-03-07T11:02:30.51Z", "--flags", "0", "not", "video")
    for args in (["--mp4", "half.mp4"], ["--mp4", "clip.mp4", "--force"]):
        before = {p: open(p, "rb").read() for p in glob.glob(os.path.join(w, "*.mp4"))}
        rc, out, err = run("export", "arc", "camera1", "--from", "2021-03-07T11:02:30Z", "--to", "2021-03-07T11:02:31Z",
                           *args, cwd=w)
        check(rc == 4 and "the frame at 2021-03-07T11:02:30.510Z has 2 buffers, not one access unit; nothing written" in err,
              f"export {' '.join(args)} stops at the frame of two buffers ({rc}, {err.strip()})")
        after = {p: open(p, "rb").read() for p in glob.glob(os.path.join(w, "*.mp4"))}
        check(before == after and not glob.glob(os.path.join(w, "*.tmp")), f"export {' '.join(args)} left every file as it was")

    # A record of text is not video: refused before any file is made.
    ok(w, "write", "arc", "notes", "2021-03-07T11:00:00Z", "--flags", "1", "hello")
    rc, out, err = run("export", "arc", "notes", "--from", "2021-03-07T11:00Z", "--to", "2021-03-07T11:01Z", "--mp4",
                       "notes.mp4", cwd=w)
    check(rc == 4 and "the frame at 2021-03-07T11:00:00.000Z is not a video access unit the tool knows" in err and
          not os.path.exists(os.path.join(w, "notes.mp4")) and not glob.glob(os.path.join(w, "*.tmp")),
          f"a record of text gives no clip ({rc}, {err.strip()})")
    # A key frame more than a minute before --from is not taken: the clip would start at the
    # period's first key frame (here text again, so refused there).
    ok(w, "write", "arc", "notes", "2021-03-07T11:02:00Z", "--flags", "0", "x")
    ok(w, "write", "arc", "notes", "2021-03-07T11:02:30Z", "--flags", "1", "y")
    rc, out, err = run("export", "arc", "notes", "--from", "2021-03-07T11:01:30Z", "--to", "2021-03-07T11:03Z", "--mp4",
                       "notes.mp4", cwd=w)
    check(rc == 4 and "no key frame in the minute before 2021-03-07T11:02:00.000Z: the clip starts at the period's first, "
          "2021-03-07T11:02:30.000Z" in out and "the frame at 2021-03-07T11:02:30.000Z is not a video access unit" in err,
          f"a key frame over a minute back is not taken ({rc}, {out.strip()}, {err.strip()})")


if __name__ == "__main__":
    sys.exit(main())
