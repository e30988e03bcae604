#include "help/window/KSHelpNavigation.h"

#include <iterator>

namespace {

// Index of the first step not below the factor; the number of steps when the factor is above all.
std::size_t _FirstStepNotBelow(double factor)
{
    std::size_t i = 0;
    while (i < std::size(kHelpZoomSteps) && kHelpZoomSteps[i] < factor)
        ++i;
    return i;
}

} // namespace

double KSHelpZoomIn(double factor)
{
    const std::size_t i = _FirstStepNotBelow(factor);
    if (i == std::size(kHelpZoomSteps))
        return 1.0; // above 400%: back to the normal size
    if (i == std::size(kHelpZoomSteps) - 1)
        return factor;
    return kHelpZoomSteps[i] == factor ? kHelpZoomSteps[i + 1] : kHelpZoomSteps[i];
}

double KSHelpZoomOut(double factor)
{
    const std::size_t i = _FirstStepNotBelow(factor);
    if (i == std::size(kHelpZoomSteps))
        return 1.0;
    if (i == 0)
        return factor;
    return kHelpZoomSteps[i - 1];
}

void KSNavigationStack::record(const KSNavigationEntry &entry)
{
    m_entries.resize(std::size_t(m_position + 1));
    m_entries.push_back(entry);
    ++m_position;
}

const KSNavigationEntry *KSNavigationStack::step(bool backward)
{
    if (backward ? !canGoBack() : !canGoForward())
        return nullptr;
    m_position += backward ? -1 : 1;
    return &m_entries[std::size_t(m_position)];
}
