// The help window: a read-only text pane beside a topic outline built from the document's chapter
// names, with a toolbar for back and forward, previous and next topic, quick search and zoom. It
// remembers the topic and position last read, the topics expanded, the zoom and the searches, except
// when it shows a named file (filePath set). Main thread.
#pragma once

#include "help/window/KSHelpContent.h"
#include "help/window/KSHelpFind.h"
#include "help/window/KSHelpNavigation.h"
#include "help/window/KSHelpTopics.h"

#include <QMainWindow>
#include <QTimer>

#include <functional>
#include <memory>

class QAction;
class QComboBox;
class QLabel;
class QLineEdit;
class QToolButton;
class QSettings;

namespace Ui {
class KSVellumaHelp;
}

class KSVellumaHelpWC : public QMainWindow {
    Q_OBJECT
public:
    // Loads the document into a new window; null (after the loader has logged "Can't read help
    // file: %@" with the reason, which `reason` receives) when it can't be read. With `isFile` the
    // path becomes filePath and nothing is remembered.
    static KSVellumaHelpWC *create(const QString &path, bool isFile, QString *reason = nullptr);
    // The application's help: the open help window without filePath to the front, else a new one on
    // the application's help package; then the bookmark (an offset from the remembered topic's first
    // bookmark), or with none the remembered topic and position. Null when help can't be read.
    static KSVellumaHelpWC *displayHelp();
    static KSVellumaHelpWC *displayHelp(int bookmark);
    // A named file shown as help: its open window to the front, else a new one at chapter 0.
    static KSVellumaHelpWC *displayFileAsHelp(const QString &path, QString *reason = nullptr);
    // The application's help package: "Help.TWwrite" beside the program, or in
    // share/tanner-backup when installed.
    static QString applicationHelpPath();
    static void setApplicationHelpPath(const QString &path); // tests and tools

    // A window on content already made; with `isFile` its path becomes filePath.
    KSVellumaHelpWC(std::unique_ptr<KSHelpContent> content, bool isFile, QWidget *parent = nullptr);
    ~KSVellumaHelpWC() override;

    // chapter -1: the remembered topic and position; bookmark -1: none.
    void jumpToTopic(int chapter, int bookmark, bool record);
    void navigate(bool backward);
    void jumpNextChapter();
    void jumpPreviousChapter();
    void followLink(quint32 cp);

    void find();
    void quickSearch();
    bool findNext();
    bool findPrevious();
    bool findFromStart();
    void setSearchOption(int tag);
    void useSelectionForFind();
    void jumpToSearch();
    // The chapters whose text holds every word of `words`, ignoring case.
    QList<int> topicsHolding(const QString &words) const;

    void changeZoom(int percent);
    void zoomIn();
    void zoomOut();
    void performZoom(double factor);

    void showFonts();
    void changeFont(const QFont *chosen);
    void startSpeaking();
    void saveHelpFile();
    void copy();
    void selectAll();

    // Enables and checks the menu commands and toolbar items for the current state.
    void validateMenuItems();
    bool validateMenuItem(const QAction *action) const;

    // --- State, for the application and its tests ----------------------------------------------
    const KSHelpContent &content() const { return *m_content; }
    const KSHelpTopics &topicOutline() const { return *m_topics; }
    int currentTopic() const { return m_currentTopic; }
    const QString &filePath() const { return m_filePath; }
    const KSNavigationStack &navigationStack() const { return m_navigation; }
    unsigned searchOptionMask() const { return m_searchOptionMask; }
    const QString &searchString() const { return m_searchString; }
    static const KSFindRequest &findRequest();
    double zoom() const { return m_zoom; }
    QFont helpFont() const { return m_font; }
    // The selection and the first cp shown, in cps.
    quint32 selectionStart() const;
    quint32 selectionEnd() const;
    void setSelection(quint32 start, quint32 end);
    quint32 firstVisibleCp() const;
    int beepCount() const { return m_beeps; }

    // Tests: answers the folder chooser of saveHelpFile and the font dialog of showFonts.
    static void setNextFontAnswer(std::function<bool(QFont *)> answer);
    // How long a find hit stays marked (half a second unless a test changes it).
    static void setFlashDuration(int milliseconds);

protected:
    void closeEvent(QCloseEvent *event) override;
    void changeEvent(QEvent *event) override;
    bool eventFilter(QObject *watched, QEvent *event) override;

private:
    void buildToolbar();
    void connectActions();
    void prepareToShow();
    void expandTopics(const QModelIndex &parent);
    void ensureCurrentTopic();
    void saveSelection();
    void updateNavigationTools();
    void updateTopicTool();
    void updateZoomTool(double factor);
    void applyZoom(double factor);
    void applyHelpFont(const QFont &font);
    void scrollToCp(quint32 cp);
    void selectSentenceFrom(quint32 cp, quint32 limit);
    bool runFind(bool backward, bool fromStart);
    // Beeps and says "Not found" beside the search field.
    void notFound();
    void listTopicsHolding(const QString &words);
    void showFindResult(quint32 start, quint32 end);
    // Marks [start, end) briefly so that the eye finds the hit.
    void flash(quint32 start, quint32 end);
    void changeDarkMode();
    void beep();
    unsigned selectionMask() const;
    void rememberSearch(const QString &text);
    void saveState();
    std::unique_ptr<QSettings> settings() const;

    std::unique_ptr<Ui::KSVellumaHelp> ui;
    std::unique_ptr<KSHelpContent> m_content;
    std::unique_ptr<KSHelpTopics> m_topics;
    KSHelpTopicModel m_topicModel;
    int m_currentTopic = 0;
    KSNavigationStack m_navigation;
    int m_navigationDepth = 0;
    unsigned m_searchOptionMask = kInitialSearchOptionMask;
    QString m_searchString;
    QString m_filePath;
    QFont m_font;
    double m_zoom = 1.0;
    bool m_dragging = false;
    bool m_stateSaved = false;
    int m_beeps = 0;
    QTimer m_flashTimer;

    QToolButton *m_backButton = nullptr, *m_forwardButton = nullptr;
    QToolButton *m_previousButton = nullptr, *m_nextButton = nullptr;
    QLineEdit *m_searchField = nullptr;
    QLabel *m_searchStatus = nullptr; // "Not found"
    QToolButton *m_searchTopicsButton = nullptr; // the topics holding the searched words
    QAction *m_searchStatusAction = nullptr, *m_searchTopicsAction = nullptr; // their places in the tool bar
    QComboBox *m_zoomMenu = nullptr;
};
