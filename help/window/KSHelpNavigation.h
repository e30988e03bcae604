// The help window's zoom steps and its navigation stack (the places read, for Back and Forward).
// Plain code, main thread.
#pragma once

#include <QtGlobal>

#include <vector>

inline constexpr double kHelpZoomSteps[] = {0.5, 0.75, 1.0, 1.25, 1.5, 1.75, 2.0, 2.5, 3.0, 4.0};

// The next step up from a factor: the step itself when the factor lies between steps, the one
// after it when the factor is a step; unchanged at 4.0; 1.0 for a factor above every step.
double KSHelpZoomIn(double factor);
// The step below the first step not under the factor; unchanged at the first step; 1.0 for a
// factor above every step.
double KSHelpZoomOut(double factor);

// One place read: the document and its selection.
struct KSNavigationEntry {
    const void *document;
    quint32 selectionStart;
    quint32 selectionEnd;
};

class KSNavigationStack {
public:
    KSNavigationStack() { m_entries.reserve(100); }

    // Drops every entry after the current one and appends the place as the new current one.
    void record(const KSNavigationEntry &entry);
    // Moves back or forward one entry; null (nothing moved) at either end.
    const KSNavigationEntry *step(bool backward);
    bool canGoBack() const { return m_position > 0; }
    bool canGoForward() const { return m_position + 1 < qsizetype(m_entries.size()); }
    qsizetype currentPosition() const { return m_position; }
    qsizetype count() const { return qsizetype(m_entries.size()); }
    const KSNavigationEntry &at(qsizetype index) const { return m_entries[std::size_t(index)]; }

private:
    std::vector<KSNavigationEntry> m_entries;
    qsizetype m_position = -1; // -1 while empty
};
