"""Contract tests of lofthaven-service, driven by curl. Run: tst_service_contract.py BINARY"""
import json
import os
import shutil
import subprocess
import sys
import tempfile
import threading
import time
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from servicetest import Service, read  # noqa: E402

BINARY = None
MiB = 1024 * 1024
GiB = 1024 * MiB


def owner(created, token=None):
    return {"X-Owner-Token": token or created["ownerToken"]}


def bearer(token):
    return {"Authorization": "Bearer " + token} if token else {}


def transfer_body(size, part_size, **fields):
    body = {"name": "notes.txt", "size": size, "files": [{"name": "notes.txt", "size": size}],
            "expiresIn": 3600, "maxDownloads": 0, "partSize": part_size, "source": "test"}
    body.update(fields)
    return body


def part_list(etags):
    return [{"partNumber": n, "etag": etags[n]} for n in sorted(etags)]


class ServiceCase(unittest.TestCase):
    """Requests against self.svc."""

    def get(self, path, headers=None, **kwargs):
        return self.svc.curl("GET", path, headers=headers, **kwargs)

    def post(self, path, body=None, headers=None):
        return self.svc.curl("POST", path, body, headers)

    def folder(self, created):
        return os.path.join(self.svc.data, "transfers", created["id"])

    def create(self, size, part_size=4, token=None, **fields):
        a = self.post("/api/transfers", transfer_body(size, part_size, **fields), bearer(token))
        self.assertEqual(a.status, 200, a.body)
        return a.json()

    def put(self, created, number, data, owner_token=None):
        path = "/api/transfers/%s/parts/%d" % (created["id"], number)
        return self.svc.curl("PUT", path, data, owner(created, owner_token))

    def put_parts(self, created, payload, numbers):
        """Uploads the given parts in that order; returns {number: etag}."""
        size = created["partSize"]
        etags = {}
        for n in numbers:
            a = self.put(created, n, payload[(n - 1) * size:n * size])
            self.assertEqual(a.status, 200, a.body)
            etags[n] = a.json()["etag"]
        return etags

    def complete(self, created, parts, headers=None):
        path = "/api/transfers/%s/complete" % created["id"]
        return self.post(path, {"parts": parts}, owner(created) if headers is None else headers)

    def send(self, payload, part_size=4, token=None, **fields):
        c = self.create(len(payload), part_size, token, **fields)
        etags = self.put_parts(c, payload, range(1, c["partCount"] + 1))
        a = self.complete(c, part_list(etags))
        self.assertEqual(a.status, 200, a.body)
        return c, a.json()

    def sign_in(self, email):
        start = self.post("/api/cli/login", {"name": "Test machine"}).json()
        approve = {"userCode": start["userCode"], "email": email}
        self.assertEqual(self.post("/__test/device/approve", approve).status, 200)
        a = self.post("/api/cli/token", {"deviceCode": start["deviceCode"]})
        self.assertEqual(a.status, 200, a.body)
        return a.json()["token"]

    def assert_error(self, a, status, code=None):
        self.assertEqual(a.status, status, a.body)
        body = a.json()
        self.assertTrue(body.get("message"), body)
        if code:
            self.assertEqual(body["error"], code)
        return body


class ContractTest(ServiceCase):
    @classmethod
    def setUpClass(cls):
        cls.svc = Service(BINARY, "--test-hooks", "--min-part-size", "4", "--device-interval",
                          "0.3", "--daily-quota-bytes", str(3 * GiB))

    @classmethod
    def tearDownClass(cls):
        cls.svc.close()

    def setUp(self):
        self.svc.curl("DELETE", "/__test/faults")

    # -- send and receive ---------------------------------------------------
    def test_send_flow(self):
        payload = bytes(range(256)) * 4 + b"tail!"  # 1029 bytes, 11 parts of 100
        size = len(payload)
        c = self.create(size, part_size=100)
        self.assertEqual((c["partSize"], c["partCount"]), (100, 11))
        self.assertRegex(c["id"], r"^[A-Za-z0-9]+$")
        self.assertRegex(c["code"], r"^[0-9]{6}$")
        self.assertGreaterEqual(len(c["ownerToken"]), 22)
        self.assertEqual(c["url"], self.svc.origin + "/d/" + c["id"])
        self.assertEqual(c["codeUrl"], self.svc.origin + "/r/" + c["code"])
        self.assertIsInstance(c["expiresAt"], (int, float))
        # Out of order, part 3 twice.
        etags = self.put_parts(c, payload, [11, 3, 1, 2, 5, 4, 7, 6, 9, 8, 10, 3])
        done = self.complete(c, part_list(etags))
        self.assertEqual(done.status, 200, done.body)
        self.assertEqual(done.json()["size"], size)
        self.assertEqual(len(os.listdir(self.folder(c))), 11)

        self.assertEqual(self.get("/api/code/" + c["code"]).json(), {"id": c["id"]})
        meta = self.get("/api/transfers/" + c["id"]).json()
        expected = {"name": "notes.txt", "size": size, "hasPassword": False, "downloads": 0,
                    "code": c["code"], "status": "ready", "url": c["url"], "fileCount": 1,
                    "files": [{"name": "notes.txt", "size": size}]}
        self.assertEqual({key: meta[key] for key in expected}, expected)

        dl = "/dl/" + c["id"]
        whole = self.get(dl)
        self.assertEqual((whole.status, whole.body), (200, payload))
        for rng, first, last in [("bytes=0-", 0, size - 1), ("bytes=99-", 99, size - 1),
                                 ("bytes=95-105", 95, 105), ("bytes=1028-", 1028, 1028),
                                 ("bytes=1000-99999", 1000, size - 1), ("bytes=0-0", 0, 0)]:
            with self.subTest(range=rng):
                a = self.get(dl, {"Range": rng})
                self.assertEqual((a.status, a.header("Content-Range"), a.body),
                                 (206, "bytes %d-%d/%d" % (first, last, size),
                                  payload[first:last + 1]))
        # Bounded ranges inside one connection: an overrun would corrupt the second answer.
        url = self.svc.origin + dl
        two = subprocess.run(["curl", "-sS", "-H", "Range: bytes=95-105", url, url],
                             capture_output=True, timeout=30)
        self.assertEqual(two.stdout, payload[95:106] * 2)
        sent = [e["bytesOut"] for e in self.get("/__test/log").json()["requests"]
                if e.get("range") == "bytes=95-105"]
        self.assertEqual(sent, [11, 11, 11])
        for rng in ["bytes=1029-", "bytes=1039-", "bytes=1029-1034"]:
            with self.subTest(range=rng):
                a = self.get(dl, {"Range": rng})
                self.assert_error(a, 416)
                self.assertEqual(a.header("Content-Range"), "bytes */%d" % size)

        self.assert_error(self.svc.curl("DELETE", "/api/transfers/" + c["id"]), 403, "forbidden")
        gone = self.svc.curl("DELETE", "/api/transfers/" + c["id"], headers=owner(c))
        self.assertEqual((gone.status, gone.json()), (200, {"ok": True}))
        self.assertFalse(os.path.exists(self.folder(c)))
        for path in ["/api/transfers/" + c["id"], dl, "/api/code/" + c["code"]]:
            with self.subTest(path=path):
                self.assert_error(self.get(path), 404, "not_found")

    def test_create_limits_and_expiries(self):
        token = self.sign_in("limits@example.com")
        anon_max, account_max = 500 * MiB, 2 * GiB
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
                body = dict(transfer_body(10, 16 * MiB, name="a.bin", files=[]), **changes)
                a = self.post("/api/transfers", body, bearer(tok))
                if status == 200:
                    self.assertEqual(a.status, 200, a.body)
                    self.assertEqual(a.json()["partSize"], 16 * MiB)
                else:
                    self.assertEqual(self.assert_error(a, status, error).get("limit"), limit)
        self.assert_error(self.post("/api/transfers", "not json"), 400, "bad_request")
        big = self.post("/api/transfers", transfer_body(5, 1 << 40, name="x", files=[]))
        self.assertEqual(big.json()["partSize"], 64 * MiB)
        quota = transfer_body(account_max, 16 * MiB, name="x", files=[])
        self.assert_error(self.post("/api/transfers", quota, bearer(token)), 429, "quota")

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
        for name, n, data, owner_token, status, error in table:
            with self.subTest(name):
                self.assert_error(self.put(c, n, data, owner_token), status, error)
        parts = part_list(self.put_parts(c, b"0123456789", [1, 2]))
        self.assert_error(self.complete(c, parts), 409, "incomplete")
        self.assert_error(self.get("/api/transfers/" + c["id"]), 404)
        last = part_list(self.put_parts(c, b"0123456789", [3]))
        stale = [{"partNumber": 3, "etag": "0000"}]
        self.assert_error(self.complete(c, parts + stale), 409, "etag_mismatch")
        self.assert_error(self.complete(c, parts[::-1] + last), 409, "bad_order")
        self.assert_error(self.complete(c, parts + last, headers={}), 403, "forbidden")
        ok = self.complete(c, parts + last)
        self.assertEqual(ok.status, 200, ok.body)
        self.assertEqual(self.complete(c, parts + last).json(), ok.json())
        self.assert_error(self.put(c, 1, b"0123"), 409, "already_complete")
        self.assertEqual(self.get("/dl/" + c["id"]).body, b"0123456789")
        # abort throws everything away
        a = self.create(10)
        self.put(a, 1, b"abcd")
        abort = "/api/transfers/%s/abort" % a["id"]
        self.assert_error(self.post(abort), 403)
        self.assertEqual(self.post(abort, headers=owner(a)).status, 200)
        self.assertFalse(os.path.exists(self.folder(a)))
        self.assert_error(self.put(a, 2, b"efgh"), 404)

    def test_password_unlock(self):
        c, _ = self.send(b"secret bytes", password="open sesame")
        self.assertTrue(self.get("/api/transfers/" + c["id"]).json()["hasPassword"])
        with open(os.path.join(self.svc.data, "lofthaven.db"), "rb") as db:
            self.assertNotIn(b"open sesame", db.read())
        for path in ["/dl/" + c["id"], "/dl/" + c["id"] + "?t=guess"]:
            self.assert_error(self.get(path), 403, "password_required")
        unlock = "/api/transfers/%s/unlock" % c["id"]
        self.assert_error(self.post(unlock, {"password": "open sesam"}), 403, "wrong_password")
        token = self.post(unlock, {"password": "open sesame"}).json()["token"]
        a = self.get("/dl/%s?t=%s" % (c["id"], token))
        self.assertEqual((a.status, a.body), (200, b"secret bytes"))

    def test_download_limit_counts_a_resumed_download_once(self):
        payload = os.urandom(3000)
        c, _ = self.send(payload, part_size=1000, maxDownloads=2)
        dl = "/dl/" + c["id"]

        def downloads():
            return self.get("/api/transfers/" + c["id"]).json()["downloads"]

        self.post("/__test/faults",
                  {"method": "GET", "path": "/dl/*", "count": 1, "dropAfterBytes": 1234})
        cut = self.get(dl)
        self.assertEqual(cut.body, payload[:1234])
        self.assertEqual(downloads(), 0)
        rest = self.get(dl, {"Range": "bytes=1234-"})
        self.assertEqual((rest.status, cut.body + rest.body), (206, payload))
        self.assertEqual(downloads(), 1)
        self.assertEqual(self.get(dl, {"Range": "bytes=0-9"}).status, 206)
        self.assertEqual(downloads(), 1)
        self.assertEqual(self.get(dl).body, payload)
        self.assert_error(self.get(dl), 410, "limit_reached")
        log = self.get("/__test/log").json()["requests"]
        ranges = [e.get("range") for e in log if e["path"] == dl]
        self.assertEqual(ranges, [None, "bytes=1234-", "bytes=0-9", None, None])

    def test_extend_once_and_owner_checks(self):
        token = self.sign_in("owner@example.com")
        stranger = self.sign_in("stranger@example.com")
        c, done = self.send(b"0123456789", token=token)
        extend = "/api/transfers/%s/extend" % c["id"]
        self.assert_error(self.post(extend), 403, "forbidden")
        self.assert_error(self.post(extend, headers=owner(c, "x" * 43)), 403)
        self.assert_error(self.post(extend, headers=bearer(stranger)), 403)
        self.assert_error(self.post(extend, headers=bearer("nonsense")), 401)
        a = self.post(extend, headers=bearer(token))
        self.assertEqual(a.json()["expiresAt"], done["expiresAt"] + 3 * 86400 * 1000)
        self.assert_error(self.post(extend, headers=owner(c)), 409, "already_extended")
        gone = self.svc.curl("DELETE", "/api/transfers/" + c["id"], headers=bearer(token))
        self.assertEqual(gone.status, 200)

    def test_expiry_and_sweep(self):
        c, _ = self.send(b"soon gone", part_size=4)
        self.assertTrue(os.listdir(self.folder(c)))
        self.post("/__test/clock", {"advanceSeconds": 3601})
        try:
            self.assert_error(self.get("/api/transfers/" + c["id"]), 410, "expired")
            self.assert_error(self.get("/dl/" + c["id"]), 410, "expired")
            self.assert_error(self.get("/api/code/" + c["code"]), 404)
            extend = "/api/transfers/%s/extend" % c["id"]
            self.assert_error(self.post(extend, headers=owner(c)), 410)
            self.post("/__test/sweep")
            self.assertFalse(os.path.exists(self.folder(c)))
            self.assert_error(self.get("/api/transfers/" + c["id"]), 410, "expired")
        finally:
            self.post("/__test/clock", {"advanceSeconds": -3601})

    # -- accounts -----------------------------------------------------------
    def test_device_sign_in(self):
        def poll(start):
            return self.post("/api/cli/token", {"deviceCode": start["deviceCode"]})

        start = self.post("/api/cli/login", {"name": "Lofthaven for Linux (box)"}).json()
        code = start["userCode"]
        self.assertRegex(code, r"^[A-Z]{4}-[A-Z]{4}$")
        self.assertEqual(start["verifyUrl"], self.svc.origin + "/device")
        self.assertEqual(start["verifyUrlComplete"], self.svc.origin + "/device?code=" + code)
        self.assertEqual((start["interval"], start["expiresIn"]), (0.3, 600))
        self.assert_error(poll(start), 428, "authorization_pending")
        self.assert_error(poll(start), 429, "slow_down")
        page = self.get("/device?code=" + code).body.decode()
        for needle in [code, ">Approve<", ">Deny<", 'type="email"']:
            self.assertIn(needle, page)
        form = {"Content-Type": "application/x-www-form-urlencoded"}
        deny = self.post("/device", "code=%s&email=&action=deny" % code, form)
        self.assertEqual(deny.status, 200)
        time.sleep(5.4)  # the interval grew by 5 s after slow_down
        self.assert_error(poll(start), 403, "access_denied")

        start = self.post("/api/cli/login", {"name": "box"}).json()
        approve = {"userCode": start["userCode"], "email": "nope"}
        self.assert_error(self.post("/__test/device/approve", approve), 400)
        approve = {"userCode": start["userCode"].lower(), "email": "Me@Example.com"}
        self.post("/__test/device/approve", approve)
        ok = poll(start)
        self.assertEqual(ok.status, 200, ok.body)
        answer = ok.json()
        self.assertEqual(answer["user"]["email"], "me@example.com")
        self.assertEqual(answer["limits"],
                         {"maxBytes": 2 * GiB, "expiries": [3600, 86400, 259200, 604800]})
        self.assertIsInstance(answer["plans"], dict)
        time.sleep(0.35)
        self.assert_error(poll(start), 400, "invalid_grant")
        auth = bearer(answer["token"])
        me = self.get("/api/me", auth).json()
        self.assertEqual((me["signedIn"], me["user"]["id"]), (True, answer["user"]["id"]))
        self.assertEqual(self.get("/api/me").json()["signedIn"], False)
        self.assertEqual(self.post("/api/cli/logout", headers=auth).status, 200)
        self.assert_error(self.get("/api/me", auth), 401)
        self.assert_error(self.get("/api/me/inbox", auth), 401)

        start = self.post("/api/cli/login", {"name": "box"}).json()
        self.post("/__test/clock", {"advanceSeconds": 601})
        try:
            self.assert_error(poll(start), 410, "expired_token")
        finally:
            self.post("/__test/clock", {"advanceSeconds": -601})
        self.assert_error(poll({"deviceCode": "unknown"}), 400)

    def test_inbox_and_account_list(self):
        me = self.sign_in("inbox@example.com")
        other = self.sign_in("other@example.com")
        to_self, _ = self.send(b"for my phone", token=me, toSelf=True, device="Laptop")
        normal, _ = self.send(b"for a friend", token=me)
        self.send(b"not mine", token=other, toSelf=True, device="Other")
        inbox = self.get("/api/me/inbox", bearer(me)).json()["items"]
        self.assertEqual([(i["id"], i["device"], i["toSelf"]) for i in inbox],
                         [(to_self["id"], "Laptop", True)])
        mine = self.get("/api/me/transfers", bearer(me)).json()["transfers"]
        self.assertEqual([t["id"] for t in mine], [normal["id"], to_self["id"]])
        self.assert_error(self.get("/api/me/transfers"), 401)

    # -- pages and hooks ----------------------------------------------------
    def test_pages(self):
        c, _ = self.send(b"page bytes", name="Report.pdf", title="Quarterly")
        table = [("/d/" + c["id"], 200, "Quarterly"), ("/legal/terms", 200, "Terms"),
                 ("/legal/privacy", 200, "Privacy"), ("/d/nothere", 404, "Not found"),
                 ("/r/000000", 404, "Not found")]
        for path, status, needle in table:
            with self.subTest(path):
                a = self.get(path)
                self.assertEqual(a.status, status)
                self.assertIn(needle, a.body.decode())
        r = self.get("/r/" + c["code"])
        self.assertEqual((r.status, r.header("Location")), (302, "/d/" + c["id"]))
        self.assertIn("version", self.get("/downloads/desktop.json").json())
        with open(os.path.join(self.svc.data, "desktop.json"), "w") as f:
            json.dump({"version": "9.1.0", "mac": "https://example.com/x.zip"}, f)
        self.assertEqual(self.get("/downloads/desktop.json").json()["version"], "9.1.0")
        self.assert_error(self.get("/api/nothing"), 404, "not_found")

    def test_fault_hooks(self):
        c = self.create(8)
        self.post("/__test/faults", {"method": "PUT", "path": "/api/transfers/*/parts/*",
                                     "count": 2, "status": 503, "retryAfter": 1})
        for status, retry in [(503, "1"), (503, "1"), (200, None)]:
            a = self.put(c, 1, b"0123")
            self.assertEqual((a.status, a.header("Retry-After")), (status, retry))
        self.post("/__test/faults", {"method": "PUT", "path": "/api/**", "dropAfterBytes": 2})
        self.assertEqual(self.put(c, 2, b"4567").status, 0)
        self.assertEqual(self.put(c, 2, b"4567").status, 200)
        self.post("/__test/faults", {"path": "/api/code/*", "stallSeconds": 3})
        self.assertEqual(self.get("/api/code/123456", timeout=1).status, 0)
        self.assert_error(self.post("/__test/faults", {"path": "nope", "status": 500}), 400)
        log = self.get("/__test/log").json()["requests"]
        puts = [e for e in log
                if e["method"] == "PUT" and e["path"].startswith("/api/transfers/" + c["id"])]
        self.assertEqual([e["status"] for e in puts], [503, 503, 200, 499, 200])
        self.assertTrue(all(e["ownerToken"] and not e["authorization"] for e in puts))
        self.assertNotIn(c["ownerToken"], json.dumps(log))


class AbuseTest(ServiceCase):
    """A client that is not trusted: limits, slow senders, races and a full disk."""

    @classmethod
    def setUpClass(cls):
        cls.svc = Service(BINARY, "--test-hooks", "--min-part-size", "4", "--lookup-limit", "5",
                          "--unlock-limit", "3", "--limit-window", "5", "--threads", "8",
                          "--header-timeout", "2")

    @classmethod
    def tearDownClass(cls):
        cls.svc.close()

    def part_request(self, created, number, headers, body=b""):
        head = "PUT /api/transfers/%s/parts/%d HTTP/1.1\r\nHost: x\r\nX-Owner-Token: %s\r\n" % (
            created["id"], number, created["ownerToken"])
        return (head + headers + "\r\n").encode() + body

    def open_files(self):
        return len(os.listdir("/proc/%d/fd" % self.svc.proc.pid))

    def test_part_without_length_releases_everything(self):
        c = self.create(8)
        before = self.open_files()
        for _ in range(40):
            a, _ = self.svc.raw(self.part_request(c, 1, ""))
            self.assert_error(a, 411, "length_required")
        self.assertLess(self.open_files(), before + 5)
        self.assertEqual([n for n in os.listdir(self.folder(c)) if ".tmp-" in n], [])
        chunked = self.part_request(c, 1, "Transfer-Encoding: chunked\r\n", b"4\r\n0123\r\n0\r\n\r\n")
        self.assertEqual(self.svc.raw(chunked)[0].status, 200)

    def test_malformed_content_length(self):
        c = self.create(8)
        json_head = "POST /api/transfers HTTP/1.1\r\nHost: x\r\nContent-Type: application/json\r\n"
        table = [
            # (Content-Length value, status of a part, status of JSON); each is answered at
            # once, then the connection closes. An empty value counts as none.
            ("abc", 400, 400), ("-5", 400, 400), ("100x", 400, 400), ("2^63", 400, 400),
            ("1 2", 400, 400), ("+4", 400, 400), ("", 411, 400),
            ("9223372036854775808", 413, 413), ("99999999999999999999999", 413, 413),
        ]
        for value, part_status, json_status in table:
            for target, status in [("part", part_status), ("json", json_status)]:
                with self.subTest(value=value, target=target):
                    headers = "Content-Length: %s\r\n" % value
                    if target == "part":
                        request = self.part_request(c, 1, headers, b"01")
                    else:
                        request = (json_head + headers + "\r\n").encode() + b"{}"
                    a, closed = self.svc.raw(request, check_closed=True)
                    self.assert_error(a, status)
                    self.assertTrue(closed)
        two = self.part_request(c, 1, "Content-Length: 4\r\nContent-Length: 5\r\n", b"0123")
        self.assert_error(self.svc.raw(two)[0], 400)
        self.assertEqual(self.svc.raw(self.part_request(c, 1, "Content-Length: 4\r\n", b"0123"))[0]
                         .status, 200)

    def wait_for(self, answer):
        """Checks a 429 and sleeps for its Retry-After."""
        self.assert_error(answer, 429, "rate_limited")
        wait = int(answer.header("Retry-After"))
        self.assertTrue(1 <= wait <= 5, wait)
        time.sleep(wait)

    def test_code_lookups_are_limited_per_address(self):
        c, _ = self.send(b"guess me")
        for n in range(5):
            self.assert_error(self.get("/api/code/%06d" % n), 404)
        for path in ["/api/code/" + c["code"], "/r/" + c["code"]]:
            with self.subTest(path):
                self.assertEqual(self.get(path).status, 429)
        other = self.get("/api/code/" + c["code"], args=["--interface", "127.0.0.2"])
        self.assertEqual((other.status, other.json()), (200, {"id": c["id"]}))
        self.wait_for(self.get("/api/code/" + c["code"]))
        self.assertEqual(self.get("/api/code/" + c["code"]).json(), {"id": c["id"]})

    def test_unlock_attempts_are_limited_per_transfer(self):
        c, _ = self.send(b"locked", password="right")
        other, _ = self.send(b"also locked", password="right")
        unlock = "/api/transfers/%s/unlock"
        for _ in range(3):
            self.assert_error(self.post(unlock % c["id"], {"password": "wrong"}), 403)
        page = self.post("/d/" + c["id"], "password=right",
                         {"Content-Type": "application/x-www-form-urlencoded"})
        self.assertEqual(page.status, 429)
        self.assertEqual(self.post(unlock % other["id"], {"password": "right"}).status, 200)
        self.wait_for(self.post(unlock % c["id"], {"password": "right"}))
        token = self.post(unlock % c["id"], {"password": "right"}).json()["token"]
        self.assertEqual(self.get("/dl/%s?t=%s" % (c["id"], token)).body, b"locked")

    def test_slow_clients_cannot_stop_a_send(self):
        stop = threading.Event()
        slow = [self.svc.connect() for _ in range(16)]  # twice the workers

        def trickle():
            for s in slow:
                s.sendall(b"GET / HTTP/1.1\r\nHost: x\r\n")
            while not stop.wait(0.5):
                for s in slow:
                    try:
                        s.sendall(b"X-Slow: 1\r\n")
                    except OSError:
                        pass

        sender = threading.Thread(target=trickle)
        sender.start()
        try:
            time.sleep(0.5)
            c, _ = self.send(b"sent while others trickle")
            self.assertEqual(self.get("/dl/" + c["id"]).body, b"sent while others trickle")
        finally:
            stop.set()
            sender.join()
            for s in slow:
                s.close()
        def headers_of(total, line=4000):
            """A request whose line and headers, up to the blank line, are `total` bytes."""
            head = "GET /api/me HTTP/1.1\r\nHost: x\r\n"
            left = total - len(head) - 2
            lines = ["X-Pad: %s\r\n" % ("b" * (line - 9))] * (left // line)
            if left % line:
                lines.append("X-Pad: %s\r\n" % ("b" * max(left % line - 9, 0)))
            return (head + "".join(lines) + "\r\n").encode()

        # The block is bounded at 64 KiB; the library itself refuses a line over 8 KiB (400).
        table = [("64 KiB of headers", headers_of(64 * 1024), 200),
                 ("one byte more", headers_of(64 * 1024 + 1), 431),
                 ("many short lines", headers_of(200 * 1024, line=12), 431),
                 ("one 9 KiB line", headers_of(9 * 1024 + 40, line=9 * 1024), 400)]
        for name, request, status in table:
            with self.subTest(name):
                a, _ = self.svc.raw(request)
                self.assertEqual(a.status, status, a.body)
        self.assertEqual(len(headers_of(64 * 1024)), 64 * 1024)

    def test_parallel_downloads_respect_the_limit(self):
        payload = os.urandom(1000)
        c, _ = self.send(payload, part_size=400, maxDownloads=1)
        # Each download takes about two seconds, so all eight are under way together.
        self.post("/__test/faults", {"method": "GET", "path": "/dl/*", "count": 8, "trickleMs": 2})
        with tempfile.TemporaryDirectory() as tmp:
            runs = []
            for n in range(8):
                out = os.path.join(tmp, "dl%d" % n)
                runs.append((out, subprocess.Popen(
                    ["curl", "-sS", "-o", out, "-w", "%{http_code}",
                     self.svc.origin + "/dl/" + c["id"]], stdout=subprocess.PIPE)))
            statuses = [int(p.communicate(timeout=60)[0]) for _, p in runs]
            whole = [out for out, _ in runs if read(out) == payload]
        self.svc.curl("DELETE", "/__test/faults")
        self.assertEqual(len(whole), 1, statuses)
        self.assertTrue(set(statuses) <= {200, 410, 429}, statuses)
        self.assertEqual(self.get("/api/transfers/" + c["id"]).json()["downloads"], 1)
        self.assert_error(self.get("/dl/" + c["id"]), 410, "limit_reached")

    def test_late_part_cannot_replace_completed_bytes(self):
        c = self.create(8)
        etags = self.put_parts(c, b"01234567", [1, 2])
        with self.svc.connect() as late:
            late.sendall(self.part_request(c, 1, "Content-Length: 4\r\n", b"XX"))
            time.sleep(0.3)
            self.assertEqual(self.complete(c, part_list(etags)).status, 200)
            late.sendall(b"YY")
            self.assertIn(b" 409 ", late.recv(4096).split(b"\r\n")[0] + b" ")
        self.assertEqual(self.get("/dl/" + c["id"]).body, b"01234567")


class FilesTest(ServiceCase):
    def test_private_modes(self):
        with tempfile.TemporaryDirectory() as tmp:
            data = os.path.join(tmp, "data")
            os.mkdir(data, 0o755)
            self.svc = Service(BINARY, "--min-part-size", "4", data=data)
            try:
                c, _ = self.send(b"private bytes")
                paths = {".": 0o700, "transfers": 0o700, "transfers/" + c["id"]: 0o700,
                         "lofthaven.db": 0o600, "lofthaven.db-wal": 0o600,
                         "transfers/%s/part-000001" % c["id"]: 0o600}
                for path, mode in paths.items():
                    with self.subTest(path):
                        got = os.stat(os.path.join(data, path)).st_mode & 0o777
                        self.assertEqual(oct(got), oct(mode))
            finally:
                self.svc.close()

    def test_full_disk_answers_507(self):
        probe = subprocess.run(["unshare", "--user", "--map-root-user", "--mount", "true"],
                               capture_output=True)
        if probe.returncode != 0:
            self.skipTest("no user namespaces here to mount a small file system")
        data = tempfile.mkdtemp(prefix="lh-full-")
        mount = 'mount -t tmpfs -o size=1m tmpfs "$0" && exec "$@"'
        self.svc = Service(BINARY, "--min-part-size", "4", data=data,
                           wrapper=["unshare", "--user", "--map-root-user", "--mount", "sh", "-c",
                                    mount, data])
        try:
            chunk = 64 * 1024
            c = self.create(64 * chunk, chunk, name="big.bin", files=[])
            statuses = []
            for n in range(1, 65):
                a = self.put(c, n, os.urandom(chunk))
                statuses.append(a.status)
                if a.status != 200:
                    self.assertEqual(self.assert_error(a, 507, "storage_full")["message"],
                                     "The service is out of storage space.")
                    break
            self.assertEqual(statuses[-1], 507)
            # The metadata database now runs out of room too.
            for _ in range(100):
                a = self.post("/api/transfers", transfer_body(4, 4))
                if a.status != 200:
                    break
            self.assert_error(a, 507, "storage_full")
            self.assertNotIn(b"cannot rollback", read(os.path.join(data, "stderr.log")))
        finally:
            self.svc.stop()
            shutil.rmtree(data, ignore_errors=True)


class ProcessTest(ServiceCase):
    def test_hooks_absent_without_flag(self):
        self.svc = Service(BINARY)
        try:
            for method, path in [("GET", "/__test/log"), ("POST", "/__test/faults"),
                                 ("POST", "/__test/device/approve")]:
                self.assertEqual(self.svc.curl(method, path, {}).status, 404)
            self.assertEqual(self.svc.stop(), 0)
        finally:
            self.svc.close()

    def test_hooks_refuse_public_address(self):
        run = subprocess.run([BINARY, "--listen", "0.0.0.0:0", "--data", "/tmp/unused",
                              "--test-hooks"], capture_output=True, timeout=10)
        self.assertEqual(run.returncode, 2)
        self.assertIn(b"loopback", run.stderr)

    def test_parts_survive_sigkill(self):
        self.svc = Service(BINARY, "--min-part-size", str(MiB))
        try:
            payload = os.urandom(6 * MiB)
            c = self.create(len(payload), MiB, name="big.bin", files=[])
            etags = self.put_parts(c, payload, [1, 2, 3, 5])
            # Part 4 is in flight (throttled) when the service is killed.
            src = os.path.join(self.svc.data, "p4.bin")
            with open(src, "wb") as f:
                f.write(payload[3 * MiB:4 * MiB])
            slow = subprocess.Popen(["curl", "-sS", "-X", "PUT", "--limit-rate", "200K", "-T", src,
                                     "-H", "X-Owner-Token: " + c["ownerToken"],
                                     self.svc.origin + "/api/transfers/%s/parts/4" % c["id"]],
                                    stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            time.sleep(1.0)
            self.svc.restart_after_kill()
            slow.wait(timeout=10)
            incomplete = self.complete(c, part_list(etags))
            self.assertIn("Part 4", self.assert_error(incomplete, 409, "incomplete")["message"])
            etags.update(self.put_parts(c, payload, [4, 6]))
            a = self.complete(c, part_list(etags))
            self.assertEqual(a.status, 200, a.body)
            self.assertEqual(self.get("/dl/" + c["id"]).body, payload)
        finally:
            self.svc.close()


if __name__ == "__main__":
    BINARY = sys.argv.pop(1)
    unittest.main(verbosity=2)
