"""Disables an import unless somebody uses it: what nbdctl has no words for. Arguments: the control socket and the ID."""

import sys

from support.varlink import Control, Failed

if __name__ == "__main__":
    with Control(sys.argv[1]) as control:
        try:
            control.ImportDisable(id=int(sys.argv[2]), force=False)
        except Failed as refusal:
            sys.exit(str(refusal))
