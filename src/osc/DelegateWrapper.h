#pragma once
// A listener delegate that forwards each datagram to a method of the
// caller's choosing, so that an object can receive datagrams without being a
// BBOSCListenerDelegate itself:
//
//   listener->setDelegate(DelegateWrapper::wrapperWithTargetAndSelector(
//       this, &TessarineController::dispatchRawPacket));
//
// The raw-pointer form does not keep the target alive: the target must
// outlive the listener (the listener drops the delegate, and every datagram
// still queued for it, when it is destroyed). The shared_ptr form holds it.

#include "osc/BBOSCListenerDelegate.h"

#include <functional>
#include <memory>

class DelegateWrapper : public BBOSCListenerDelegate {
public:
    using Target = std::function<void(std::span<const uint8_t>)>;

    explicit DelegateWrapper(Target target) : target_(std::move(target)) {}

    template <class T>
    static std::shared_ptr<DelegateWrapper>
    wrapperWithTargetAndSelector(T* target, void (T::*selector)(std::span<const uint8_t>)) {
        return std::make_shared<DelegateWrapper>(
            [target, selector](std::span<const uint8_t> datagram) {
                (target->*selector)(datagram);
            });
    }
    template <class T>
    static std::shared_ptr<DelegateWrapper>
    wrapperWithTargetAndSelector(std::shared_ptr<T> target,
                                 void (T::*selector)(std::span<const uint8_t>)) {
        return std::make_shared<DelegateWrapper>(
            [target = std::move(target), selector](std::span<const uint8_t> datagram) {
                ((*target).*selector)(datagram);
            });
    }

    void dispatchRawPacket(std::span<const uint8_t> datagram) override;

private:
    Target target_;
};
