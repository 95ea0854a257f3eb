"""Contract tests of lofthaven-service, driven by curl. Run: tst_service_contract.py BINARY"""
import json
import os
import subprocess
import sys
import time
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from servicetest import Service  # noqa: E402

BINARY = None
MiB = 1024 * 1024


class ContractTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.svc = Service(BINARY, "--test-hooks", "--min-part-size", "4", "--device-interval", "0.3",
                          "--daily-quota-bytes", str(3 * 1024 ** 3))

    @classmethod
    def tearDownClass(cls):
        cls.svc.close()

    def setUp(self):
        self.svc.curl("DELETE", "/__test/faults")

    # -- helpers -----------------------------------------------------------
    def create(self, payload_size, part_size=4, token=None, **fields):
        body = {"name": fields.pop("name", "notes.txt"), "size": payload_size,
                "files": [{"name": "notes.txt", "size": payload_size}],
                "expiresIn": fields.pop("expiresIn", 3600), "maxDownloads": fields.pop("maxDownloads", 0),
                "partSize": part_size, "source": "test"}
        body.update(fields)
        headers = {"Authorization": "Bearer " + token} if token else {}
        a = self.svc.curl("POST", "/api/transfers", body, headers)
        self.assertEqual(a.status, 200, a.body)
        return a.json()

    def put(self, created, number, data, owner=None):
        return self.svc.curl("PUT", "/api/transfers/%s/parts/%d" % (created["id"], number), data,
                             {"X-Owner-Token": owner or created["ownerToken"]})

    def send(self, payload, part_size=4, order=None, token=None, **fields):
        c = self.create(len(payload), part_size, token, **fields)
        ps = c["partSize"]
        etags = {}
        for n in order or range(1, c["partCount"] + 1):
            a = self.put(c, n, payload[(n - 1) * ps:n * ps])
            self.assertEqual(a.status, 200, a.body)
            etags[n] = a.json()["etag"]
        parts = [{"partNumber": n, "etag": etags[n]} for n in sorted(etags)]
        a = self.svc.curl("POST", "/api/transfers/%s/complete" % c["id"], {"parts": parts},
                          {"X-Owner-Token": c["ownerToken"]})
        self.assertEqual(a.status, 200, a.body)
        return c, a.json()

    def sign_in(self, email):
        start = self.svc.curl("POST", "/api/cli/login", {"name": "Test machine"}).json()
        self.assertEqual(self.svc.curl("POST", "/__test/device/approve",
                                       {"userCode": start["userCode"], "email": email}).status, 200)
        a = self.svc.curl("POST", "/api/cli/token", {"deviceCode": start["deviceCode"]})
        self.assertEqual(a.status, 200, a.body)
        return a.json()["token"]

    def assert_error(self, a, status, code=None):
        self.assertEqual(a.status, status, a.body)
        body = a.json()
        self.assertIn("message", body)
        self.assertTrue(body["message"])
        if code:
            self.assertEqual(body["error"], code)
        return body

    # -- send and receive ---------------------------------------------------
    def test_send_flow(self):
        payload = bytes(range(256)) * 4 + b"tail!"  # 1029 bytes, 11 parts of 100
        c = self.create(len(payload), part_size=100, maxDownloads=0)
        self.assertEqual((c["partSize"], c["partCount"]), (100, 11))
        self.assertRegex(c["id"], r"^[A-Za-z0-9]+$")
        self.assertRegex(c["code"], r"^[0-9]{6}$")
        self.assertGreaterEqual(len(c["ownerToken"]), 22)
        self.assertEqual(c["url"], self.svc.origin + "/d/" + c["id"])
        self.assertEqual(c["codeUrl"], self.svc.origin + "/r/" + c["code"])
        self.assertIsInstance(c["expiresAt"], (int, float))
        etags = {}
        for n in [11, 3, 1, 2, 5, 4, 7, 6, 9, 8, 10, 3]:  # out of order, part 3 twice
            a = self.put(c, n, payload[(n - 1) * 100:n * 100])
            self.assertEqual(a.status, 200, a.body)
            etags[n] = a.json()["etag"]
        parts = [{"partNumber": n, "etag": etags[n]} for n in range(1, 12)]
        done = self.svc.curl("POST", "/api/transfers/%s/complete" % c["id"], {"parts": parts},
                             {"X-Owner-Token": c["ownerToken"]})
        self.assertEqual(done.status, 200, done.body)
        self.assertEqual(done.json()["size"], len(payload))
        self.assertEqual(len(os.listdir(os.path.join(self.svc.data, "transfers", c["id"]))), 11)

        look = self.svc.curl("GET", "/api/code/" + c["code"])
        self.assertEqual(look.json(), {"id": c["id"]})
        meta = self.svc.curl("GET", "/api/transfers/" + c["id"]).json()
        for key, value in [("name", "notes.txt"), ("size", len(payload)), ("hasPassword", False),
                           ("downloads", 0), ("code", c["code"]), ("status", "ready"),
                           ("url", c["url"]), ("fileCount", 1)]:
            self.assertEqual(meta[key], value, key)
        self.assertEqual(meta["files"], [{"name": "notes.txt", "size": len(payload)}])

        whole = self.svc.curl("GET", "/dl/" + c["id"])
        self.assertEqual((whole.status, whole.body), (200, payload))
        size = len(payload)
        for rng, first, last in [("bytes=0-", 0, size - 1), ("bytes=99-", 99, size - 1),
                                 ("bytes=95-105", 95, 105), ("bytes=%d-" % (size - 1), size - 1, size - 1),
                                 ("bytes=1000-99999", 1000, size - 1), ("bytes=0-0", 0, 0)]:
            with self.subTest(range=rng):
                a = self.svc.curl("GET", "/dl/" + c["id"], headers={"Range": rng})
                self.assertEqual(a.status, 206)
                self.assertEqual(a.header("Content-Range"), "bytes %d-%d/%d" % (first, last, size))
                self.assertEqual(a.body, payload[first:last + 1])
        # Bounded ranges inside one connection: an overrun would corrupt the second answer.
        url = self.svc.origin + "/dl/" + c["id"]
        two = subprocess.run(["curl", "-sS", "-H", "Range: bytes=95-105", url, url], capture_output=True, timeout=30)
        self.assertEqual(two.stdout, payload[95:106] * 2)
        sent = [e["bytesOut"] for e in self.svc.curl("GET", "/__test/log").json()["requests"]
                if e.get("range") == "bytes=95-105"]
        self.assertEqual(sent, [11, 11, 11])
        for rng in ["bytes=%d-" % size, "bytes=%d-" % (size + 10), "bytes=%d-%d" % (size, size + 5)]:
            with self.subTest(range=rng):
                a = self.svc.curl("GET", "/dl/" + c["id"], headers={"Range": rng})
                self.assert_error(a, 416)
                self.assertEqual(a.header("Content-Range"), "bytes */%d" % size)

        self.assert_error(self.svc.curl("DELETE", "/api/transfers/" + c["id"]), 403, "forbidden")
        gone = self.svc.curl("DELETE", "/api/transfers/" + c["id"], headers={"X-Owner-Token": c["ownerToken"]})
        self.assertEqual((gone.status, gone.json()), (200, {"ok": True}))
        self.assertFalse(os.path.exists(os.path.join(self.svc.data, "transfers", c["id"])))
        for path in ["/api/transfers/" + c["id"], "/dl/" + c["id"], "/api/code/" + c["code"]]:
            with self.subTest(path=path):
                self.assert_error(self.svc.curl("GET", path), 404, "not_found")

    def test_create_limits_and_expiries(self):
        token = self.sign_in("limits@example.com")
        anon_max, account_max = 500 * MiB, 2 * 1024 ** 3
        table = [
            # (name, token, changes, status, error, limit)
            ("anonymous at limit", None, {"size": anon_max}, 200, None, None),
            ("anonymous over limit", None, {"size": anon_max + 1}, 413, "too_large", anon_max),
            ("account over limit", token, {"size": account_max + 1}, 413, "too_large", account_max),
            ("account 2 GiB", token, {"size": account_max}, 200, None, None),
            ("anonymous 3 days", None, {"expiresIn": 259200}, 200, None, None),
            ("anonymous 7 days", None, {"expiresIn": 604800}, 400, "bad_expiry", None),
            ("account 7 days", token, {"expiresIn": 604800}, 200, None, None),
            ("odd expiry", token, {"expiresIn": 1000}, 400, "bad_expiry", None),
            ("no name", None, {"name": ""}, 400, "bad_request", None),
            ("negative size", None, {"size": -1}, 400, "bad_request", None),
            ("to self needs account", None, {"toSelf": True}, 401, "unauthorized", None),
        ]
        for name, tok, changes, status, error, limit in table:
            with self.subTest(name):
                body = {"name": "a.bin", "size": 10, "files": [], "expiresIn": 3600, "maxDownloads": 0,
                        "partSize": 16 * MiB, "source": "test"}
                body.update(changes)
                headers = {"Authorization": "Bearer " + tok} if tok else {}
                a = self.svc.curl("POST", "/api/transfers", body, headers)
                if status == 200:
                    self.assertEqual(a.status, 200, a.body)
                    self.assertEqual(a.json()["partSize"], 16 * MiB)
                else:
                    err = self.assert_error(a, status, error)
                    self.assertEqual(err.get("limit"), limit)
        self.assert_error(self.svc.curl("POST", "/api/transfers", "not json"), 400, "bad_request")
        big = self.svc.curl("POST", "/api/transfers", {"name": "x", "size": 5, "files": [], "expiresIn": 3600,
                                                       "maxDownloads": 0, "partSize": 1 << 40, "source": "t"})
        self.assertEqual(big.json()["partSize"], 64 * MiB)
        quota = self.svc.curl("POST", "/api/transfers", {"name": "x", "size": account_max, "files": [],
                                                         "expiresIn": 3600, "maxDownloads": 0,
                                                         "partSize": 16 * MiB, "source": "t"},
                              {"Authorization": "Bearer " + token})
        self.assert_error(quota, 429, "quota")

    def test_part_and_complete_rules(self):
        c = self.create(10)
        other = self.create(10)
        table = [
            ("wrong owner", 1, b"0123", other["ownerToken"], 403, "forbidden"),
            ("part zero", 0, b"0123", None, 400, "bad_part"),
            ("part past end", 4, b"0123", None, 400, "bad_part"),
            ("short part", 1, b"012", None, 400, "bad_part_size"),
            ("long part", 1, b"01234", None, 413, "too_large"),
            ("short last part", 3, b"8", None, 400, "bad_part_size"),
        ]
        for name, n, data, owner, status, error in table:
            with self.subTest(name):
                self.assert_error(self.put(c, n, data, owner), status, error)
        e1 = self.put(c, 1, b"0123").json()["etag"]
        e2 = self.put(c, 2, b"4567").json()["etag"]
        complete = "/api/transfers/%s/complete" % c["id"]
        owner = {"X-Owner-Token": c["ownerToken"]}
        parts = [{"partNumber": 1, "etag": e1}, {"partNumber": 2, "etag": e2}]
        self.assert_error(self.svc.curl("POST", complete, {"parts": parts}, owner), 409, "incomplete")
        self.assert_error(self.svc.curl("GET", "/api/transfers/" + c["id"]), 404)
        e3 = self.put(c, 3, b"89").json()["etag"]
        stale = parts + [{"partNumber": 3, "etag": "0000"}]
        self.assert_error(self.svc.curl("POST", complete, {"parts": stale}, owner), 409, "etag_mismatch")
        self.assert_error(self.svc.curl("POST", complete, {"parts": parts[::-1] + [{"partNumber": 3, "etag": e3}]},
                                        owner), 409, "bad_order")
        self.assert_error(self.svc.curl("POST", complete, {"parts": parts + [{"partNumber": 3, "etag": e3}]}),
                          403, "forbidden")
        ok = self.svc.curl("POST", complete, {"parts": parts + [{"partNumber": 3, "etag": e3}]}, owner)
        self.assertEqual(ok.status, 200, ok.body)
        again = self.svc.curl("POST", complete, {"parts": parts + [{"partNumber": 3, "etag": e3}]}, owner)
        self.assertEqual(again.json(), ok.json())
        self.assert_error(self.put(c, 1, b"0123"), 409, "already_complete")
        self.assertEqual(self.svc.curl("GET", "/dl/" + c["id"]).body, b"0123456789")
        # abort throws everything away
        a = self.create(10)
        self.put(a, 1, b"abcd")
        self.assert_error(self.svc.curl("POST", "/api/transfers/%s/abort" % a["id"]), 403)
        self.assertEqual(self.svc.curl("POST", "/api/transfers/%s/abort" % a["id"],
                                       headers={"X-Owner-Token": a["ownerToken"]}).status, 200)
        self.assertFalse(os.path.exists(os.path.join(self.svc.data, "transfers", a["id"])))
        self.assert_error(self.put(a, 2, b"efgh"), 404)

    def test_password_unlock(self):
        c, _ = self.send(b"secret bytes", password="open sesame")
        meta = self.svc.curl("GET", "/api/transfers/" + c["id"]).json()
        self.assertTrue(meta["hasPassword"])
        db = open(os.path.join(self.svc.data, "lofthaven.db"), "rb").read()
        self.assertNotIn(b"open sesame", db)
        self.assert_error(self.svc.curl("GET", "/dl/" + c["id"]), 403, "password_required")
        self.assert_error(self.svc.curl("GET", "/dl/" + c["id"] + "?t=guess"), 403, "password_required")
        wrong = self.svc.curl("POST", "/api/transfers/%s/unlock" % c["id"], {"password": "open sesam"})
        self.assert_error(wrong, 403, "wrong_password")
        token = self.svc.curl("POST", "/api/transfers/%s/unlock" % c["id"], {"password": "open sesame"}).json()["token"]
        a = self.svc.curl("GET", "/dl/%s?t=%s" % (c["id"], token))
        self.assertEqual((a.status, a.body), (200, b"secret bytes"))

    def test_download_limit_counts_a_resumed_download_once(self):
        payload = os.urandom(3000)
        c, _ = self.send(payload, part_size=1000, maxDownloads=2)
        self.svc.curl("POST", "/__test/faults", {"method": "GET", "path": "/dl/*", "count": 1, "dropAfterBytes": 1234})
        cut = self.svc.curl("GET", "/dl/" + c["id"])
        self.assertEqual(cut.body, payload[:1234])
        self.assertEqual(self.svc.curl("GET", "/api/transfers/" + c["id"]).json()["downloads"], 0)
        rest = self.svc.curl("GET", "/dl/" + c["id"], headers={"Range": "bytes=1234-"})
        self.assertEqual((rest.status, cut.body + rest.body), (206, payload))
        self.assertEqual(self.svc.curl("GET", "/api/transfers/" + c["id"]).json()["downloads"], 1)
        head = self.svc.curl("GET", "/dl/" + c["id"], headers={"Range": "bytes=0-9"})
        self.assertEqual(head.status, 206)
        self.assertEqual(self.svc.curl("GET", "/api/transfers/" + c["id"]).json()["downloads"], 1)
        self.assertEqual(self.svc.curl("GET", "/dl/" + c["id"]).body, payload)
        self.assert_error(self.svc.curl("GET", "/dl/" + c["id"]), 410, "limit_reached")
        log = self.svc.curl("GET", "/__test/log").json()["requests"]
        ranges = [e.get("range") for e in log if e["path"] == "/dl/" + c["id"]]
        self.assertEqual(ranges, [None, "bytes=1234-", "bytes=0-9", None, None])

    def test_extend_once_and_owner_checks(self):
        token = self.sign_in("owner@example.com")
        stranger = self.sign_in("stranger@example.com")
        c, done = self.send(b"0123456789", token=token)
        extend = "/api/transfers/%s/extend" % c["id"]
        self.assert_error(self.svc.curl("POST", extend), 403, "forbidden")
        self.assert_error(self.svc.curl("POST", extend, headers={"X-Owner-Token": "x" * 43}), 403)
        self.assert_error(self.svc.curl("POST", extend, headers={"Authorization": "Bearer " + stranger}), 403)
        self.assert_error(self.svc.curl("POST", extend, headers={"Authorization": "Bearer nonsense"}), 401)
        a = self.svc.curl("POST", extend, headers={"Authorization": "Bearer " + token})
        self.assertEqual(a.json()["expiresAt"], done["expiresAt"] + 3 * 86400 * 1000)
        self.assert_error(self.svc.curl("POST", extend, headers={"X-Owner-Token": c["ownerToken"]}),
                          409, "already_extended")
        self.assertEqual(self.svc.curl("DELETE", "/api/transfers/" + c["id"],
                                       headers={"Authorization": "Bearer " + token}).status, 200)

    def test_expiry_and_sweep(self):
        c, _ = self.send(b"soon gone", part_size=4)
        folder = os.path.join(self.svc.data, "transfers", c["id"])
        self.assertTrue(os.listdir(folder))
        self.svc.curl("POST", "/__test/clock", {"advanceSeconds": 3601})
        try:
            self.assert_error(self.svc.curl("GET", "/api/transfers/" + c["id"]), 410, "expired")
            self.assert_error(self.svc.curl("GET", "/dl/" + c["id"]), 410, "expired")
            self.assert_error(self.svc.curl("GET", "/api/code/" + c["code"]), 404)
            self.assert_error(self.svc.curl("POST", "/api/transfers/%s/extend" % c["id"],
                                            headers={"X-Owner-Token": c["ownerToken"]}), 410)
            self.svc.curl("POST", "/__test/sweep")
            self.assertFalse(os.path.exists(folder))
            self.assert_error(self.svc.curl("GET", "/api/transfers/" + c["id"]), 410, "expired")
        finally:
            self.svc.curl("POST", "/__test/clock", {"advanceSeconds": -3601})

    # -- accounts -----------------------------------------------------------
    def test_device_sign_in(self):
        start = self.svc.curl("POST", "/api/cli/login", {"name": "Lofthaven for Linux (box)"}).json()
        self.assertRegex(start["userCode"], r"^[A-Z]{4}-[A-Z]{4}$")
        self.assertEqual(start["verifyUrl"], self.svc.origin + "/device")
        self.assertEqual(start["verifyUrlComplete"], self.svc.origin + "/device?code=" + start["userCode"])
        self.assertEqual((start["interval"], start["expiresIn"]), (0.3, 600))
        poll = {"deviceCode": start["deviceCode"]}
        self.assert_error(self.svc.curl("POST", "/api/cli/token", poll), 428, "authorization_pending")
        self.assert_error(self.svc.curl("POST", "/api/cli/token", poll), 429, "slow_down")
        page = self.svc.curl("GET", "/device?code=" + start["userCode"]).body.decode()
        for needle in [start["userCode"], ">Approve<", ">Deny<", 'type="email"']:
            self.assertIn(needle, page)
        self.assertEqual(self.svc.curl("POST", "/device", "code=%s&email=&action=deny" % start["userCode"],
                                       headers={"Content-Type": "application/x-www-form-urlencoded"}).status, 200)
        time.sleep(5.4)  # the interval grew by 5 s after slow_down
        self.assert_error(self.svc.curl("POST", "/api/cli/token", poll), 403, "access_denied")

        start = self.svc.curl("POST", "/api/cli/login", {"name": "box"}).json()
        poll = {"deviceCode": start["deviceCode"]}
        self.assert_error(self.svc.curl("POST", "/__test/device/approve",
                                        {"userCode": start["userCode"], "email": "nope"}), 400)
        self.svc.curl("POST", "/__test/device/approve", {"userCode": start["userCode"].lower(), "email": "Me@Example.com"})
        ok = self.svc.curl("POST", "/api/cli/token", poll)
        self.assertEqual(ok.status, 200, ok.body)
        answer = ok.json()
        self.assertEqual(answer["user"]["email"], "me@example.com")
        self.assertEqual(answer["limits"], {"maxBytes": 2 * 1024 ** 3, "expiries": [3600, 86400, 259200, 604800]})
        self.assertIsInstance(answer["plans"], dict)
        time.sleep(0.35)
        self.assert_error(self.svc.curl("POST", "/api/cli/token", poll), 400, "invalid_grant")
        auth = {"Authorization": "Bearer " + answer["token"]}
        me = self.svc.curl("GET", "/api/me", headers=auth).json()
        self.assertEqual((me["signedIn"], me["user"]["id"]), (True, answer["user"]["id"]))
        self.assertEqual(self.svc.curl("GET", "/api/me").json()["signedIn"], False)
        self.assertEqual(self.svc.curl("POST", "/api/cli/logout", headers=auth).status, 200)
        self.assert_error(self.svc.curl("GET", "/api/me", headers=auth), 401)
        self.assert_error(self.svc.curl("GET", "/api/me/inbox", headers=auth), 401)

        start = self.svc.curl("POST", "/api/cli/login", {"name": "box"}).json()
        self.svc.curl("POST", "/__test/clock", {"advanceSeconds": 601})
        try:
            self.assert_error(self.svc.curl("POST", "/api/cli/token", {"deviceCode": start["deviceCode"]}),
                              410, "expired_token")
        finally:
            self.svc.curl("POST", "/__test/clock", {"advanceSeconds": -601})
        self.assert_error(self.svc.curl("POST", "/api/cli/token", {"deviceCode": "unknown"}), 400)

    def test_inbox_and_account_list(self):
        me = self.sign_in("inbox@example.com")
        other = self.sign_in("other@example.com")
        auth = {"Authorization": "Bearer " + me}
        to_self, _ = self.send(b"for my phone", token=me, toSelf=True, device="Laptop")
        normal, _ = self.send(b"for a friend", token=me)
        self.send(b"not mine", token=other, toSelf=True, device="Other")
        inbox = self.svc.curl("GET", "/api/me/inbox", headers=auth).json()["items"]
        self.assertEqual([(i["id"], i["device"], i["toSelf"]) for i in inbox], [(to_self["id"], "Laptop", True)])
        mine = self.svc.curl("GET", "/api/me/transfers", headers=auth).json()["transfers"]
        self.assertEqual([t["id"] for t in mine], [normal["id"], to_self["id"]])
        self.assert_error(self.svc.curl("GET", "/api/me/transfers"), 401)

    # -- pages and hooks ----------------------------------------------------
    def test_pages(self):
        c, _ = self.send(b"page bytes", name="Report.pdf", title="Quarterly")
        table = [("/d/" + c["id"], 200, "Quarterly"), ("/legal/terms", 200, "Terms"),
                 ("/legal/privacy", 200, "Privacy"), ("/d/nothere", 404, "Not found"),
                 ("/r/000000", 404, "Not found")]
        for path, status, needle in table:
            with self.subTest(path):
                a = self.svc.curl("GET", path)
                self.assertEqual(a.status, status)
                self.assertIn(needle, a.body.decode())
        r = self.svc.curl("GET", "/r/" + c["code"])
        self.assertEqual((r.status, r.header("Location")), (302, "/d/" + c["id"]))
        m = self.svc.curl("GET", "/downloads/desktop.json").json()
        self.assertIn("version", m)
        with open(os.path.join(self.svc.data, "desktop.json"), "w") as f:
            json.dump({"version": "9.1.0", "mac": "https://example.com/x.zip"}, f)
        self.assertEqual(self.svc.curl("GET", "/downloads/desktop.json").json()["version"], "9.1.0")
        self.assert_error(self.svc.curl("GET", "/api/nothing"), 404, "not_found")

    def test_fault_hooks(self):
        c = self.create(8)
        self.svc.curl("POST", "/__test/faults", {"method": "PUT", "path": "/api/transfers/*/parts/*",
                                                 "count": 2, "status": 503, "retryAfter": 1})
        table = [(503, "1"), (503, "1"), (200, None)]
        for status, retry in table:
            a = self.put(c, 1, b"0123")
            self.assertEqual((a.status, a.header("Retry-After")), (status, retry))
        self.svc.curl("POST", "/__test/faults", {"method": "PUT", "path": "/api/**", "dropAfterBytes": 2})
        cut = self.put(c, 2, b"4567")
        self.assertEqual(cut.status, 0)
        self.assertEqual(self.put(c, 2, b"4567").status, 200)
        self.svc.curl("POST", "/__test/faults", {"path": "/api/code/*", "stallSeconds": 3})
        slow = self.svc.curl("GET", "/api/code/123456", timeout=1)
        self.assertEqual(slow.status, 0)
        self.assert_error(self.svc.curl("POST", "/__test/faults", {"path": "nope", "status": 500}), 400)
        log = self.svc.curl("GET", "/__test/log").json()["requests"]
        puts = [e for e in log if e["method"] == "PUT" and e["path"].startswith("/api/transfers/" + c["id"])]
        self.assertEqual([e["status"] for e in puts], [503, 503, 200, 499, 200])
        self.assertTrue(all(e["ownerToken"] and not e["authorization"] for e in puts))
        self.assertNotIn(c["ownerToken"], json.dumps(log))


class ProcessTest(unittest.TestCase):
    def test_hooks_absent_without_flag(self):
        svc = Service(BINARY)
        try:
            for method, path in [("GET", "/__test/log"), ("POST", "/__test/faults"), ("POST", "/__test/device/approve")]:
                self.assertEqual(svc.curl(method, path, {}).status, 404)
            self.assertEqual(svc.stop(), 0)
        finally:
            svc.close()

    def test_hooks_refuse_public_address(self):
        run = subprocess.run([BINARY, "--listen", "0.0.0.0:0", "--data", "/tmp/unused", "--test-hooks"],
                             capture_output=True, timeout=10)
        self.assertEqual(run.returncode, 2)
        self.assertIn(b"loopback", run.stderr)

    def test_parts_survive_sigkill(self):
        svc = Service(BINARY, "--min-part-size", str(MiB))
        try:
            part = MiB
            payload = os.urandom(6 * part)
            c = svc.curl("POST", "/api/transfers", {"name": "big.bin", "size": len(payload), "files": [],
                                                    "expiresIn": 3600, "maxDownloads": 0, "partSize": part,
                                                    "source": "test"}).json()
            etags = {}
            for n in (1, 2, 3, 5):
                etags[n] = svc.curl("PUT", "/api/transfers/%s/parts/%d" % (c["id"], n),
                                    payload[(n - 1) * part:n * part], {"X-Owner-Token": c["ownerToken"]}).json()["etag"]
            # Part 4 is in flight (throttled) when the service is killed.
            src = os.path.join(svc.data, "p4.bin")
            with open(src, "wb") as f:
                f.write(payload[3 * part:4 * part])
            slow = subprocess.Popen(["curl", "-sS", "-X", "PUT", "--limit-rate", "200K", "-T", src,
                                     "-H", "X-Owner-Token: " + c["ownerToken"],
                                     svc.origin + "/api/transfers/%s/parts/4" % c["id"]],
                                    stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            time.sleep(1.0)
            svc.restart_after_kill()
            slow.wait(timeout=10)
            owner = {"X-Owner-Token": c["ownerToken"]}
            parts = lambda: [{"partNumber": n, "etag": etags[n]} for n in sorted(etags)]
            a = svc.curl("POST", "/api/transfers/%s/complete" % c["id"], {"parts": parts()}, owner)
            self.assertEqual((a.status, a.json()["error"]), (409, "incomplete"))
            self.assertIn("Part 4", a.json()["message"])
            for n in (4, 6):
                etags[n] = svc.curl("PUT", "/api/transfers/%s/parts/%d" % (c["id"], n),
                                    payload[(n - 1) * part:n * part], owner).json()["etag"]
            a = svc.curl("POST", "/api/transfers/%s/complete" % c["id"], {"parts": parts()}, owner)
            self.assertEqual(a.status, 200, a.body)
            self.assertEqual(svc.curl("GET", "/dl/" + c["id"]).body, payload)
        finally:
            svc.close()


if __name__ == "__main__":
    BINARY = sys.argv.pop(1)
    unittest.main(verbosity=2)
