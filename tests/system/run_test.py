"""./run: what it says when it cannot build."""

import os
import shutil
import tempfile
import unittest
from pathlib import Path

from support import processes

ROOT = Path(__file__).resolve().parents[2]


class Run(unittest.TestCase):
    def setUp(self):
        self.tree = Path(tempfile.mkdtemp(prefix="talvek-tree-"))
        self.addCleanup(shutil.rmtree, self.tree)
        (self.tree / "tools").mkdir()
        shutil.copy(ROOT / "run", self.tree)
        for name in ("install_packages", "packages"):
            shutil.copy(ROOT / "tools" / name, self.tree / "tools")

    def run_it(self):
        # For root too a directory is closed without the capability to write where he may not.
        wrapper = [processes.tool("setpriv"), "--bounding-set=-all", "--inh-caps=-all"] if os.geteuid() == 0 else []
        return processes.run([*wrapper, self.tree / "run", "list"], environment=dict(os.environ), check=False)

    def test_a_tree_that_may_not_be_written_to(self):
        for closed in (self.tree / "build" / "release", self.tree / "build", self.tree):
            with self.subTest(closed=closed.name):
                closed.mkdir(parents=True, exist_ok=True)
                closed.chmod(0o555)
                result = self.run_it()
                self.assertEqual((result.status, result.out), (1, ""), str(result))
                self.assertEqual(len(result.err.splitlines()), 1, result.err)
                self.assertIn(f"{self.tree}/build belongs to", result.err)
                closed.chmod(0o755)
                shutil.rmtree(self.tree / "build", ignore_errors=True)

    def test_a_build_that_fails_says_where_its_log_is(self):
        result = self.run_it()  # there is nothing to build
        self.assertEqual((result.status, result.out), (1, ""), str(result))
        self.assertIn("Building for the first time", result.err)
        self.assertIn(f"The build failed; the whole log is {self.tree}/build/run.log", result.err)


if __name__ == "__main__":
    unittest.main()
