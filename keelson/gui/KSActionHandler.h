// The Help menu's standard commands: copy or mail the gathered logs, write to the maker, open the
// maker's pages, the About box and window cycling. Main thread.
#pragma once

#include <QString>

class QWidget;

class KSActionHandler {
public:
    static KSActionHandler &sharedInstance();
    KSActionHandler(const KSActionHandler &) = delete;
    KSActionHandler &operator=(const KSActionHandler &) = delete;

    void copyLogs();
    void emailLogs();
    // A problem report when isProblem, else a question or comment.
    void contactTannerwick(bool isProblem);
    // The update and news dialogs.
    void checkUpdates();
    void checkNewsUpdates();
    void visitWebsite();
    void donations();
    void showAbout(QWidget *parent);
    void nextWindow();

    // The mail link of the two mail commands (percent-encoded; "&" in the texts as "%26").
    static QString MailLink(const QString &address, const QString &subject, const QString &body);

private:
    KSActionHandler() = default;
};
