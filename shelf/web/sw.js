// The service worker that makes the page installable (and so a share target).
// It keeps nothing: every request goes to the host as it would without it.
self.addEventListener('install', () => self.skipWaiting());
self.addEventListener('activate', (event) => event.waitUntil(self.clients.claim()));
self.addEventListener('fetch', () => {});
