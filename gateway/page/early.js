// Starts the shared worker, and asks for the first values and the status, before everything else of
// the page is loaded: they come with the page.

// Raised when the messages of feed.js change: tabs with an older page keep their own worker.
const kWorker = 'micro850-1';

// Null when the gateway does not answer: then the worker finds out why.
async function ask(address) {
  try {
    const response = await fetch(address, {cache: 'no-store'});
    return response.ok ? await response.json() : null;
  } catch {
    return null;
  }
}

export const early = {
  values: ask('/api/v1/values'),
  status: ask('/api/v1/status'),
  worker: null, // null: this browser has no shared workers
  hasFailed: false,
  onfailed: () => {},
};

try {
  early.worker = new SharedWorker('/page/worker.js', {type: 'module', name: kWorker});
  early.worker.onerror = () => {
    early.hasFailed = true;
    early.onfailed();
  };
  early.worker.port.postMessage('hello');
} catch {
  early.worker = null;
}
