// The diagnostic log. LogString formats like FormatString and hands the line to the log sink;
// callable from any thread. Until the log file's writer installs itself as the sink, lines go
// to standard error, which the desktop session's journal collects.
#pragma once

#include "keelson/FormatString.h"

#include <cstddef>
#include <functional>

using KSLogSink = std::function<void(const QString &message)>;

// Replaces the sink (an empty function restores standard error). Call before worker threads run.
void SetLogSink(KSLogSink sink);
void LogMessage(const QString &message);

template <typename... Args> void LogString(std::string_view format, const Args &...args)
{
    LogMessage(FormatString(format, args...));
}

// Logs up to 50 return addresses of the calling thread, one "   %s\n" line each.
void LogBacktrace();

// malloc that logs "Allocation failed for %lu bytes." and a backtrace when it fails.
void *AllocateMemory(std::size_t size);
// realloc that logs the same way; on failure the block is left as it was.
void *ReallocateMemory(void *block, std::size_t size);
