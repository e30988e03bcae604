#include "keelson/KSLog.h"

#include <QDateTime>

#include <cstdio>
#include <cstdlib>
#include <execinfo.h>
#include <mutex>

namespace {

std::mutex &SinkMutex()
{
    static std::mutex mutex;
    return mutex;
}

KSLogSink &Sink()
{
    static KSLogSink sink;
    return sink;
}

} // namespace

void SetLogSink(KSLogSink sink)
{
    std::lock_guard lock(SinkMutex());
    Sink() = std::move(sink);
}

void LogMessage(const QString &message)
{
    KSLogSink sink;
    {
        std::lock_guard lock(SinkMutex());
        sink = Sink();
    }
    if (sink) {
        sink(message);
        return;
    }
    const QByteArray line = message.toUtf8();
    std::fprintf(stderr, "%s\n", line.constData());
}

void LogBacktrace()
{
    void *frames[50];
    const int count = backtrace(frames, 50);
    char **symbols = backtrace_symbols(frames, count);
    if (!symbols)
        return;
    for (int i = 0; i < count; ++i)
        LogString("   %s\n", static_cast<const char *>(symbols[i]));
    std::free(symbols);
}

void *AllocateMemory(std::size_t size)
{
    void *block = std::malloc(size);
    if (!block && size > 0) {
        LogString("Allocation failed for %lu bytes.", static_cast<unsigned long>(size));
        LogBacktrace();
    }
    return block;
}

void *ReallocateMemory(void *block, std::size_t size)
{
    void *moved = std::realloc(block, size);
    if (!moved && size > 0) {
        LogString("Allocation failed for %lu bytes.", static_cast<unsigned long>(size));
        LogBacktrace();
    }
    return moved;
}
