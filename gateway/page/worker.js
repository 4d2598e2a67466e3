// The shared worker: one stream of events for all tabs of this browser.
import {Feed} from './feed.js';
import {Ports} from './ports.js';

const kAskMs = 60000;
const ports = new Ports();
let feed = null;

setInterval(() => ports.ask(), kAskMs);

self.onconnect = event => {
  const port = event.ports[0];
  port.onmessage = message => {
    if (!ports.take(port, message.data))
      return;
    feed ??= new Feed(news => ports.post(news));
    feed.join();
    for (const news of feed.latest())
      port.postMessage(news);
  };
};
