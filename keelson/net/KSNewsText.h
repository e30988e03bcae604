// The news page as text: the page's HTML read into plain text with its links, the news items
// found by their date lines ("M/D/YYYY" at the start of a line), and the cuts that leave only
// the items the user has not seen. Pure functions; any thread.
#pragma once

#include <QList>
#include <QString>

// Text with the ranges that were links on the page: the library's styled text for news.
struct KSStyledText {
    struct Link {
        qsizetype start = 0;
        qsizetype length = 0;
        QString href;
    };
    QString text;
    QList<Link> links;

    // Removes [from, to) and moves or trims the link ranges with it.
    void remove(qsizetype from, qsizetype to);
};

// Reads a page: HTML (anything that holds a tag) becomes text with a line break for each block
// element and <br>, white space collapsed, entities decoded, head, script and style left out;
// anything else is taken as plain text.
KSStyledText StyledTextFromPage(const QString &page);

// The next news item at or after `startIndex`: the index of the first line start there whose
// line begins with a date "M/D/YYYY" (month 1 to 12, day 1 to 31), or -1. `date` receives the
// item's day index.
qsizetype FindNextNewsItem(const QString &text, qsizetype startIndex, int *date);

// Cuts the news down to what is worth showing; false when the text holds no item. Text before
// the first item goes. With a previous date (non-zero) older than the newest item, everything
// from the first item not newer than it goes; otherwise the closing line of the page (from the
// start of the line that holds the last "news\n") goes, or only trailing white space when there
// is none. Trailing white space never stays. Links lose their link. `latestDate` receives the
// newest item's day index.
bool HandleNewsText(KSStyledText &news, int previousDate, int *latestDate);

// "November 3, 2026" for the day index 20261103 ("%@ %d, %d": month name, day, year).
QString NewsDateText(int dayIndex);
