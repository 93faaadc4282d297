"""The tour of README.md, typed as it stands there."""

import contextlib
import os
import re
import shutil
import signal
import unittest
from pathlib import Path

from support.processes import run, tool, wait_for_end_of
from support.service import Service
from support.varlink import Control

ROOT = Path(__file__).resolve().parents[2]
THERE = Path("/tmp/tour-there")


def steps():
    """The commands of the tour, each with the lines that it is said to print."""
    section = (ROOT / "README.md").read_text().split("\n## Tour\n", 1)[1].split("\n## ", 1)[0]
    blocks = re.findall(r"^```sh\n(.*?)^```$", section, re.DOTALL | re.MULTILINE)
    found = []
    for line in "".join(blocks).splitlines():
        if line.startswith("$ "):
            found.append((line[2:], []))
        elif line.strip():
            found[-1][1].append(line)
    return found


def clear():
    """Takes away what a tour leaves in /tmp, and the second service that it starts."""
    for path in Path("/tmp").glob("tour*.img"):
        path.unlink()
    with contextlib.suppress(OSError), Control(THERE / "run" / "org.talvek.NBD") as control:
        pid = control.peer()
        os.kill(pid, signal.SIGKILL)
        wait_for_end_of(pid)
    for line in Path("/proc/self/mountinfo").read_text().splitlines():
        if (place := line.split()[4]).startswith(f"{THERE}/"):
            run([tool("umount"), "-l", place])
    shutil.rmtree(THERE, ignore_errors=True)


class Tour(unittest.TestCase):
    def test_every_step_does_what_the_readme_says(self):
        clear()
        self.addCleanup(clear)
        service = Service(self)
        service.configuration.unlink()
        del service.environment["NBDD_IO"], service.environment["NBDD_CONFIG"]
        service.environment.update({f"XDG_{name}_HOME": str(service.root / name) for name in ("CONFIG", "STATE")})
        # One shell types it all, says where each step begins, and stops at the first that fails. The standard
        # port is free in a network of its own.
        script = "ip link set lo up || exit 1\n"
        for at, (command, _) in enumerate(steps()):
            script += f"echo '--- step {at}'\n{command} || exit 1\n"
        result = run(
            [tool("unshare"), "--net", "bash", "-c", script],
            environment=service.environment,
            cwd=ROOT,
            check=False,
            limit=600,
        )
        outputs = re.split(r"^--- step \d+\n", result.out, flags=re.MULTILINE)[1:]
        for (command, expected), output in zip(steps(), outputs):
            for line in expected:
                self.assertIn(line, output, f"$ {command}\n{result}")
        self.assertEqual(result.status, 0, str(result))
        self.assertEqual(len(outputs), len(steps()))
        self.assertGreater(len(outputs), 20)


if __name__ == "__main__":
    unittest.main()
