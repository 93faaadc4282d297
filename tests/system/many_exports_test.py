"""Ten thousand exports: all are listed, none is lost."""

import json
import re
import unittest
import uuid

from support.service import Service

COUNT = 10_000


def write_state(service, count, wanted="added"):
    """A state file of `count` exports, as nbdd writes it."""
    service.state.mkdir(mode=0o700)
    exports = []
    for number in range(1, count + 1):
        node = service.images / f"{number}.img"
        node.write_bytes(b"")
        exports.append(
            {
                "id": number,
                "name": node.name,
                "node": str(node),
                "readOnly": number % 2 == 0,
                "uuid": str(uuid.uuid4()),
                "elemCount": 0,
                "elemSize": 512,
                "wanted": wanted,
            }
        )
    state = {
        "format": "org.talvek.NBD.state",
        "version": 1,
        "server": {"uuid": str(uuid.uuid4()), "started": False},
        "nextExportId": count + 1,
        "exports": exports,
    }
    (service.state / "state.json").write_text(json.dumps(state))
    return exports


class Listing(unittest.TestCase):
    def check(self, wanted, state):
        service = Service(self)
        exports = write_state(service, COUNT, wanted)
        service.start()
        lines = service.nbdctl("list").splitlines()
        self.assertEqual(lines[0], f"Exports: {COUNT}")
        blocks = [lines[at : at + 7] for at in range(1, len(lines), 7)]
        self.assertEqual(len(blocks), COUNT)
        for export, block in zip(exports, blocks):
            expected = [
                f"  ID {export['id']} | {export['name']}",
                f"     - node: {export['node']}",
                "     - elem count: 0",
                "     - elem size: 512",
                f"     - state: {state}",
                f"     - uuid: {export['uuid']}",
                "     - client count: 0",
            ]
            self.assertEqual(block, expected)
        return service

    def test_all_are_listed(self):
        self.check("added", "added")

    def test_all_are_served_and_listed(self):
        service = self.check("enabled", "enabled")
        service.start_server()
        self.assertEqual(service.stop(), 0)

    def test_one_more_is_added(self):
        service = Service(self)
        write_state(service, COUNT)
        service.start()
        node = service.images / "one more.img"
        node.write_bytes(bytes(512))
        number, _ = service.publish(node)
        self.assertEqual(number, COUNT + 1)
        service.kill()
        service.start()
        self.assertEqual(service.info(number)["state"], "enabled")
        self.assertEqual(len(re.findall("^  ID ", service.nbdctl("list"), re.MULTILINE)), COUNT + 1)


if __name__ == "__main__":
    unittest.main()
