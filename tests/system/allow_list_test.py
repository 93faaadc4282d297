"""Allow lists: who is turned away at the door, and who at an export."""

import json
import signal
import unittest

from support import images, nbd, processes, tls
from support.service import Service


class AllowLists(unittest.TestCase):
    def serve(self, text):
        self.service = Service(self)
        self.service.configure(("127.0.0.1", "::1"), 0)
        # Behind the section [server]: more of its settings, or sections of their own.
        self.service.configuration.write_text(self.service.configuration.read_text() + text)
        self.service.start().start_server()
        node = self.service.images / "disk.img"
        images.write_random(node)
        _, self.name = self.service.publish(node)
        other = self.service.images / "other.img"
        images.write_random(other)
        _, self.other = self.service.publish(other)
        return self

    def test_who_is_not_in_the_servers_list_hears_nothing(self):
        self.serve('allow = ["::1", "192.0.2.0/24"]\n')
        with self.assertRaises((EOFError, ConnectionResetError)):
            tls.Client(self.service.port)
        with nbd.Client(self.service.port, self.name, "::1") as client:
            self.assertEqual(client.request(nbd.READ, 0, 512)[0], 0)
        self.assertIn("its network is not allowed", self.service.log_text())

    def test_an_export_may_have_a_list_of_its_own(self):
        self.serve('[exports."disk.img"]\nallow = ["::1"]\n')
        with tls.Client(self.service.port) as client:
            self.assertEqual(client.ask(tls.LIST), [tls.SERVER, tls.ACK])
            for code in (tls.INFO, tls.GO):
                self.assertEqual(client.ask(code, tls.go_data(self.name)), [tls.POLICY])
            self.assertEqual(client.ask(tls.GO, tls.go_data(self.other))[-1], tls.ACK)
        with tls.Client(self.service.port) as client:
            client.send(tls.option(tls.EXPORT_NAME, self.name.encode()))
            self.assertEqual(client.rest(), b"")
        with nbd.Client(self.service.port, self.name, "::1") as client:
            self.assertEqual(client.request(nbd.READ, 0, 512)[0], 0)
        stock = processes.run(
            [processes.tool("nbdinfo"), "--size", self.service.uri(self.name)], check=False
        )
        self.assertNotEqual(stock.status, 0)
        self.assertIn("policy", stock.err)

    def test_an_export_is_shown_only_where_it_may_be_used(self):
        self.serve('[exports."disk.img"]\nallow = ["::1"]\n')
        other = Service(self).start()
        expected = {"127.0.0.1": [self.other], "::1": [self.name, self.other]}
        for address, names in expected.items():
            with self.subTest(address=address), other.control() as control:
                uri = self.service.uri("", 6 if ":" in address else 4)
                listed = json.loads(processes.run([processes.tool("nbdinfo"), "--list", "--json", uri]).out)
                self.assertEqual([each["export-name"] for each in listed["exports"]], names)
                endpoint = {"address": address, "port": self.service.port}
                told = control.FetchRemoteExports(endpoint=endpoint)["list"]
                self.assertTrue(told["isTalvekServer"])
                self.assertEqual([each["name"] for each in told["exports"]], names)
                found = control.FetchRemoteExports(endpoint=endpoint, expression="true")["list"]
                self.assertEqual([each["name"] for each in found["exports"]], names)

    def test_a_new_list_holds_for_new_clients(self):
        self.serve("")
        with nbd.Client(self.service.port, self.name) as before:
            configuration = self.service.configuration
            configuration.write_text(configuration.read_text() + 'allow = ["::1"]\n')
            self.service.process.send_signal(signal.SIGHUP)
            processes.wait_until(lambda: "was read again" in self.service.log_text(), "the configuration")
            with self.assertRaises((EOFError, ConnectionResetError)):
                tls.Client(self.service.port)
            self.assertEqual(before.request(nbd.READ, 0, 512)[0], 0)


if __name__ == "__main__":
    unittest.main()
