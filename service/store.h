#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <variant>
#include <vector>

struct sqlite3;

namespace lofthaven::service {

// A failed statement; full says the disk (or the database's size limit) ran out.
class StoreError : public std::runtime_error
{
public:
    StoreError(const std::string &what, bool full)
        : std::runtime_error(what)
        , m_full(full)
    {}
    bool full() const { return m_full; }

private:
    bool m_full;
};

// The metadata database: one SQLite connection in WAL mode, serialised by a
// mutex. Statements are short; bulk bytes never pass through here.
class Store
{
public:
    using Value = std::variant<std::nullptr_t, int64_t, double, std::string>;
    using Row = std::vector<Value>;

    explicit Store(const std::string &path);
    ~Store();
    Store(const Store &) = delete;
    Store &operator=(const Store &) = delete;

    // Runs one statement; returns the rows it yields.
    std::vector<Row> query(const std::string &sql, const std::vector<Value> &params = {});
    // Runs one statement; returns the number of changed rows.
    int64_t exec(const std::string &sql, const std::vector<Value> &params = {});
    // Runs fn inside BEGIN IMMEDIATE ... COMMIT, rolling back on an exception.
    template<typename Fn>
    auto transaction(Fn fn)
    {
        std::lock_guard lock(m_mutex); // one connection: hold it for the whole transaction
        execRaw("BEGIN IMMEDIATE");
        try {
            if constexpr (std::is_void_v<decltype(fn())>) {
                fn();
                execRaw("COMMIT");
            } else {
                auto result = fn();
                execRaw("COMMIT");
                return result;
            }
        } catch (...) {
            rollback();
            throw;
        }
    }

    static std::string text(const Value &v);
    static int64_t integer(const Value &v);
    static std::optional<std::string> optText(const Value &v);

private:
    void execRaw(const std::string &sql);
    // SQLite may already have rolled back by itself (a full disk at COMMIT); a
    // second ROLLBACK would fail and hide the first error.
    void rollback() noexcept;
    [[noreturn]] void raise(const std::string &what, int code);
    void migrate();

    sqlite3 *m_db = nullptr;
    std::recursive_mutex m_mutex;
};

} // namespace lofthaven::service
