// The help window's find: the quick search field and its recent searches, find next, previous and
// from the start over the text or the chapter, divider and picture marks, and the brief mark on
// each hit. The find request is shared by every help window.
#include "help/window/KSVellumaHelpWC.h"

#include "help/window/KSVellumaHelpKeys.h"
#include "keelson/KSUserDefaults.h"
#include "ui_KSVellumaHelp.h"

#include <QCompleter>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QRegularExpression>
#include <QSettings>
#include <QStringListModel>
#include <QTextEdit>
#include <QToolButton>

#include <algorithm>

namespace {

constexpr int kRecentSearches = 10;
// The find hit's brief mark.
const QColor kFlashColour(255, 221, 0);
int g_flashDuration = 500;
KSFindRequest g_find;

} // namespace

const KSFindRequest &KSVellumaHelpWC::findRequest()
{
    return g_find;
}

void KSVellumaHelpWC::find()
{
    m_searchField->setFocus();
    m_searchField->selectAll();
}

void KSVellumaHelpWC::rememberSearch(const QString &text)
{
    auto remember = [&text](QSettings &stored) {
        QStringList recent = ReadStringList(stored, kSearchKey);
        recent.removeAll(text);
        recent.prepend(text);
        while (recent.size() > kRecentSearches)
            recent.removeLast();
        return recent;
    };
    const QStringList recent = remember(*settings());
    if (m_filePath.isEmpty()) {
        ChangeSettingsFile(UserDefaultsPath(),
            [&](QSettings &stored, bool &) { WriteStringList(stored, kSearchKey, remember(stored)); });
    }
    if (auto *model = qobject_cast<QStringListModel *>(m_searchField->completer()->model()))
        model->setStringList(recent);
}

void KSVellumaHelpWC::quickSearch()
{
    const QString text = m_searchField->text();
    if (text.isEmpty()) {
        m_searchString.clear();
        return;
    }
    ui->scrollView->setFocus();
    m_searchString = text;
    g_find = KSQuickSearchRequest(text);
    rememberSearch(text);
    runFind(false, KSSearchOptionSet(m_searchOptionMask, kOptionFromStart));
    listTopicsHolding(text);
}

QList<int> KSVellumaHelpWC::topicsHolding(const QString &words) const
{
    const QStringList wanted = words.split(QRegularExpression(QStringLiteral("\\s+")), Qt::SkipEmptyParts);
    QList<int> chapters;
    if (wanted.isEmpty())
        return chapters;
    for (int chapter = 0; chapter < int(m_content->chapterCps.size()); ++chapter) {
        const QString text
            = m_content->plainText(m_content->chapterCps[std::size_t(chapter)], m_content->chapterEnd(chapter));
        const bool all = std::all_of(wanted.begin(), wanted.end(),
            [&text](const QString &word) { return text.contains(word, Qt::CaseInsensitive); });
        if (all)
            chapters.append(chapter);
    }
    return chapters;
}

void KSVellumaHelpWC::listTopicsHolding(const QString &words)
{
    // The topics that hold all the words, as the command line's "help --search" finds them: a
    // menu beside the search field, each entry opening its topic at the first hit in it.
    QMenu *menu = m_searchTopicsButton->menu();
    menu->clear();
    const QList<int> chapters = topicsHolding(words);
    for (const int chapter : chapters) {
        QString name = m_content->chapterNames.value(chapter);
        while (name.startsWith(u'\t'))
            name.remove(0, 1);
        menu->addAction(name, this, [this, chapter] {
            jumpToTopic(chapter, -1, true);
            runFind(false, false);
        });
    }
    m_searchTopicsButton->setText(
        chapters.size() == 1 ? QStringLiteral("1 topic") : QStringLiteral("%1 topics").arg(chapters.size()));
    m_searchTopicsAction->setVisible(!chapters.isEmpty());
}

bool KSVellumaHelpWC::findNext()
{
    return runFind(false, false);
}

bool KSVellumaHelpWC::findPrevious()
{
    return runFind(true, false);
}

bool KSVellumaHelpWC::findFromStart()
{
    return runFind(false, true);
}

bool KSVellumaHelpWC::runFind(bool backward, bool fromStart)
{
    ui->scrollView->setFocus();
    if (g_find.findType == kFindNothing || (backward && !KSCanFindPrevious(g_find))) {
        beep();
        return false;
    }
    const quint32 from = fromStart ? 0 : backward ? selectionStart() : selectionEnd();
    if (g_find.findType == kFindText) {
        const unsigned options = KSEngineFindOptions(m_searchOptionMask);
        QTextDocument::FindFlags flags;
        if (!KSSearchOptionSet(options, kOptionIgnoreCase))
            flags |= QTextDocument::FindCaseSensitively;
        if (KSSearchOptionSet(options, kOptionWholeWords))
            flags |= QTextDocument::FindWholeWords;
        if (backward)
            flags |= QTextDocument::FindBackward;
        QString needle = g_find.findString;
        needle.replace(QChar(10), QChar::ParagraphSeparator);
        QTextCursor hit = ui->scrollView->document()->find(needle, m_content->map.positionForCp(from), flags);
        if (hit.isNull() && !fromStart) {
            // Round the end of the text to its other end.
            const int end = backward ? ui->scrollView->document()->characterCount() - 1 : 0;
            hit = ui->scrollView->document()->find(needle, end, flags);
        }
        if (hit.isNull()) {
            notFound();
            return false;
        }
        showFindResult(
            m_content->map.cpForPosition(hit.selectionStart()), m_content->map.cpForPosition(hit.selectionEnd()));
        return true;
    }
    const auto matches = [](quint32 type) {
        switch (g_find.findType) {
        case kFindChapter:
            return type == kHelpKnotChapter;
        case kFindDivider:
            return type == kHelpKnotDivider;
        case kFindPicture:
            return type == kHelpKnotPicture;
        default:
            return true;
        }
    };
    const auto &marks = m_content->marks;
    // From the place on, then round the end to the other end.
    for (const bool wrapped : {false, true}) {
        if (backward) {
            for (auto it = marks.rbegin(); it != marks.rend(); ++it) {
                if ((wrapped || it->cp < from) && matches(it->type)) {
                    showFindResult(it->cp, it->cp + 1);
                    return true;
                }
            }
        } else {
            for (const KSHelpMark &mark : marks) {
                if ((wrapped || mark.cp >= from) && matches(mark.type)) {
                    showFindResult(mark.cp, mark.cp + 1);
                    return true;
                }
            }
        }
        if (fromStart)
            break;
    }
    notFound();
    return false;
}

void KSVellumaHelpWC::notFound()
{
    beep();
    m_searchStatus->setText(QStringLiteral("Not found"));
    m_searchStatusAction->setVisible(true);
}

void KSVellumaHelpWC::showFindResult(quint32 start, quint32 end)
{
    m_searchStatusAction->setVisible(false);
    ++m_navigationDepth;
    const int chapter = m_content->chapterAt(start);
    if (chapter != m_currentTopic && chapter < int(m_content->chapterCps.size()))
        jumpToTopic(chapter, -1, false);
    setSelection(start, end);
    ui->scrollView->ensureCursorVisible();
    flash(start, end);
    --m_navigationDepth;
    saveSelection();
    validateMenuItems();
}

void KSVellumaHelpWC::flash(quint32 start, quint32 end)
{
    // Drawn over the selection (extra selections come after it), so the hit stands out for a
    // moment wherever the selection colour is.
    QTextEdit::ExtraSelection mark;
    mark.cursor = QTextCursor(ui->scrollView->document());
    mark.cursor.setPosition(m_content->map.positionForCp(start));
    mark.cursor.setPosition(m_content->map.endPositionForCp(end), QTextCursor::KeepAnchor);
    mark.format.setBackground(kFlashColour);
    mark.format.setForeground(Qt::black);
    ui->scrollView->setExtraSelections({mark});
    m_flashTimer.start(g_flashDuration);
}

void KSVellumaHelpWC::setFlashDuration(int milliseconds)
{
    g_flashDuration = milliseconds;
}

void KSVellumaHelpWC::setSearchOption(int tag)
{
    m_searchOptionMask ^= 1U << tag;
    validateMenuItems();
}

void KSVellumaHelpWC::useSelectionForFind()
{
    g_find = KSSelectionFindRequest(m_content->plainText(selectionStart(), selectionEnd()), m_searchOptionMask);
    m_searchString = KSCaretCodesFromText(g_find.findString);
    m_searchField->setText(m_searchString);
    validateMenuItems();
}

void KSVellumaHelpWC::jumpToSearch()
{
    ui->scrollView->ensureCursorVisible();
}
