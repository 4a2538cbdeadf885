#!/usr/bin/env python3
"""Joins the page's files and the built engine into one HTML file: join.py ENGINE_FOLDER OUT.html"""

import base64
import gzip
import hashlib
import pathlib
import sys

WEB = pathlib.Path(__file__).resolve().parent
WORKER = ["worker/blocks.js", "worker/worker.js"]
APP = ["words", "zip", "files", "engine", "grid", "chart", "value", "codepages", "app"]


def script(text):
    """A text that ends no script element."""
    return text.replace("</script", "<\\/script").replace("<!--", "<\\!--")


def scope(names):
    parts = [(WEB / name).read_text() for name in names]
    return "(() => {\n'use strict';\n" + "\n".join(parts) + "})();\n"


def policy(app):
    """Own code alone runs, and nothing leaves the page."""
    own = base64.b64encode(hashlib.sha256(app.encode()).digest()).decode()
    rules = {
        "default-src": "'none'",
        "connect-src": "'none'",
        "script-src": f"'sha256-{own}' 'wasm-unsafe-eval'",
        "worker-src": "blob:",
        "style-src": "'unsafe-inline'",
        "img-src": "blob: data:",
        "form-action": "'none'",
        "base-uri": "'none'",
    }
    return "; ".join(f"{name} {value}" for name, value in rules.items())


def main():
    engine, out = map(pathlib.Path, sys.argv[1:])
    app = script(scope(f"app/{name}.js" for name in APP))
    packed = gzip.compress((engine / "engine.wasm").read_bytes(), 9, mtime=0)
    parts = {
        "POLICY": policy(app),
        "STYLE": (WEB / "style.css").read_text(),
        "WORKER": script((engine / "engine.js").read_text() + scope(WORKER)),
        "ENGINE": base64.b64encode(packed).decode(),
        "APP": app,
    }
    page = (WEB / "index.html").read_text()
    for name, part in parts.items():
        before, after = page.split(f"@{name}@")
        page = before + part + after
    out.write_text(page)
    print(f"{out}: {len(page)} bytes, {len(gzip.compress(page.encode(), 9))} compressed")


main()
