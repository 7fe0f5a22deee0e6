#pragma once

#include <functional>
#include <utility>
#include <vector>

#include <zorn/objects/property_object.h>

#include "modules/daq/hostobjects/LifeToken.h"

namespace Harvane::RT::Modules::Daq {

// What the module hangs on host objects: functions that may be called and handlers of events. They outlive the module
// in the host's tree; once end() has been called the functions answer InvalidState and the handlers are gone. Module
// thread.
class HostHooks {
public:
    using PropertyHandler =
        std::function<void(Core::GenericPropertyObjectPtr& sender, Core::PropertyValueChangedEventArgsPtr& args)>;

    HostHooks() = default;
    ~HostHooks() { end(); }
    HostHooks(const HostHooks&) = delete;
    HostHooks& operator=(const HostHooks&) = delete;

    // The body of a host function or procedure, run only as long as the module lives.
    template <class Body>
    auto whileAlive(Body body) const {
        return life_.guard(std::move(body));
    }

    void subscribe(const Core::ObjectPtr<Core::IEvent>& event, PropertyHandler handler) {
        auto object =
            Core::makeHandler([life = life_.watch(), handler = std::move(handler)](
                                  const Core::BasePtr& sender, const Core::ObjectPtr<Core::IEventArgs>& arguments) {
                if (life.expired()) {
                    return;
                }
                Core::GenericPropertyObjectPtr owner = sender.asPtr<Core::IPropertyObject>();
                Core::PropertyValueChangedEventArgsPtr args = arguments.asPtr<Core::IPropertyValueChangedEventArgs>();
                handler(owner, args);
            });
        Core::checkErrorInfo(event->addHandler(object.get()));
        subscriptions_.emplace_back(event, std::move(object));
    }

    void end() noexcept {
        life_.end();
        for (const auto& [event, handler] : subscriptions_) {
            if (Core::failed(event->removeHandler(handler.get()))) {
                Core::zornClearErrorInfo();
            }
        }
        subscriptions_.clear();
    }

private:
    LifeToken life_;
    std::vector<std::pair<Core::ObjectPtr<Core::IEvent>, Core::ObjectPtr<Core::IEventHandler>>> subscriptions_;
};

}  // namespace Harvane::RT::Modules::Daq
