"""Certificates and keys for tests, made by GnuTLS's own tools, in directories with the file names of NBD tools."""

from support import processes

# Small and quick to make and to use; none of them protects anything.
KEY = ["--key-type=ecdsa", "--curve=secp256r1"]


def certtool(*words):
    processes.run([processes.tool("certtool"), *words])


class Authority:
    """Signs certificates. `place` is its own directory."""

    def __init__(self, place, name="test authority"):
        self.place = place
        place.mkdir()
        self.certificate = place / "ca-cert.pem"
        self.key = place / "ca-key.pem"
        certtool("--generate-privkey", *KEY, "--outfile", self.key)
        template = self._template("ca", f"cn = {name}\nca\ncert_signing_key\nexpiration_days = 100\n")
        certtool(
            "--generate-self-signed", "--load-privkey", self.key, "--template", template, "--outfile", self.certificate
        )

    def _template(self, name, text):
        template = self.place / f"{name}.info"
        template.write_text(text)
        return template

    def issue(self, directory, role, name, expired=False, names=("localhost",), addresses=("127.0.0.1", "::1"), key=KEY):
        """Puts a certificate of `role` ("server" or "client"), its key and our own certificate in `directory`."""
        directory.mkdir(exist_ok=True)
        (directory / "ca-cert.pem").write_bytes(self.certificate.read_bytes())
        key_file = directory / f"{role}-key.pem"
        certtool("--generate-privkey", *key, "--outfile", key_file)
        text = f"cn = {name}\ntls_www_{role}\nsigning_key\nencryption_key\n"
        if role == "server":
            text += "".join(f"dns_name = {each}\n" for each in names)
            text += "".join(f"ip_address = {each}\n" for each in addresses)
        if expired:
            text += 'activation_date = "2020-01-01 00:00:00 UTC"\nexpiration_date = "2020-02-01 00:00:00 UTC"\n'
        else:
            text += "expiration_days = 100\n"
        certtool(
            "--generate-certificate", "--load-privkey", key_file, "--load-ca-certificate", self.certificate,
            "--load-ca-privkey", self.key, "--template", self._template(name, text),
            "--outfile", directory / f"{role}-cert.pem",
        )  # fmt: skip
        return directory


def make_key(file, *users):
    """Adds a pre-shared key for each user."""
    for user in users:
        processes.run([processes.tool("psktool"), "-u", user, "-p", file])
