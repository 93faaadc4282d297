"""What the system tests share: the programs under test, clients of our own, and images."""
