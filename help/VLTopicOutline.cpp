#include "help/VLTopicOutline.h"

VLTopicOutline VLBuildTopicOutline(const VLDocument &document)
{
    VLTopicOutline outline;
    const std::size_t chapters = document.chapterCount();
    outline.chapterLevels.assign(chapters, -1);
    VLTopic *parent0 = nullptr; // valid until topics is appended to again
    std::size_t parent1 = SIZE_MAX;
    for (std::size_t i = 0; i < chapters; ++i) {
        const QString name = document.chapterName(i);
        if (name.startsWith(QStringLiteral("\t\t"))) {
            if (parent0 && parent1 != SIZE_MAX) {
                parent0->topics[parent1].topics.push_back({name.mid(2), 2, i, {}});
                outline.chapterLevels[i] = 2;
            }
        } else if (name.startsWith(u'\t')) {
            if (parent0) {
                parent0->topics.push_back({name.mid(1), 1, i, {}});
                parent1 = parent0->topics.size() - 1;
                outline.chapterLevels[i] = 1;
            }
        } else {
            outline.topics.push_back({name, 0, i, {}});
            parent0 = &outline.topics.back();
            parent1 = SIZE_MAX;
            outline.chapterLevels[i] = 0;
        }
    }
    return outline;
}
