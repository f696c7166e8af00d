// korvanta.js: the enrolment control for a web page, through the local
// korvanta-bridge service.
//
//   import { Korvanta } from "./korvanta.js";
//   const k = new Korvanta();          // { port: 47392 } by default
//   await k.connect();                 // throws KorvantaError, see below
//   const { status, result } = await k.genKeyPair(2048);
//
// Every one of the 29 methods returns a promise of { status, result }:
// status is the control's own status (0 on success), result a string, an
// integer for the methods that return `ret`, or null where the control left
// it unassigned. A failing automation call adds an `error` text. A promise is
// rejected (KorvantaError "bad-call") only when the bridge refused the call
// itself: unknown method, wrong argument types, message too large.

export const METHODS = Object.freeze([
  "listCSP", "setCSP", "genKeyPair", "genTempKeyPair", "getVersion",
  "writeClientCert", "writeKmcCert", "genEEDownCertRequestData_Client",
  "genEEDownCertRequestData_Kmc", "genEERevokeCertRequestData",
  "genEEUpdateCertRequestData", "getPublicKeyFromPKCS10Data",
  "genEERestoreKHRequestData", "writeKmcCertwithKH", "writeKH",
  "writeClientCertToPFX", "writeKmcCertToPFX", "genP10",
  "genEEUpdateCertRequestData_Client", "genEEUpdateCertRequestData_Kmc",
  "restoreKmcCert", "genP10_kex", "writeClientCert_kex", "genP10_exp",
  "writeClientCert_exp", "writeClientCert_noprotect", "genP10_exp_withdn",
  "writeClientCert_exp_X509", "leavingMostRecentCert",
]);

// code: "not-running", "origin-not-allowed", "closed" or "bad-call".
export class KorvantaError extends Error {
  constructor(code, message) {
    super(message);
    this.name = "KorvantaError";
    this.code = code;
  }
}

export class Korvanta {
  constructor({ port = 47392, host = "127.0.0.1" } = {}) {
    this.port = port;
    this.host = host;
    this.socket = null;
    this.nextId = 1;
    this.pending = new Map();
  }

  get connected() {
    return this.socket !== null && this.socket.readyState === WebSocket.OPEN;
  }

  // Opens the connection. A browser does not tell a page why a WebSocket
  // failed, so the bridge is first asked whether it runs at all: an opaque
  // answer to /ping means it does, and a refused upgrade after that can
  // only be this page's origin.
  async connect() {
    if (this.connected) return;
    const base = `${this.host.includes(":") ? `[${this.host}]` : this.host}:${this.port}`;
    try {
      await fetch(`http://${base}/ping`, { mode: "no-cors", cache: "no-store" });
    } catch (_) {
      throw new KorvantaError("not-running",
        `The Korvanta bridge is not running on this computer (nothing answers on ${base}). ` +
        `Start it with "systemctl --user start korvanta-bridge".`);
    }
    const origin = globalThis.location ? globalThis.location.origin : "this page";
    this.socket = await new Promise((resolve, reject) => {
      const ws = new WebSocket(`ws://${base}/`);
      ws.onopen = () => resolve(ws);
      ws.onerror = () => reject(new KorvantaError("origin-not-allowed",
        `The Korvanta bridge refused this page (${origin}). ` +
        `The user can allow it with "korvanta-bridge allow ${origin}".`));
    });
    this.socket.onmessage = (event) => this._answer(event.data);
    this.socket.onclose = () => {
      this.socket = null;
      const waiting = [...this.pending.values()];
      this.pending.clear();
      for (const p of waiting) {
        p.reject(new KorvantaError("closed", "The connection to the Korvanta bridge closed."));
      }
    };
  }

  close() {
    if (this.socket) this.socket.close();
  }

  // Sends one call; the bridge answers calls of one connection in order.
  call(method, args = []) {
    if (!this.connected) {
      return Promise.reject(new KorvantaError("closed", "Not connected to the Korvanta bridge."));
    }
    const id = this.nextId++;
    return new Promise((resolve, reject) => {
      this.pending.set(id, { resolve, reject });
      this.socket.send(JSON.stringify({ id, method, args }));
    });
  }

  _answer(text) {
    let answer;
    try {
      answer = JSON.parse(text);
    } catch (_) {
      return;
    }
    // An answer without a usable id (a message the bridge could not read)
    // belongs to the oldest call still waiting.
    let id = answer.id;
    if (!this.pending.has(id)) id = this.pending.keys().next().value;
    const p = this.pending.get(id);
    if (!p) return;
    this.pending.delete(id);
    if (!("status" in answer)) {
      p.reject(new KorvantaError("bad-call", answer.error || "The bridge refused the call."));
      return;
    }
    const out = { status: answer.status, result: answer.result === undefined ? null : answer.result };
    if ("error" in answer) out.error = answer.error;
    p.resolve(out);
  }
}

for (const name of METHODS) {
  Korvanta.prototype[name] = function (...args) {
    return this.call(name, args);
  };
}

export default Korvanta;
