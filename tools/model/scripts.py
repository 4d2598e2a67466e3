"""Makes fault scripts of the model's runs, with what each transaction must show."""

import json
import re

TAGS = {"1": "A", "2": "B"}
# Of the hosts that replay the scripts.
TIMEOUT = {0: 0.3, 1: 0.2}
KINDS = {"lose": ["withhold"], "lose-all": ["withhold", "withhold-ack"], "damage": ["flip"], "double": ["duplicate"],
         "delay": ["delay"], "overtake": ["delay"]}


def frame_name(kind, what):
    return {"Identity": "identity", "Open": "open", "Read": "read " + TAGS.get(what, ""), "Write": "write W"}[kind]


class Reader:
    """Follows the lines of a run."""

    def __init__(self, run):
        self.timeout = TIMEOUT[run.defines["CARE"]]
        self.steps = []
        self.next = {}  # what happens before the next transaction
        self.faults = []
        self.sent = {"request": 0, "reply": 0}
        self.delayed = {}
        self.held = {}
        self.timeouts = 0
        self.replies_at_request = 0

    def read(self, line):
        words = line.split()
        if not words:
            return
        handler = getattr(self, "on_" + words[0].lower().replace("-", "_"), None)
        if handler:
            handler(*words[1:])

    def step(self):
        return self.steps[-1] if self.steps else self.next

    def on_asked(self, _write):
        self.next["write"] = True

    def on_request(self, kind, _number, what):
        self.sent["request"] += 1
        self.replies_at_request = self.sent["reply"]
        self.steps.append({**self.next, "request": frame_name(kind, what)})
        self.next = {}

    def on_reply(self, *_words):
        self.sent["reply"] += 1

    def before(self):
        """What is to happen before the controller sees the request in flight, or before the next one."""
        in_flight = self.steps and self.sent["reply"] == self.replies_at_request
        return self.steps[-1] if in_flight else self.next

    def on_power_cycle(self):
        self.before()["powerCycle"] = True

    def on_download(self, exists):
        self.before()["hasB"] = exists == "1"

    def on_fault(self, side, kind):
        if side == "control":
            raise ValueError("a fault script cannot strike a link control")
        for fault in KINDS[kind]:
            rule = {"fault": fault, "on": {"request": "requests", "reply": "replies"}[side],
                    "message": self.sent[side]}
            if kind == "damage":  # in a reply the connection's identifier, if it has one
                rule.update(byte=5 if side == "request" else 17, bit=7)
            self.faults.append(rule)
        if kind == "delay":
            self.delayed[side] = (self.faults[-1], self.timeouts)
        elif kind == "overtake":
            self.held[side] = self.faults[-1]

    def on_time_out(self):
        self.timeouts += 1

    def on_arrived(self, side):
        rule, before = self.delayed.pop(side)
        rule["seconds"] = round(self.timeout * (self.timeouts - before + 0.5), 3)

    def on_release(self, side):
        rule = self.held.pop(side)
        rule["later"] = self.sent[side] - rule["message"]

    def on_stored(self, asked, kind, what, status):
        value = TAGS[what] if kind == "Read" and status == "Good" else None
        self.step()["stored"] = {"tag": TAGS[asked], "valueOf": value}

    def on_done(self, _write):
        self.step()["reported"] = "done"

    def on_failed(self, _write, _unanswered):
        self.step()["reported"] = "failed"

    def on_vanished(self, _write):
        self.step()["reported"] = "nothing"

    def on_dropped(self):
        self.step()["dropped"] = True

    def on_executed(self, _write):
        self.step()["executed"] = True

    def finish(self):
        for rule, before in self.delayed.values():
            rule["seconds"] = round(self.timeout * (self.timeouts - before + 0.5), 3)
        for rule in self.held.values():
            rule["later"] = 1000


def script_of(run, text):
    reader = Reader(run)
    for line in text.splitlines():
        if not re.match(r"(ltl|spin|pan)\b", line):
            reader.read(line)
    reader.finish()
    script = {"faults": reader.faults, "about": run.text, "steps": reader.steps}
    if run.defines["CARE"]:  # its requests depend on times, which the model does not have
        script = {"faults": reader.faults, "about": run.text,
                  "writesBefore": [i + 1 for i, step in enumerate(reader.steps) if step.get("write")]}
    return json.dumps(script, indent=1) + "\n"
