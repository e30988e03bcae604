#include "keelson/gui/KSFileChooser.h"

#include <QAbstractItemView>
#include <QFileDialog>

namespace {

std::optional<QStringList> &NextAnswer()
{
    static std::optional<QStringList> answer;
    return answer;
}

QString &LastMessage()
{
    static QString message;
    return message;
}

} // namespace

void KSSetNextChooserAnswer(std::optional<QStringList> answer)
{
    NextAnswer() = std::move(answer);
}

QString KSLastChooserMessage()
{
    return LastMessage();
}

QStringList KSChooseItems(QWidget *parent, const QString &message, KSChooserMode mode)
{
    LastMessage() = message;
    if (NextAnswer()) {
        QStringList answer = *NextAnswer();
        NextAnswer().reset();
        return answer;
    }
    QFileDialog dialog(parent, message);
    // Qt's own dialog: it can take several folders at once, and shows files beside folders.
    dialog.setOption(QFileDialog::DontUseNativeDialog, true);
    dialog.setLabelText(QFileDialog::LookIn, message);
    if (mode == KSChooserMode::Folders) {
        dialog.setFileMode(QFileDialog::Directory);
        dialog.setOption(QFileDialog::ShowDirsOnly, true);
        if (auto *view = dialog.findChild<QAbstractItemView *>(QStringLiteral("listView")))
            view->setSelectionMode(QAbstractItemView::ExtendedSelection);
        if (auto *view = dialog.findChild<QAbstractItemView *>(QStringLiteral("treeView")))
            view->setSelectionMode(QAbstractItemView::ExtendedSelection);
    } else {
        dialog.setFileMode(QFileDialog::ExistingFile);
    }
    if (dialog.exec() != QDialog::Accepted)
        return {};
    return dialog.selectedFiles();
}
