// Folder and file choosers with a hook for tests, which answer instead of a person. Main thread.
#pragma once

#include <QStringList>

#include <functional>
#include <optional>

class QWidget;

enum class KSChooserMode {
    Folders, // one or more folders
    FilesOrFolders // a single file or folder
};

// The chosen paths (decoded with the file-name codec); empty when the user cancelled.
QStringList KSChooseItems(QWidget *parent, const QString &message, KSChooserMode mode);

// Tests: the next chooser returns this answer at once (an empty list for Cancel).
void KSSetNextChooserAnswer(std::optional<QStringList> answer);
// Tests: the message of the last chooser shown or answered.
QString KSLastChooserMessage();
