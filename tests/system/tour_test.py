"""The tour of README.md, typed as it stands there."""

import re
import unittest
from pathlib import Path

from support.processes import run, tool
from support.service import Service

ROOT = Path(__file__).resolve().parents[2]


def steps():
    """The commands of the tour, each with the lines that it is said to print."""
    section = (ROOT / "README.md").read_text().split("\n## Tour\n", 1)[1]
    block = re.search(r"^```sh\n(.*?)^```$", section, re.DOTALL | re.MULTILINE)[1]
    found = []
    for line in block.splitlines():
        if line.startswith("$ "):
            found.append((line[2:], []))
        elif line.strip():
            found[-1][1].append(line)
    return found


class Tour(unittest.TestCase):
    def test_every_step_does_what_the_readme_says(self):
        for path in Path("/tmp").glob("tour*.img"):
            path.unlink()
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
        self.assertGreater(len(outputs), 5)
        for path in Path("/tmp").glob("tour*.img"):
            path.unlink()


if __name__ == "__main__":
    unittest.main()
