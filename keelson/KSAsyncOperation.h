// The base of a unit of background work. A subclass does its whole job synchronously in
// performOperation on the worker thread of a KSOperationQueue, and reports to the main thread
// only by posted calls (QMetaObject::invokeMethod with Qt::QueuedConnection), never waiting.
//
// Threads: main() (called by the queue), performOperation and operationFinished run on the
// queue's worker thread; cancel() is called on the main thread by cancelAllOperations while the
// operation may be running; isExecuting, isFinished and isCancelled may be read from any thread.
#pragma once

#include <QString>

#include <atomic>
#include <exception>

class KSAsyncOperation {
public:
    KSAsyncOperation() = default;
    virtual ~KSAsyncOperation() = default;
    KSAsyncOperation(const KSAsyncOperation &) = delete;
    KSAsyncOperation &operator=(const KSAsyncOperation &) = delete;

    // Runs performOperation. A std::exception that escapes it is logged as "Operation <class name>
    // failed" and turns the result into false; any other exception is not caught. Then
    // operationFinished is called with the result.
    void main();
    // The work. The base class does nothing and answers false.
    virtual bool performOperation();
    // Called once after performOperation has returned or thrown. The base class does nothing.
    virtual void operationFinished(bool success);
    // Called on the worker thread instead of main() for an operation cancelled before it started,
    // so that one that promised a completion report can still send it. The base does nothing.
    virtual void cancelledBeforeStart() { }

    // Marks the operation cancelled; a queued operation that is cancelled before it starts never
    // runs. Subclasses that poll a cancel flag of their own set it first, then call this.
    virtual void cancel();
    bool isCancelled() const { return m_cancelled.load(std::memory_order_relaxed); }

    bool isConcurrent() const { return false; }
    // True from the start of performOperation until it has returned or thrown.
    bool isExecuting() const { return m_working.load(std::memory_order_acquire); }
    // The negation of isExecuting: also true for an operation that has not started yet.
    bool isFinished() const { return !isExecuting(); }

    // The class's own name ("BUAnalyzeOperation"), for the failure message.
    QString className() const;
    // The name the queue gives its worker thread while this operation runs. Defaults to the class
    // name; the kernel keeps the first 15 bytes.
    virtual QString threadName() const { return className(); }

private:
    std::atomic<bool> m_working {false};
    std::atomic<bool> m_cancelled {false};
};

// Logs "<message>: <exception>" through LogString. C++ exceptions carry no call stack of their
// own, so the stack form of the log line is not used for them.
void LogException(const QString &message, const std::exception &exception);
