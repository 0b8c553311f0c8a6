#pragma once
#include <QObject>
#include <QPointer>

namespace ostv {

// A delegate reference that does not keep its target alive. Delegates are abstract interfaces
// implemented by QObjects; once the object is destroyed, get() answers nullptr and the caller
// does nothing.
template <class Interface>
class WeakDelegate {
public:
    WeakDelegate() = default;
    explicit WeakDelegate(Interface* d) { set(d); }

    void set(Interface* d) {
        iface_ = d;
        object_ = d ? dynamic_cast<QObject*>(d) : nullptr;
    }
    Interface* get() const { return object_ ? iface_ : nullptr; }
    explicit operator bool() const { return get() != nullptr; }
    Interface* operator->() const { return get(); }

private:
    QPointer<QObject> object_;
    Interface* iface_ = nullptr;
};

}  // namespace ostv
