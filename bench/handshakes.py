"""Handshakes a second beside nginx and Node, all with one certificate: a part of bench.py."""

import os
import re
import subprocess

HERE = os.path.dirname(os.path.abspath(__file__))
CLIENTS = 4  # processes that connect at the same time, each one connection after the other

VERSIONS = {"TLS 1.2": "-tls1_2", "TLS 1.3": "-tls1_3"}


def make_identity(folder):
    """One file with a certificate and its key, EC P-256."""
    path = os.path.join(folder, "identity.pem")
    subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-days",
                    "1", "-subj", "/CN=localhost", "-keyout", path + ".key", "-out", path + ".crt"], check=True,
                   stderr=subprocess.DEVNULL)
    with open(path, "wb", opener=lambda name, flags: os.open(name, flags, 0o600)) as whole:
        for part in (".crt", ".key"):
            with open(path + part, "rb") as file:
                whole.write(file.read())
    return path


def nginx_configuration(folder, port, identity):
    return f"""daemon off; pid {folder}/tls.pid; error_log {folder}/tls.log; worker_processes auto;
events {{ worker_connections 512; }}
http {{ access_log {folder}/tls.access; client_body_temp_path {folder}/b; proxy_temp_path {folder}/p;
  fastcgi_temp_path {folder}/f; scgi_temp_path {folder}/s; uwsgi_temp_path {folder}/u; keepalive_timeout 0;
  server {{ listen 127.0.0.1:{port} ssl; ssl_certificate {identity}; ssl_certificate_key {identity};
    ssl_protocols TLSv1.2 TLSv1.3; ssl_session_cache off; ssl_session_tickets off;
    location / {{ return 200 ""; }} }} }}"""


def handshakes_per_second(port, version, seconds):
    """Full ones, each with a request and its answer."""
    command = ["openssl", "s_time", "-connect", f"127.0.0.1:{port}", "-new", "-time", str(seconds), "-www", "/rsi", version]
    clients = [subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
               for _ in range(CLIENTS)]
    count = 0
    for client in clients:
        report = client.communicate()[0]
        done = re.search(rb"(\d+) connections in \d+ real seconds, (\d+) bytes read per connection", report)
        if client.returncode or not done or not int(done[1]) or int(done[2]) < 20:
            raise SystemExit(f"handshakes failed:\n{report.decode()}")
        count += int(done[1])
    return count / seconds


def handshakes(bench, rounds, seconds, free_port, until, listens):
    identity = make_identity(bench.folder)
    own, nginx, node = free_port(), free_port(), free_port()
    configuration = os.path.join(bench.folder, "tls.conf")
    with open(configuration, "w", encoding="ascii") as file:
        file.write(nginx_configuration(bench.folder, nginx, identity))
    servers = [bench.start(bench.keltop("-p", str(own), "~tls", identity), os.path.join(bench.folder, "keltop.tls")),
               bench.start(["nginx", "-p", bench.folder, "-c", configuration, "-e", os.path.join(bench.folder, "tls.log")]),
               bench.start(["node", os.path.join(HERE, "node-tls-server.js"), str(node), identity],
                           os.path.join(bench.folder, "node.tls"))]
    try:
        for port in (own, nginx, node):
            until(lambda: listens(port), "a peer's start")  # pylint: disable=cell-var-from-loop
        for name, version in VERSIONS.items():
            with_nginx, with_node = [], []
            for number in range(rounds):
                order = (own, nginx, node) if number % 2 else (node, nginx, own)
                figures = {port: handshakes_per_second(port, version, seconds) for port in order}
                with_nginx.append((figures[own], figures[nginx]))
                with_node.append((figures[own], figures[node]))
            what = f"{name}: full handshakes, each with a request, {CLIENTS} clients"
            bench.ratio(what, with_nginx, "nginx, the same certificate", None, "1/s")
            bench.ratio(what, with_node, "Node, the same certificate", 1, "1/s")
    finally:
        for server in servers:
            bench.stop(server)
