// The help window's topic outline, built from a document's chapter names: a heading's leading
// tabs give its level. No tab: a top-level topic; one tab: a topic inside the last top-level one;
// two tabs: a plain entry inside the last one-tab topic (dropped when there is none, as is a
// one-tab heading before any top-level one). Every chapter keeps its slot in the chapter map.
// Threads: any; it reads the document only.
#pragma once

#include "help/VLDocument.h"

#include <QString>

#include <vector>

struct VLTopic {
    QString name; // the heading without its leading tabs
    int level = 0; // 0, 1, or 2 for a plain third-level entry (which has no topics)
    std::size_t index = 0; // the chapter index
    std::vector<VLTopic> topics;
};

struct VLTopicOutline {
    std::vector<VLTopic> topics;
    // For each chapter, its level in the outline, or -1 when it was dropped.
    std::vector<int> chapterLevels;
};

VLTopicOutline VLBuildTopicOutline(const VLDocument &document);
