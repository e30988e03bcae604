// The rule table's model: one column showing, by domain, the backup folders (their names), the
// ignored-folder rules ("Name is "Caches"") or the ignored-file rules ("Extension is "tmp"").
// The lists belong to the application controller; the model only reads them and is told to
// reload after every change. Main thread.
#pragma once

#include "backup/BUIgnoreRule.h"

#include <QAbstractListModel>

class BURuleListModel : public QAbstractListModel {
    Q_OBJECT
public:
    enum Domain : int { kBackupFolders = 0, kIgnoredFolders = 1, kIgnoredFiles = 2 };

    explicit BURuleListModel(QObject *parent = nullptr);
    int ruleDomain() const { return m_domain; }
    void setRuleDomain(int domain);
    // Call after the underlying list changed.
    void reload();

    int rowCount(const QModelIndex &parent = {}) const override;
    QVariant data(const QModelIndex &index, int role) const override;

private:
    int m_domain = kBackupFolders;
};
