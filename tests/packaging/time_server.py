"""A time stamp server (RFC 3161) on this machine, while a test needs it: openssl behind an HTTP server."""

import contextlib
import http.server
import subprocess
import threading

CONFIGURATION = """
[tsa]
default_tsa = here
[here]
serial = {folder}/serial
signer_cert = {folder}/server.pem
certs = {folder}/root.pem
signer_key = {folder}/server.key
signer_digest = sha256
default_policy = 1.2.3.4.1
digests = sha256, sha384, sha512
accuracy = secs:1
ess_cert_id_alg = sha256
"""
EXTENSIONS = "basicConstraints=critical,CA:false\nkeyUsage=critical,digitalSignature\n" \
             "extendedKeyUsage=critical,timeStamping\n"


def _openssl(*words):
    subprocess.run(["openssl", *words], check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)


def _make_certificates(folder):
    _openssl("req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "30", "-subj", "/CN=Time stamps root",
             "-keyout", str(folder / "root.key"), "-out", str(folder / "root.pem"))
    _openssl("req", "-newkey", "rsa:2048", "-nodes", "-subj", "/CN=Time stamps",
             "-keyout", str(folder / "server.key"), "-out", str(folder / "server.csr"))
    (folder / "extensions").write_text(EXTENSIONS)
    _openssl("x509", "-req", "-in", str(folder / "server.csr"), "-CA", str(folder / "root.pem"), "-CAkey",
             str(folder / "root.key"), "-CAcreateserial", "-days", "30", "-extfile", str(folder / "extensions"),
             "-out", str(folder / "server.pem"))


@contextlib.contextmanager
def running(folder):
    """(URL of the server, its root certificate)."""
    _make_certificates(folder)
    (folder / "serial").write_text("01\n")
    (folder / "tsa.conf").write_text(CONFIGURATION.format(folder=folder))

    class Answerer(http.server.BaseHTTPRequestHandler):
        def do_POST(self):
            (folder / "query").write_bytes(self.rfile.read(int(self.headers["Content-Length"])))
            _openssl("ts", "-reply", "-config", str(folder / "tsa.conf"), "-section", "here", "-queryfile",
                     str(folder / "query"), "-out", str(folder / "reply"))
            body = (folder / "reply").read_bytes()
            self.send_response(200)
            self.send_header("Content-Type", "application/timestamp-reply")
            self.send_header("Content-Length", str(len(body)))
            self.end_headers()
            self.wfile.write(body)

        def log_message(self, *_):
            pass

    server = http.server.HTTPServer(("127.0.0.1", 0), Answerer)
    thread = threading.Thread(target=server.serve_forever)
    thread.start()
    try:
        yield f"http://127.0.0.1:{server.server_port}/", folder / "root.pem"
    finally:
        server.shutdown()
        thread.join()
        server.server_close()
