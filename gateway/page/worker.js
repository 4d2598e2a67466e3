// The shared worker: one stream of events for all tabs of this browser.
import {Feed} from './feed.js';

const ports = new Set();
let feed = null;

self.onconnect = event => {
  const port = event.ports[0];
  port.onmessage = message => {
    if (message.data === 'bye') {
      ports.delete(port);
      return;
    }
    ports.add(port);
    feed ??= new Feed(news => {
      for (const one of ports)
        one.postMessage(news);
    });
    feed.join();
    for (const news of feed.latest())
      port.postMessage(news);
  };
};
