#include "servicecontext.h"

#include "failure.h"
#include "secrets.h"
#include "transfercolumns.h"

#include <QByteArray>
#include <QJsonArray>
#include <QJsonDocument>

#include <arpa/inet.h>
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>

namespace fs = std::filesystem;

namespace lofthaven::service {

ServiceContext::ServiceContext(ServiceOptions options)
    : m_options(std::move(options))
    , m_lookups(m_options.lookupLimit, m_options.limitWindow * 1000)
    , m_unlocks(m_options.unlockLimit, m_options.limitWindow * 1000)
{
    // Password hashes, e-mail addresses and messages: readable by the service alone,
    // also when the folder was made earlier with wider modes.
    const fs::path data(m_options.dataDir);
    fs::create_directories(data / "transfers");
    fs::permissions(data, fs::perms::owner_all);
    fs::permissions(data / "transfers", fs::perms::owner_all);
    const std::string db = (data / "lofthaven.db").string();
    ::close(::open(db.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
    for (const char *suffix : {"", "-wal", "-shm"}) {
        std::error_code ec;
        fs::permissions(db + suffix, fs::perms::owner_read | fs::perms::owner_write, ec);
    }
    m_store = std::make_unique<Store>(db);
}

int64_t ServiceContext::now() const
{
    using namespace std::chrono;
    return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count() +
           m_clockOffsetMs.load();
}

// ---- accounts --------------------------------------------------------------

std::optional<Exchange::User> ServiceContext::userForToken(const std::string &token)
{
    const auto rows = m_store->query(
        "SELECT u.id, u.email, u.name FROM sessions s JOIN users u ON u.id = s.user_id "
        "WHERE s.token_hash = ? AND s.revoked = 0",
        {sha256Hex(token)});
    if (rows.empty())
        return std::nullopt;
    return Exchange::User{Store::text(rows[0][0]), Store::text(rows[0][1]),
                          Store::text(rows[0][2])};
}

QJsonObject ServiceContext::limitsFor(bool signedIn) const
{
    QJsonArray expiries;
    for (auto e : signedIn ? m_options.accountExpiries : m_options.anonymousExpiries)
        expiries.append(static_cast<qint64>(e));
    return {{"maxBytes", static_cast<qint64>(signedIn ? m_options.accountMaxBytes
                                                      : m_options.anonymousMaxBytes)},
            {"expiries", expiries}};
}

QJsonObject ServiceContext::plans() const
{
    return {{"free", "Free: transfers up to 2 GB, links that last up to 7 days."}};
}

QJsonObject ServiceContext::userJson(const Exchange::User &u)
{
    QJsonObject o{{"id", qs(u.id)}, {"email", qs(u.email)}};
    if (!u.name.empty())
        o.insert("name", qs(u.name));
    return o;
}

// ---- transfers -------------------------------------------------------------

std::optional<Store::Row> ServiceContext::transferRow(const std::string &id)
{
    auto rows = m_store->query(
        std::string("SELECT ") + kTransferColumns + " FROM transfers WHERE id = ?", {id});
    if (rows.empty())
        return std::nullopt;
    return rows[0];
}

std::string ServiceContext::transferDir(const std::string &id) const
{
    return (fs::path(m_options.dataDir) / "transfers" / id).string();
}

std::string ServiceContext::partPath(const std::string &id, int64_t number) const
{
    char name[32];
    std::snprintf(name, sizeof name, "/part-%06lld", static_cast<long long>(number));
    return transferDir(id) + name;
}

void ServiceContext::deleteTransferFiles(const std::string &id)
{
    std::error_code ec;
    fs::remove_all(transferDir(id), ec);
}

// Metadata first, in one transaction, then the bytes: a crash in between leaves only
// unreferenced files, which the sweep removes.
void ServiceContext::discardTransfer(const std::string &id)
{
    m_store->transaction([&] {
        m_store->exec("DELETE FROM parts WHERE transfer_id = ?", {id});
        m_store->exec("DELETE FROM unlock_tokens WHERE transfer_id = ?", {id});
        m_store->exec("DELETE FROM transfers WHERE id = ?", {id});
    });
    deleteTransferFiles(id);
}

QJsonObject ServiceContext::metaJson(const Store::Row &r)
{
    const int64_t t = now();
    QJsonObject o{{"id", qs(Store::text(r[cId]))},
                  {"name", qs(Store::text(r[cName]))},
                  {"size", static_cast<qint64>(Store::integer(r[cSize]))},
                  {"createdAt", static_cast<double>(Store::integer(r[cCreated]))},
                  {"expiresAt", static_cast<double>(Store::integer(r[cExpires]))},
                  {"downloads", static_cast<qint64>(Store::integer(r[cDownloads]))},
                  {"maxDownloads", static_cast<qint64>(Store::integer(r[cMaxDownloads]))},
                  {"hasPassword", !std::holds_alternative<std::nullptr_t>(r[cPassword])},
                  {"code", qs(Store::text(r[cCode]))},
                  {"url", qs(m_publicOrigin + "/d/" + Store::text(r[cId]))},
                  {"toSelf", Store::integer(r[cToSelf]) != 0}};
    const auto mime = Store::optText(r[cMime]);
    if (mime)
        o.insert("mime", qs(*mime));
    const std::string name = Store::text(r[cName]);
    const bool zipName = name.size() > 4 && (name.substr(name.size() - 4) == ".zip" ||
                                             name.substr(name.size() - 4) == ".ZIP");
    o.insert("isZip", (mime && *mime == "application/zip") || zipName);
    const auto files = QJsonDocument::fromJson(QByteArray::fromStdString(Store::text(r[cFiles])));
    o.insert("files", files.array());
    o.insert("fileCount", static_cast<qint64>(files.array().size()));
    if (auto v = Store::optText(r[cTitle]))
        o.insert("title", qs(*v));
    if (auto v = Store::optText(r[cMessage]))
        o.insert("message", qs(*v));
    if (auto v = Store::optText(r[cDevice]))
        o.insert("device", qs(*v));
    std::string status = Store::text(r[cState]);
    if (status == "ready" && Store::integer(r[cExpires]) <= t)
        status = "expired";
    else if (status == "ready" && Store::integer(r[cMaxDownloads]) > 0 &&
             Store::integer(r[cDownloads]) >= Store::integer(r[cMaxDownloads]))
        status = "limit_reached";
    o.insert("status", qs(status));
    return o;
}

bool ServiceContext::isOwner(const Exchange &x, const Store::Row &r)
{
    const std::string owner = x.header("X-Owner-Token");
    if (!owner.empty() && constantTimeEquals(sha256Hex(owner), Store::text(r[cOwner])))
        return true;
    return x.user && !std::holds_alternative<std::nullptr_t>(r[cUser]) &&
           x.user->id == Store::text(r[cUser]);
}

Store::Row ServiceContext::ownedTransfer(const Exchange &x, const std::string &id,
                                         const char *forbidden)
{
    auto row = transferRow(id);
    if (!row)
        fail(404, "not_found", "No transfer has this id.");
    if (!isOwner(x, *row))
        fail(403, "forbidden", forbidden);
    return std::move(*row);
}

// ---- guessing --------------------------------------------------------------

// The address a limit is kept for: the peer, or what a trusted proxy names.
// IPv6 clients get a /64 each, as one host usually holds a whole /64.
std::string ServiceContext::clientAddress(const httplib::Request &req) const
{
    std::string address = req.remote_addr;
    if (!m_options.clientAddressHeader.empty() && req.has_header(m_options.clientAddressHeader))
        address = req.get_header_value(m_options.clientAddressHeader);
    in6_addr v6{};
    if (inet_pton(AF_INET6, address.c_str(), &v6) == 1) {
        std::memset(v6.s6_addr + 8, 0, 8);
        char text[INET6_ADDRSTRLEN] = {};
        inet_ntop(AF_INET6, &v6, text, sizeof text);
        return std::string(text) + "/64";
    }
    return address;
}

// Six digits are few: without a limit the whole space is tried in minutes.
void ServiceContext::limitCodeLookup(const httplib::Request &req)
{
    if (const int64_t ms = m_lookups.take(clientAddress(req), now()))
        failTooMany(ms, "Too many code lookups from this address; wait a moment.");
}

std::string ServiceContext::unlock(const std::string &id,
                                   const std::optional<std::string> &password)
{
    const auto row = transferRow(id);
    if (!row || Store::text((*row)[cState]) == "uploading")
        fail(404, "not_found", "No transfer has this link.");
    const auto &r = *row;
    if (Store::text(r[cState]) == "expired" || Store::integer(r[cExpires]) <= now())
        fail(410, "expired", "This transfer has expired.");
    if (!password)
        fail(400, "bad_request", "password is missing.");
    const auto stored = Store::optText(r[cPassword]);
    // Failures count per transfer, whoever guesses; past the limit even the right
    // password waits, or the answer would tell a guesser when it was right.
    if (const int64_t ms = stored ? m_unlocks.wait(id, now()) : 0)
        failTooMany(ms, "Too many wrong passwords for this transfer; wait a moment.");
    if (stored && !verifyPassword(*password, *stored)) {
        m_unlocks.record(id, now());
        fail(403, "wrong_password", "Wrong password.");
    }
    const std::string token = randomAlnum(40);
    m_store->exec("DELETE FROM unlock_tokens WHERE expires_at < ?", {now()});
    m_store->exec(
        "INSERT INTO unlock_tokens (token_hash, transfer_id, expires_at) VALUES (?, ?, ?)",
        {sha256Hex(token), id, Store::integer(r[cExpires])});
    return token;
}

} // namespace lofthaven::service
