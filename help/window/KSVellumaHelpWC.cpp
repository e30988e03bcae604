#include "help/window/KSVellumaHelpWC.h"

#include "help/VLDocument.h"
#include "help/VLHelpEngine.h"
#include "help/window/KSHelpDocumentView.h"
#include "help/window/KSHelpPackageCopy.h"
#include "help/window/KSSpeechManager.h"
#include "help/window/KSVellumaHelpKeys.h"
#include "keelson/FormatString.h"
#include "keelson/KSKernel.h"
#include "keelson/KSUserDefaults.h"
#include "keelson/gui/KSAlert.h"
#include "keelson/gui/KSFileChooser.h"
#include "keelson/gui/KSWorkspace.h"
#include "ui_KSVellumaHelp.h"

#include <QAbstractTextDocumentLayout>
#include <QApplication>
#include <QButtonGroup>
#include <QClipboard>
#include <QCloseEvent>
#include <QComboBox>
#include <QCompleter>
#include <QFileInfo>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QScrollBar>
#include <QSettings>
#include <QStringListModel>
#include <QTextBlock>
#include <QTextBrowser>
#include <QTimer>
#include <QToolButton>

#include <cmath>

namespace {

const QString kOpenTopicsKey = QStringLiteral("ks.helpOpenTopics");
const QString kTopicKey = QStringLiteral("ks.helpTopic");
const QString kPositionKey = QStringLiteral("ks.helpPosition");
const QString kWindowKey = QStringLiteral("ks.helpWindow");
const QString kSplitterKey = QStringLiteral("ks.helpSplitter");
constexpr int kTextInset = 8;
constexpr int kSelectionBit = 9, kEmptyDocumentBit = 8, kObjectsOnlyBit = 10;

// Process-wide state shared by every help window.
QMap<QString, bool> &OpenStatus()
{
    static QMap<QString, bool> status;
    return status;
}
bool g_openStatusLoaded = false;
QString g_applicationHelpPath;

void _BringToFront(QWidget *window)
{
    window->show();
    window->raise();
    window->activateWindow();
}

// The open help windows, newest last.
QList<KSVellumaHelpWC *> _HelpWindows()
{
    QList<KSVellumaHelpWC *> windows;
    for (QWidget *widget : QApplication::topLevelWidgets()) {
        if (auto *window = qobject_cast<KSVellumaHelpWC *>(widget); window && window->isVisible())
            windows.append(window);
    }
    return windows;
}

// Topic names become setting keys: "/" would open a group, so it and "%" are escaped.
QString _KeyForName(QString name)
{
    return name.replace(u'%', QStringLiteral("%25")).replace(u'/', QStringLiteral("%2F"));
}
QString _NameForKey(QString key)
{
    return key.replace(QStringLiteral("%2F"), QStringLiteral("/")).replace(QStringLiteral("%25"), QStringLiteral("%"));
}

void _LoadOpenStatus(QSettings &settings)
{
    if (g_openStatusLoaded)
        return;
    g_openStatusLoaded = true;
    if (!settings.childGroups().contains(kOpenTopicsKey))
        return;
    settings.beginGroup(kOpenTopicsKey);
    for (const QString &key : settings.childKeys())
        OpenStatus().insert(_NameForKey(key), settings.value(key).toString().trimmed().toLower() == u"true");
    settings.endGroup();
}

void _SaveOpenStatus(QSettings &settings)
{
    settings.remove(kOpenTopicsKey);
    if (OpenStatus().isEmpty())
        return;
    settings.beginGroup(kOpenTopicsKey);
    for (auto it = OpenStatus().cbegin(); it != OpenStatus().cend(); ++it)
        settings.setValue(_KeyForName(it.key()), it.value());
    settings.endGroup();
}

QToolButton *_SegmentButton(
    QWidget *parent, QButtonGroup *group, const QString &name, QStyle::StandardPixmap icon, const QString &tip, int id)
{
    auto *button = new QToolButton(parent);
    button->setObjectName(name);
    button->setIcon(parent->style()->standardIcon(icon));
    button->setToolTip(tip);
    button->setAutoRaise(true);
    group->addButton(button, id);
    parent->layout()->addWidget(button);
    return button;
}

double _Contrast(const QColor &a, const QColor &b)
{
    auto luminance = [](const QColor &c) {
        auto channel = [](double v) { return v <= 0.03928 ? v / 12.92 : std::pow((v + 0.055) / 1.055, 2.4); };
        return 0.2126 * channel(c.redF()) + 0.7152 * channel(c.greenF()) + 0.0722 * channel(c.blueF());
    };
    const double x = luminance(a), y = luminance(b);
    return (std::max(x, y) + 0.05) / (std::min(x, y) + 0.05);
}

// `colour`, or the first mix of it toward `text` that reads at 4.5:1 on `background`.
QColor _ReadableColour(const QColor &colour, const QColor &text, const QColor &background)
{
    for (int step = 0; step <= 10; ++step) {
        const double t = step / 10.0;
        const QColor mixed = QColor::fromRgbF(float(colour.redF() + (text.redF() - colour.redF()) * t),
            float(colour.greenF() + (text.greenF() - colour.greenF()) * t),
            float(colour.blueF() + (text.blueF() - colour.blueF()) * t));
        if (_Contrast(mixed, background) >= 4.5)
            return step == 0 ? colour : mixed.toRgb();
    }
    return text;
}

bool _IsDark(const QPalette &palette)
{
    return palette.color(QPalette::WindowText).lightness() > palette.color(QPalette::Window).lightness();
}

} // namespace

KSVellumaHelpWC::KSVellumaHelpWC(std::unique_ptr<KSHelpContent> content, bool isFile, QWidget *parent)
    : QMainWindow(parent), ui(std::make_unique<Ui::KSVellumaHelp>()), m_content(std::move(content))
{
    ui->setupUi(this);
    setAttribute(Qt::WA_DeleteOnClose);
    ui->toolbarView->setObjectName(QStringLiteral("CF78FC39-F3E9-4420-AD9B-AD6F1F178826"));
    ui->scrollView->viewport()->installEventFilter(this);
    ui->topicList->setModel(&m_topicModel);
    ui->helpSplitter->setStretchFactor(1, 3);
    if (isFile)
        m_filePath = m_content->path;
    // The help font starts as the document's own body font, the one the text is made for.
    m_font = m_content->normalFont.family().isEmpty() ? m_content->text->defaultFont() : m_content->normalFont;
    m_flashTimer.setSingleShot(true);
    connect(&m_flashTimer, &QTimer::timeout, this, [this] { ui->scrollView->setExtraSelections({}); });
    buildToolbar();
    prepareToShow();
    connectActions();
    changeDarkMode();
    validateMenuItems();
}

KSVellumaHelpWC *KSVellumaHelpWC::create(const QString &path, bool isFile, QString *reason)
{
    std::unique_ptr<KSHelpContent> content = KSLoadHelpContent(path, reason);
    return content ? new KSVellumaHelpWC(std::move(content), isFile) : nullptr;
}

QString KSVellumaHelpWC::applicationHelpPath()
{
    if (!g_applicationHelpPath.isEmpty())
        return g_applicationHelpPath;
    const QString folder = QCoreApplication::applicationDirPath();
    const QString beside = folder + QStringLiteral("/Help.TWwrite");
    const QString installed = folder + QStringLiteral("/../share/tanner-backup/Help.TWwrite");
    return QFileInfo(beside).isDir() || !QFileInfo(installed).isDir() ? beside
                                                                      : QFileInfo(installed).canonicalFilePath();
}

void KSVellumaHelpWC::setApplicationHelpPath(const QString &path)
{
    g_applicationHelpPath = path;
}

KSVellumaHelpWC *KSVellumaHelpWC::displayHelp()
{
    return displayHelp(-1);
}

KSVellumaHelpWC *KSVellumaHelpWC::displayHelp(int bookmark)
{
    KSVellumaHelpWC *window = nullptr;
    for (KSVellumaHelpWC *open : _HelpWindows()) {
        if (open->filePath().isEmpty())
            window = open;
    }
    if (!window) {
        window = create(applicationHelpPath(), false);
        if (!window)
            return nullptr;
    }
    _BringToFront(window);
    const KSHelpContent &content = window->content();
    if (bookmark >= 0 && std::size_t(bookmark) < content.bookmarkCps.size()) {
        const quint32 cp = content.bookmarkCps[std::size_t(bookmark)];
        const int chapter = content.chapterAt(cp);
        const quint32 first = content.chapterCps.empty() ? 0 : content.chapterCps[std::size_t(chapter)];
        window->jumpToTopic(chapter, content.bookmarksBetween(first + 1, cp), true);
    } else {
        window->jumpToTopic(-1, -1, true);
    }
    return window;
}

KSVellumaHelpWC *KSVellumaHelpWC::displayFileAsHelp(const QString &path, QString *reason)
{
    for (KSVellumaHelpWC *open : _HelpWindows()) {
        if (open->filePath() == path) {
            _BringToFront(open);
            return open;
        }
    }
    KSVellumaHelpWC *window = create(path, true, reason);
    if (!window)
        return nullptr;
    _BringToFront(window);
    window->jumpToTopic(0, -1, true);
    return window;
}

KSVellumaHelpWC::~KSVellumaHelpWC()
{
    saveState();
    ui->scrollView->setDocument(nullptr);
}

std::unique_ptr<QSettings> KSVellumaHelpWC::settings() const
{
    return OpenSettingsFile(UserDefaultsPath());
}

void KSVellumaHelpWC::buildToolbar()
{
    QToolBar *bar = ui->toolbarView;
    auto segments = [this](const QString &name) {
        auto *box = new QWidget(this);
        box->setObjectName(name);
        auto *layout = new QHBoxLayout(box);
        layout->setContentsMargins(0, 0, 0, 0);
        layout->setSpacing(0);
        return box;
    };
    QWidget *navigation = segments(QStringLiteral("6C175095-3CEC-4322-93A5-5CDD1013BC3E"));
    auto *navigationGroup = new QButtonGroup(navigation);
    navigationGroup->setExclusive(false);
    m_backButton = _SegmentButton(
        navigation, navigationGroup, QStringLiteral("backButton"), QStyle::SP_ArrowBack, QStringLiteral("Back"), 0);
    m_forwardButton = _SegmentButton(navigation, navigationGroup, QStringLiteral("forwardButton"),
        QStyle::SP_ArrowForward, QStringLiteral("Forward"), 1);
    connect(navigationGroup, &QButtonGroup::idClicked, this, [this](int id) { navigate(id == 0); });
    bar->addWidget(navigation);

    QWidget *topic = segments(QStringLiteral("D14FE854-0640-4542-B35E-428BC171A36B"));
    auto *topicGroup = new QButtonGroup(topic);
    topicGroup->setExclusive(false);
    m_previousButton = _SegmentButton(topic, topicGroup, QStringLiteral("previousTopicButton"), QStyle::SP_ArrowUp,
        QStringLiteral("Previous Topic"), 0);
    m_nextButton = _SegmentButton(
        topic, topicGroup, QStringLiteral("nextTopicButton"), QStyle::SP_ArrowDown, QStringLiteral("Next Topic"), 1);
    connect(topicGroup, &QButtonGroup::idClicked, this,
        [this](int id) { id == 0 ? jumpPreviousChapter() : jumpNextChapter(); });
    bar->addWidget(topic);

    auto *spacer = new QWidget(this);
    spacer->setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Preferred);
    bar->addWidget(spacer);

    m_zoomMenu = new QComboBox(this);
    m_zoomMenu->setObjectName(QStringLiteral("zoomMenu"));
    m_zoomMenu->setToolTip(QStringLiteral("Zoom"));
    for (const double step : kHelpZoomSteps) {
        const int percent = int(std::lround(step * 100));
        m_zoomMenu->addItem(QStringLiteral("%1%").arg(percent), percent);
    }
    connect(m_zoomMenu, &QComboBox::activated, this,
        [this](int index) { changeZoom(m_zoomMenu->itemData(index).toInt()); });
    bar->addWidget(m_zoomMenu);

    m_searchField = new QLineEdit(this);
    m_searchField->setObjectName(QStringLiteral("searchField"));
    m_searchField->setPlaceholderText(QStringLiteral("Search"));
    m_searchField->setClearButtonEnabled(true);
    m_searchField->setMaximumWidth(240);
    auto *completer = new QCompleter(new QStringListModel(ReadStringList(*settings(), kSearchKey), this), this);
    completer->setCaseSensitivity(Qt::CaseInsensitive);
    m_searchField->setCompleter(completer);
    connect(m_searchField, &QLineEdit::returnPressed, this, &KSVellumaHelpWC::quickSearch);
    bar->addWidget(m_searchField);
    m_searchStatus = new QLabel(this);
    m_searchStatus->setObjectName(QStringLiteral("searchStatus"));
    m_searchStatus->setContentsMargins(6, 0, 6, 0);
    // A widget of a tool bar shows and hides through its action.
    m_searchStatusAction = bar->addWidget(m_searchStatus);
    m_searchStatusAction->setVisible(false);
    connect(m_searchField, &QLineEdit::textEdited, m_searchStatusAction,
        [this] { m_searchStatusAction->setVisible(false); });
    m_searchTopicsButton = new QToolButton(this);
    m_searchTopicsButton->setObjectName(QStringLiteral("searchTopicsButton"));
    m_searchTopicsButton->setPopupMode(QToolButton::InstantPopup);
    m_searchTopicsButton->setToolButtonStyle(Qt::ToolButtonTextOnly);
    m_searchTopicsButton->setMenu(new QMenu(m_searchTopicsButton));
    m_searchTopicsAction = bar->addWidget(m_searchTopicsButton);
    m_searchTopicsAction->setVisible(false);
}

void KSVellumaHelpWC::connectActions()
{
    connect(ui->saveHelpFileAction, &QAction::triggered, this, &KSVellumaHelpWC::saveHelpFile);
    connect(ui->closeWindowAction, &QAction::triggered, this, &QWidget::close);
    connect(ui->copyAction, &QAction::triggered, this, &KSVellumaHelpWC::copy);
    connect(ui->selectAllAction, &QAction::triggered, this, &KSVellumaHelpWC::selectAll);
    connect(ui->findAction, &QAction::triggered, this, &KSVellumaHelpWC::find);
    connect(ui->findNextAction, &QAction::triggered, this, &KSVellumaHelpWC::findNext);
    connect(ui->findPreviousAction, &QAction::triggered, this, &KSVellumaHelpWC::findPrevious);
    connect(ui->findFromStartAction, &QAction::triggered, this, &KSVellumaHelpWC::findFromStart);
    connect(ui->useSelectionForFindAction, &QAction::triggered, this, &KSVellumaHelpWC::useSelectionForFind);
    connect(ui->jumpToSearchAction, &QAction::triggered, this, &KSVellumaHelpWC::jumpToSearch);
    const std::pair<QAction *, int> options[]
        = {{ui->ignoreCaseAction, kOptionIgnoreCase}, {ui->wholeWordsAction, kOptionWholeWords},
            {ui->trimSelectionAction, kOptionTrimSelection}, {ui->fromStartOptionAction, kOptionFromStart}};
    for (const auto &[action, tag] : options) {
        action->setData(tag);
        connect(action, &QAction::triggered, this, [this, tag] { setSearchOption(tag); });
    }
    connect(ui->startSpeakingAction, &QAction::triggered, this, &KSVellumaHelpWC::startSpeaking);
    connect(
        ui->stopSpeakingAction, &QAction::triggered, this, [] { KSSpeechManager::sharedInstance().stopSpeaking(); });
    connect(ui->zoomInAction, &QAction::triggered, this, &KSVellumaHelpWC::zoomIn);
    connect(ui->zoomOutAction, &QAction::triggered, this, &KSVellumaHelpWC::zoomOut);
    connect(ui->actualSizeAction, &QAction::triggered, this, [this] { changeZoom(100); });
    connect(ui->showFontsAction, &QAction::triggered, this, &KSVellumaHelpWC::showFonts);
    connect(ui->backAction, &QAction::triggered, this, [this] { navigate(true); });
    connect(ui->forwardAction, &QAction::triggered, this, [this] { navigate(false); });
    connect(ui->previousTopicAction, &QAction::triggered, this, &KSVellumaHelpWC::jumpPreviousChapter);
    connect(ui->nextTopicAction, &QAction::triggered, this, &KSVellumaHelpWC::jumpNextChapter);
    for (QMenu *menu : {ui->fileMenu, ui->editMenu, ui->findMenu, ui->speechMenu, ui->viewMenu, ui->goMenu})
        connect(menu, &QMenu::aboutToShow, this, &KSVellumaHelpWC::validateMenuItems);

    connect(ui->topicList->selectionModel(), &QItemSelectionModel::currentChanged, this,
        [this](const QModelIndex &current) {
            if (m_navigationDepth > 0 || !current.isValid())
                return;
            const KSHelpTopic *item = KSHelpTopicModel::itemForIndex(current);
            const auto &map = m_topics->chapterMap();
            for (std::size_t i = 0; i < map.size(); ++i) {
                if (map[i] == item) {
                    jumpToTopic(int(i), -1, true);
                    return;
                }
            }
        });
    auto remember = [this](const QModelIndex &index, bool open) {
        if (m_filePath.isEmpty())
            OpenStatus().insert(KSHelpTopicModel::itemForIndex(index)->name, open);
    };
    connect(ui->topicList, &QTreeView::expanded, this, [remember](const QModelIndex &index) { remember(index, true); });
    connect(
        ui->topicList, &QTreeView::collapsed, this, [remember](const QModelIndex &index) { remember(index, false); });
    connect(ui->scrollView, &QTextBrowser::anchorClicked, this, [this](const QUrl &url) {
        if (url.scheme() == u"cp")
            followLink(url.path().toUInt());
        else
            KSOpenUrl(url);
    });
    connect(ui->scrollView, &QTextEdit::selectionChanged, this, &KSVellumaHelpWC::validateMenuItems);
    connect(&KSSpeechManager::sharedInstance(), &KSSpeechManager::speakingChanged, this,
        &KSVellumaHelpWC::validateMenuItems);
}

void KSVellumaHelpWC::prepareToShow()
{
    QStringList names = m_content->chapterNames;
    m_topics = std::make_unique<KSHelpTopics>(names);
    auto stored = settings();
    _LoadOpenStatus(*stored);
    const int zoomPercent = stored->value(kZoomKey).toInt();
    m_topicModel.setTopics(m_topics.get());
    // The help font and the zoom go into the document before the view lays it out once.
    if (m_filePath.isEmpty()) {
        auto shared = OpenSettingsFile(SharedDefaultsPath());
        QFont chosen;
        const QString descriptor = shared->value(kHelpFontKey).toString();
        if (!descriptor.isEmpty() && chosen.fromString(descriptor))
            applyHelpFont(chosen);
        const QStringList frame = stored->value(kWindowKey).toString().split(u' ', Qt::SkipEmptyParts);
        if (frame.size() == 4 && frame[2].toInt() >= 300 && frame[3].toInt() >= 200)
            setGeometry(frame[0].toInt(), frame[1].toInt(), frame[2].toInt(), frame[3].toInt());
        QList<int> sizes;
        for (const QString &size : stored->value(kSplitterKey).toString().split(u' ', Qt::SkipEmptyParts))
            sizes.append(size.toInt());
        if (sizes.size() == 2)
            ui->helpSplitter->setSizes(sizes);
    } else if (m_content->document) {
        // A named file is shown in the look of the preferences, not in the help font.
        VLImportPreferences(*static_cast<VLDocument *>(m_content->document.get()));
    }
    applyZoom(zoomPercent > 0 ? zoomPercent / 100.0 : 1.0);
    m_content->text->setDocumentMargin(kTextInset);
    ui->scrollView->setDocument(m_content->text.get());
    updateZoomTool(m_zoom);
    ++m_navigationDepth;
    expandTopics({});
    --m_navigationDepth;
    ensureCurrentTopic();
    ui->scrollView->setFocus();
}

void KSVellumaHelpWC::expandTopics(const QModelIndex &parent)
{
    for (int row = 0; row < m_topicModel.rowCount(parent); ++row) {
        const QModelIndex index = m_topicModel.index(row, 0, parent);
        const KSHelpTopic *item = KSHelpTopicModel::itemForIndex(index);
        if (!m_topics->expandable(item))
            continue;
        if (!m_filePath.isEmpty() || OpenStatus().value(item->name, false))
            ui->topicList->expand(index);
        expandTopics(index);
    }
}

void KSVellumaHelpWC::ensureCurrentTopic()
{
    const auto &map = m_topics->chapterMap();
    if (m_currentTopic < 0 || std::size_t(m_currentTopic) >= map.size())
        return;
    ++m_navigationDepth;
    const KSHelpTopic *item = map[std::size_t(m_currentTopic)];
    for (const KSHelpTopic *parent = item->parent; parent; parent = parent->parent) {
        const QModelIndex index = m_topicModel.indexForItem(parent);
        if (index.isValid())
            ui->topicList->expand(index);
    }
    const QModelIndex index = m_topicModel.indexForItem(item);
    if (index.isValid()) {
        ui->topicList->setCurrentIndex(index);
        ui->topicList->scrollTo(index, QAbstractItemView::PositionAtCenter);
    } else {
        ui->topicList->clearSelection();
    }
    --m_navigationDepth;
}

void KSVellumaHelpWC::jumpToTopic(int chapter, int bookmark, bool record)
{
    const int count = int(m_content->chapterCps.size());
    qint64 target = -1;
    if (chapter < 0) {
        auto stored = settings();
        chapter = stored->value(kTopicKey).toInt();
        if (chapter < 0 || chapter >= count)
            chapter = 0;
        if (count > 0)
            target = stored->value(kPositionKey).toLongLong() + m_content->chapterCps[std::size_t(chapter)];
        if (target < 0 || target > qint64(m_content->textLength))
            target = -1;
    }
    if (chapter >= count) {
        beep();
        return;
    }
    m_currentTopic = chapter;
    ensureCurrentTopic();

    const KSHelpTopic *item = m_topics->chapterMap()[std::size_t(chapter)];
    if (m_filePath.isEmpty())
        setWindowTitle(QStringLiteral("%1 Help — %2").arg(g_appName, item->name));
    else if (!item->name.isEmpty())
        setWindowTitle(QStringLiteral("%1 — %2").arg(QFileInfo(m_filePath).completeBaseName(), item->name));
    else
        setWindowTitle(QFileInfo(m_filePath).completeBaseName());

    const quint32 first = m_content->chapterCps[std::size_t(chapter)];
    const quint32 end = m_content->chapterEnd(chapter);
    const qint64 mark = bookmark >= 0 ? m_content->bookmarkAfter(first, bookmark) : -1;
    if (mark >= 0 && mark < qint64(end)) {
        selectSentenceFrom(quint32(mark), end);
        ui->scrollView->ensureCursorVisible();
    } else {
        const quint32 at = target >= 0 ? quint32(target) : first;
        setSelection(at, at);
        scrollToCp(at);
    }
    if (record)
        saveSelection();
    updateTopicTool();
}

void KSVellumaHelpWC::selectSentenceFrom(quint32 cp, quint32 limit)
{
    // Up to the first full stop, question or exclamation mark that ends a sentence, or the
    // paragraph's end.
    const QTextDocument *document = ui->scrollView->document();
    const int last = m_content->map.positionForCp(limit);
    int end = m_content->map.positionForCp(cp);
    while (end < last) {
        const QChar c = document->characterAt(end);
        if (c == QChar::ParagraphSeparator)
            break;
        ++end;
        if ((c == u'.' || c == u'!' || c == u'?') && (end >= last || document->characterAt(end).isSpace()))
            break;
    }
    setSelection(cp, m_content->map.cpForPosition(end));
}

void KSVellumaHelpWC::saveSelection()
{
    if (m_navigationDepth > 0)
        return;
    m_navigation.record({m_content.get(), selectionStart(), selectionEnd()});
    updateNavigationTools();
}

void KSVellumaHelpWC::navigate(bool backward)
{
    const KSNavigationEntry *entry = m_navigation.step(backward);
    if (!entry) {
        beep();
        return;
    }
    ++m_navigationDepth;
    jumpToTopic(m_content->chapterAt(entry->selectionStart), -1, false);
    setSelection(entry->selectionStart, entry->selectionEnd);
    scrollToCp(entry->selectionStart);
    --m_navigationDepth;
    updateNavigationTools();
}

void KSVellumaHelpWC::jumpNextChapter()
{
    if (m_currentTopic + 1 < int(m_content->chapterCps.size()))
        jumpToTopic(m_currentTopic + 1, -1, true);
    else
        beep();
}

void KSVellumaHelpWC::jumpPreviousChapter()
{
    if (m_currentTopic > 0)
        jumpToTopic(m_currentTopic - 1, -1, true);
    else
        beep();
}

void KSVellumaHelpWC::followLink(quint32 cp)
{
    const auto target = m_content->linkTargets.constFind(cp);
    if (target == m_content->linkTargets.cend()) {
        beep();
        return;
    }
    const int chapter = m_content->chapterAt(*target);
    const quint32 first = m_content->chapterCps.empty() ? 0 : m_content->chapterCps[std::size_t(chapter)];
    jumpToTopic(chapter, m_content->bookmarksBetween(first + 1, *target), true);
}

void KSVellumaHelpWC::updateNavigationTools()
{
    m_backButton->setEnabled(m_navigation.canGoBack());
    m_forwardButton->setEnabled(m_navigation.canGoForward());
    ui->backAction->setEnabled(m_navigation.canGoBack());
    ui->forwardAction->setEnabled(m_navigation.canGoForward());
}

void KSVellumaHelpWC::updateTopicTool()
{
    m_previousButton->setEnabled(validateMenuItem(ui->previousTopicAction));
    m_nextButton->setEnabled(validateMenuItem(ui->nextTopicAction));
}

// --- Selection and scrolling ------------------------------------------------------------------

quint32 KSVellumaHelpWC::selectionStart() const
{
    return m_content->map.cpForPosition(ui->scrollView->textCursor().selectionStart());
}

quint32 KSVellumaHelpWC::selectionEnd() const
{
    return m_content->map.cpForPosition(ui->scrollView->textCursor().selectionEnd());
}

void KSVellumaHelpWC::setSelection(quint32 start, quint32 end)
{
    QTextCursor cursor(ui->scrollView->document());
    const int last = ui->scrollView->document()->characterCount() - 1;
    cursor.setPosition(std::min(m_content->map.positionForCp(start), last));
    cursor.setPosition(
        std::min(end > start ? m_content->map.endPositionForCp(end) : m_content->map.positionForCp(end), last),
        QTextCursor::KeepAnchor);
    ui->scrollView->setTextCursor(cursor);
}

void KSVellumaHelpWC::scrollToCp(quint32 cp)
{
    QTextDocument *document = ui->scrollView->document();
    const int position = std::min(m_content->map.positionForCp(cp), document->characterCount() - 1);
    const QTextBlock block = document->findBlock(position);
    const QRectF bounds = document->documentLayout()->blockBoundingRect(block);
    qreal y = bounds.top();
    if (const QTextLayout *layout = block.layout()) {
        const QTextLine line = layout->lineForTextPosition(position - block.position());
        if (line.isValid())
            y += line.y();
    }
    ui->scrollView->verticalScrollBar()->setValue(int(std::floor(y)));
}

quint32 KSVellumaHelpWC::firstVisibleCp() const
{
    QTextDocument *document = ui->scrollView->document();
    const int y = ui->scrollView->verticalScrollBar()->value();
    const QTextBlock block
        = document->findBlock(document->documentLayout()->hitTest(QPointF(kTextInset + 1, y + 1), Qt::FuzzyHit));
    if (!block.isValid())
        return 0;
    const QRectF bounds = document->documentLayout()->blockBoundingRect(block);
    int position = block.position();
    if (const QTextLayout *layout = block.layout()) {
        for (int i = 0; i < layout->lineCount(); ++i) {
            const QTextLine line = layout->lineAt(i);
            if (bounds.top() + line.y() + line.height() > y) {
                position += line.textStart();
                break;
            }
        }
    }
    return m_content->map.cpForPosition(position);
}

// --- Speaking, saving, copying ----------------------------------------------------------------------

void KSVellumaHelpWC::startSpeaking()
{
    KSSpeechManager &speech = KSSpeechManager::sharedInstance();
    if (!speech.isAvailable()) {
        beep();
        return;
    }
    const QTextCursor selection = ui->scrollView->textCursor();
    int start = selection.selectionStart(), end = selection.selectionEnd();
    QTextDocument *document = ui->scrollView->document();
    if (start == end) {
        // Nothing selected: the text in view.
        start = m_content->map.positionForCp(firstVisibleCp());
        const QPointF bottom(ui->scrollView->viewport()->width() - 1,
            ui->scrollView->verticalScrollBar()->value() + ui->scrollView->viewport()->height() - 1);
        end = std::max(start, document->documentLayout()->hitTest(bottom, Qt::FuzzyHit));
    }
    const QString text = KSSpokenText(*document, start, end, selection.anchor() > selection.position());
    if (!speech.speakString(text))
        beep();
}

void KSVellumaHelpWC::saveHelpFile()
{
    // A window on a named file saves that file (a package folder or a single XML file), under its
    // own name; the application's help is saved as "<application> Help.TWwrite".
    const QString source = m_filePath.isEmpty() ? m_content->path : m_filePath;
    const QFileInfo info(source);
    if (!info.exists()) {
        beep();
        return;
    }
    const QStringList chosen = KSChooseItems(
        this, QStringLiteral("Select a folder in which to save a copy of the help file"), KSChooserMode::Folders);
    if (chosen.isEmpty())
        return;
    const QString target = m_filePath.isEmpty()
        ? KSUniqueNameInFolder(chosen.front(), g_appName + QStringLiteral(" Help"), QStringLiteral("TWwrite"))
        : KSUniqueNameInFolder(chosen.front(), info.completeBaseName(), info.suffix());
    QString reason;
    bool copied = false;
    if (info.isDir()) {
        copied = KSCopyPackage(source, target, &reason);
    } else {
        QFile file(source);
        copied = file.copy(target);
        if (!copied)
            reason = file.errorString();
    }
    if (!copied) {
        // The copy is not silent when it fails: the user chose a folder and expects a file there.
        KSAlert::sharedInstance().giveAlertMessage(QStringLiteral("The copy of the help could not be saved."),
            FormatString("I can't save a copy of the help in \"%@\" because %@.", chosen.front(), reason));
        return;
    }
    KSShowInFileManager(target);
}

void KSVellumaHelpWC::copy()
{
    const QString text = m_content->plainText(selectionStart(), selectionEnd());
    if (text.isEmpty()) {
        beep();
        return;
    }
    QGuiApplication::clipboard()->setText(text);
}

void KSVellumaHelpWC::selectAll()
{
    setSelection(0, m_content->textLength);
    ui->scrollView->setFocus();
}

// --- Menu validation ------------------------------------------------------------------------------

unsigned KSVellumaHelpWC::selectionMask() const
{
    unsigned mask = 0;
    if (m_content->textLength == 0)
        mask |= 1U << kEmptyDocumentBit;
    const quint32 start = selectionStart(), end = selectionEnd();
    if (end > start) {
        mask |= 1U << kSelectionBit;
        if (m_content->plainText(start, end).remove(QChar::ObjectReplacementCharacter).trimmed().isEmpty())
            mask |= 1U << kObjectsOnlyBit;
    }
    return mask;
}

bool KSVellumaHelpWC::validateMenuItem(const QAction *action) const
{
    if (m_dragging)
        return false;
    const unsigned mask = selectionMask();
    if (action == ui->copyAction)
        return mask & (1U << kSelectionBit);
    if (action == ui->startSpeakingAction)
        return !(mask & ((1U << kEmptyDocumentBit) | (1U << kObjectsOnlyBit)))
            && KSSpeechManager::sharedInstance().isAvailable();
    if (action == ui->stopSpeakingAction)
        return KSSpeechManager::sharedInstance().isSpeaking();
    if (action == ui->previousTopicAction)
        return m_currentTopic > 0;
    if (action == ui->nextTopicAction)
        return m_currentTopic < int(m_content->chapterCps.size()) - 1;
    if (action == ui->findNextAction || action == ui->findFromStartAction)
        return findRequest().findType != kFindNothing;
    if (action == ui->findPreviousAction)
        return KSCanFindPrevious(findRequest());
    if (action == ui->backAction)
        return m_navigation.canGoBack();
    if (action == ui->forwardAction)
        return m_navigation.canGoForward();
    return true;
}

void KSVellumaHelpWC::validateMenuItems()
{
    const auto actions = findChildren<QAction *>();
    for (QAction *action : actions) {
        if (action->menu())
            continue;
        action->setEnabled(validateMenuItem(action));
        if (action->isCheckable() && action->data().isValid())
            action->setChecked(KSSearchOptionSet(m_searchOptionMask, action->data().toInt()));
    }
    KSSpeechManager &speech = KSSpeechManager::sharedInstance();
    ui->startSpeakingAction->setToolTip(speech.isAvailable() ? QString() : speech.unavailableReason());
    ui->speechMenu->setToolTipsVisible(true);
    m_backButton->setEnabled(m_navigation.canGoBack() && !m_dragging);
    m_forwardButton->setEnabled(m_navigation.canGoForward() && !m_dragging);
    updateTopicTool();
}

// --- Window ---------------------------------------------------------------------------------------

void KSVellumaHelpWC::beep()
{
    ++m_beeps;
    QApplication::beep();
}

void KSVellumaHelpWC::changeDarkMode()
{
    // The window's own palette: its children's are brought up to date only after this.
    const QPalette page = QWidget::palette();
    QPalette list = page;
    list.setColor(QPalette::Base, page.color(_IsDark(page) ? QPalette::Window : QPalette::AlternateBase));
    ui->topicList->setPalette(list);
    // The text without a colour of its own follows the palette; links take the palette's link
    // colour, moved toward the text colour until it reads on the page.
    const QColor link
        = _ReadableColour(page.color(QPalette::Link), page.color(QPalette::Text), page.color(QPalette::Base));
    QTextDocument *document = m_content->text.get();
    QTextCursor cursor(document);
    cursor.beginEditBlock();
    for (QTextBlock block = document->begin(); block.isValid(); block = block.next()) {
        for (auto it = block.begin(); !it.atEnd(); ++it) {
            const QTextFragment fragment = it.fragment();
            QTextCharFormat format = fragment.charFormat();
            if (!format.isAnchor() || format.foreground().color() == link)
                continue;
            format.setForeground(link);
            cursor.setPosition(fragment.position());
            cursor.setPosition(fragment.position() + fragment.length(), QTextCursor::KeepAnchor);
            cursor.setCharFormat(format);
        }
    }
    cursor.endEditBlock();
}

void KSVellumaHelpWC::changeEvent(QEvent *event)
{
    if (event->type() == QEvent::PaletteChange)
        changeDarkMode();
    QMainWindow::changeEvent(event);
}

bool KSVellumaHelpWC::eventFilter(QObject *watched, QEvent *event)
{
    if (watched == ui->scrollView->viewport()) {
        if (event->type() == QEvent::MouseButtonPress)
            m_dragging = true;
        else if (event->type() == QEvent::MouseButtonRelease) {
            m_dragging = false;
            validateMenuItems();
        }
    }
    return QMainWindow::eventFilter(watched, event);
}

void KSVellumaHelpWC::saveState()
{
    if (m_stateSaved)
        return;
    m_stateSaved = true;
    if (!m_filePath.isEmpty() || m_content->chapterCps.empty())
        return;
    const quint32 first = m_content->chapterCps[std::size_t(m_currentTopic)];
    const quint32 shown = firstVisibleCp();
    const QRect frame = geometry();
    const QList<int> sizes = ui->helpSplitter->sizes();
    ChangeSettingsFile(UserDefaultsPath(), [&](QSettings &stored, bool &) {
        stored.setValue(kTopicKey, m_currentTopic);
        stored.setValue(kPositionKey, shown >= first ? qint64(shown - first) : 0);
        _SaveOpenStatus(stored);
        stored.setValue(kWindowKey,
            QStringLiteral("%1 %2 %3 %4").arg(frame.x()).arg(frame.y()).arg(frame.width()).arg(frame.height()));
        if (sizes.size() == 2)
            stored.setValue(kSplitterKey, QStringLiteral("%1 %2").arg(sizes[0]).arg(sizes[1]));
    });
}

void KSVellumaHelpWC::closeEvent(QCloseEvent *event)
{
    saveState();
    QMainWindow::closeEvent(event);
}
