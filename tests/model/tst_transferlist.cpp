// The list models keyed by id: a new answer is merged row by row (a view keeps its rows and
// only changed rows repaint), checked by Qt's own model tester.
#include "model/downloadlist.h"
#include "model/historylist.h"
#include "model/sendjoblist.h"
#include "model/transferlist.h"

#include <QAbstractItemModelTester>
#include <QPointer>
#include <QSignalSpy>
#include <QTest>

using namespace lofthaven;

namespace {

QList<TransferMeta> items(const QString &ids, qint64 size = 1)
{
    QList<TransferMeta> list;
    for (const QChar id : ids) {
        TransferMeta item;
        item.id = item.name = QString(id);
        item.size = size;
        list.append(item);
    }
    return list;
}

QString idsOf(const TransferList &list)
{
    QString ids;
    for (int row = 0; row < list.rowCount(); ++row)
        ids += list.data(list.index(row), TransferList::IdRole).toString();
    return ids;
}

} // namespace

class TestTransferList : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void merge_data()
    {
        QTest::addColumn<QString>("before");
        QTest::addColumn<QString>("after");
        QTest::addColumn<int>("inserted");
        QTest::addColumn<int>("removed");
        QTest::addColumn<int>("moved");
        QTest::newRow("same") << "abc"
                              << "abc" << 0 << 0 << 0;
        QTest::newRow("new at the front") << "abc"
                                          << "xabc" << 1 << 0 << 0;
        QTest::newRow("one gone") << "abc"
                                  << "ac" << 0 << 1 << 0;
        QTest::newRow("reordered") << "abc"
                                   << "cab" << 0 << 0 << 1;
        QTest::newRow("all new") << "abc"
                                 << "xyz" << 3 << 3 << 0;
        QTest::newRow("emptied") << "abc"
                                 << "" << 0 << 3 << 0;
        QTest::newRow("mixed") << "abcd"
                               << "dxb" << 1 << 2 << 1;
    }
    void merge()
    {
        QFETCH(QString, before);
        QFETCH(QString, after);
        QFETCH(int, inserted);
        QFETCH(int, removed);
        QFETCH(int, moved);
        TransferList list;
        QAbstractItemModelTester tester(&list,
                                        QAbstractItemModelTester::FailureReportingMode::QtTest);
        list.setItems(items(before));
        QSignalSpy inserts(&list, &QAbstractItemModel::rowsInserted);
        QSignalSpy removes(&list, &QAbstractItemModel::rowsRemoved);
        QSignalSpy moves(&list, &QAbstractItemModel::rowsMoved);
        QSignalSpy resets(&list, &QAbstractItemModel::modelReset);
        list.setItems(items(after));
        QCOMPARE(idsOf(list), after);
        QCOMPARE(inserts.size(), inserted);
        QCOMPARE(removes.size(), removed);
        QCOMPARE(moves.size(), moved);
        QCOMPARE(resets.size(), 0);
    }

    void changedRowRepaintsAlone()
    {
        TransferList list;
        list.setItems(items(QStringLiteral("abc")));
        QSignalSpy changed(&list, &QAbstractItemModel::dataChanged);
        QList<TransferMeta> next = items(QStringLiteral("abc"));
        next[1].size = 99;
        list.setItems(next);
        QCOMPARE(changed.size(), 1);
        QCOMPARE(changed.first().at(0).toModelIndex().row(), 1);
        QCOMPARE(list.data(list.index(1), TransferList::SizeRole).toLongLong(), 99);
    }

    void seenIdsAreNotNew()
    {
        TransferList list;
        list.setItems(items(QStringLiteral("ab")));
        QSignalSpy changed(&list, &QAbstractItemModel::dataChanged);
        list.setSeen({QStringLiteral("a")});
        QCOMPARE(changed.size(), 1);
        QVERIFY(!list.data(list.index(0), TransferList::IsNewRole).toBool());
        QVERIFY(list.data(list.index(1), TransferList::IsNewRole).toBool());
    }

    void historyRemovesEveryRowOfAnId()
    {
        HistoryList list;
        QAbstractItemModelTester tester(&list,
                                        QAbstractItemModelTester::FailureReportingMode::QtTest);
        HistoryEntry a;
        a.id = QStringLiteral("a");
        HistoryEntry b;
        b.id = QStringLiteral("b");
        list.setEntries({a, b, a});
        QSignalSpy count(&list, &HistoryList::countChanged);
        QVERIFY(list.remove(QStringLiteral("a")));
        QCOMPARE(list.count(), 1);
        QCOMPARE(count.size(), 1);
        QVERIFY(!list.remove(QStringLiteral("a")));
        QVERIFY(list.roleNames().key("ownerToken", -1) == -1);
    }

    // The job lists: newest first, a job's change repaints its own row, the same transfer
    // again replaces a finished job, and the role names QML binds to.
    void jobListsKeyedById()
    {
        DownloadList list;
        QAbstractItemModelTester tester(&list,
                                        QAbstractItemModelTester::FailureReportingMode::QtTest);
        QPointer<DownloadJob> a = new DownloadJob(QStringLiteral("a"), QStringLiteral("a.txt"), 1);
        list.insert(a);
        list.insert(new DownloadJob(QStringLiteral("b"), QStringLiteral("b.txt"), 2));
        QCOMPARE(list.count(), 2);
        QCOMPARE(list.data(list.index(0), DownloadList::IdRole).toString(), QStringLiteral("b"));
        QCOMPARE(list.find(QStringLiteral("a")), a.data());
        QSignalSpy changed(&list, &QAbstractItemModel::dataChanged);
        a->setProgress(1, 10.0);
        QCOMPARE(changed.size(), 1);
        QCOMPARE(changed.first().at(0).toModelIndex().row(), 1);
        QCOMPARE(list.data(list.index(1), DownloadList::ReceivedRole).toLongLong(), 1);
        list.insert(new DownloadJob(QStringLiteral("a"), QStringLiteral("a.txt"), 1));
        QCOMPARE(list.count(), 2);
        QVERIFY(list.find(QStringLiteral("a")) != a.data());
        QTRY_VERIFY(!a);
        QVERIFY(list.remove(QStringLiteral("b")));
        QVERIFY(!list.remove(QStringLiteral("b")));
        QCOMPARE(list.count(), 1);

        QStringList names;
        for (const QByteArray &name : list.roleNames())
            names.append(QString::fromUtf8(name));
        names.sort();
        QCOMPARE(names, (QStringList{"active", "id", "job", "message", "name", "received", "result",
                                     "size", "speed", "state"}));
        names.clear();
        for (const QByteArray &name : SendJobList().roleNames())
            names.append(QString::fromUtf8(name));
        names.sort();
        QCOMPARE(names,
                 (QStringList{"active", "code", "id", "job", "message", "name", "origin",
                              "secondsLeft", "sent", "size", "speed", "state", "toSelf", "url"}));
    }
};

QTEST_GUILESS_MAIN(TestTransferList)
#include "tst_transferlist.moc"
