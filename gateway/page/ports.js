// The tabs that a shared worker serves. One that crashed or was thrown away never says 'bye': each
// is asked now and then, and whoever does not answer gets nothing more. A tab that only slept
// answers later, and is served again.

export class Ports {
  constructor() {
    this.silent = new Map(); // how often each port was asked without an answer
  }

  get size() {
    return this.silent.size;
  }

  // Gives whether the port has to be told everything: it is new, or was given up.
  take(port, word) {
    if (word === 'bye') {
      this.silent.delete(port);
      return false;
    }
    const isNew = word === 'hello' || !this.silent.has(port);
    this.silent.set(port, 0);
    return isNew;
  }

  post(message) {
    for (const port of this.silent.keys())
      port.postMessage(message);
  }

  ask() {
    for (const [port, times] of [...this.silent]) {
      // Whoever is given up is asked once more: a late answer brings it back.
      port.postMessage({kind: 'there?'});
      if (times >= 2)
        this.silent.delete(port);
      else
        this.silent.set(port, times + 1);
    }
  }
}
