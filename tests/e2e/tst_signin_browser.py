"""lofthaven login approved by a person in a browser: headless Chromium opens the address the
command line printed, types an e-mail address and clicks Approve on /device.
Run: tst_signin_browser.py LOFTHAVEN SERVICE. Skips (exit 0 with a note) without chromium."""
import json
import os
import shutil
import subprocess
import sys
import tempfile
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "service"))
from servicetest import Service  # noqa: E402
from tst_service_browser import Browser  # noqa: E402

LOFTHAVEN = None
SERVICE = None


@unittest.skipUnless(shutil.which("chromium"), "chromium is not installed (scripts/deps.sh --with-browser)")
class BrowserSignInTest(unittest.TestCase):
    def test_approve_in_the_browser(self):
        svc = Service(SERVICE, "--device-interval", "0.2")
        browser = Browser()
        home = tempfile.mkdtemp(prefix="lh-signin-")
        env = dict(os.environ, LOFTHAVEN_ORIGIN=svc.origin, HOME=home,
                   XDG_CONFIG_HOME=os.path.join(home, "config"),
                   # No session bus: the sign-in stays in this process's memory, never in
                   # the keyring of whoever runs the tests.
                   DBUS_SESSION_BUS_ADDRESS="unix:path=" + os.path.join(home, "no-bus"))
        login = subprocess.Popen([LOFTHAVEN, "login", "--json", "--no-browser"], env=env,
                                 stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        try:
            waiting = json.loads(login.stdout.readline())
            self.assertIn("?code=" + waiting["userCode"], waiting["url"])
            browser.call("Page.navigate", url=waiting["url"])
            browser.wait_for("document.readyState === 'complete' && !!document.querySelector('#approve')")
            self.assertEqual(browser.evaluate("document.querySelector('#code').value"), waiting["userCode"])
            browser.evaluate("document.querySelector('#email').value = 'browser@example.com'")
            browser.click("#approve")
            self.assertEqual(browser.wait_for("(document.querySelector('#result') || {}).textContent"),
                             "Device approved")
            out, err = login.communicate(timeout=60)
            self.assertEqual(login.returncode, 0, err)
            account = json.loads(out.strip().splitlines()[-1])
            self.assertEqual(account["user"]["email"], "browser@example.com")
            self.assertTrue(account["signedIn"])
        finally:
            if login.poll() is None:
                login.kill()
            browser.close()
            svc.close()
            shutil.rmtree(home, ignore_errors=True)


if __name__ == "__main__":
    SERVICE = sys.argv.pop(2)
    LOFTHAVEN = sys.argv.pop(1)
    unittest.main(verbosity=2)
