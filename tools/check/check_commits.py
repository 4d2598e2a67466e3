"""Checks the messages of the commits that a branch adds to its base.

check_commits.py [BASE]: BASE is origin/main by default. Exit status 0: all are as CONTRIBUTING asks, 1: some are
not, 2: there is no such base. Called by scripts/check-commits.
"""

import re
import subprocess
import sys

LONGEST_SUBJECT = 72
LONGEST_LINE = 100
# Verbs in the imperative that look like other forms.
IMPERATIVE = {"Bring", "Embed", "Exceed", "Feed", "Focus", "Heed", "Need", "Ping", "Proceed", "Ring", "Seed", "Shed",
              "Speed", "Spring", "String", "Succeed", "Swing", "Wring"}
# Past forms without an ending, and words that are no verbs but often begin a subject.
OTHERS = {"A", "All", "An", "Broke", "Built", "Chose", "Each", "Every", "Found", "Gave", "Got", "In", "It", "Kept",
          "Left", "Made", "More", "New", "No", "Now", "On", "Sent", "Some", "The", "This", "Told", "Took", "Was",
          "We", "Went", "Wrote"}


def is_imperative(word):
    """True unless the form of the word shows another mood or another part of speech."""
    if word in IMPERATIVE:
        return True
    return word not in OTHERS and not re.search(r"(ed|ing|[^s]s)$", word)


def problems_of_subject(subject):
    first = re.split(r"\W", subject, maxsplit=1)[0]
    if len(subject) > LONGEST_SUBJECT:
        yield f"the subject has {len(subject)} characters, more than {LONGEST_SUBJECT}"
    if not first[:1].isupper():
        yield "the subject does not begin with a capital letter"
    elif not is_imperative(first):
        yield f"the subject is not in the imperative: \"{first}\" (write what the commit does: Add, Fix, Move, ...)"
    if subject.endswith("."):
        yield "the subject ends with a dot"


def problems_of_body(lines):
    if not any(line.strip() for line in lines):
        yield "the body is missing: give the reason for the change"
        return
    if lines[0].strip():
        yield "no empty line between subject and body"
    for line in lines:
        # Indented lines are quotes; a single long word cannot be wrapped.
        if len(line) > LONGEST_LINE and not line.startswith("    ") and " " in line.strip():
            yield f"a line of the body has {len(line)} characters, more than {LONGEST_LINE}"


def problems_of(message):
    subject, *body = message.rstrip("\n").split("\n")
    return [*problems_of_subject(subject), *problems_of_body(body)]


def git(*arguments):
    return subprocess.run(["git", *arguments], capture_output=True, text=True)


def main():
    base = sys.argv[1] if len(sys.argv) > 1 else "origin/main"
    listed = git("rev-list", "--no-merges", "--reverse", f"{base}..HEAD", "--")
    if listed.returncode != 0:
        print(f"check-commits: no revision \"{base}\" (name one, for example HEAD~3)", file=sys.stderr)
        return 2
    commits = listed.stdout.split()
    bad = 0
    for commit in commits:
        message = git("show", "--no-patch", "--format=%B", commit).stdout
        found = problems_of(message)
        bad += bool(found)
        for problem in found:
            subject = message.split("\n", 1)[0]
            print(f"check-commits: {commit[:7]} \"{subject}\": {problem}", file=sys.stderr)
    print(f"check-commits: {len(commits)} commits since {base}, {bad} with problems")
    return 1 if bad else 0


if __name__ == "__main__":
    sys.exit(main())
