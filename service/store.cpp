#include "store.h"

#include <sqlite3.h>

#include <cerrno>
#include <stdexcept>

namespace lofthaven::service {

namespace {

const char *kSchema = R"sql(
CREATE TABLE IF NOT EXISTS users (
  id TEXT PRIMARY KEY, email TEXT UNIQUE NOT NULL, name TEXT, created_at INTEGER NOT NULL);
CREATE TABLE IF NOT EXISTS sessions (
  token_hash TEXT PRIMARY KEY, user_id TEXT NOT NULL, device TEXT, created_at INTEGER NOT NULL,
  revoked INTEGER NOT NULL DEFAULT 0);
CREATE TABLE IF NOT EXISTS device_logins (
  code_hash TEXT PRIMARY KEY, user_code TEXT UNIQUE NOT NULL, name TEXT, created_at INTEGER NOT NULL,
  expires_at INTEGER NOT NULL, interval_ms INTEGER NOT NULL, last_poll INTEGER,
  state TEXT NOT NULL, user_id TEXT);
CREATE TABLE IF NOT EXISTS transfers (
  id TEXT PRIMARY KEY, code TEXT NOT NULL, owner_hash TEXT NOT NULL, user_id TEXT,
  name TEXT NOT NULL, size INTEGER NOT NULL, mime TEXT, files TEXT NOT NULL, title TEXT,
  message TEXT, created_at INTEGER NOT NULL, expires_at INTEGER NOT NULL,
  max_downloads INTEGER NOT NULL, downloads INTEGER NOT NULL DEFAULT 0, password_hash TEXT,
  part_size INTEGER NOT NULL, part_count INTEGER NOT NULL, state TEXT NOT NULL,
  extended INTEGER NOT NULL DEFAULT 0, to_self INTEGER NOT NULL DEFAULT 0, device TEXT,
  source TEXT, creator TEXT);
CREATE INDEX IF NOT EXISTS transfers_code ON transfers(code);
CREATE INDEX IF NOT EXISTS transfers_user ON transfers(user_id);
CREATE TABLE IF NOT EXISTS parts (
  transfer_id TEXT NOT NULL, part_number INTEGER NOT NULL, size INTEGER NOT NULL,
  etag TEXT NOT NULL, PRIMARY KEY (transfer_id, part_number));
CREATE TABLE IF NOT EXISTS unlock_tokens (
  token_hash TEXT PRIMARY KEY, transfer_id TEXT NOT NULL, expires_at INTEGER NOT NULL);
)sql";

} // namespace

Store::Store(const std::string &path)
{
    if (sqlite3_open_v2(path.c_str(), &m_db,
                        SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX,
                        nullptr) != SQLITE_OK) {
        const std::string message = m_db ? sqlite3_errmsg(m_db) : "out of memory";
        sqlite3_close(m_db);
        throw std::runtime_error("cannot open " + path + ": " + message);
    }
    sqlite3_busy_timeout(m_db, 5000);
    execRaw("PRAGMA journal_mode=WAL");
    // NORMAL is durable across a killed process; a power cut may lose the
    // last commits, which only unregisters parts that the client retries.
    execRaw("PRAGMA synchronous=NORMAL");
    execRaw("PRAGMA foreign_keys=ON");
    migrate();
}

Store::~Store()
{
    sqlite3_close(m_db);
}

void Store::execRaw(const std::string &sql)
{
    std::lock_guard lock(m_mutex);
    char *err = nullptr;
    const int rc = sqlite3_exec(m_db, sql.c_str(), nullptr, nullptr, &err);
    if (rc != SQLITE_OK) {
        std::string message = err ? err : "unknown";
        sqlite3_free(err);
        raise("sqlite: " + message, rc);
    }
}

void Store::rollback() noexcept
{
    std::lock_guard lock(m_mutex);
    if (!sqlite3_get_autocommit(m_db))
        sqlite3_exec(m_db, "ROLLBACK", nullptr, nullptr, nullptr);
}

void Store::raise(const std::string &what, int code)
{
    const int primary = code & 0xff;
    throw StoreError(what, primary == SQLITE_FULL ||
                               (primary == SQLITE_IOERR && sqlite3_system_errno(m_db) == ENOSPC));
}

void Store::migrate()
{
    execRaw(kSchema);
}

std::vector<Store::Row> Store::query(const std::string &sql, const std::vector<Value> &params)
{
    std::lock_guard lock(m_mutex);
    sqlite3_stmt *stmt = nullptr;
    const int prepared = sqlite3_prepare_v2(m_db, sql.c_str(), -1, &stmt, nullptr);
    if (prepared != SQLITE_OK)
        raise(std::string("sqlite prepare: ") + sqlite3_errmsg(m_db), prepared);
    for (size_t i = 0; i < params.size(); ++i) {
        const int at = static_cast<int>(i + 1);
        const auto &p = params[i];
        if (std::holds_alternative<std::nullptr_t>(p))
            sqlite3_bind_null(stmt, at);
        else if (auto *n = std::get_if<int64_t>(&p))
            sqlite3_bind_int64(stmt, at, *n);
        else if (auto *d = std::get_if<double>(&p))
            sqlite3_bind_double(stmt, at, *d);
        else {
            const auto &s = std::get<std::string>(p);
            sqlite3_bind_text(stmt, at, s.data(), static_cast<int>(s.size()), SQLITE_TRANSIENT);
        }
    }
    std::vector<Row> rows;
    for (;;) {
        const int rc = sqlite3_step(stmt);
        if (rc == SQLITE_DONE)
            break;
        if (rc != SQLITE_ROW) {
            const std::string message = sqlite3_errmsg(m_db);
            sqlite3_finalize(stmt);
            raise("sqlite step: " + message, rc);
        }
        Row row;
        const int columns = sqlite3_column_count(stmt);
        for (int c = 0; c < columns; ++c) {
            switch (sqlite3_column_type(stmt, c)) {
            case SQLITE_NULL:
                row.emplace_back(nullptr);
                break;
            case SQLITE_INTEGER:
                row.emplace_back(static_cast<int64_t>(sqlite3_column_int64(stmt, c)));
                break;
            case SQLITE_FLOAT:
                row.emplace_back(sqlite3_column_double(stmt, c));
                break;
            default:
                row.emplace_back(
                    std::string(reinterpret_cast<const char *>(sqlite3_column_text(stmt, c)),
                                static_cast<size_t>(sqlite3_column_bytes(stmt, c))));
            }
        }
        rows.push_back(std::move(row));
    }
    sqlite3_finalize(stmt);
    return rows;
}

int64_t Store::exec(const std::string &sql, const std::vector<Value> &params)
{
    std::lock_guard lock(m_mutex);
    query(sql, params);
    return sqlite3_changes64(m_db);
}

std::string Store::text(const Value &v)
{
    if (auto *s = std::get_if<std::string>(&v))
        return *s;
    if (auto *n = std::get_if<int64_t>(&v))
        return std::to_string(*n);
    return {};
}

int64_t Store::integer(const Value &v)
{
    if (auto *n = std::get_if<int64_t>(&v))
        return *n;
    if (auto *d = std::get_if<double>(&v))
        return static_cast<int64_t>(*d);
    return 0;
}

std::optional<std::string> Store::optText(const Value &v)
{
    if (auto *s = std::get_if<std::string>(&v))
        return *s;
    return std::nullopt;
}

} // namespace lofthaven::service
