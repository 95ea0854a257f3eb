"""Headless Chromium approves a device sign-in on /device by clicking "Approve".
Run: tst_service_browser.py SERVICE_BINARY. Skips (exit 0 with a note) without chromium."""
import json
import os
import shutil
import socket
import subprocess
import sys
import tempfile
import time
import unittest
import urllib.request

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from servicetest import Service  # noqa: E402

BINARY = None


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


class Browser:
    """Chromium with a remote-debugging port and a tiny CDP client on one page."""

    def __init__(self):
        import websocket  # Debian: python3-websocket
        self.profile = tempfile.mkdtemp(prefix="lh-chromium-")
        port = free_port()
        self.proc = subprocess.Popen(
            ["chromium", "--headless", "--no-sandbox", "--disable-gpu", "--disable-background-networking",
             "--disable-component-update", "--disable-sync", "--no-first-run",
             "--user-data-dir=" + self.profile, "--remote-debugging-port=%d" % port, "about:blank"],
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        deadline = time.monotonic() + 30
        pages = []
        while time.monotonic() < deadline:
            try:
                pages = json.load(urllib.request.urlopen("http://127.0.0.1:%d/json" % port, timeout=2))
                pages = [p for p in pages if p.get("type") == "page"]
                if pages:
                    break
            except OSError:
                pass
            time.sleep(0.2)
        if not pages:
            raise RuntimeError("chromium did not open its debugging port")
        self.ws = websocket.create_connection(pages[0]["webSocketDebuggerUrl"], timeout=20)
        self.next_id = 0

    def call(self, method, **params):
        self.next_id += 1
        self.ws.send(json.dumps({"id": self.next_id, "method": method, "params": params}))
        while True:
            msg = json.loads(self.ws.recv())
            if msg.get("id") == self.next_id:
                if "error" in msg:
                    raise RuntimeError(msg["error"])
                return msg.get("result", {})

    def evaluate(self, expression):
        return self.call("Runtime.evaluate", expression=expression, returnByValue=True)["result"].get("value")

    def wait_for(self, expression, timeout=15):
        deadline = time.monotonic() + timeout
        while time.monotonic() < deadline:
            try:
                value = self.evaluate(expression)
            except RuntimeError as error:
                # A form submit replaces the page; evaluating mid-navigation fails until it lands.
                if "navigated" not in str(error) and "context" not in str(error):
                    raise
                value = None
            if value:
                return value
            time.sleep(0.1)
        raise AssertionError("page never satisfied: " + expression)

    def click(self, selector):
        """A real mouse click at the element's centre."""
        box = self.evaluate("(() => { const r = document.querySelector(%s).getBoundingClientRect();"
                            " return [r.x + r.width / 2, r.y + r.height / 2]; })()" % json.dumps(selector))
        for kind in ("mousePressed", "mouseReleased"):
            self.call("Input.dispatchMouseEvent", type=kind, x=box[0], y=box[1], button="left", clickCount=1)

    def close(self):
        try:
            self.ws.close()
        finally:
            self.proc.terminate()
            self.proc.wait(timeout=10)
            shutil.rmtree(self.profile, ignore_errors=True)


@unittest.skipUnless(shutil.which("chromium"), "chromium is not installed (scripts/deps.sh --with-browser)")
class BrowserApprovalTest(unittest.TestCase):
    def test_click_approve_and_deny(self):
        svc = Service(BINARY, "--device-interval", "0.2")
        browser = Browser()
        try:
            for button, status, result in [("#approve", 200, "Device approved"), ("#deny", 403, "Sign-in denied")]:
                with self.subTest(button):
                    start = svc.curl("POST", "/api/cli/login", {"name": "Browser test"}).json()
                    browser.call("Page.navigate", url=start["verifyUrlComplete"])
                    browser.wait_for("document.readyState === 'complete' && !!document.querySelector('%s')" % button)
                    self.assertEqual(browser.evaluate("document.querySelector('#code').value"), start["userCode"])
                    browser.evaluate("document.querySelector('#email').value = 'browser@example.com'")
                    browser.click(button)
                    text = browser.wait_for("(document.querySelector('#result') || {}).textContent")
                    self.assertEqual(text, result)
                    time.sleep(0.25)
                    answer = svc.curl("POST", "/api/cli/token", {"deviceCode": start["deviceCode"]})
                    self.assertEqual(answer.status, status, answer.body)
                    if status == 200:
                        self.assertEqual(answer.json()["user"]["email"], "browser@example.com")
        finally:
            browser.close()
            svc.close()


if __name__ == "__main__":
    BINARY = sys.argv.pop(1)
    unittest.main(verbosity=2)
