"""What every evaluation page does with its command line and its text: the command is written at
the top of the page, repository paths made relative, and the page goes to docs/ and the console."""

import os
import sys

REPO = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))


def command_line(script, argv=None):
    """The command that made the page, as a reader would type it in the repository."""
    args = argv if argv is not None else sys.argv[1:]
    return " ".join(["/usr/bin/python3", "tools/eval/" + script] + [a.replace(REPO + "/", "") for a in args])


def write(name, text):
    """Writes docs/NAME and prints it."""
    with open(os.path.join(REPO, "docs", name), "w", encoding="utf-8") as out:
        out.write(text)
    print(text)
