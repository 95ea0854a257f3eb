#pragma once

#include <QAbstractListModel>

namespace lofthaven {

// What a screen reads of any list of jobs besides its rows: how many there are, as a property
// that tells when it changes.
class JobListModel : public QAbstractListModel
{
    Q_OBJECT
    Q_PROPERTY(int count READ count NOTIFY countChanged)

public:
    using QAbstractListModel::QAbstractListModel;

    int count() const { return rowCount(); }

Q_SIGNALS:
    void countChanged();
};

} // namespace lofthaven
