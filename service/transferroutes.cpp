#include "transferroutes.h"

#include "failure.h"
#include "secrets.h"
#include "transfercolumns.h"

#include <QJsonArray>
#include <QJsonDocument>

#include <filesystem>

namespace fs = std::filesystem;

namespace lofthaven::service {

namespace {

constexpr int64_t kMaxListedFiles = 500;
constexpr int64_t kExtendMs = 3LL * 86400 * 1000;

} // namespace

TransferRoutes::TransferRoutes(ServiceContext &context)
    : m_context(context)
{}

void TransferRoutes::addTo(Router &router)
{
    using B = Router::Body;
    const std::string id = Router::kId;
    const std::string one = "/api/transfers/" + id;
    router.add("GET", "/api/code/([^/]*)", B::None, [this](Exchange &x) { codeLookup(x); });
    router.add("GET", one, B::None, [this](Exchange &x) { transferMeta(x); });
    router.add("POST", one + "/unlock", B::Json, [this](Exchange &x) { unlock(x); });
    router.add("POST", "/api/transfers", B::Json, [this](Exchange &x) { createTransfer(x); });
    router.add("POST", one + "/complete", B::Json, [this](Exchange &x) { complete(x); });
    router.add("POST", one + "/abort", B::Json, [this](Exchange &x) { abort(x); });
    router.add("POST", one + "/extend", B::Json, [this](Exchange &x) { extend(x); });
    router.add("DELETE", one, B::Json, [this](Exchange &x) { remove(x); });
}

void TransferRoutes::codeLookup(Exchange &x)
{
    m_context.limitCodeLookup(x.req);
    const std::string code = x.match(1);
    if (code.size() != 6 || code.find_first_not_of("0123456789") != std::string::npos)
        fail(404, "not_found", "A code has 6 digits.");
    const auto rows = m_context.store().query(
        "SELECT id, expires_at FROM transfers WHERE code = ? AND state = 'ready' "
        "ORDER BY expires_at DESC LIMIT 1",
        {code});
    if (rows.empty() || Store::integer(rows[0][1]) <= m_context.now())
        fail(404, "not_found", "No active transfer uses the code " + code + ".");
    sendJson(x.res, {{"id", qs(Store::text(rows[0][0]))}});
}

void TransferRoutes::transferMeta(Exchange &x)
{
    const auto row = m_context.transferRow(x.match(1));
    if (!row)
        fail(404, "not_found", "No transfer has this link.");
    const auto &r = *row;
    const bool owner = m_context.isOwner(x, r);
    const std::string state = Store::text(r[cState]);
    if (state == "uploading" && !owner)
        fail(404, "not_found", "This transfer is still uploading.");
    if (state == "expired" || Store::integer(r[cExpires]) <= m_context.now())
        fail(410, "expired", "This transfer has expired.");
    sendJson(x.res, m_context.metaJson(r));
}

void TransferRoutes::unlock(Exchange &x)
{
    const auto body = x.json();
    const auto password = body.value("password");
    const std::string token = m_context.unlock(
        x.match(1), password.isString() ? std::optional(str(password.toString())) : std::nullopt);
    sendJson(x.res, {{"token", qs(token)}});
}

void TransferRoutes::createTransfer(Exchange &x)
{
    const auto b = x.json();
    const bool signedIn = x.user.has_value();
    const std::string name = str(b.value("name").toString());
    if (name.empty() || name.size() > 1024)
        fail(400, "bad_request", "name must be a non-empty string.");
    if (!b.value("size").isDouble() || b.value("size").toInteger(-1) < 0)
        fail(400, "bad_request", "size must be a whole number of bytes.");
    const int64_t size = b.value("size").toInteger();
    const int64_t maxBytes =
        signedIn ? m_context.options().accountMaxBytes : m_context.options().anonymousMaxBytes;
    if (size > maxBytes)
        fail(413, "too_large",
             signedIn ? "This transfer is larger than your plan allows."
                      : "Transfers without an account are limited; sign in to send more.",
             maxBytes);
    const auto &allowed =
        signedIn ? m_context.options().accountExpiries : m_context.options().anonymousExpiries;
    const int64_t expiresIn = b.value("expiresIn").toInteger(-1);
    if (std::find(allowed.begin(), allowed.end(), expiresIn) == allowed.end()) {
        std::string list;
        for (auto e : allowed)
            list += (list.empty() ? "" : ", ") + std::to_string(e);
        fail(400, "bad_expiry",
             "expiresIn must be one of " + list + " seconds" +
                 (signedIn ? "." : " without an account."));
    }
    const int64_t maxDownloads = b.value("maxDownloads").toInteger(0);
    if (maxDownloads < 0)
        fail(400, "bad_request", "maxDownloads must not be negative.");
    QJsonArray files;
    for (const auto &f : b.value("files").toArray()) {
        const auto o = f.toObject();
        if (!o.value("name").isString() || !o.value("size").isDouble())
            fail(400, "bad_request", "files entries need a name and a size.");
        if (files.size() < kMaxListedFiles)
            files.append(QJsonObject{{"name", o.value("name")},
                                     {"size", static_cast<qint64>(o.value("size").toInteger())}});
    }
    const bool toSelf = b.value("toSelf").toBool(false);
    if (toSelf && !signedIn)
        fail(401, "unauthorized", "Sign in to send to your own devices.");
    int64_t partSize = b.value("partSize").toInteger(16 * 1024 * 1024);
    partSize =
        std::clamp(partSize, m_context.options().minPartSize, m_context.options().maxPartSize);
    const int64_t partCount = std::max<int64_t>(1, (size + partSize - 1) / partSize);
    const int64_t t = m_context.now();

    if (m_context.options().dailyQuotaBytes > 0) {
        const std::string creator = signedIn ? "user:" + x.user->id : "ip:" + x.req.remote_addr;
        const auto used = m_context.store().query(
            "SELECT COALESCE(SUM(size), 0) FROM transfers WHERE creator = ? AND created_at > ?",
            {creator, t - 86400000});
        if (Store::integer(used.at(0).at(0)) + size > m_context.options().dailyQuotaBytes)
            fail(429, "quota", "Daily limit reached. Try again tomorrow.",
                 m_context.options().dailyQuotaBytes);
    }

    auto optional = [&](const char *key, size_t cap) -> Store::Value {
        const auto v = b.value(key);
        if (!v.isString() || v.toString().isEmpty())
            return nullptr;
        return str(v.toString()).substr(0, cap);
    };
    Store::Value passwordHash = nullptr;
    if (b.value("password").isString() && !b.value("password").toString().isEmpty())
        passwordHash = hashPassword(str(b.value("password").toString()));

    const std::string id = randomAlnum(12);
    const std::string ownerToken = randomAlnum(43); // > 128 bits
    const std::string code = m_context.store().transaction([&] {
        std::string candidate;
        for (;;) {
            candidate = randomDigits(6);
            if (m_context.store()
                    .query("SELECT 1 FROM transfers WHERE code = ? AND state != 'expired' "
                           "AND expires_at > ?",
                           {candidate, t})
                    .empty())
                break;
        }
        m_context.store().exec(
            "INSERT INTO transfers (id, code, owner_hash, user_id, name, size, mime, files, title, "
            "message, created_at, expires_at, max_downloads, password_hash, part_size, part_count, "
            "state, to_self, device, source, creator) "
            "VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, 'uploading', ?, ?, ?, ?)",
            {id,
             candidate,
             sha256Hex(ownerToken),
             signedIn ? Store::Value(x.user->id) : Store::Value(nullptr),
             name,
             size,
             optional("mime", 255),
             QJsonDocument(files).toJson(QJsonDocument::Compact).toStdString(),
             optional("title", 200),
             optional("message", 2000),
             t,
             t + expiresIn * 1000,
             maxDownloads,
             passwordHash,
             partSize,
             partCount,
             int64_t(toSelf ? 1 : 0),
             optional("device", 120),
             optional("source", 60),
             signedIn ? "user:" + x.user->id : "ip:" + x.req.remote_addr});
        return candidate;
    });
    fs::create_directories(m_context.transferDir(id));
    sendJson(x.res, {{"id", qs(id)},
                     {"code", qs(code)},
                     {"ownerToken", qs(ownerToken)},
                     {"partSize", static_cast<qint64>(partSize)},
                     {"partCount", static_cast<qint64>(partCount)},
                     {"url", qs(m_context.publicOrigin() + "/d/" + id)},
                     {"codeUrl", qs(m_context.publicOrigin() + "/r/" + code)},
                     {"expiresAt", static_cast<double>(t + expiresIn * 1000)}});
}

void TransferRoutes::complete(Exchange &x)
{
    const std::string id = x.match(1);
    const auto body = x.json();
    const Store::Row r =
        m_context.ownedTransfer(x, id, "The owner token does not match this transfer.");
    const std::string code = Store::text(r[cCode]);
    auto answer = [&] {
        sendJson(x.res, {{"id", qs(id)},
                         {"code", qs(code)},
                         {"url", qs(m_context.publicOrigin() + "/d/" + id)},
                         {"codeUrl", qs(m_context.publicOrigin() + "/r/" + code)},
                         {"expiresAt", static_cast<double>(Store::integer(r[cExpires]))},
                         {"size", static_cast<qint64>(Store::integer(r[cSize]))}});
    };
    if (Store::text(r[cState]) == "ready") {
        answer(); // a repeated complete gets the same answer
        return;
    }
    if (Store::integer(r[cExpires]) <= m_context.now())
        fail(410, "expired", "This transfer has expired.");
    const int64_t partCount = Store::integer(r[cPartCount]);
    const auto listed = body.value("parts").toArray();
    // Checked and marked in one transaction, so no part changes in between.
    m_context.store().transaction([&] {
        std::map<int64_t, std::string> stored;
        int64_t total = 0;
        for (const auto &p : m_context.store().query(
                 "SELECT part_number, size, etag FROM parts WHERE transfer_id = ?", {id})) {
            stored[Store::integer(p[0])] = Store::text(p[2]);
            total += Store::integer(p[1]);
        }
        for (int64_t n = 1; n <= partCount; ++n) {
            if (!stored.count(n))
                fail(409, "incomplete",
                     "Part " + std::to_string(n) + " of " + std::to_string(partCount) +
                         " has not arrived.");
        }
        if (total != Store::integer(r[cSize]))
            fail(409, "size_mismatch",
                 "The parts hold " + std::to_string(total) + " bytes, not " +
                     std::to_string(Store::integer(r[cSize])) + ".");
        if (listed.size() != partCount)
            fail(409, "incomplete",
                 "The list names " + std::to_string(listed.size()) + " of " +
                     std::to_string(partCount) + " parts.");
        for (int64_t i = 0; i < partCount; ++i) {
            const auto p = listed[i].toObject();
            const int64_t n = p.value("partNumber").toInteger(-1);
            if (n != i + 1)
                fail(409, "bad_order", "Parts must be listed in order from 1.");
            if (str(p.value("etag").toString()) != stored[n])
                fail(409, "etag_mismatch",
                     "Part " + std::to_string(n) +
                         " was replaced or is wrong; "
                         "upload it again.");
        }
        m_context.store().exec(
            "UPDATE transfers SET state = 'ready' WHERE id = ? AND state = 'uploading'", {id});
    });
    answer();
}

void TransferRoutes::abort(Exchange &x)
{
    const std::string id = x.match(1);
    const Store::Row r =
        m_context.ownedTransfer(x, id, "The owner token does not match this transfer.");
    if (Store::text(r[cState]) == "ready")
        fail(409, "already_complete", "This transfer is complete; delete it instead.");
    m_context.discardTransfer(id);
    sendJson(x.res, {{"ok", true}});
}

void TransferRoutes::extend(Exchange &x)
{
    const std::string id = x.match(1);
    const Store::Row r =
        m_context.ownedTransfer(x, id, "Only the sender can extend this transfer.");
    if (Store::text(r[cState]) == "expired" || Store::integer(r[cExpires]) <= m_context.now())
        fail(410, "expired", "This transfer has expired.");
    const int64_t changed =
        m_context.store().exec("UPDATE transfers SET expires_at = expires_at + ?, "
                               "extended = 1 WHERE id = ? AND extended = 0",
                               {kExtendMs, id});
    if (changed == 0)
        fail(409, "already_extended", "This transfer was already extended once.");
    const auto updated = m_context.transferRow(id);
    sendJson(x.res, {{"expiresAt", static_cast<double>(Store::integer((*updated)[cExpires]))}});
}

void TransferRoutes::remove(Exchange &x)
{
    const std::string id = x.match(1);
    const Store::Row r =
        m_context.ownedTransfer(x, id, "Only the sender can delete this transfer.");
    m_context.discardTransfer(id);
    sendJson(x.res, {{"ok", true}});
}

} // namespace lofthaven::service
