"""Lets testssl.sh look at both listeners behind TLS, and writes docs/tls-report.md; see scripts/tls-report.sh.

tls_report.py ROOT [--check] [--keltop=PROGRAM]
"""

import argparse
import json
import os
import pathlib
import re
import socket
import subprocess
import sys
import tempfile
import time

PAGE = pathlib.Path("docs") / "tls-report.md"
LISTENERS = {"HTTP": [], "Raw": ["-raw"]}
PATIENCE = 1800  # seconds for testssl.sh; a raw listener lets each of its questions run into a time-out

HARMLESS = ("DEBUG", "OK", "INFO", "LOW")
ENGINE = "engine_problem"  # of testssl.sh's own openssl, not of the server
# What a certificate has that is made at each start, signed by itself and valid for 30 days.
OF_THE_CERTIFICATE = {"cert_chain_of_trust", "cert_expirationStatus", "cert_notAfter", "cert_revocation"}

MASKS = [
    (r"\d{4}-\d\d-\d\d \d\d:\d\d(:\d\d)?", "TIME"),
    (r"\[ *\d+s\]", "[TIME]"),
    (r"127\.0\.0\.1:\d+", "127.0.0.1:PORT"),
    (r"(?m)^( rDNS \(127\.0\.0\.1\): +).*$", r"\1--"),
    (r"(Serial +)[0-9A-F]+", r"\1NUMBER"),
    (r"(SHA1 |SHA256 )[0-9A-F]{40,}", r"\1FINGERPRINT"),
    (r"(Common Name \(CN\) +).*", r"\1NAME"),
    (r"(?s)(subjectAltName \(SAN\) +).*?(\n \w)", r"\1NAMES AND ADDRESSES\2"),
    (r"(Issuer +).*", r"\1NAME"),
    (r"[+-]?\d+ sec from localtime", "N sec from localtime"),
]

HEAD = """# What testssl.sh says

Written by `scripts/tls-report.sh`, which lets [testssl.sh](https://testssl.sh) ({version}) look at both listeners behind TLS
with a certificate of their own. What belongs to the machine and the moment is masked.

Findings of a severity above LOW, but for those that a certificate has which is made at each start, signed by itself and
valid for 30 days ({certificate}): **{found}**.
"""


def masked(text):
    for pattern, mask in MASKS:
        text = re.sub(pattern, mask, text)
    return "\n".join(line.rstrip() for line in text.splitlines()).strip()


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def wait_until_listening(port):
    deadline = time.monotonic() + 20
    while time.monotonic() < deadline:
        with socket.socket() as probe:
            if probe.connect_ex(("127.0.0.1", port)) == 0:
                return
        time.sleep(0.02)
    sys.exit("keltop does not listen")


def look_at(program, switches, folder):
    """What testssl.sh prints of a listener, and its findings."""
    port = free_port()
    findings = os.path.join(folder, f"{port}.json")
    env = {**os.environ, "KELTOP_OBJECT_DIR": folder, "KELTOP_DATA_LOCATION": folder}
    with subprocess.Popen([program, "-p", str(port), "-tls", *switches], env=env, stdin=subprocess.DEVNULL,
                          stdout=subprocess.DEVNULL) as keltop:
        try:
            wait_until_listening(port)
            done = subprocess.run(["testssl", "--quiet", "--color", "0", "--warnings", "batch", "--jsonfile", findings,
                                   f"127.0.0.1:{port}"], stdin=subprocess.DEVNULL, capture_output=True, text=True,
                                  timeout=PATIENCE, check=False)
        finally:
            keltop.terminate()
    with open(findings, encoding="utf-8") as file:
        return done.stdout, json.load(file)


def version():
    done = subprocess.run(["testssl", "--version"], capture_output=True, text=True, check=False)
    return re.search(r"testssl +([\w.]+)", done.stdout)[1]


def main():
    arguments = argparse.ArgumentParser()
    arguments.add_argument("root", type=pathlib.Path)
    arguments.add_argument("--check", action="store_true")
    arguments.add_argument("--keltop", default="build/release/keltop")
    options = arguments.parse_args()
    program = str(options.root / options.keltop)
    sections, grave = [], []
    with tempfile.TemporaryDirectory(prefix="keltop-tls-") as folder:
        for name, switches in LISTENERS.items():
            text, findings = look_at(program, switches, folder)
            sections.append(f"\n## {name}\n\n```\n{masked(text)}\n```\n")
            looked = {finding["id"] for finding in findings}
            if not OF_THE_CERTIFICATE <= looked:
                sys.exit(f"testssl.sh has not looked at everything: {sorted(looked)}")
            grave += [f"{name}: {finding['id']} ({finding['severity']}): {finding['finding']}" for finding in findings
                      if finding["severity"] not in HARMLESS and finding["id"] not in OF_THE_CERTIFICATE | {ENGINE}]
    for finding in grave:
        print(finding)
    print(f"{len(grave)} findings above LOW")
    if not options.check:
        head = HEAD.format(version=version(), certificate=", ".join(f"`{name}`" for name in sorted(OF_THE_CERTIFICATE)),
                           found="; ".join(grave) or "none")
        (options.root / PAGE).write_text(head + "".join(sections), encoding="utf-8")
    return 1 if grave else 0


sys.exit(main())
