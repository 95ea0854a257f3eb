// AppModel: the history file and the account's transfer list, with extend, delete and forget.
#include "model/appmodel.h"

#include "api/apierror.h"
#include "api/cancelled.h"
#include "api/usermessage.h"
#include "model/detach.h"
#include "model/historyfile.h"

#include <QFile>
#include <QFileInfo>
#include <QFileSystemWatcher>
#include <QPointer>

namespace lofthaven {

void AppModel::loadHistory()
{
    if (std::optional<QList<HistoryEntry>> entries = HistoryFile::read(m_historyPath))
        m_history->setEntries(std::move(*entries));
    // A send from the command line shows up while the app runs. The folder is watched, not
    // the file: every save replaces the file.
    m_historyWatcher = new QFileSystemWatcher(this);
    m_historyWatcher->addPath(QFileInfo(m_historyPath).absolutePath());
    connect(m_historyWatcher, &QFileSystemWatcher::directoryChanged, this,
            &AppModel::historyFileChanged);
}

void AppModel::historyFileChanged()
{
    QFile file(m_historyPath);
    if (!file.open(QIODevice::ReadOnly))
        return;
    const QByteArray bytes = file.readAll();
    if (bytes == m_historyWritten)
        return;
    std::optional<QList<HistoryEntry>> entries = HistoryFile::read(m_historyPath);
    if (!entries || *entries == m_history->entries())
        return;
    m_historyWritten = bytes;
    m_history->setEntries(std::move(*entries));
}

void AppModel::saveHistory()
{
    checkThread();
    m_historyWritten = HistoryFile::encode(m_history->entries());
    HistoryFile::write(m_historyPath, m_history->entries());
}

void AppModel::extend(const QString &id)
{
    checkThread();
    detach(extendTask(id));
}

void AppModel::deleteTransfer(const QString &id)
{
    checkThread();
    detach(deleteTask(id));
}

bool AppModel::ownerTokenFor(const QString &id, std::optional<QString> &ownerToken) const
{
    // An entry of this computer carries its owner token; a transfer of the account's list is
    // the signed-in user's own, which the bearer token authorises.
    if (const auto entry = m_history->find(id)) {
        ownerToken = entry->ownerToken;
        return true;
    }
    return m_account->find(id).has_value();
}

bool AppModel::changeFailed(const QString &what, std::exception_ptr failure)
{
    try {
        std::rethrow_exception(failure);
    } catch (const Cancelled &) {
        return false;
    } catch (...) {
    }
    setNotice(what + userMessage(failure));
    return false;
}

QCoro::Task<bool> AppModel::extendTask(QString id)
{
    checkThread();
    QPointer<AppModel> self(this);
    std::optional<QString> ownerToken;
    if (!ownerTokenFor(id, ownerToken))
        co_return false;
    std::optional<ExtendResponse> answer;
    std::exception_ptr failure;
    try {
        auto extending = client().extendTransfer(id, ownerToken, m_lifetimeStop.get_token());
        answer = co_await extending;
    } catch (...) {
        failure = std::current_exception();
    }
    if (!self)
        co_return false;
    if (answer) {
        const double expiresAt = answer->expiresAt;
        m_history->update(id, [expiresAt](HistoryEntry &entry) {
            entry.expiresAt = expiresAt;
            entry.extended = true;
        });
        m_account->update(id, [expiresAt](TransferMeta &meta) { meta.expiresAt = expiresAt; });
        saveHistory();
        setNotice(QStringLiteral("Extended by 3 days."));
        co_return true;
    }
    try {
        std::rethrow_exception(failure);
    } catch (const APIError &error) {
        // One extension per transfer: the service says this one had it already.
        if (error.status() == 409) {
            if (m_history->update(id, [](HistoryEntry &entry) { entry.extended = true; }))
                saveHistory();
            setNotice(QStringLiteral("This transfer was already extended once."));
            co_return false;
        }
    } catch (...) {
    }
    co_return changeFailed(QStringLiteral("Couldn't extend: "), failure);
}

QCoro::Task<bool> AppModel::deleteTask(QString id)
{
    checkThread();
    QPointer<AppModel> self(this);
    std::optional<QString> ownerToken;
    if (!ownerTokenFor(id, ownerToken))
        co_return false;
    std::exception_ptr failure;
    try {
        auto deleting = client().deleteTransfer(id, ownerToken, m_lifetimeStop.get_token());
        co_await deleting;
    } catch (...) {
        failure = std::current_exception();
    }
    if (!self)
        co_return false;
    if (failure)
        co_return changeFailed(QStringLiteral("Couldn't delete: "), failure);
    m_history->remove(id);
    m_account->remove(id);
    saveHistory();
    co_return true;
}

void AppModel::forget(const QString &id)
{
    checkThread();
    m_history->remove(id);
    saveHistory();
}

void AppModel::refreshAccountTransfers()
{
    checkThread();
    detach(refreshAccountTransfersTask());
}

QCoro::Task<void> AppModel::refreshAccountTransfersTask()
{
    checkThread();
    if (!signedIn())
        co_return;
    QPointer<AppModel> self(this);
    const std::optional<QString> token = this->token();
    setAccountLoading(true);
    std::optional<AccountTransfersResponse> answer;
    QString failure;
    try {
        auto loading = client().accountTransfers(m_sessionStop.get_token());
        answer = co_await loading;
    } catch (const Cancelled &) {
    } catch (...) {
        failure = userMessage(std::current_exception());
    }
    if (!self)
        co_return;
    setAccountLoading(false);
    if (this->token() != token)
        co_return;
    if (answer) {
        m_account->setItems(answer->transfers);
        setAccountError({});
    } else if (!failure.isEmpty()) {
        setAccountError(failure);
    }
}

void AppModel::setAccountLoading(bool loading)
{
    if (m_accountLoading == loading)
        return;
    m_accountLoading = loading;
    Q_EMIT accountLoadingChanged();
}

void AppModel::setAccountError(const QString &error)
{
    if (m_accountError == error)
        return;
    m_accountError = error;
    Q_EMIT accountErrorChanged();
}

} // namespace lofthaven
