#include <algorithm>
#include <memory>
#include <vector>

#include <zorn/types/callable.h>

namespace Harvane::RT::Core {
namespace {

class EventImpl final : public ObjectImpl<IEvent> {
public:
    ErrCode addHandler(IEventHandler* handler) override {
        if (handler == nullptr) {
            return plainError(Errors::ArgumentNull);
        }
        return wrapHandler([&] {
            auto changed = std::make_shared<Handlers>(*handlers_);
            changed->emplace_back(handler);
            handlers_ = std::move(changed);
        });
    }

    ErrCode removeHandler(IEventHandler* handler) override {
        if (handler == nullptr) {
            return plainError(Errors::ArgumentNull);
        }
        return wrapHandler([&] {
            auto changed = std::make_shared<Handlers>(*handlers_);
            const auto found = std::find(changed->begin(), changed->end(), ObjectPtr<IEventHandler>(handler));
            if (found == changed->end()) {
                throw NotFoundException("The handler is not attached to this event");
            }
            changed->erase(found);
            handlers_ = std::move(changed);
        });
    }

    ErrCode getHandlerCount(size_t* count) override { return handOut(handlers_->size(), count); }

    ErrCode trigger(IBaseObject* sender, IEventArgs* arguments) override {
        // A list is never changed once it stands, so that holding it is a copy without copying.
        const std::shared_ptr<const Handlers> handlers = handlers_;
        for (const auto& handler : *handlers) {
            if (const ErrCode code = handler->handle(sender, arguments); failed(code)) {
                return code;
            }
        }
        return Errors::Success;
    }

    ErrCode dispose() override {
        return wrapHandler([&] { handlers_ = std::make_shared<Handlers>(); });
    }

    ErrCode toString(char** text) override {
        return text == nullptr ? plainError(Errors::ArgumentNull) : zornDuplicateCharPtr(text, "Event");
    }

private:
    using Handlers = std::vector<ObjectPtr<IEventHandler>>;
    std::shared_ptr<const Handlers> handlers_ = std::make_shared<Handlers>();
};

}  // namespace

ErrCode createEvent(IEvent** event) {
    return createObject<EventImpl>(event);
}

}  // namespace Harvane::RT::Core
