#include "sweeper.h"

#include <chrono>
#include <cstdio>
#include <filesystem>

namespace fs = std::filesystem;

namespace lofthaven::service {

namespace {

constexpr int64_t kKeepExpiredMs = 7LL * 86400 * 1000;

} // namespace

Sweeper::Sweeper(ServiceContext &context)
    : m_context(context)
{}

Sweeper::~Sweeper()
{
    stop();
}

void Sweeper::start()
{
    m_thread = std::thread([this] { loop(); });
}

void Sweeper::stop()
{
    {
        std::lock_guard lock(m_mutex);
        m_stopping = true;
    }
    m_wake.notify_all();
    if (m_thread.joinable() && m_thread.get_id() != std::this_thread::get_id())
        m_thread.join();
}

void Sweeper::sweep()
{
    const int64_t t = m_context.now();
    // Expired transfers lose their bytes at once but keep a row for a week,
    // so links answer "expired" rather than "not found".
    for (const auto &row : m_context.store().query(
             "SELECT id, state FROM transfers WHERE expires_at <= ? AND state != 'expired'", {t})) {
        const std::string id = Store::text(row[0]);
        if (Store::text(row[1]) == "uploading") {
            m_context.store().transaction([&] {
                m_context.store().exec("DELETE FROM parts WHERE transfer_id = ?", {id});
                m_context.store().exec("DELETE FROM transfers WHERE id = ?", {id});
            });
        } else {
            m_context.store().transaction([&] {
                m_context.store().exec("DELETE FROM parts WHERE transfer_id = ?", {id});
                m_context.store().exec("DELETE FROM unlock_tokens WHERE transfer_id = ?", {id});
                m_context.store().exec("UPDATE transfers SET state = 'expired' WHERE id = ?", {id});
            });
        }
        m_context.deleteTransferFiles(id);
    }
    m_context.store().exec("DELETE FROM transfers WHERE state = 'expired' AND expires_at < ?",
                           {t - kKeepExpiredMs});
    // Left-over temporary files of parts whose upload was cut.
    std::error_code ec;
    for (const auto &dir :
         fs::directory_iterator(fs::path(m_context.options().dataDir) / "transfers", ec)) {
        if (!m_context.transferRow(dir.path().filename().string())) {
            fs::remove_all(dir.path(), ec);
            continue;
        }
        for (const auto &f : fs::directory_iterator(dir.path(), ec)) {
            const auto name = f.path().filename().string();
            if (name.find(".tmp-") == std::string::npos)
                continue;
            const auto age = fs::file_time_type::clock::now() - fs::last_write_time(f.path(), ec);
            if (age > std::chrono::hours(1))
                fs::remove(f.path(), ec);
        }
    }
}

void Sweeper::loop()
{
    std::unique_lock lock(m_mutex);
    while (!m_stopping) {
        m_wake.wait_for(lock, std::chrono::seconds(m_context.options().sweepSeconds));
        if (m_stopping)
            break;
        lock.unlock();
        try {
            sweep();
        } catch (const std::exception &e) {
            std::fprintf(stderr, "sweep failed: %s\n", e.what());
        }
        lock.lock();
    }
}

} // namespace lofthaven::service
