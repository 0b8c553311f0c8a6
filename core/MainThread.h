#pragma once
#include <QCoreApplication>
#include <QMetaObject>
#include <QPointer>
#include <QThread>
#include <utility>

namespace ostv {

// Runs fn later on the main thread's event loop (a queued hand-off, never inline).
template <class F>
void postToMain(F&& fn) {
    QMetaObject::invokeMethod(QCoreApplication::instance(), std::forward<F>(fn), Qt::QueuedConnection);
}

// Runs fn later on the main thread, only if guard still exists then.
template <class F>
void postToMain(QObject* guard, F&& fn) {
    QPointer<QObject> g(guard);
    QMetaObject::invokeMethod(
        QCoreApplication::instance(),
        [g, f = std::forward<F>(fn)]() mutable {
            if (g) f();
        },
        Qt::QueuedConnection);
}

inline bool isMainThread() {
    return QCoreApplication::instance() && QThread::currentThread() == QCoreApplication::instance()->thread();
}

}  // namespace ostv
