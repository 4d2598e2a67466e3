"""The runs of the checker: claim, bounds and expected verdict."""

from dataclasses import dataclass, field

OWN_VALUE, DONE_IS_DONE, ONCE, NONE_VANISHES, UNDONE_IS_UNDONE, STAYS_CONNECTED = 1, 2, 4, 8, 16, 32
FOREIGN = 64  # OWN_VALUE, but for refusals
SAFE = OWN_VALUE | DONE_IS_DONE | ONCE | NONE_VANISHES | UNDONE_IS_UNDONE
LOSE, DAMAGE, DOUBLE, DELAY, LOSE_CONTROL, OVERTAKE, OVERTAKE_REQUEST, DOUBLE_REQUEST = 1, 2, 4, 8, 16, 32, 64, 128
IN_ORDER = LOSE | DAMAGE | DOUBLE | DELAY | LOSE_CONTROL
# A fault script can express these.
IN_SCRIPTS = LOSE | DAMAGE | DOUBLE | DELAY


@dataclass
class Run:
    name: str
    text: str
    expected: str = "holds"
    defines: dict = field(default_factory=dict)
    live: bool = False
    quick: bool = False
    shortest: bool = False
    depth: int = 0
    replay: bool = False  # its counterexample becomes a fault script
    seeds: tuple = ()     # of runs that chance chooses, which become fault scripts
    steps: int = 0

    def options(self):
        return [f"-D{name}={value}" for name, value in self.defines.items()]


def holds(name, text, **defines):
    return Run(name, text, "holds", {"CARE": 1, "CLAIMS": SAFE, **defines})


def resumes(name, text, expected="holds", **defines):
    return Run(name, text, expected, {"CARE": 1, **defines}, live=True)


def fails(name, text, claim, **defines):
    return Run(name, text, "fails", {"CARE": 1, "CLAIMS": claim, **defines})


# The driver with a host that hands it every frame, as the plain host of the scenarios does.
def bare(name, text, claim, **defines):
    return Run(name, text, "fails",
               {"CARE": 0, "CLAIMS": claim, "FAULTS": 1, "POWER_CYCLES": 0, "ENQUIRIES": 0, "RETRY_LIMIT": 2,
                "PROMPT": 1, "MODULUS": 64, "KINDS": IN_SCRIPTS, **defines},
               shortest=True, depth=3000, replay=True)


NO_POWER = {"POWER_CYCLES": 0}

ALL = [
    # With the host's care
    holds("safe", "no wrong value, no wrong report; 2 faults, a power cycle", FAULTS=2, KINDS=IN_ORDER),
    holds("safe-doubled", "the same where requests are doubled, too; 2 faults, 2 writes, a download",
          FAULTS=2, KINDS=IN_ORDER | DOUBLE_REQUEST, WRITES=2, DOWNLOADS=1, **NO_POWER),
    holds("safe-three", "the same with 3 faults", FAULTS=3, KINDS=IN_ORDER | DOUBLE_REQUEST, **NO_POWER),
    holds("safe-wrap", "the same where the transaction counter wraps at once; 1 fault", FAULTS=1, START=3,
          KINDS=IN_ORDER),
    holds("safe-overtaken", "the same where replies overtake others; 2 faults", FAULTS=2, MODULUS=8,
          KINDS=IN_ORDER | DOUBLE_REQUEST | OVERTAKE, **NO_POWER),
    holds("connected", "one lost, damaged or doubled message costs no connection", CLAIMS=STAYS_CONNECTED, FAULTS=1,
          KINDS=LOSE | DAMAGE | DOUBLE | LOSE_CONTROL | DOUBLE_REQUEST, **NO_POWER),
    resumes("resumes", "reading resumes after 1 fault and a power cycle", FAULTS=1, KINDS=IN_ORDER | DOUBLE_REQUEST),
    resumes("resumes-two", "reading resumes after 2 faults", FAULTS=2, KINDS=IN_ORDER | DOUBLE_REQUEST, **NO_POWER),

    # Each part of the care is needed
    fails("no-number-check", "numbers of replies are not compared: a wrong value", OWN_VALUE, CHECK_NUMBER=0),
    fails("no-status-check", "statuses are not looked at: a write reported done is not", DONE_IS_DONE,
          CHECK_STATUS=0),
    resumes("no-status-resumes", "statuses are not looked at: no value for ever", "fails", CHECK_STATUS=0, FAULTS=0),
    fails("no-new-write-number", "a repeated write gets a new number: executed twice", ONCE, KEEP_WRITE_NUMBER=0),
    fails("no-unanswered", "an unanswered write is queued again: executed twice", ONCE, KEEP_UNANSWERED=0,
          KINDS=IN_ORDER),
    fails("no-queue-again", "dropped writes are not queued again: one vanishes", NONE_VANISHES, QUEUE_AGAIN=0),
    fails("no-asking", "missing replies are not asked for: a lost one costs the connection", STAYS_CONNECTED,
          ASK_AGAIN=0, FAULTS=1, KINDS=LOSE, **NO_POWER),

    # What the care needs from line and controller
    fails("needs-detection", "the controller does not detect duplicates: executed twice", ONCE,
          DUPLICATE_DETECTION=0),
    fails("needs-order", "a request overtakes another: executed twice", ONCE, FAULTS=1, KINDS=OVERTAKE_REQUEST,
          **NO_POWER),
    fails("needs-wrap", "a reply is overtaken by a whole round of numbers: a wrong value", OWN_VALUE,
          KINDS=OVERTAKE | IN_ORDER, **NO_POWER),
    fails("needs-single", "a doubled write, a power cycle between its copies: executed twice", ONCE,
          KINDS=IN_ORDER | DOUBLE_REQUEST),

    # The driver without that care
    # On virtual time no controller is that slow, so that this one is not replayed.
    fails("bare-late", "a slow controller and a late reply: stored under another tag", FOREIGN, CARE=0, FAULTS=1,
          KINDS=DELAY, ENQUIRIES=0, RETRY_LIMIT=2, MODULUS=8, **NO_POWER),
    bare("bare-overtaken", "an overtaken reply is stored under another tag", FOREIGN, KINDS=OVERTAKE),
    bare("bare-error", "after a power cycle an error counts as a value", OWN_VALUE, FAULTS=0, POWER_CYCLES=1),
    bare("bare-download", "the refusal of a tag that is gone counts as a value", OWN_VALUE, FAULTS=0, DOWNLOADS=1),
    bare("bare-not-done", "after a power cycle a write is reported done that is not", DONE_IS_DONE, FAULTS=0,
         POWER_CYCLES=1),
    bare("bare-set-up", "after a damaged set-up a write is reported done that is not", DONE_IS_DONE, KINDS=DAMAGE),
    bare("bare-vanishes", "a write vanishes with a silent read", NONE_VANISHES, KINDS=LOSE),
    bare("bare-lost", "one lost message costs the connection", STAYS_CONNECTED, KINDS=LOSE),
    bare("bare-damaged", "one damaged message costs the connection", STAYS_CONNECTED, KINDS=DAMAGE),
    resumes("bare-resumes", "after a power cycle reading never resumes", "fails", CARE=0, ENQUIRIES=0, FAULTS=0),

    # Chance chooses these runs; each becomes a fault script.
    Run("sample", "runs that chance chose, with care", "holds",
        {"CARE": 1, "CLAIMS": SAFE, "FAULTS": 2, "KINDS": IN_SCRIPTS | DOUBLE_REQUEST, "ENQUIRIES": 0,
         "POWER_CYCLES": 0, "WRITES": 1, "PROMPT": 1}, seeds=tuple(range(1, 25)), steps=900),
]
QUICK = ("connected", "safe-wrap", "no-number-check", "needs-order", "bare-late", "bare-not-done", "bare-resumes")
for run in ALL:
    run.quick = run.name in QUICK
