#include "keelson/gui/KSFileChooser.h"

#include <QAbstractItemView>
#include <QDir>
#include <QFileDialog>

namespace {

// Qt's dialog takes either files or folders. This one takes a single item of either kind: a
// folder chosen with the accept button is the answer, and double-clicking a folder still opens it.
class FileOrFolderDialog : public QFileDialog {
public:
    using QFileDialog::QFileDialog;

    void accept() override
    {
        const QStringList chosen = selectedFiles();
        if (chosen.size() == 1 && QFileInfo(chosen.front()).isDir() && QDir(chosen.front()) != directory()) {
            QDialog::accept();
            return;
        }
        QFileDialog::accept();
    }
};

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
    FileOrFolderDialog dialog(parent, message);
    dialog.setObjectName(QStringLiteral("chooser"));
    // Where people keep what they back up, not the folder the program was started in.
    dialog.setDirectory(QDir::homePath());
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
        dialog.setLabelText(QFileDialog::Accept, QStringLiteral("Choose"));
    }
    if (dialog.exec() != QDialog::Accepted)
        return {};
    return dialog.selectedFiles();
}
