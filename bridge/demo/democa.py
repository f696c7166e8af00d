#!/usr/bin/env python3
"""Demo CA and KMC for the enrolment page, on loopback only.

  democa.py [--port N] [--ca-dir DIR]

Serves the demo page (/) and korvanta.js, and answers the page's enrolment
messages: POST /enrol/client and POST /enrol/kmc take {"message": XML}, check
its MAC against the authorisation code of its reference number, and return
the certificate bundle (and, for the KMC, the wrapped encryption key pair).
Certificates come from tests/refca/refca.py, which uses Python
`cryptography` only. With --port 0 the chosen port is printed as "port N".
"""
import argparse
import base64
import hashlib
import json
import os
import re
import subprocess
import sys
import tempfile
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer

HERE = os.path.dirname(os.path.abspath(__file__))
REFCA = os.path.join(HERE, "..", "..", "tests", "refca", "refca.py")
sys.path.insert(0, os.path.dirname(REFCA))
import refca  # noqa: E402  (its RC4 checks the MAC)

# Reference numbers and authorisation codes the demo CA hands out.
ACCOUNTS = {"DEMO-1001": "7391-2284", "DEMO-1002": "5520-9137"}
CLIENT_SUBJECT = "CN=Demo Enrolment User,O=Korvanta Demo,C=CN"
KMC_SUBJECT = "CN=Demo Enrolment User (encryption),O=Korvanta Demo,C=CN"


def entry(message, name):
    m = re.search(r'<entry name="%s" value="([^"]*)"/>' % name, message)
    return m.group(1) if m else None


def check_mac(message):
    """The reference number, or an error text."""
    raw = message.encode("gb2312", errors="replace")
    src = re.search(rb"(<source>.*</source>)", raw, re.S)
    value = re.search(rb"<signaturevalue>(.*?)</signaturevalue>", raw, re.S)
    ref = entry(message, "REFNO")
    if not src or not value or ref not in ACCOUNTS:
        return None, "unknown reference number or malformed message"
    expected = base64.b64encode(refca.rc4(ACCOUNTS[ref].encode("cp936"),
                                          hashlib.sha1(src.group(1)).digest()))
    if value.group(1) != expected:
        return None, "MAC does not match the authorisation code"
    return ref, None


class Handler(BaseHTTPRequestHandler):
    ca_dir = None

    def log_message(self, fmt, *args):
        sys.stderr.write("democa: " + (fmt % args) + "\n")

    def reply(self, code, body, ctype="application/json"):
        data = body if isinstance(body, bytes) else body.encode()
        self.send_response(code)
        self.send_header("Content-Type", ctype)
        self.send_header("Content-Length", str(len(data)))
        self.send_header("Cache-Control", "no-store")
        self.end_headers()
        self.wfile.write(data)

    def do_GET(self):
        path = self.path.split("?")[0]
        files = {"/": (os.path.join(HERE, "index.html"), "text/html; charset=utf-8"),
                 "/korvanta.js": (os.path.join(HERE, "..", "korvanta.js"), "text/javascript")}
        if path not in files:
            self.reply(404, "not found", "text/plain")
            return
        with open(files[path][0], "rb") as f:
            self.reply(200, f.read(), files[path][1])

    def do_POST(self):
        length = int(self.headers.get("Content-Length", "0"))
        if length > 1 << 20:
            self.reply(413, json.dumps({"error": "too large"}))
            return
        try:
            message = json.loads(self.rfile.read(length))["message"]
        except (ValueError, KeyError, TypeError):
            self.reply(400, json.dumps({"error": "expected {\"message\": ...}"}))
            return
        ref, error = check_mac(message)
        if error:
            self.reply(403, json.dumps({"error": error}))
            return
        with tempfile.TemporaryDirectory() as tmp:
            if self.path == "/enrol/client":
                key = entry(message, "PUBLICKEY")
                with open(os.path.join(tmp, "pub.b64"), "w") as f:
                    f.write(key or "")
                run = ["issue", "--pubkey", os.path.join(tmp, "pub.b64"), "--subject",
                       CLIENT_SUBJECT, "--out", os.path.join(tmp, "p7.b64")]
            elif self.path == "/enrol/kmc":
                key = entry(message, "TEMPPUBLICKEY")
                bits = entry(message, "KEYLENGTH")
                if bits not in ("1024", "2048"):
                    self.reply(400, json.dumps({"error": "KEYLENGTH is 1024 or 2048"}))
                    return
                with open(os.path.join(tmp, "tmp.b64"), "w") as f:
                    f.write(key or "")
                run = ["kmc", "--tempkey", os.path.join(tmp, "tmp.b64"), "--bits", bits,
                       "--subject", KMC_SUBJECT, "--out-dir", tmp]
            else:
                self.reply(404, json.dumps({"error": "no such endpoint"}))
                return
            proc = subprocess.run([sys.executable, REFCA] + run + ["--ca-dir", self.ca_dir],
                                  capture_output=True, text=True, check=False)
            if proc.returncode != 0:
                self.reply(500, json.dumps({"error": "CA failed: " + proc.stderr[-300:]}))
                return
            out = {}
            for name, key in (("p7.b64", "p7"), ("encprikey.b64", "encPrikey"),
                              ("tempukek.b64", "tempUkek")):
                path = os.path.join(tmp, name)
                if os.path.exists(path):
                    with open(path) as f:
                        out[key] = f.read().strip()
            self.log_message("%s enrolled for %s", self.path, ref)
            self.reply(200, json.dumps(out))


def main():
    ap = argparse.ArgumentParser(prog="democa.py")
    ap.add_argument("--port", type=int, default=8765)
    ap.add_argument("--ca-dir")
    args = ap.parse_args()
    Handler.ca_dir = args.ca_dir or tempfile.mkdtemp(prefix="democa-")
    os.makedirs(Handler.ca_dir, exist_ok=True)
    server = ThreadingHTTPServer(("127.0.0.1", args.port), Handler)
    print("port %d" % server.server_address[1], flush=True)
    try:
        server.serve_forever()
    except KeyboardInterrupt:
        pass
    return 0


if __name__ == "__main__":
    sys.exit(main())
