"""A small web server that tells each visitor which address it came from: run on the VPN servers and on the
web site, its answers show which road a packet took.

    GET /            {"host":"paris","peer":"10.8.1.2"}
    GET /bytes/<n>   n bytes
    POST /           the same as GET /, with "received": the size of the body
"""

import http.server
import json
import socketserver
import sys


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def do_GET(self):
        if self.path.startswith("/bytes/"):
            return self._reply(b"\0" * int(self.path.rpartition("/")[2]), "application/octet-stream")
        return self._tell()

    def do_POST(self):
        body = self.rfile.read(int(self.headers.get("Content-Length", 0)))
        return self._tell(received=len(body))

    def _tell(self, **more):
        answer = {"host": self.server.told_name, "peer": self.client_address[0], **more}
        return self._reply(json.dumps(answer, separators=(",", ":")).encode(), "application/json")

    def _reply(self, body, content_type):
        self.send_response(200)
        self.send_header("Content-Type", content_type)
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)

    def log_message(self, *_):
        pass


class Server(http.server.ThreadingHTTPServer):
    told_name = ""

    def server_bind(self):
        # The library's own asks the resolver for the host's full name, and there is none to answer.
        socketserver.TCPServer.server_bind(self)
        self.server_name, self.server_port = self.server_address


def main():
    server = Server(("0.0.0.0", int(sys.argv[2])), Handler)
    server.told_name = sys.argv[1]
    server.serve_forever()


if __name__ == "__main__":
    main()
