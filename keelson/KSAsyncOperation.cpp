#include "keelson/KSAsyncOperation.h"

#include "keelson/KSLog.h"

#include <cstdlib>
#include <cxxabi.h>
#include <typeinfo>

namespace {

QString _DemangledName(const std::type_info &type)
{
    int status = 0;
    char *name = abi::__cxa_demangle(type.name(), nullptr, nullptr, &status);
    if (status != 0 || !name)
        return QString::fromLatin1(type.name());
    const QString result = QString::fromLatin1(name);
    std::free(name);
    return result;
}

} // namespace

void LogException(const QString &message, const std::exception &exception)
{
    const QString description
        = _DemangledName(typeid(exception)) + QStringLiteral(": ") + QString::fromLocal8Bit(exception.what());
    LogString("%@: %@", message, description);
}

QString KSAsyncOperation::className() const
{
    return _DemangledName(typeid(*this));
}

bool KSAsyncOperation::performOperation()
{
    return false;
}

void KSAsyncOperation::operationFinished(bool)
{
}

void KSAsyncOperation::cancel()
{
    m_cancelled.store(true, std::memory_order_relaxed);
}

void KSAsyncOperation::main()
{
    m_working.store(true, std::memory_order_release);
    bool success = false;
    try {
        success = performOperation();
    } catch (const std::exception &exception) {
        LogException(FormatString("Operation %@ failed", className()), exception);
        success = false;
    }
    m_working.store(false, std::memory_order_release);
    operationFinished(success);
}
