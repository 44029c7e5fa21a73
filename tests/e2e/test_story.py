"""What ./dev run tells, from its beginning to its end."""

import os
import re
import subprocess

from stack.waiting import LIMIT

# Chapters in their order, each with lines that it has. A machine may lack what one needs: then it says so.
LEFT_OUT = r"  (left out|given up|not shown) +\S"
NOTHING_LEFT = r"  files and groups +none left"
CHAPTERS = [
    ("What is real here, and what is not", [r"  buses +real"]),
    ("The service comes up", [r"  service +pid \d+", r"  system bus +owns org\.kestrix\.Procwarden\.User"]),
    ("What a start would do, before there is one",
     [r"  \$ procwardenctl explain org\.example\.Sample", r"  Checks", r"    passed  Sandbox: permissions: Base",
      r"  \.\.\. and \d\d+ lines more"]),
    ("Start org.example.Sample", [r"  reply +instance org\.example\.Sample, pid \d+", r"  ticks +.*: it runs"]),
    ("What is known of it, and when it had come how far",
     [r"  \$ procwardenctl status org\.example\.Sample", r" +State: active", r"  Last launch: ", r" +allowed .*first window"]),
    ("Its only window is hidden", [r"  windows +1 hidden: the state is 3, hidden", r"  freezer +\S+"]),
    ("Its window is shown again", [r"  windows +1 active: the state is 1, active", r"  ticks +.*: it runs"]),
    ("A second start of the same application", [r"  refused +\S+\.ApplicationAlreadyRunning"]),
    ("Stop it", [r"  \$ procwardenctl stop org\.example\.Sample", r"  signal Terminated +.* \(requested\)",
                 r"  \$ procwardenctl history .*org\.example\.Sample",
                 r"  \S+ \S+  org\.example\.Sample .*  requested  .*  procwardenctl \(pid \d+"]),
    ("Two applications and one notification", [r"  the user taps it +ActionInvoked .* to org\.example\.Letters alone"]),
    ("One application opens a file of its own in another", [r'  answer +\{"instanceId": "org\.example\.Reader"\}']),
    ("SIGTERM to the service, while two applications run, one of them hidden",
     [r"  exit status +0", r"  processes left +none", NOTHING_LEFT]),
    ("Background tasks", [r"  log +Running time exhausted", r"  runs again +sync", r"  exit status +0", NOTHING_LEFT]),
    ("Memory runs short", [r"  signal +SelectedByOom org\.example\.Album",
                           r"  \$ procwardenctl history .*org\.example\.Album",
                           r"  \S+ \S+  org\.example\.Album .*  early-oom  memory is Critical, .*\(SIGKILL\)",
                           r"  lives +org\.example\.Sample", NOTHING_LEFT]),
]


def test_story_is_told_to_its_end():
    story = subprocess.run(["/usr/bin/python3", "-B", "-m", "stack", "run"], stdin=subprocess.DEVNULL, capture_output=True,
                           text=True, env={**os.environ, "ASAN_OPTIONS": "detect_leaks=0"}, timeout=8 * LIMIT)
    assert story.returncode == 0, (story.stdout, story.stderr)
    told = dict(text.split("\n", 1) for text in re.split(r"\n\n(?=\S)", story.stdout.strip()))
    assert list(told) == [chapter for chapter, _ in CHAPTERS]
    for chapter, patterns in CHAPTERS:
        if chapter in ("Memory runs short", "One application opens a file of its own in another") \
                and re.search(rf"(?m)^{LEFT_OUT}", told[chapter]):
            continue
        position = 0
        for pattern in patterns:
            found = re.compile(f"(?m)^{pattern}").search(told[chapter], position)
            assert found, (pattern, told[chapter])
            position = found.end()
