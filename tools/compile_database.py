"""What the checks read from the compilation database of the preset `lint`."""

import json
import shlex
import subprocess
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
BUILD = ROOT / "build/lint"


def sources(*kinds):
    """Our files of these kinds, as paths relative to the repository."""
    listed = subprocess.run([ROOT / "tools/sources", *kinds], check=True, capture_output=True, text=True)
    return [Path(line) for line in listed.stdout.splitlines()]


def commands():
    """Source -> its compiler command without input and output, as a list of words."""
    found = {}
    for entry in json.loads((BUILD / "compile_commands.json").read_text()):
        file = (Path(entry["directory"]) / entry["file"]).resolve()
        if not file.is_relative_to(ROOT):
            continue
        words = shlex.split(entry["command"])
        output = words.index("-o")
        del words[output:output + 2]
        words = [word for word in words if word not in ("-c", entry["file"])]
        found[file.relative_to(ROOT)] = words
    return found
