// The WebSocket to the host: JSON messages both ways, reconnecting with backoff.

const FIRST_DELAY = 500;
const MAX_DELAY = 10000;

export class Socket {
  constructor(url, onMessage, onStatus) {
    this.url = url;
    this.onMessage = onMessage;
    this.onStatus = onStatus;  // (connected: bool)
    this.delay = FIRST_DELAY;
    this.ws = null;
    this.connect();
  }

  connect() {
    const ws = new WebSocket(this.url);
    this.ws = ws;
    ws.onopen = () => {
      this.delay = FIRST_DELAY;
      this.onStatus(true);
    };
    ws.onmessage = (e) => {
      let msg;
      try {
        msg = JSON.parse(e.data);
      } catch {
        console.warn('shelf: unreadable message', e.data);
        return;
      }
      try {
        this.onMessage(msg);
      } catch (err) {
        console.error('shelf: message failed', msg.t, err);
      }
    };
    ws.onclose = () => {
      if (this.ws !== ws) return;
      this.ws = null;
      this.onStatus(false);
      const wait = this.delay * (0.8 + Math.random() * 0.4);
      this.delay = Math.min(this.delay * 2, MAX_DELAY);
      setTimeout(() => this.connect(), wait);
    };
  }

  // Returns false when the socket is not open (the message is not sent).
  send(msg) {
    if (this.ws?.readyState !== WebSocket.OPEN) return false;
    this.ws.send(JSON.stringify(msg));
    return true;
  }
}
